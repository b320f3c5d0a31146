// The accurate profile's set-up and detection runs.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "accurate/accurate_calibration.h"
#include "accurate/accurate_detect.h"
#include "accurate/accurate_picture_cache.h"
#include "accurate/accurate_pyramid.h"
#include "accurate/scale_set.h"
#include "accurate/working_picture.h"
#include "acf/picture_features.h"
#include "common/box_geometry.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "detect/color_labels.h"
#include "engine/ostrel_alg.h"

namespace ostrel {
extern int32_t g_norm_planes;
}

namespace {

constexpr const char *kSetDetectorName = "ostrel_alg::setDetectorWithAutoTrain";
constexpr const char *kRunDetectorName = "ostrel_alg::runDetector";
constexpr int kRefusedInputLine = 861;
constexpr int kRunDetectorLine = 1135;

// Accurate models keep their weights and bias in fixed point with this
// factor: 100 times finer than the classic 100000, since the profile's
// weights per byte are small.
constexpr double kWeightScale = 10000000.0;

constexpr uint32_t kMaxReportedDetections = 32;
constexpr float kMarkedBoxOverlap = 0.3f;

int32_t fail(const char *operation, int line) {
    ostrel::log(ostrel::kEngineFailFormat, operation, ostrel::kEngineSource, line);
    return 1;
}

// Cells of padding on each side: enough for a window whose object reaches
// edge_reach_percent of its size past the edge.
int32_t edge_pad(int32_t object_cells, int32_t context, const ostrel::accurate_settings &settings) {
    return static_cast<int32_t>(std::floor(object_cells * std::max(settings.edge_reach_percent, 0) / 100.0 + 0.5)) +
           context;
}

ostrel::gradient_normalisation normalisation(const ostrel::accurate_settings &settings) {
    ostrel::g_norm_planes = settings.norm_planes;
    ostrel::gradient_normalisation n;
    n.radius = settings.norm_radius;
    n.floor = settings.norm_floor;
    n.gain = settings.norm_gain;
    n.append = settings.norm_mode == 2;
    n.channel_set = settings.channel_set;
    return n;
}

// Cuts a box to the picture, keeping at least one pixel.
void clip_to_picture(ostrel_alg_box &box, int32_t width, int32_t height) {
    const int32_t left = std::max(box.x, 0);
    const int32_t top = std::max(box.y, 0);
    const int32_t right = std::min(box.x + box.width, width);
    const int32_t bottom = std::min(box.y + box.height, height);
    box.x = std::min(left, width - 1);
    box.y = std::min(top, height - 1);
    box.width = std::max(right - box.x, 1);
    box.height = std::max(bottom - box.y, 1);
}

int32_t to_fixed(double value) {
    const double scaled = std::trunc(value * kWeightScale);
    return static_cast<int32_t>(std::max(-2147483647.0, std::min(2147483647.0, scaled)));
}

// The settings that shape the window: a model is used only with these as
// it was trained.
bool same_window_settings(const ostrel::accurate_settings &a, const ostrel::accurate_settings &b) {
    return a.object_cells == b.object_cells && a.context_cells == b.context_cells &&
           a.max_upscale_percent == b.max_upscale_percent && a.max_working_pixels == b.max_working_pixels &&
           a.min_object_side_cells == b.min_object_side_cells && a.norm_mode == b.norm_mode &&
           a.norm_radius == b.norm_radius && a.norm_floor == b.norm_floor && a.norm_gain == b.norm_gain &&
           a.channel_set == b.channel_set;
}

}  // namespace

ostrel::accurate_settings ostrel_alg::accurateSettings() const { return options.accurate; }

int32_t ostrel_alg::setDetectorAccurate(const ostrel_alg_image *image, const std::vector<ostrel_alg_box> &boxes) {
    if (image == nullptr || !checkImgValid(image) || boxes.empty() || image->image_key < 0) {
        return fail(kSetDetectorName, kRefusedInputLine);
    }
    const ostrel::accurate_settings settings = accurateSettings();
    detector_set = 1;

    if (image->image_key != cached_image_key) {
        const auto first = std::find_if(boxes.begin(), boxes.end(), [](const ostrel_alg_box &b) { return b.label == 1; });
        if (first == boxes.end()) {
            ostrel::log("[Alg.Fail] %s: no box is labelled 1 (the object): nothing to learn\n", kSetDetectorName);
            return 1;
        }
        // The first picture fixes the window; later pictures are scaled so
        // that their first object has the window's size.
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
        }
        const double relative_x = static_cast<double>(accurate_pictures.empty() ? first->width : train_width) /
                                  static_cast<double>(first->width);
        const double relative_y = static_cast<double>(accurate_pictures.empty() ? first->height : train_height) /
                                  static_cast<double>(first->height);
        const int32_t base_columns =
            ostrel::scaled_working_side(image->width, geometry.scale_x * relative_x *
                                                          (accurate_pictures.empty() ? 1.0 : 1.0),
                                        1.0);
        const int32_t base_rows = ostrel::scaled_working_side(image->height, geometry.scale_y * relative_y, 1.0);

        if (cached_image.rows != image->height || cached_image.cols != image->width || cached_image.type() != CV_8UC3) {
            cached_image.create(image->height, image->width, CV_8UC3);
        }
        std::memcpy(cached_image.data, image->data,
                    static_cast<size_t>(image->width) * static_cast<size_t>(image->height) * 3);

        ostrel::accurate_training_picture picture;
        const ostrel::split_picture split = ostrel::split_bgr(cached_image);
        picture.pyramid = ostrel::build_accurate_pyramid(
            split, base_columns, base_rows, ostrel::search_scales(settings), ostrel::marked_scale_index(settings),
            settings.mirror != 0, edge_pad(geometry.object_columns, geometry.context, settings),
            edge_pad(geometry.object_rows, geometry.context, settings), normalisation(settings),
            feat_extractor->resample_scratch);
        if (picture.pyramid.empty()) {
            ostrel::log("[Alg.Fail] %s: the picture of %d x %d is too small for the accurate profile\n",
                        kSetDetectorName, image->width, image->height);
            return 1;
        }
        picture.boxes = boxes;
        picture.marked_width = first->width;
        picture.marked_height = first->height;

        if (accurate_pictures.empty()) {
            accurate_geometry = geometry;
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
        return 1;
    }
    ostrel::log("[Alg. Scc] Training done...\n");
    return 0;
}

int32_t ostrel_alg::trainAccurate() {
    const ostrel::accurate_settings settings = accurateSettings();
    const uint32_t seed = random_seed_set_ ? random_seed_ : 1u;
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
    // The margin is dot - bias, as in the classic record; the calibrated
    // margin is moved to 0, where the confidence is 50%.
    double shift = 0.0;
    if (settings.calibrate) {
        const ostrel::calibration_result calibration =
            ostrel::calibrate_accurate(accurate_pictures, accurate_geometry, settings, seed);
        shift = calibration.margin;
    }
    model.bias = to_fixed(-(trained.bias - shift));
    svm_model = std::move(model);
    accurate_positive_count = trained.positives;
    accurate_negative_count = trained.negatives;
    model_profile = ostrel::kProfileAccurate;
    model_settings = settings;
    // The accurate profile has no second-stage filter.
    pca_filter = ostrel::pca_fp_filter{};
    pca_filter.fp_filter_enabled = 0;
    return 0;
}

bool ostrel_alg::acceptAccurateModel() {
    const ostrel::accurate_settings settings = accurateSettings();
    ostrel::accurate_geometry geometry;
    const ostrel::geometry_status status =
        ostrel::derive_accurate_geometry(svm_model.trained_width, svm_model.trained_height, svm_model.input_width,
                                         svm_model.input_height, settings, &geometry);
    if (status != ostrel::geometry_status::ok) {
        ostrel::log("[Alg.Fail] the model's object of %d x %d on %d x %d pictures does not fit the accurate profile: %s\n",
                    svm_model.trained_width, svm_model.trained_height, svm_model.input_width, svm_model.input_height,
                    ostrel::geometry_status_text(status));
        return false;
    }
    if (geometry.window_features() != svm_model.support_vector_size) {
        ostrel::log("[Alg.Fail] the model has %d weights, the accurate profile's window for its object has %d: "
                    "it was trained under another profile or other options\n",
                    svm_model.support_vector_size, geometry.window_features());
        return false;
    }
    accurate_geometry = geometry;
    return true;
}

int32_t ostrel_alg::runDetectorAccurate(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    if (!svm_model.trained() || image == nullptr) {
        return fail(kRunDetectorName, kRunDetectorLine);
    }
    if (!checkImgValid(image)) {
        return fail(kRunDetectorName, kRunDetectorLine);
    }
    const ostrel::accurate_settings settings = accurateSettings();
    if (model_profile != ostrel::kProfileAccurate) {
        ostrel::log("[Alg.Fail] %s: the model was made under the classic profile; set the profile back, or train or "
                    "import it again under the accurate profile\n",
                    kRunDetectorName);
        return 1;
    }
    if (!same_window_settings(settings, model_settings)) {
        ostrel::log("[Alg.Fail] %s: an option that shapes the window changed since the model was made; set it back, "
                    "or train or import the model again\n",
                    kRunDetectorName);
        return 1;
    }
    ostrel::accurate_geometry geometry;
    if (ostrel::derive_accurate_geometry(svm_model.trained_width, svm_model.trained_height, svm_model.input_width,
                                         svm_model.input_height, settings, &geometry) != ostrel::geometry_status::ok ||
        geometry.window_features() != svm_model.support_vector_size) {
        ostrel::log("[Alg.Fail] %s: the model's %d weights do not fit the accurate profile's window\n", kRunDetectorName,
                    svm_model.support_vector_size);
        return 1;
    }

    // Every picture goes to the training picture's working size.
    ostrel::accurate_picture_key key;
    key.image_key = image->image_key;
    key.picture_columns = image->width;
    key.picture_rows = image->height;
    key.base_columns = geometry.working_width;
    key.base_rows = geometry.working_height;
    key.size_factors = ostrel::search_scales(settings);
    key.pad_columns = edge_pad(geometry.object_columns, geometry.context, settings);
    key.pad_rows = edge_pad(geometry.object_rows, geometry.context, settings);
    key.norm_radius = settings.norm_radius;
    key.norm_floor = settings.norm_floor;
    key.norm_gain = settings.norm_gain * 4 + settings.norm_mode + 1000 * settings.channel_set;
    ostrel::accurate_last_picture &last = ostrel::thread_accurate_last_picture();
    if (!last.holds(key)) {
        last.forget();
        const cv::Mat bgr = ostrel::load_bgr_picture(*image, image->format == OSTREL_ALG_FORMAT_PLANAR);
        last.pyramid = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), key.base_columns, key.base_rows,
                                                      key.size_factors, ostrel::marked_scale_index(settings), false,
                                                      key.pad_columns, key.pad_rows, normalisation(settings),
                                                      feat_extractor->resample_scratch);
        if (last.pyramid.empty()) {
            return fail(kRunDetectorName, kRunDetectorLine);
        }
        last.key = key;
        last.valid = true;
    }
    const ostrel::accurate_pyramid &pyramid = last.pyramid;

    const std::vector<double> wide(svm_model.vector.get(), svm_model.vector.get() + svm_model.support_vector_size);
    const ostrel::quantised_weights weights =
        ostrel::quantise_weights(wide.data(), geometry.channels, geometry.window_columns, geometry.window_rows);
    ostrel::accurate_search search;
    search.weights = &weights;
    search.sum_scale = 1.0 / kWeightScale;
    search.bias = -svm_model.bias / kWeightScale;
    search.box_width = static_cast<double>(svm_model.trained_width) * image->width / svm_model.input_width;
    search.box_height = static_cast<double>(svm_model.trained_height) * image->height / svm_model.input_height;
    const float floor_margin = settings.floor_margin_permille / 1000.0f;
    const float offset = settings.calibration_offset_permille / 1000.0f;
    std::vector<ostrel::margin_box> found = ostrel::search_pyramid(pyramid, geometry, search, floor_margin);
    const size_t keep = kMaxReportedDetections + static_cast<size_t>(std::max(settings.max_below_boxes, 0));
    found = ostrel::suppress_by_margin(std::move(found), settings.suppression_overlap_percent / 100.0f, keep);

    std::vector<ostrel_alg_box> detections;
    std::vector<ostrel_alg_box> below;
    for (const ostrel::margin_box &m : found) {
        ostrel_alg_box box = m.box;
        if (settings.clip_boxes) {
            clip_to_picture(box, image->width, image->height);
        }
        box.score = ostrel::margin_confidence(m.margin, offset);
        if (box.score * 100.0f >= static_cast<float>(confidence_threshold)) {
            if (detections.size() < kMaxReportedDetections) {
                box.label = 1;
                detections.push_back(box);
            }
        } else if (below.size() + kMaxReportedDetections < keep && detector_set) {
            box.label = -1;
            below.push_back(box);
        }
    }

    // Colour classes from the Lab planes of the marked size. The record is
    // the transposed picture, so the boxes are transposed to match it.
    if (!pyramid.lab.empty()) {
        const ostrel::pyramid_level &level = pyramid.levels[static_cast<size_t>(pyramid.marked_level)];
        std::vector<ostrel_alg_box> scaled = detections;
        for (ostrel_alg_box &b : scaled) {
            const int32_t x = static_cast<int32_t>(b.x * level.scale_x);
            const int32_t y = static_cast<int32_t>(b.y * level.scale_y);
            const int32_t w = std::max(1, static_cast<int32_t>(b.width * level.scale_x));
            const int32_t h = std::max(1, static_cast<int32_t>(b.height * level.scale_y));
            b.x = y;
            b.y = x;
            b.width = h;
            b.height = w;
        }
        ostrel::lab_planes_view lab;
        lab.width = pyramid.lab.width;
        lab.height = pyramid.lab.height;
        lab.L = pyramid.lab.plane(0);
        lab.a = pyramid.lab.plane(1);
        lab.b = pyramid.lab.plane(2);
        ostrel::labelColors(lab, lab.width, lab.height, scaled);
        for (size_t i = 0; i < detections.size(); ++i) {
            detections[i].color_main = scaled[i].color_main;
            detections[i].color_second = scaled[i].color_second;
        }
    }

    std::vector<ostrel_alg_box> reported = detections;
    reported.insert(reported.end(), below.begin(), below.end());
    if (cached_image_key == image->image_key && !marked_boxes.empty()) {
        for (const ostrel_alg_box &marked : marked_boxes) {
            bool covered = false;
            for (const ostrel_alg_box &d : detections) {
                covered = covered || ostrel::box_overlap(marked, d) >= kMarkedBoxOverlap;
            }
            if (!covered) {
                ostrel_alg_box added = marked;
                added.label = 1;
                reported.push_back(added);
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
            if (picture.boxes[b].label != 1) continue;
            if (seen++ != index) continue;
            picture.boxes.erase(picture.boxes.begin() + static_cast<std::ptrdiff_t>(b));
            delete[] sample_thumbs[index].image.data;
            sample_thumbs.erase(sample_thumbs.begin() + index);
            if (trainAccurate() != 0) {
                return fail("ostrel_alg::removeSample", 3953);
            }
            return 0;
        }
    }
    return 1;
}
