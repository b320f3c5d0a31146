#include "accurate/accurate_calibration.h"

#include <algorithm>
#include <cmath>

#include "accurate/accurate_detect.h"
#include "common/box_geometry.h"
#include "common/log.h"

namespace ostrel {

namespace {

constexpr float kMatchOverlap = 0.5f;

double centre_y(const ostrel_alg_box &b) { return b.y + b.height / 2.0; }

// The row that cuts a picture's marked objects into two equal halves.
double middle_row(const accurate_training_picture &picture) {
    std::vector<double> centres;
    for (const ostrel_alg_box &b : picture.boxes) {
        if (b.label == 1) centres.push_back(centre_y(b));
    }
    if (centres.empty()) return picture.pyramid.picture_rows / 2.0;
    std::sort(centres.begin(), centres.end());
    const size_t n = centres.size();
    return n % 2 ? centres[n / 2] + 0.5 : (centres[n / 2 - 1] + centres[n / 2]) / 2.0;
}

}  // namespace

float best_f1_margin(std::vector<std::pair<float, bool>> detections, size_t objects, float *best_f1) {
    std::stable_sort(detections.begin(), detections.end(),
                     [](const std::pair<float, bool> &a, const std::pair<float, bool> &b) { return a.first > b.first; });
    size_t tp = 0;
    float best = -1.0f;
    size_t best_index = 0;
    for (size_t i = 0; i < detections.size(); ++i) {
        tp += detections[i].second ? 1 : 0;
        // Only where the next detection scores lower can the list be cut.
        if (i + 1 < detections.size() && detections[i + 1].first == detections[i].first) continue;
        const float precision = static_cast<float>(tp) / static_cast<float>(i + 1);
        const float recall = objects ? static_cast<float>(tp) / static_cast<float>(objects) : 0.0f;
        const float f1 = precision + recall > 0.0f ? 2.0f * precision * recall / (precision + recall) : 0.0f;
        if (f1 > best) {
            best = f1;
            best_index = i;
        }
    }
    if (best_f1 != nullptr) *best_f1 = std::max(best, 0.0f);
    if (detections.empty()) return 0.0f;
    const float taken = detections[best_index].first;
    return best_index + 1 < detections.size() ? (taken + detections[best_index + 1].first) / 2.0f : taken - 0.5f;
}

calibration_result calibrate_accurate(const std::vector<accurate_training_picture> &pictures,
                                      const accurate_geometry &geometry, const accurate_settings &settings,
                                      uint32_t seed) {
    calibration_result result;
    std::vector<std::pair<float, bool>> detections;
    size_t objects = 0;
    int32_t folds = 0;
    for (int32_t fold = 0; fold < 2; ++fold) {
        std::vector<picture_band> train_bands;
        std::vector<picture_band> test_bands;
        for (const accurate_training_picture &picture : pictures) {
            const double middle = middle_row(picture);
            picture_band upper{-1e300, middle};
            picture_band lower{middle, 1e300};
            train_bands.push_back(fold == 0 ? upper : lower);
            test_bands.push_back(fold == 0 ? lower : upper);
        }
        const accurate_training_result trained = train_accurate(pictures, geometry, settings, seed, &train_bands);
        if (!trained.trained) continue;
        ++folds;
        for (size_t p = 0; p < pictures.size(); ++p) {
            const accurate_training_picture &picture = pictures[p];
            const std::vector<double> wide(trained.weights.begin(), trained.weights.end());
            const quantised_weights weights =
                quantise_weights(wide.data(), geometry.channels, geometry.window_columns, geometry.window_rows);
            accurate_search search;
            search.weights = &weights;
            search.bias = trained.bias;
            search.box_width = picture.marked_width;
            search.box_height = picture.marked_height;
            std::vector<margin_box> found = search_pyramid(picture.pyramid, geometry, search,
                                                           settings.floor_margin_permille / 1000.0f);
            found.erase(std::remove_if(found.begin(), found.end(),
                                       [&](const margin_box &m) { return !test_bands[p].holds(centre_y(m.box)); }),
                        found.end());
            found = suppress_by_margin(std::move(found), settings.suppression_overlap_percent / 100.0f,
                                       static_cast<size_t>(64 + std::max(settings.max_below_boxes, 0)));
            std::vector<ostrel_alg_box> truth;
            for (const ostrel_alg_box &b : picture.boxes) {
                if (b.label == 1 && test_bands[p].holds(centre_y(b))) truth.push_back(b);
            }
            objects += truth.size();
            std::vector<bool> used(truth.size(), false);
            for (const margin_box &m : found) {  // strongest first
                int32_t best = -1;
                float best_overlap = kMatchOverlap;
                for (size_t t = 0; t < truth.size(); ++t) {
                    const float o = box_overlap(m.box, truth[t]);
                    if (!used[t] && o >= best_overlap) {
                        best_overlap = o;
                        best = static_cast<int32_t>(t);
                    }
                }
                if (best >= 0) used[static_cast<size_t>(best)] = true;
                detections.emplace_back(m.margin, best >= 0);
            }
        }
    }
    if (folds == 0 || objects == 0) {
        log("[Debug] accurate calibration: too few marked objects on both halves, margin 0 kept\n");
        return result;
    }
    result.margin = best_f1_margin(detections, objects, &result.best_f1);
    {
        std::vector<std::pair<float, bool>> d = detections;
        std::stable_sort(d.begin(), d.end(), [](const std::pair<float, bool> &a, const std::pair<float, bool> &b) { return a.first > b.first; });
        double ap = 0.0, tp = 0.0;
        std::vector<double> prec, rec;
        for (size_t i = 0; i < d.size(); ++i) { tp += d[i].second; prec.push_back(tp / (i + 1)); rec.push_back(tp / objects); }
        for (int i = static_cast<int>(prec.size()) - 2; i >= 0; --i) prec[i] = std::max(prec[i], prec[i + 1]);
        double last = 0.0;
        for (size_t i = 0; i < d.size(); ++i) { if (d[i].second) { ap += (rec[i] - last) * prec[i]; last = rec[i]; } }
        log("[Debug] calibration held-out AP %.3f\n", ap);
    }
    result.calibrated = true;
    log("[Alg. Scc] Accurate calibration: margin %.3f for 50%% confidence (held-out F1 %.3f over %zu objects)\n",
        result.margin, result.best_f1, objects);
    return result;
}

}  // namespace ostrel
