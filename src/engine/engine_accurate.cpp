// The accurate profile's set-up, detection runs and sample removal.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "accurate/accurate_detect.h"
#include "accurate/accurate_picture_cache.h"
#include "accurate/accurate_pyramid.h"
#include "accurate/held_out_calibration.h"
#include "accurate/object_window.h"
#include "accurate/scale_set.h"
#include "accurate/size_range.h"
#include "accurate/window_shape.h"
#include "accurate/working_picture.h"
#include "acf/picture_features.h"
#include "common/box_geometry.h"
#include "common/failure.h"
#include "common/log.h"
#include "common/progress.h"
#include "common/log_lines.h"
#include "common/portable_math.h"
#include "detect/candidate_filter.h"
#include "engine/engine_lines.h"
#include "engine/ostrel_alg.h"

namespace {

// The seed of the solver's coordinate order when the host set none.
constexpr uint32_t kDefaultSeed = 1;

int32_t to_fixed(double value) {
    const double scaled = std::trunc(value * ostrel::kAccurateWeightScale);
    return static_cast<int32_t>(std::max(-2147483647.0, std::min(2147483647.0, scaled)));
}

// Cells of padding on each side of a map: a window whose object reaches
// edge_reach_percent of its size past the picture's edge still fits.
int32_t edge_pad(int32_t window_cells, const ostrel::accurate_settings &settings) {
    return static_cast<int32_t>(std::floor(window_cells * std::max(settings.edge_reach_percent, 0) / 100.0 + 0.5));
}

ostrel::channel_recipe recipe_of(const ostrel::accurate_settings &settings) {
    ostrel::channel_recipe recipe;
    recipe.norm_radius = settings.norm_radius;
    recipe.norm_floor = settings.norm_floor;
    return recipe;
}

// The pyramid of a level plan: exact channels once per octave, the levels
// between approximated from them.
ostrel::pyramid_request plan_request(const ostrel::level_plan &plan, const ostrel::window_shape &shape,
                                     const ostrel::accurate_settings &settings, bool with_mirror) {
    ostrel::pyramid_request request;
    request.base_columns = plan.base_columns;
    request.base_rows = plan.base_rows;
    request.size_factors = plan.factors;
    request.marked_index = -1;
    request.with_mirror = with_mirror;
    request.pad_columns = edge_pad(shape.columns, settings);
    request.pad_rows = edge_pad(shape.rows, settings);
    request.recipe = recipe_of(settings);
    request.exact_every = std::max(settings.levels_per_octave, 1);
    request.approximation_exponent_permille = settings.approximation_exponent_permille;
    request.keep_exact_lab = !with_mirror;
    request.ties = plan.ties;
    return request;
}

void log_plan_refusal(const char *operation, int32_t width, int32_t height, const ostrel::searched_range &searched,
                      ostrel::plan_status status, const ostrel::level_plan &plan) {
    ostrel::fail(OSTREL_ALG_ERR_PICTURE_TOO_SMALL,
                 "[Alg.Fail] %s: a picture of %d x %d cannot be searched for objects %.0f to %.0f pixels high: %s "
                 "(on it a search within the bounds takes objects from %.0f pixels high; options 6 and 7 set the "
                 "range)\n",
                 operation, width, height, searched.range.min, searched.range.max, ostrel::plan_status_text(status),
                 std::ceil(plan.smallest_searchable));
}

// The median of the boxes' widths and heights (label 1), for the model
// record's informative sizes.
void median_size(const std::vector<ostrel_alg_box> &boxes, int32_t *width, int32_t *height) {
    std::vector<int32_t> w, h;
    for (const ostrel_alg_box &b : boxes) {
        if (b.label != 1) continue;
        w.push_back(b.width);
        h.push_back(b.height);
    }
    if (w.empty()) return;
    std::nth_element(w.begin(), w.begin() + static_cast<std::ptrdiff_t>(w.size() / 2), w.end());
    std::nth_element(h.begin(), h.begin() + static_cast<std::ptrdiff_t>(h.size() / 2), h.end());
    *width = w[w.size() / 2];
    *height = h[h.size() / 2];
}

// A class's classifier in 16-bit weights for the window scan.
ostrel::quantised_weights class_weights(const ostrel::svm_model &record, const ostrel::window_shape &shape) {
    const std::vector<double> wide(record.vector.get(), record.vector.get() + record.support_vector_size);
    return ostrel::quantise_weights(wide.data(), ostrel::kAccurateChannels, shape.columns, shape.rows);
}

// The search of one class over a pyramid whose factor-1 level holds objects
// `finest_height` pixels high: its weights, its calibrated margin, its
// shape, its taught sizes and the size prior.
ostrel::accurate_search class_search(const ostrel::svm_model &record, const ostrel::accurate_class_model &model,
                                     const ostrel::quantised_weights &weights,
                                     const ostrel::accurate_settings &settings, double finest_height) {
    const ostrel::score_calibration &calibration = model.calibration;
    ostrel::accurate_search search;
    search.weights = &weights;
    // The calibrated margin: slope * (margin - offset).
    search.sum_scale = calibration.slope / ostrel::kAccurateWeightScale;
    search.bias = calibration.slope * (-record.bias / ostrel::kAccurateWeightScale - calibration.offset);
    search.box_width = finest_height * model.shape.aspect;
    search.box_height = finest_height;
    search.taught_min = model.taught.min;
    search.taught_max = model.taught.max;
    search.size_penalty = settings.size_prior_permille / 1000.0;
    search.penalty_step = settings.search_margin_percent / 100.0;
    search.neighbourhood_maxima = ostrel::neighbours_suppressed(model.shape.columns, model.shape.rows,
                                                                settings.suppression_overlap_percent / 100.0f);
    search.refine_margin = settings.refine_margin_permille / 1000.0;
    return search;
}

// The candidates that survive suppression, as boxes of the picture with
// their confidence: at most kMaxReportedDetections at or above the
// threshold (label 1), and, when `with_below`, boxes below it (label -1).
void split_by_threshold(const std::vector<ostrel::margin_box> &found, int32_t width, int32_t height,
                        int32_t confidence_threshold, bool with_below, size_t max_below,
                        std::vector<ostrel_alg_box> *detections, std::vector<ostrel_alg_box> *below) {
    for (const ostrel::margin_box &m : found) {
        ostrel_alg_box box = ostrel::clip_to_picture(m.box, width, height);
        box.score = ostrel::margin_confidence(m.margin);
        if (box.score * 100.0f >= static_cast<float>(confidence_threshold)) {
            if (detections->size() < ostrel::kMaxReportedDetections) {
                box.label = 1;
                detections->push_back(box);
            }
        } else if (with_below && below->size() < max_below) {
            box.label = -1;
            below->push_back(box);
        }
    }
}

// The pyramid's channels: the thread's last picture when its key and every
// setting that shapes its features are the same, else computed afresh.
const ostrel::accurate_pyramid *picture_pyramid(const ostrel_alg_image *image, const ostrel::pyramid_request &request,
                                                ostrel::picture_resample_scratch &scratch) {
    ostrel::accurate_picture_key key;
    key.image_key = image->image_key;
    key.picture_columns = image->width;
    key.picture_rows = image->height;
    key.request = request;
    ostrel::accurate_last_picture &last = ostrel::thread_accurate_last_picture();
    if (!last.holds(key)) {
        last.forget();
        const cv::Mat bgr = ostrel::load_bgr_picture(*image, image->format == OSTREL_ALG_FORMAT_PLANAR);
        last.pyramid = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), request, scratch);
        if (last.pyramid.empty()) {
            return nullptr;
        }
        last.key = key;
        last.valid = true;
    }
    return &last.pyramid;
}

// The levels detection would search on a picture, for the calibration's
// rescaled copies of the training pictures.
class detection_levels : public ostrel::copy_levels {
public:
    detection_levels(const ostrel::accurate_class_model &model, const ostrel::accurate_settings &settings)
        : model_(model), settings_(settings) {}
    ostrel::accurate_pyramid levels(const ostrel::split_picture &picture, double *finest_height) const override {
        const ostrel::window_shape &shape = model_.shape;
        ostrel::level_plan plan;
        if (ostrel::plan_levels(picture.columns(), picture.rows(), ostrel::search_range(model_.taught, settings_),
                                model_.taught, shape, settings_, edge_pad(shape.columns, settings_),
                                edge_pad(shape.rows, settings_), &plan) != ostrel::plan_status::ok) {
            return {};
        }
        *finest_height = plan.range.min;
        ostrel::picture_resample_scratch scratch;
        return ostrel::build_accurate_pyramid(picture, plan_request(plan, shape, settings_, false), scratch);
    }

private:
    const ostrel::accurate_class_model &model_;
    ostrel::accurate_settings settings_;
};

}  // namespace

ostrel::accurate_settings ostrel_alg::accurateSettings() const { return options.accurate; }

ostrel::accurate_settings ostrel_alg::modelSettings() const {
    if (model_profile != ostrel::kProfileAccurate && accurate_pictures.empty()) {
        return options.accurate;
    }
    // The model's fixed choices, the host's options.
    const ostrel::accurate_settings host = accurateSettings();
    ostrel::accurate_settings settings = model_settings;
    for (const ostrel::accurate_option &option : ostrel::kAccurateOptions) {
        settings.*option.field = host.*option.field;
    }
    return settings;
}

// The picture and boxes are checked by setDetectorWithAutoTrain.
int32_t ostrel_alg::setDetectorAccurate(const ostrel_alg_image *image, const std::vector<ostrel_alg_box> &boxes) {
    // The first picture of the engine's first class sets the shared
    // settings; every later picture, and every other class, keeps them.
    const bool first_of_engine = accurate_pictures.empty() && !otherClassTrained();
    const ostrel::accurate_settings settings = first_of_engine ? accurateSettings() : modelSettings();
    if (!first_of_engine && settings.object_cells != model_settings.object_cells) {
        ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                     "[Alg.Fail] %s: an option that shapes the window changed since the first picture; set it back "
                     "or start again with ostrel_alg_init\n",
                     ostrel::kSetDetectorName);
        return 1;
    }
    detector_set = 1;

    // A new picture brings new marked boxes; the same key again means
    // "retrain on what you have", as in the classic profile.
    if (image->image_key != cached_image_key) {
        const auto first =
            std::find_if(boxes.begin(), boxes.end(), [](const ostrel_alg_box &b) { return b.label == 1; });
        if (first == boxes.end()) {
            ostrel::fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                         "[Alg.Fail] %s: no box is labelled 1 (the object): nothing to learn\n",
                         ostrel::kSetDetectorName);
            return 1;
        }
        // The first picture fixes the window: the median shape of its
        // objects. Later pictures' objects must fit that shape.
        ostrel::window_shape shape = accurate_class.shape;
        if (accurate_pictures.empty()) {
            const ostrel::shape_result derived = ostrel::derive_window_shape(boxes, settings.object_cells, settings);
            if (derived.status == ostrel::shape_status::aspects_differ) {
                const ostrel_alg_box &odd = boxes[derived.odd_box];
                ostrel::fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                             "[Alg.Fail] %s: boxes whose shapes cannot share one window: box %zu (%d x %d, width / "
                             "height %.2f) differs from the median shape (%.2f) by more than %.1f times; mark "
                             "objects of one shape, or train one model per shape\n",
                             ostrel::kSetDetectorName, derived.odd_box, odd.width, odd.height, derived.odd_aspect,
                             derived.median_aspect, settings.max_aspect_spread_percent / 100.0);
                return 1;
            }
            if (derived.status != ostrel::shape_status::ok) {
                const ostrel_alg_box &odd = boxes[derived.odd_box];
                const ostrel_alg_box &shown = derived.status == ostrel::shape_status::bad_size ? *first : odd;
                ostrel::fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                             "[Alg.Fail] %s: a box of %d x %d on a picture of %d x %d cannot be learnt: %s\n",
                             ostrel::kSetDetectorName, shown.width, shown.height, image->width, image->height,
                             derived.status == ostrel::shape_status::bad_size
                                 ? ostrel::geometry_status_text(ostrel::geometry_status::bad_size)
                                 : ostrel::shape_status_text(derived.status));
                return 1;
            }
            shape = derived.shape;
        }
        // Every object must fit the window's shape and size on this picture.
        for (size_t i = 0; i < boxes.size(); ++i) {
            const ostrel_alg_box &b = boxes[i];
            if (b.label != 1) continue;
            if (b.width < 1 || b.height < 1 || b.width > (1 << 20) || b.height > (1 << 20)) {
                ostrel::fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                             "[Alg.Fail] %s: a box of %d x %d on a picture of %d x %d cannot be learnt: %s\n",
                             ostrel::kSetDetectorName, b.width, b.height, image->width, image->height,
                             ostrel::geometry_status_text(ostrel::geometry_status::bad_size));
                return 1;
            }
            if (!ostrel::aspect_fits(b, shape, settings)) {
                ostrel::fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                             "[Alg.Fail] %s: boxes whose shapes cannot share one window: box %zu (%d x %d, width / "
                             "height %.2f) differs from the window's shape (%.2f) by more than %.1f times; mark "
                             "objects of one shape, or train one model per shape\n",
                             ostrel::kSetDetectorName, i, b.width, b.height, static_cast<double>(b.width) / b.height,
                             static_cast<double>(shape.aspect), settings.max_aspect_spread_percent / 100.0);
                return 1;
            }
            const double scale = ostrel::scale_for_height(ostrel::box_height(b, shape), shape);
            if (scale > settings.max_object_upscale_percent / 100.0) {
                ostrel::fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                             "[Alg.Fail] %s: a box of %d x %d on a picture of %d x %d cannot be learnt: %s\n",
                             ostrel::kSetDetectorName, b.width, b.height, image->width, image->height,
                             ostrel::geometry_status_text(ostrel::geometry_status::object_too_small));
                return 1;
            }
            if (image->width * scale / ostrel::kAccurateShrink < shape.columns ||
                image->height * scale / ostrel::kAccurateShrink < shape.rows) {
                ostrel::fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                             "[Alg.Fail] %s: a box of %d x %d on a picture of %d x %d cannot be learnt: %s\n",
                             ostrel::kSetDetectorName, b.width, b.height, image->width, image->height,
                             ostrel::geometry_status_text(ostrel::geometry_status::picture_too_small));
                return 1;
            }
        }
        // Background is learnt at every size detection will search.
        const ostrel::height_range taught =
            ostrel::cover(accurate_pictures.empty() ? ostrel::height_range{} : accurate_class.taught,
                          ostrel::taught_range(boxes, shape));
        const ostrel::searched_range searched = ostrel::search_range(taught, settings);
        ostrel::level_plan plan;
        const ostrel::plan_status planned =
            ostrel::plan_levels(image->width, image->height, searched, taught, shape, settings,
                                edge_pad(shape.columns, settings), edge_pad(shape.rows, settings), &plan);
        if (planned != ostrel::plan_status::ok) {
            log_plan_refusal(ostrel::kSetDetectorName, image->width, image->height, searched, planned, plan);
            return 1;
        }

        if (cached_image.rows != image->height || cached_image.cols != image->width || cached_image.type() != CV_8UC3) {
            cached_image.create(image->height, image->width, CV_8UC3);
        }
        std::memcpy(cached_image.data, image->data,
                    static_cast<size_t>(image->width) * static_cast<size_t>(image->height) * 3);

        const ostrel::split_picture split = ostrel::split_bgr(cached_image);
        ostrel::accurate_training_picture picture;
        picture.pyramid = ostrel::build_accurate_pyramid(split, plan_request(plan, shape, settings, true),
                                                         feat_extractor->resample_scratch);
        if (picture.pyramid.empty()) {
            ostrel::fail(OSTREL_ALG_ERR_PICTURE_TOO_SMALL,
                         "[Alg.Fail] %s: the picture of %d x %d gives no working picture\n", ostrel::kSetDetectorName,
                         image->width, image->height);
            return 1;
        }
        const ostrel::channel_recipe recipe = recipe_of(settings);
        const int32_t variants = std::max(settings.approximated_positives, 1);
        for (const ostrel_alg_box &b : boxes) {
            if (b.label != 1) continue;
            for (int32_t v = 0; v < variants; ++v) {
                const double ratio = ostrel::octave_factor(v, settings.levels_per_octave);
                for (bool mirrored : {false, true}) {
                    // Kept even when empty (an object outside the picture),
                    // so that object i's windows stay together.
                    picture.object_windows.push_back(ostrel::object_window_approximated(
                        split, b, shape, recipe, mirrored, ratio, settings.approximation_exponent_permille,
                        feat_extractor->resample_scratch));
                }
            }
        }
        picture.boxes = boxes;
        // The levels' factors are relative to the finest level's objects:
        // boxes marked as background are cut from the level nearest them.
        picture.marked_width = std::max(1, static_cast<int32_t>(std::lround(plan.range.min * shape.aspect)));
        picture.marked_height = std::max(1, static_cast<int32_t>(std::lround(plan.range.min)));
        picture.finest_height = plan.range.min;
        picture.bgr = cached_image.clone();

        if (accurate_pictures.empty()) {
            // A class keeps its name through a new training.
            std::string name = std::move(accurate_class.name);
            accurate_class = ostrel::accurate_class_model{};
            accurate_class.name = std::move(name);
            accurate_class.shape = shape;
            model_settings = settings;
            int32_t width = first->width, height = first->height;
            median_size(boxes, &width, &height);
            train_width = static_cast<uint32_t>(width);
            train_height = static_cast<uint32_t>(height);
            train_input_width = static_cast<uint32_t>(image->width);
            train_input_height = static_cast<uint32_t>(image->height);
        }
        // Kept as a model file keeps it (single precision), so that an
        // exported and imported model searches exactly the same sizes.
        accurate_class.taught =
            ostrel::height_range{ostrel::single_precision(taught.min), ostrel::single_precision(taught.max)};
        accurate_pictures.push_back(std::move(picture));

        marked_boxes.clear();
        std::copy_if(boxes.begin(), boxes.end(), std::back_inserter(marked_boxes),
                     [](const ostrel_alg_box &box) { return box.label == 1; });
        addSampleThumbs(cached_image, marked_boxes);
        cached_image_key = image->image_key;
    }
    if (trainAccurate() != 0) {
        return ostrel::fail_at(OSTREL_ALG_ERR_FAILED, ostrel::kSetDetectorName, ostrel::kRefusedInputLine);
    }
    ostrel::log_progress("[Alg. Scc] Training done...\n");
    ostrel::report_progress(ostrel::progress_record(OSTREL_ALG_STAGE_TRAINED));
    return 0;
}

int32_t ostrel_alg::trainAccurate() {
    const ostrel::accurate_settings settings = model_settings;
    const uint32_t seed = random_seed_set_ ? random_seed_ : kDefaultSeed;
    const ostrel::accurate_geometry geometry = accurate_class.shape.geometry();
    ostrel::accurate_training_state state;
    const ostrel::accurate_training_result trained =
        ostrel::train_accurate(accurate_pictures, geometry, settings, seed, {}, &state);
    if (!trained.trained) {
        ostrel::fail(OSTREL_ALG_ERR_NOTHING_TO_LEARN,
                     "[Alg.Fail] %s: the accurate training found nothing to learn from\n", ostrel::kSetDetectorName);
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
    // The margin is dot - bias, as in the classic record.
    model.bias = to_fixed(-trained.bias);
    accurate_class.calibration.offset = static_cast<float>(settings.calibration_margin_permille / 1000.0);
    accurate_class.calibration.slope = 1.0f;
    if (settings.calibration_folds >= 2) {
        accurate_class.calibration.offset = calibrateAccurate(trained, state, seed);
    }
    svm_model = std::move(model);
    accurate_positive_count = trained.positives;
    accurate_negative_count = trained.negatives;
    model_profile = ostrel::kProfileAccurate;
    // The accurate profile has no second-stage filter.
    pca_filter = ostrel::pca_fp_filter{};
    pca_filter.fp_filter_enabled = 0;
    return 0;
}

float ostrel_alg::calibrateAccurate(const ostrel::accurate_training_result &trained,
                                    const ostrel::accurate_training_state &state, uint32_t seed) const {
    const ostrel::accurate_settings &settings = model_settings;
    const ostrel::accurate_geometry geometry = accurate_class.shape.geometry();
    // The search as detection runs it: the size prior and the box shape.
    ostrel::accurate_search search;
    search.box_height = 1.0;
    search.box_width = accurate_class.shape.aspect;
    search.taught_min = accurate_class.taught.min;
    search.taught_max = accurate_class.taught.max;
    search.size_penalty = settings.size_prior_permille / 1000.0;
    search.penalty_step = settings.search_margin_percent / 100.0;
    search.neighbourhood_maxima = ostrel::neighbours_suppressed(accurate_class.shape.columns, accurate_class.shape.rows,
                                                                settings.suppression_overlap_percent / 100.0f);
    // Objects and background the classifier has not seen...
    const ostrel::held_out_scores held_out =
        ostrel::score_held_out_parts(accurate_pictures, geometry, settings, search, seed, settings.calibration_folds,
                                     settings.calibration_mining_rounds > 0 ? nullptr : &state);
    // ...and the ones it has, seen again through other resampling.
    const std::vector<double> wide(trained.weights.begin(), trained.weights.end());
    const ostrel::quantised_weights weights =
        ostrel::quantise_weights(wide.data(), ostrel::kAccurateChannels, geometry.window_columns, geometry.window_rows);
    ostrel::accurate_search full = search;
    full.weights = &weights;
    full.sum_scale = 1.0;
    full.bias = trained.bias;
    // Half a level's step either way: 2^(-1 / 2n) and 2^(1 / 2n).
    const int32_t half_steps_per_octave = 2 * std::max(settings.levels_per_octave, 1);
    const ostrel::held_out_scores copies = ostrel::score_rescaled_copies(
        accurate_pictures, geometry, settings, full,
        {ostrel::octave_factor(-1, half_steps_per_octave), ostrel::octave_factor(1, half_steps_per_octave)},
        detection_levels(accurate_class, settings));
    const float prior = static_cast<float>(settings.calibration_prior_permille / 1000.0);
    const float learnt = ostrel::best_f1_margin({&held_out, &copies}, settings.calibration_bandwidth_permille / 1000.0f,
                                                settings.floor_margin_permille / 1000.0f, 2.0f, prior);
    const float offset = ostrel::shrunk_cut(learnt, held_out.objects.size(), prior, settings.calibration_prior_objects);
    const auto found = [](const ostrel::held_out_scores &s) {
        return static_cast<size_t>(
            std::count_if(s.objects.begin(), s.objects.end(), [](float m) { return std::isfinite(m); }));
    };
    ostrel::log_progress(
        "[Alg. Scc] Accurate calibration: held-out parts %zu of %zu objects, %zu false alarms; rescaled "
        "copies %zu of %zu objects, %zu false alarms; best cut at margin %.2f; 50%% confidence at margin "
        "%.2f\n",
        found(held_out), held_out.objects.size(), held_out.false_alarms.size(), found(copies), copies.objects.size(),
        copies.false_alarms.size(), static_cast<double>(learnt), static_cast<double>(offset));
    return offset;
}

// The model and the picture are checked by runDetector.
int32_t ostrel_alg::runDetectorAccurate(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    if (model_profile != ostrel::kProfileAccurate) {
        ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                     "[Alg.Fail] %s: the model was made under the classic profile; set the profile back, or train or "
                     "import it again under the accurate profile\n",
                     ostrel::kRunDetectorName);
        return 1;
    }
    if (!class_slots.empty()) {
        return runDetectorClasses(image, out);
    }
    const ostrel::accurate_settings settings = modelSettings();
    const ostrel::window_shape &shape = accurate_class.shape;
    if (settings.object_cells != model_settings.object_cells || shape.features() != svm_model.support_vector_size) {
        ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                     "[Alg.Fail] %s: the accurate cells option changed since the model was made, so its window no "
                     "longer fits the model; set it back, or train or import the model again\n",
                     ostrel::kRunDetectorName);
        return 1;
    }

    // The searched sizes in pixels, whatever the picture's size.
    const ostrel::searched_range searched = ostrel::search_range(accurate_class.taught, settings);
    ostrel::level_plan plan;
    const ostrel::plan_status planned =
        ostrel::plan_levels(image->width, image->height, searched, accurate_class.taught, shape, settings,
                            edge_pad(shape.columns, settings), edge_pad(shape.rows, settings), &plan);
    const bool host_range = searched.min_from_host || searched.max_from_host;
    const bool nothing_to_search = planned == ostrel::plan_status::nothing_fits && !host_range;
    if (planned != ostrel::plan_status::ok && !nothing_to_search) {
        log_plan_refusal(ostrel::kRunDetectorName, image->width, image->height, searched, planned, plan);
        return 1;
    }

    std::vector<ostrel_alg_box> detections;
    std::vector<ostrel_alg_box> below;
    if (!nothing_to_search) {
        const ostrel::accurate_pyramid *pyramid =
            picture_pyramid(image, plan_request(plan, shape, settings, false), feat_extractor->resample_scratch);
        if (pyramid == nullptr) {
            return ostrel::fail_at(OSTREL_ALG_ERR_FAILED, ostrel::kRunDetectorName, ostrel::kRunDetectorLine);
        }
        const ostrel::quantised_weights weights = class_weights(svm_model, shape);
        const ostrel::accurate_search search =
            class_search(svm_model, accurate_class, weights, settings, plan.range.min);
        const size_t keep = ostrel::kMaxReportedDetections + static_cast<size_t>(std::max(settings.max_below_boxes, 0));
        const ostrel::accurate_geometry geometry = shape.geometry();
        const std::vector<ostrel::margin_box> found = ostrel::suppress_by_margin(
            ostrel::search_pyramid(*pyramid, geometry, search, settings.floor_margin_permille / 1000.0f),
            settings.suppression_overlap_percent / 100.0f, keep, settings.suppression_contained_percent / 100.0f);
        split_by_threshold(found, image->width, image->height, confidence_threshold, detector_set != 0,
                           static_cast<size_t>(std::max(settings.max_below_boxes, 0)), &detections, &below);
        ostrel::label_colours_by_level(*pyramid, detections);
    }

    // As in the classic profile: boxes marked on this very picture that no
    // detection covers are reported too.
    std::vector<ostrel_alg_box> reported = detections;
    reported.insert(reported.end(), below.begin(), below.end());
    if (cached_image_key == image->image_key) {
        for (const ostrel_alg_box &marked : marked_boxes) {
            bool covered = false;
            for (const ostrel_alg_box &d : detections) {
                covered = covered || ostrel::box_overlap(marked, d) >= ostrel::kMarkedBoxOverlap;
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

namespace {

// One class's part of a detection run with several classes.
struct class_run {
    ostrel::level_plan plan;
    bool searched = false;  // some of its sizes fit the picture
    // Working pixels per picture pixel of its finest level.
    double finest_scale = 0.0;
    // Its levels in the shared pyramid: first and last (inclusive).
    size_t first_level = 0;
    size_t last_level = 0;
    int32_t inset_columns = 0;
    int32_t inset_rows = 0;
    ostrel::quantised_weights weights;
    std::vector<ostrel::margin_box> candidates;
};

}  // namespace

// Several classes share one pyramid of the picture. Each class's own plan
// says which object heights it searches and checks the bounds, as for one
// class; the shared pyramid's levels are the finest plan's working size
// and every 2^(1/levels per octave) step down from it, so that the class
// with the finest level searches exactly its own levels and every other
// class the grid's levels from the first at or above its smallest height
// to the first at or above its largest (at most a fraction of a step off
// its own levels; the neighbouring sizes of a step cover that). The maps
// are padded for the class whose window reaches furthest past the edge;
// each class searches only the positions its own padding gives.
int32_t ostrel_alg::runDetectorClasses(const ostrel_alg_image *image, std::vector<ostrel_alg_box> &out) {
    const ostrel::accurate_settings settings = modelSettings();
    const uint32_t classes = classCount();
    std::vector<class_run> runs(classes);
    int32_t pad_columns = 0, pad_rows = 0;
    double finest_scale = 0.0;
    for (uint32_t k = 0; k < classes; ++k) {
        const class_view view = classAt(k);
        const ostrel::window_shape &shape = view.model->shape;
        if (settings.object_cells != model_settings.object_cells ||
            shape.features() != view.weights->support_vector_size) {
            ostrel::fail(OSTREL_ALG_ERR_WRONG_PROFILE,
                         "[Alg.Fail] %s: the accurate cells option changed since the model was made, so its window no "
                         "longer fits the model; set it back, or train or import the model again\n",
                         ostrel::kRunDetectorName);
            return 1;
        }
        class_run &run = runs[k];
        const ostrel::searched_range searched = ostrel::search_range(view.model->taught, settings);
        const ostrel::plan_status planned =
            ostrel::plan_levels(image->width, image->height, searched, view.model->taught, shape, settings,
                                edge_pad(shape.columns, settings), edge_pad(shape.rows, settings), &run.plan);
        const bool host_range = searched.min_from_host || searched.max_from_host;
        if (planned == ostrel::plan_status::nothing_fits && !host_range) {
            continue;  // no size of this class fits the picture: no boxes of it
        }
        if (planned != ostrel::plan_status::ok) {
            log_plan_refusal(ostrel::kRunDetectorName, image->width, image->height, searched, planned, run.plan);
            return 1;
        }
        run.searched = true;
        run.finest_scale = shape.object_height_working() / run.plan.range.min;
        finest_scale = std::max(finest_scale, run.finest_scale);
        pad_columns = std::max(pad_columns, edge_pad(shape.columns, settings));
        pad_rows = std::max(pad_rows, edge_pad(shape.rows, settings));
    }

    std::vector<ostrel_alg_box> detections, below, reported;
    std::vector<uint32_t> detection_classes, below_classes;
    if (finest_scale > 0.0) {
        const int32_t per_octave = std::max(settings.levels_per_octave, 1);
        const double log_step = ostrel::portable_log(2.0) / per_octave;
        size_t levels = 0;
        for (class_run &run : runs) {
            if (!run.searched) continue;
            // The class's finest level lies `offset` steps below the grid's.
            const double offset = ostrel::portable_log(finest_scale / run.finest_scale) / log_step;
            const double last = offset + static_cast<double>(run.plan.factors.size() - 1);
            run.first_level = static_cast<size_t>(std::max(0.0, std::ceil(offset - 1e-6)));
            run.last_level = std::max(run.first_level, static_cast<size_t>(std::max(0.0, std::ceil(last - 1e-6))));
            levels = std::max(levels, run.last_level + 1);
        }
        ostrel::pyramid_request request;
        request.base_columns = ostrel::scaled_working_side(image->width, 1.0 / finest_scale);
        request.base_rows = ostrel::scaled_working_side(image->height, 1.0 / finest_scale);
        // The factors of plan_levels, so that a class searches the sizes it
        // searches alone.
        for (size_t j = 0; j < levels; ++j) {
            request.size_factors.push_back(ostrel::octave_factor(static_cast<int32_t>(j), per_octave));
        }
        request.marked_index = -1;
        request.with_mirror = false;
        request.pad_columns = pad_columns;
        request.pad_rows = pad_rows;
        request.recipe = recipe_of(settings);
        request.exact_every = per_octave;
        request.approximation_exponent_permille = settings.approximation_exponent_permille;
        request.keep_exact_lab = true;
        // Sides exactly halfway between two even ones go up on this grid (see
        // level_plan::ties for a single class's levels): so it was laid out
        // when its factors came from std::exp, exactly 2 and 4 at the octaves.
        request.ties = ostrel::halfway::up;
        const ostrel::accurate_pyramid *pyramid = picture_pyramid(image, request, feat_extractor->resample_scratch);
        if (pyramid == nullptr) {
            return ostrel::fail_at(OSTREL_ALG_ERR_FAILED, ostrel::kRunDetectorName, ostrel::kRunDetectorLine);
        }
        std::vector<ostrel::accurate_search> searches(classes);
        std::vector<ostrel::accurate_geometry> geometries(classes);
        for (uint32_t k = 0; k < classes; ++k) {
            class_run &run = runs[k];
            if (!run.searched) continue;
            const class_view view = classAt(k);
            const ostrel::window_shape &shape = view.model->shape;
            run.weights = class_weights(*view.weights, shape);
            // Objects of the grid's factor-1 level, in this class's heights.
            searches[k] = class_search(*view.weights, *view.model, run.weights, settings,
                                       shape.object_height_working() / finest_scale);
            geometries[k] = shape.geometry();
            run.inset_columns = pad_columns - edge_pad(shape.columns, settings);
            run.inset_rows = pad_rows - edge_pad(shape.rows, settings);
        }
        // Each level is laid out once and searched by every class whose
        // sizes it holds.
        const float floor_margin = settings.floor_margin_permille / 1000.0f;
        std::vector<ostrel::class_level_search> level_classes;
        ostrel::level_scan_scratch scratch;
        for (size_t j = 0; j < pyramid->levels.size(); ++j) {
            const ostrel::pyramid_level &level = pyramid->levels[j];
            // A level the pyramid left out (too small a picture) shifts the
            // indices: find the grid step by its factor.
            const size_t step = static_cast<size_t>(std::lround(ostrel::portable_log(level.size_factor) / log_step));
            level_classes.clear();
            for (uint32_t k = 0; k < classes; ++k) {
                class_run &run = runs[k];
                if (!run.searched || step < run.first_level || step > run.last_level) continue;
                // Less than half of such an object could show on the picture.
                const double height = searches[k].box_height * level.size_factor;
                if (height > 2.0 * image->height || height * classAt(k).model->shape.aspect > 2.0 * image->width) {
                    continue;
                }
                level_classes.push_back(
                    {&geometries[k], &searches[k], run.inset_columns, run.inset_rows, &run.candidates});
            }
            if (level_classes.empty()) continue;
            ostrel::search_paired_level_classes(ostrel::pair_cells(level.map), level, level_classes, floor_margin,
                                                &scratch);
        }
        // Suppression within each class: boxes of two classes may overlap.
        const size_t max_below = static_cast<size_t>(std::max(settings.max_below_boxes, 0));
        for (uint32_t k = 0; k < classes; ++k) {
            if (!runs[k].searched) continue;
            const std::vector<ostrel::margin_box> found =
                ostrel::suppress_by_margin(std::move(runs[k].candidates), settings.suppression_overlap_percent / 100.0f,
                                           ostrel::kMaxReportedDetections + max_below,
                                           settings.suppression_contained_percent / 100.0f);
            std::vector<ostrel_alg_box> class_detections, class_below;
            split_by_threshold(found, image->width, image->height, confidence_threshold, detector_set != 0, max_below,
                               &class_detections, &class_below);
            ostrel::label_colours_by_level(*pyramid, class_detections);
            detections.insert(detections.end(), class_detections.begin(), class_detections.end());
            detection_classes.insert(detection_classes.end(), class_detections.size(), k);
            below.insert(below.end(), class_below.begin(), class_below.end());
            below_classes.insert(below_classes.end(), class_below.size(), k);
        }
    }

    // Detections of every class by falling score, then the boxes below the
    // threshold so, then each class's boxes marked on this very picture that
    // none of its detections covers.
    const auto by_score = [](std::vector<ostrel_alg_box> &boxes, std::vector<uint32_t> &box_classes) {
        std::vector<size_t> order(boxes.size());
        for (size_t i = 0; i < order.size(); ++i) order[i] = i;
        std::stable_sort(order.begin(), order.end(),
                         [&](size_t a, size_t b) { return boxes[a].score > boxes[b].score; });
        std::vector<ostrel_alg_box> sorted;
        std::vector<uint32_t> sorted_classes;
        for (size_t i : order) {
            sorted.push_back(boxes[i]);
            sorted_classes.push_back(box_classes[i]);
        }
        boxes.swap(sorted);
        box_classes.swap(sorted_classes);
    };
    by_score(detections, detection_classes);
    by_score(below, below_classes);
    reported = detections;
    reported.insert(reported.end(), below.begin(), below.end());
    std::vector<uint32_t> reported_classes = detection_classes;
    reported_classes.insert(reported_classes.end(), below_classes.begin(), below_classes.end());
    for (uint32_t k = 0; k < classes; ++k) {
        const class_view view = classAt(k);
        if (view.cached_image_key != image->image_key) continue;
        for (const ostrel_alg_box &marked : *view.marked_boxes) {
            bool covered = false;
            for (size_t i = 0; i < detections.size(); ++i) {
                covered = covered || (detection_classes[i] == k &&
                                      ostrel::box_overlap(marked, detections[i]) >= ostrel::kMarkedBoxOverlap);
            }
            if (!covered && marked.label == 1) {
                reported.push_back(marked);
                reported_classes.push_back(k);
            }
        }
    }
    out.insert(out.end(), reported.begin(), reported.end());
    result_classes = std::move(reported_classes);
    if (result_boxes) {
        result_box_count = static_cast<uint32_t>(std::min<size_t>(reported.size(), kResultBoxCapacity));
        std::copy(reported.begin(), reported.begin() + result_box_count, result_boxes.get());
    }
    return 0;
}

int32_t ostrel_alg::removeSampleAccurate(uint32_t index) {
    if (index >= sample_thumbs.size()) {
        ostrel::note_failure(OSTREL_ALG_ERR_BAD_ARGUMENT, "there is no sample of that index");
        return 1;
    }
    // Thumbnail i is the i-th box labelled 1, counted over the pictures in
    // the order they were given; its windows (each object has as many, in
    // the order of the objects) go with it.
    uint32_t seen = 0;
    for (ostrel::accurate_training_picture &picture : accurate_pictures) {
        const size_t objects = static_cast<size_t>(std::count_if(picture.boxes.begin(), picture.boxes.end(),
                                                                 [](const ostrel_alg_box &b) { return b.label == 1; }));
        const size_t per_object = objects > 0 ? picture.object_windows.size() / objects : 0;
        uint32_t object = 0;
        for (size_t b = 0; b < picture.boxes.size(); ++b) {
            if (picture.boxes[b].label != 1) continue;
            if (seen++ != index) {
                ++object;
                continue;
            }
            picture.boxes.erase(picture.boxes.begin() + static_cast<std::ptrdiff_t>(b));
            const size_t first_window = per_object * object;
            if (first_window + per_object <= picture.object_windows.size()) {
                picture.object_windows.erase(picture.object_windows.begin() + static_cast<std::ptrdiff_t>(first_window),
                                             picture.object_windows.begin() +
                                                 static_cast<std::ptrdiff_t>(first_window + per_object));
            }
            delete[] sample_thumbs[index].image.data;
            sample_thumbs.erase(sample_thumbs.begin() + index);
            if (trainAccurate() != 0) {
                return ostrel::fail_at(OSTREL_ALG_ERR_NOTHING_TO_LEARN, ostrel::kRemoveSampleName,
                                       ostrel::kRemoveSampleLine);
            }
            return 0;
        }
    }
    return 1;
}
