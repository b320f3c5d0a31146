// The accurate profile's set-up, detection runs and model checks.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "accurate/accurate_detect.h"
#include "accurate/accurate_picture_cache.h"
#include "accurate/accurate_pyramid.h"
#include "accurate/scale_set.h"
#include "accurate/working_picture.h"
#include "acf/picture_features.h"
#include "common/box_geometry.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "engine/ostrel_alg.h"

namespace {

constexpr const char *kSetDetectorName = "ostrel_alg::setDetectorWithAutoTrain";
constexpr const char *kRunDetectorName = "ostrel_alg::runDetector";
constexpr const char *kImportModelName = "ostrel_alg::importModel";
constexpr int kRefusedInputLine = 861;
constexpr int kRunDetectorLine = 1135;
constexpr const char *kRemoveSampleName = "ostrel_alg::removeSample";
constexpr int kRemoveSampleLine = 3953;

// Accurate models keep their weights and bias in fixed point with this
// factor, 100 times finer than the classic 100000: the profile's weights
// per feature byte are small, and truncating them at 1e-5 would lose most
// of their digits.
constexpr double kWeightScale = 10000000.0;

constexpr uint32_t kMaxReportedDetections = 32;
// A marked box counts as found when a detection overlaps it this much.
constexpr float kMarkedBoxOverlap = 0.3f;
// The seed of the solver's coordinate order when the host set none.
constexpr uint32_t kDefaultSeed = 1;

int32_t fail(const char *operation, int line) {
    ostrel::log(ostrel::kEngineFailFormat, operation, ostrel::kEngineSource, line);
    return 1;
}

int32_t to_fixed(double value) {
    const double scaled = std::trunc(value * kWeightScale);
    return static_cast<int32_t>(std::max(-2147483647.0, std::min(2147483647.0, scaled)));
}

// The settings that shape the window: a model is used only with these as it
// was trained or imported.
bool same_window_settings(const ostrel::accurate_settings &a, const ostrel::accurate_settings &b) {
    return a.object_cells == b.object_cells && a.max_upscale_percent == b.max_upscale_percent &&
           a.max_working_pixels == b.max_working_pixels && a.min_budget_cells == b.min_budget_cells &&
           a.hard_working_pixels == b.hard_working_pixels && a.min_object_side_cells == b.min_object_side_cells;
}

// Cells of padding on each side of a map: a window whose object reaches
// edge_reach_percent of its size past the picture's edge still fits.
int32_t edge_pad(int32_t window_cells, const ostrel::accurate_settings &settings) {
    return static_cast<int32_t>(std::floor(window_cells * std::max(settings.edge_reach_percent, 0) / 100.0 + 0.5));
}

ostrel::pyramid_request pyramid_request(const ostrel::accurate_geometry &geometry,
                                        const ostrel::accurate_settings &settings, int32_t base_columns,
                                        int32_t base_rows, bool with_mirror) {
    ostrel::pyramid_request request;
    request.base_columns = base_columns;
    request.base_rows = base_rows;
    request.size_factors = ostrel::search_scales(settings);
    request.marked_index = ostrel::marked_scale_index(settings);
    request.with_mirror = with_mirror;
    request.pad_columns = edge_pad(geometry.window_columns, settings);
    request.pad_rows = edge_pad(geometry.window_rows, settings);
    request.recipe.norm_radius = settings.norm_radius;
    request.recipe.norm_floor = settings.norm_floor;
    return request;
}

}  // namespace

ostrel::accurate_settings ostrel_alg::accurateSettings() const { return options.accurate; }

// The picture and boxes are checked by setDetectorWithAutoTrain.
int32_t ostrel_alg::setDetectorAccurate(const ostrel_alg_image *image, const std::vector<ostrel_alg_box> &boxes) {
    const ostrel::accurate_settings settings = accurateSettings();
    if (!accurate_pictures.empty() && !same_window_settings(settings, model_settings)) {
        ostrel::log("[Alg.Fail] %s: an option that shapes the window changed since the first picture; set it back "
                    "or start again with ostrel_alg_init\n",
                    kSetDetectorName);
        return 1;
    }
    detector_set = 1;

    // A new picture brings new marked boxes; the same key again means
    // "retrain on what you have", as in the classic profile.
    if (image->image_key != cached_image_key) {
        const auto first =
            std::find_if(boxes.begin(), boxes.end(), [](const ostrel_alg_box &b) { return b.label == 1; });
        if (first == boxes.end()) {
            ostrel::log("[Alg.Fail] %s: no box is labelled 1 (the object): nothing to learn\n", kSetDetectorName);
            return 1;
        }
        // The first picture fixes the window. A later picture is worked on at
        // the size that gives its first object the window's size.
        ostrel::accurate_geometry geometry = accurate_geometry;
        if (accurate_pictures.empty()) {
            const ostrel::geometry_status status = ostrel::derive_accurate_geometry(
                first->width, first->height, image->width, image->height, settings, &geometry);
            if (status != ostrel::geometry_status::ok) {
                ostrel::log("[Alg.Fail] %s: a box of %d x %d on a picture of %d x %d cannot be learnt: %s\n",
                            kSetDetectorName, first->width, first->height, image->width, image->height,
                            ostrel::geometry_status_text(status));
                return 1;
            }
        } else if (first->width < 1 || first->height < 1) {
            ostrel::log("[Alg.Fail] %s: the first object box is %d x %d\n", kSetDetectorName, first->width,
                        first->height);
            return 1;
        }
        const double relative_x = accurate_pictures.empty() ? 1.0 : static_cast<double>(train_width) / first->width;
        const double relative_y = accurate_pictures.empty() ? 1.0 : static_cast<double>(train_height) / first->height;
        const int64_t base_columns = std::llround(image->width * geometry.scale_x * relative_x / 2.0) * 2;
        const int64_t base_rows = std::llround(image->height * geometry.scale_y * relative_y / 2.0) * 2;
        if (base_columns / ostrel::kAccurateShrink < geometry.window_columns ||
            base_rows / ostrel::kAccurateShrink < geometry.window_rows ||
            base_columns * base_rows > static_cast<int64_t>(settings.hard_working_pixels)) {
            ostrel::log("[Alg.Fail] %s: at the size that gives its objects the window's size, the picture of %d x %d "
                        "would be %lld x %lld pixels: smaller than a window or too large to search\n",
                        kSetDetectorName, image->width, image->height, static_cast<long long>(base_columns),
                        static_cast<long long>(base_rows));
            return 1;
        }

        if (cached_image.rows != image->height || cached_image.cols != image->width || cached_image.type() != CV_8UC3) {
            cached_image.create(image->height, image->width, CV_8UC3);
        }
        std::memcpy(cached_image.data, image->data,
                    static_cast<size_t>(image->width) * static_cast<size_t>(image->height) * 3);

        ostrel::accurate_training_picture picture;
        picture.pyramid = ostrel::build_accurate_pyramid(
            ostrel::split_bgr(cached_image),
            pyramid_request(geometry, settings, static_cast<int32_t>(base_columns), static_cast<int32_t>(base_rows),
                            true),
            feat_extractor->resample_scratch);
        if (picture.pyramid.empty()) {
            ostrel::log("[Alg.Fail] %s: the picture of %d x %d gives no working picture\n", kSetDetectorName,
                        image->width, image->height);
            return 1;
        }
        picture.boxes = boxes;
        picture.marked_width = first->width;
        picture.marked_height = first->height;

        if (accurate_pictures.empty()) {
            accurate_geometry = geometry;
            model_settings = settings;
            train_width = static_cast<uint32_t>(first->width);
            train_height = static_cast<uint32_t>(first->height);
            train_input_width = static_cast<uint32_t>(image->width);
            train_input_height = static_cast<uint32_t>(image->height);
        }
        accurate_pictures.push_back(std::move(picture));

        marked_boxes.clear();
        std::copy_if(boxes.begin(), boxes.end(), std::back_inserter(marked_boxes),
                     [](const ostrel_alg_box &box) { return box.label == 1; });
        addSampleThumbs(cached_image, marked_boxes);
        cached_image_key = image->image_key;
    }
    if (trainAccurate() != 0) {
        return fail(kSetDetectorName, kRefusedInputLine);
    }
    ostrel::log("[Alg. Scc] Training done...\n");
    return 0;
}

int32_t ostrel_alg::trainAccurate() {
    const ostrel::accurate_settings settings = accurateSettings();
    const uint32_t seed = random_seed_set_ ? random_seed_ : kDefaultSeed;
    const ostrel::accurate_training_result trained =
        ostrel::train_accurate(accurate_pictures, accurate_geometry, settings, seed);
    if (!trained.trained) {
        ostrel::log("[Alg.Fail] %s: the accurate training found nothing to learn from\n", kSetDetectorName);
        return 1;
    }
    ostrel::svm_model model;
    model.class_idx = 0;
    model.trained_width = static_cast<int32_t>(train_width);
    model.trained_height = static_cast<int32_t>(train_height);
    model.input_width = static_cast<int32_t>(train_input_width);
    model.input_height = static_cast<int32_t>(train_input_height);
    model.trained_acf_scale_idx = 0;
    model.support_vector_size = static_cast<int32_t>(trained.weights.size());
    model.vector = std::make_unique<int32_t[]>(trained.weights.size());
    for (size_t i = 0; i < trained.weights.size(); ++i) model.vector[i] = to_fixed(trained.weights[i]);
    // The margin is dot - bias, as in the classic record. The calibration
    // margin moves to 0, where the confidence is 50%.
    const double calibration = settings.calibration_margin_permille / 1000.0;
    model.bias = to_fixed(calibration - trained.bias);
    svm_model = std::move(model);
    accurate_positive_count = trained.positives;
    accurate_negative_count = trained.negatives;
    model_profile = ostrel::kProfileAccurate;
    // The accurate profile has no second-stage filter.
    pca_filter = ostrel::pca_fp_filter{};
    pca_filter.fp_filter_enabled = 0;
    return 0;
}

bool ostrel_alg::acceptAccurateModel(const ostrel::svm_model &model, const ostrel::pca_fp_filter &filter,
                                     ostrel::accurate_geometry *geometry) const {
    const ostrel::accurate_settings settings = accurateSettings();
    const ostrel::geometry_status status =
        ostrel::derive_accurate_geometry(model.trained_width, model.trained_height, model.input_width,
                                         model.input_height, settings, geometry);
    if (status != ostrel::geometry_status::ok) {
        ostrel::log("[Alg.Fail] %s: an object of %d x %d on %d x %d pictures does not fit the accurate profile: %s\n",
                    kImportModelName, model.trained_width, model.trained_height, model.input_width,
                    model.input_height, ostrel::geometry_status_text(status));
        return false;
    }
    if (geometry->window_features() != model.support_vector_size) {
        ostrel::log("[Alg.Fail] %s: the model has %d weights where the accurate profile's window has %d: it was made "
                    "under the classic profile or with another accurate cells option\n",
                    kImportModelName, model.support_vector_size, geometry->window_features());
        return false;
    }
    if (filter.pca_filter_ready != 0) {
        ostrel::log("[Alg.Fail] %s: the model carries a false-positive filter, which only classic models have\n",
                    kImportModelName);
        return false;
    }
    return true;
}

// The model and the picture are checked by runDetector.
int32_t ostrel_alg::runDetectorAccurate(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    const ostrel::accurate_settings settings = accurateSettings();
    if (model_profile != ostrel::kProfileAccurate) {
        ostrel::log("[Alg.Fail] %s: the model was made under the classic profile; set the profile back, or train or "
                    "import it again under the accurate profile\n",
                    kRunDetectorName);
        return 1;
    }
    ostrel::accurate_geometry geometry;
    if (!same_window_settings(settings, model_settings) ||
        ostrel::derive_accurate_geometry(svm_model.trained_width, svm_model.trained_height, svm_model.input_width,
                                         svm_model.input_height, settings, &geometry) != ostrel::geometry_status::ok ||
        geometry.window_features() != svm_model.support_vector_size) {
        ostrel::log("[Alg.Fail] %s: the accurate cells option changed since the model was made, so its window no "
                    "longer fits the model; set it back, or train or import the model again\n",
                    kRunDetectorName);
        return 1;
    }

    // Every picture is searched at the training picture's working size (so
    // objects are taken to scale with the picture, as in the classic
    // profile). The thread's last picture is reused when its key and every
    // setting that shapes its features are the same.
    const ostrel::pyramid_request request =
        pyramid_request(geometry, settings, geometry.working_width, geometry.working_height, false);
    ostrel::accurate_picture_key key;
    key.image_key = image->image_key;
    key.picture_columns = image->width;
    key.picture_rows = image->height;
    key.request = request;
    ostrel::accurate_last_picture &last = ostrel::thread_accurate_last_picture();
    if (!last.holds(key)) {
        last.forget();
        const cv::Mat bgr = ostrel::load_bgr_picture(*image, image->format == OSTREL_ALG_FORMAT_PLANAR);
        last.pyramid = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), request, feat_extractor->resample_scratch);
        if (last.pyramid.empty()) {
            return fail(kRunDetectorName, kRunDetectorLine);
        }
        last.key = key;
        last.valid = true;
    }
    const ostrel::accurate_pyramid &pyramid = last.pyramid;

    const std::vector<double> wide(svm_model.vector.get(), svm_model.vector.get() + svm_model.support_vector_size);
    const ostrel::quantised_weights weights =
        ostrel::quantise_weights(wide.data(), ostrel::kAccurateChannels, geometry.window_columns, geometry.window_rows);
    ostrel::accurate_search search;
    search.weights = &weights;
    search.sum_scale = 1.0 / kWeightScale;
    search.bias = -svm_model.bias / kWeightScale;
    search.box_width = static_cast<double>(svm_model.trained_width) * image->width / svm_model.input_width;
    search.box_height = static_cast<double>(svm_model.trained_height) * image->height / svm_model.input_height;
    const size_t keep = kMaxReportedDetections + static_cast<size_t>(std::max(settings.max_below_boxes, 0));
    const std::vector<ostrel::margin_box> found = ostrel::suppress_by_margin(
        ostrel::search_pyramid(pyramid, geometry, search, settings.floor_margin_permille / 1000.0f),
        settings.suppression_overlap_percent / 100.0f, keep);

    std::vector<ostrel_alg_box> detections;
    std::vector<ostrel_alg_box> below;
    for (const ostrel::margin_box &m : found) {
        ostrel_alg_box box = ostrel::clip_to_picture(m.box, image->width, image->height);
        box.score = ostrel::margin_confidence(m.margin);
        if (box.score * 100.0f >= static_cast<float>(confidence_threshold)) {
            if (detections.size() < kMaxReportedDetections) {
                box.label = 1;
                detections.push_back(box);
            }
        } else if (detector_set && below.size() < static_cast<size_t>(std::max(settings.max_below_boxes, 0))) {
            box.label = -1;
            below.push_back(box);
        }
    }
    ostrel::label_colours(pyramid, detections);

    // As in the classic profile: boxes marked on this very picture that no
    // detection covers are reported too.
    std::vector<ostrel_alg_box> reported = detections;
    reported.insert(reported.end(), below.begin(), below.end());
    if (cached_image_key == image->image_key) {
        for (const ostrel_alg_box &marked : marked_boxes) {
            bool covered = false;
            for (const ostrel_alg_box &d : detections) {
                covered = covered || ostrel::box_overlap(marked, d) >= kMarkedBoxOverlap;
            }
            if (!covered && marked.label == 1) {
                reported.push_back(marked);
            }
        }
    }
    out.insert(out.end(), reported.begin(), reported.end());
    if (result_boxes) {
        result_box_count = static_cast<uint32_t>(std::min<size_t>(out.size(), kResultBoxCapacity));
        std::copy(out.begin(), out.begin() + result_box_count, result_boxes.get());
    }
    return 0;
}

int32_t ostrel_alg::removeSampleAccurate(uint32_t index) {
    if (index >= sample_thumbs.size()) {
        return 1;
    }
    // Thumbnail i is the i-th box labelled 1, counted over the pictures in
    // the order they were given.
    uint32_t seen = 0;
    for (ostrel::accurate_training_picture &picture : accurate_pictures) {
        for (size_t b = 0; b < picture.boxes.size(); ++b) {
            if (picture.boxes[b].label != 1 || seen++ != index) continue;
            picture.boxes.erase(picture.boxes.begin() + static_cast<std::ptrdiff_t>(b));
            delete[] sample_thumbs[index].image.data;
            sample_thumbs.erase(sample_thumbs.begin() + index);
            if (trainAccurate() != 0) {
                return fail(kRemoveSampleName, kRemoveSampleLine);
            }
            return 0;
        }
    }
    return 1;
}
