// Detection: the engine's detection run and the diagnostic feature map.
#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "acf/picture_features.h"
#include "common/box_geometry.h"
#include "common/failure.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "detect/candidate_filter.h"
#include "detect/color_labels.h"
#include "detect/window_scan.h"
#include "engine/engine_lines.h"
#include "engine/input_limits.h"
#include "engine/ostrel_alg.h"
#include "engine/picture_cache.h"
#include "fpfilter/pca_fp_filter.h"

namespace {

using ostrel::kMarkedBoxOverlap;
using ostrel::kMaxReportedDetections;
using ostrel::kRunDetectorLine;
using ostrel::kRunDetectorName;

constexpr const char *kGetFeatureMapName = "ostrel_alg::getFeatureMap";
constexpr int kGetFeatureMapLine = 1190;

// Refusals of pictures detection cannot work on, and a filter that cannot
// measure the windows; each after a [Debug] line that says what was wrong.
constexpr int kDetectionPictureTooLargeLine = 4111;
constexpr int kBoxBelowOnePixelLine = 4112;
constexpr int kFilterDoesNotFitLine = 4113;
constexpr int kFeatureMapPictureTooLargeLine = 4121;

// The filter stage fails only when the false-positive filter cannot
// measure a window: its matrices do not fit the window or one another.
void log_filter_failure(const ostrel::pca_fp_filter &filter, int64_t window_features) {
    ostrel::fail(OSTREL_ALG_ERR_MODEL_INVALID,
                 "[Debug] %s: the false-positive filter cannot measure a window of %lld features (mean %d x %d, "
                 "eigenvectors %d x %d, reduce_mean %d x %d, reduce_inv_covar %d x %d)\n",
                 kRunDetectorName, static_cast<long long>(window_features), filter.mean.rows, filter.mean.cols,
                 filter.eigenvectors.rows, filter.eigenvectors.cols, filter.reduce_mean.rows, filter.reduce_mean.cols,
                 filter.reduce_inv_covar.rows, filter.reduce_inv_covar.cols);
    ostrel::fail_at(OSTREL_ALG_ERR_MODEL_INVALID, kRunDetectorName, kFilterDoesNotFitLine);
}

}  // namespace

bool ostrel_alg::checkImgValid(const ostrel_alg_image *image) {
    if (image->width < 1 || image->height < 1 || image->channels != 3 || image->data == nullptr) {
        ostrel::fail(OSTREL_ALG_ERR_BAD_PICTURE, ostrel::kInvalidImageFormat, ostrel::kCheckImgValidName, image->width,
                     image->height, static_cast<const void *>(image->data));
        return false;
    }
    return true;
}

int32_t ostrel_alg::runDetector(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    result_classes.clear();
    const size_t first = out.size();
    const int32_t status = runDetectorOnce(image, out);
    if (status != 0) {
        result_classes.clear();
    } else if (class_slots.empty()) {
        result_classes.assign(out.size() - first, 0);  // one class
    }
    return status;
}

int32_t ostrel_alg::runDetectorOnce(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    // Several classes: every one must hold a model.
    if (!class_slots.empty() && image != nullptr && !everyClassTrained(kRunDetectorName)) {
        return 1;
    }
    // What every detection needs, whatever the profile: a model, a valid
    // picture within the pixel limit.
    if (!svm_model.trained() || image == nullptr) {
        if (!svm_model.trained()) {
            ostrel::note_failure(OSTREL_ALG_ERR_NOT_TRAINED);
        } else {
            ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "the picture record is null");
        }
        ostrel::fail_at(OSTREL_ALG_ERR_FAILED, kRunDetectorName, kRunDetectorLine);
        return 1;
    }
    if (!checkImgValid(image)) {
        ostrel::fail_at(OSTREL_ALG_ERR_BAD_PICTURE, kRunDetectorName, kRunDetectorLine);
        return 1;
    }
    if (!ostrel::accept_picture_pixels(*image, kRunDetectorName, kDetectionPictureTooLargeLine)) {
        return 1;
    }
    if (options.is_accurate()) {
        return runDetectorAccurate(image, out);
    }
    if (model_profile == ostrel::kProfileAccurate) {
        ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                     "[Alg.Fail] %s: the model was made under the accurate profile; set the profile back, or train "
                     "or import it again under the classic profile\n",
                     kRunDetectorName);
        return 1;
    }
    if (!ostrel::accept_trained_box_on_picture(*image, svm_model.trained_width, svm_model.trained_height,
                                               svm_model.input_width, svm_model.input_height, kRunDetectorName,
                                               kBoxBelowOnePixelLine)) {
        return 1;
    }

    // Features of the picture, computed once per picture key on this thread.
    ostrel::last_picture &picture = ostrel::shared_last_picture();
    if (!picture.holds(image->image_key)) {
        picture.valid = true;
        picture.image_key = image->image_key;
        const cv::Mat bgr = ostrel::load_bgr_picture(*image, image->format == OSTREL_ALG_FORMAT_PLANAR);
        if (!ostrel::compute_picture_features(*feat_extractor, bgr, &picture.features)) {
            picture.forget();
            ostrel::note_failure(OSTREL_ALG_ERR_PICTURE_TOO_SMALL, "the picture's features cannot be computed");
            return 1;
        }
    }
    const ostrel::feature_map &map = picture.features.map;

    // The window follows the picture size. It is always derived from the
    // sizes the model was trained for, not from the last picture's: rescaling
    // a rescaled size truncates twice, and after pictures of two other sizes
    // the window would no longer match the weights. The engine keeps the
    // result of the last run; the model record is left as trained, so an
    // export after detection still describes the training picture.
    ostrel::window_size_state window;
    window.train_width = svm_model.trained_width;
    window.train_height = svm_model.trained_height;
    window.input_width = svm_model.input_width;
    window.input_height = svm_model.input_height;
    const ostrel::scan_geometry geometry = ostrel::update_window_size(window, map, image->width, image->height);
    train_width = static_cast<uint32_t>(window.train_width);
    train_height = static_cast<uint32_t>(window.train_height);
    scaled_width = window.scaled_width;
    scaled_height = window.scaled_height;

    // A model of another window size (an imported file, say) would make the
    // scan read past its weights: refuse it instead.
    const int64_t window_features = static_cast<int64_t>(geometry.window_columns) * geometry.window_rows * map.channels;
    if (geometry.window_columns > 0 && geometry.window_rows > 0 && window_features != svm_model.support_vector_size) {
        ostrel::fail(OSTREL_ALG_ERR_MODEL_INVALID,
                     "[Debug] %s: a window of %lld features does not fit the model's %d weights\n", kRunDetectorName,
                     static_cast<long long>(window_features), svm_model.support_vector_size);
        ostrel::fail_at(OSTREL_ALG_ERR_MODEL_INVALID, kRunDetectorName, kRunDetectorLine);
        return 1;
    }

    ostrel::scan_settings scan;
    scan.weights = svm_model.vector.get();
    scan.bias = svm_model.bias;
    scan.confidence_threshold = confidence_threshold;
    scan.collect_below = detector_set != 0;
    scan.image_width = image->width;
    scan.image_height = image->height;
    scan.box_width = static_cast<int32_t>(train_width);
    scan.box_height = static_cast<int32_t>(train_height);
    ostrel::scan_result windows;
    ostrel::scan_windows(map, geometry, scan, &windows);

    ostrel::filter_settings filter;
    filter.confidence_threshold = confidence_threshold;
    filter.detector_set = detector_set != 0;
    filter.apply_fp_filter = pca_filter.pca_filter_ready != 0 && pca_filter.fp_filter_enabled != 0;
    filter.fp_threshold = pca_filter.fp_threshold;
    const ostrel::fp_distance_fn distance = [&](const ostrel_alg_box &box) {
        return window_fp_distance(map, geometry, box);
    };
    std::vector<ostrel_alg_box> candidates;
    const int32_t filter_status =
        ostrel::filterCandidates(windows.accepted, windows.below, filter, distance, candidates);
    if (filter_status != 0) {
        log_filter_failure(pca_filter, window_features);
        return filter_status;
    }

    ostrel::lab_planes_view lab;
    lab.width = picture.features.lab_planes[0].cols;
    lab.height = picture.features.lab_planes[0].rows;
    lab.L = picture.features.lab_planes[0].data;
    lab.a = picture.features.lab_planes[1].data;
    lab.b = picture.features.lab_planes[2].data;
    const int32_t color_status = ostrel::labelColors(lab, image->width, image->height, candidates);
    if (color_status != 0) {
        return color_status;
    }

    // Boxes the user marked on this very picture that no detection covers
    // are reported too, so the host never loses them. They are compared with
    // the detections only, not with marked boxes added before them.
    if (cached_image_key == image->image_key && !marked_boxes.empty()) {
        const size_t detected = candidates.size();
        for (const ostrel_alg_box &marked : marked_boxes) {
            if (marked.label != 1) {
                continue;
            }
            bool covered = false;
            for (size_t i = 0; i < detected && !covered; ++i) {
                covered = candidates[i].label == 1 && ostrel::box_overlap(marked, candidates[i]) >= kMarkedBoxOverlap;
            }
            if (!covered) {
                ostrel_alg_box added = marked;
                added.label = 1;
                candidates.push_back(added);
            }
        }
    }

    std::vector<ostrel_alg_box> reported;
    uint32_t positives = 0;
    for (const ostrel_alg_box &box : candidates) {
        if (box.label == -1) {
            reported.push_back(box);
        } else if (box.label == 1 && positives < kMaxReportedDetections) {
            reported.push_back(box);
            ++positives;
        }
    }
    out.insert(out.end(), reported.begin(), reported.end());

    if (result_boxes) {
        result_box_count = static_cast<uint32_t>(std::min<size_t>(out.size(), kResultBoxCapacity));
        std::copy(out.begin(), out.begin() + result_box_count, result_boxes.get());
    }
    return 0;
}

std::optional<float> ostrel_alg::window_fp_distance(const ostrel::feature_map &map,
                                                    const ostrel::scan_geometry &geometry,
                                                    const ostrel_alg_box &box) const {
    const int32_t window_columns = geometry.window_columns;
    const int32_t window_rows = geometry.window_rows;
    int32_t column = static_cast<int32_t>(static_cast<float>(box.x) * geometry.sx + 0.5f);
    int32_t row = static_cast<int32_t>(static_cast<float>(box.y) * geometry.sy + 0.5f);
    // Boxes come from scan positions, so the window lies inside the map; the
    // clamp only keeps a rounding at the last position from reading past it.
    column = std::max(0, std::min(column, map.columns - window_columns));
    row = std::max(0, std::min(row, map.rows - window_rows));
    cv::Mat window(1, window_columns * window_rows * map.channels, CV_32S);
    ostrel::copy_window_features(map, column, row, window_columns, window_rows, window.ptr<int32_t>());
    return ostrel::fp_distance(pca_filter, window);
}

int32_t ostrel_alg::getFeatureMap(const ostrel_alg_image *image, const uint8_t **data, uint32_t *channels,
                                  uint32_t *columns, uint32_t *rows) {
    // The map handed out by the previous call is no longer valid.
    exported_feature_map = ostrel::feature_map{};
    if (image == nullptr || !checkImgValid(image) || !feat_extractor) {
        return ostrel::fail_at(image == nullptr ? OSTREL_ALG_ERR_BAD_ARGUMENT : OSTREL_ALG_ERR_BAD_PICTURE,
                               kGetFeatureMapName, kGetFeatureMapLine);
    }
    if (!ostrel::accept_picture_pixels(*image, kGetFeatureMapName, kFeatureMapPictureTooLargeLine)) {
        return 1;
    }
    // Computed afresh: the detection cache is neither read nor changed.
    ostrel::picture_features features;
    if (!ostrel::compute_picture_features(*feat_extractor, *image, &features) || features.map.empty()) {
        return ostrel::fail_at(OSTREL_ALG_ERR_PICTURE_TOO_SMALL, kGetFeatureMapName, kGetFeatureMapLine);
    }
    exported_feature_map = std::move(features.map);
    *data = exported_feature_map.data.data();
    *channels = static_cast<uint32_t>(exported_feature_map.channels);
    *columns = static_cast<uint32_t>(exported_feature_map.columns);
    *rows = static_cast<uint32_t>(exported_feature_map.rows);
    return 0;
}
