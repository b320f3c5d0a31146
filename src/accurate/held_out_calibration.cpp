#include "accurate/held_out_calibration.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "accurate/window_sums.h"
#include "common/box_geometry.h"
#include "common/portable_math.h"

namespace ostrel {

namespace {

// Cuts whose F1 is within this fraction of the best count as equally good.
constexpr double kFlatTolerance = 0.001;
// A detection finds an object when they overlap this much (IoU).
constexpr float kFoundOverlap = 0.4f;
constexpr float kMissed = -std::numeric_limits<float>::infinity();

ostrel_alg_box mirrored_box(const ostrel_alg_box &box, int32_t columns) {
    ostrel_alg_box out = box;
    out.x = columns - box.x - box.width;
    return out;
}

// Matches the strip's detections to its objects, strongest first, and adds
// what it finds to *scores. Detections on objects outside the strip count
// neither way.
void score_part(std::vector<margin_box> detections, const std::vector<ostrel_alg_box> &objects,
                const held_out_part &part, held_out_scores *scores) {
    std::stable_sort(detections.begin(), detections.end(),
                     [](const margin_box &a, const margin_box &b) { return a.margin > b.margin; });
    std::vector<const ostrel_alg_box *> inside;
    std::vector<const ostrel_alg_box *> outside;
    for (size_t i = 0; i < objects.size(); ++i) {
        (part.holds_object(i, objects[i].x + objects[i].width / 2.0) ? inside : outside).push_back(&objects[i]);
    }
    std::vector<float> found(inside.size(), kMissed);
    for (const margin_box &d : detections) {
        int best = -1;
        float best_overlap = kFoundOverlap;
        for (size_t i = 0; i < inside.size(); ++i) {
            if (found[i] != kMissed) continue;
            const float o = box_overlap(d.box, *inside[i]);
            if (o >= best_overlap) {
                best_overlap = o;
                best = static_cast<int>(i);
            }
        }
        if (best >= 0) {
            found[static_cast<size_t>(best)] = d.margin;
            continue;
        }
        // A false alarm counts only in the held-out strip, and not on an
        // object the classifier learnt.
        const bool on_other = std::any_of(outside.begin(), outside.end(), [&](const ostrel_alg_box *o) {
            return box_overlap(d.box, *o) >= kFoundOverlap;
        });
        if (!on_other && part.holds(d.box.x + d.box.width / 2.0)) scores->false_alarms.push_back(d.margin);
    }
    scores->objects.insert(scores->objects.end(), found.begin(), found.end());
}

}  // namespace

held_out_scores score_held_out_parts(const std::vector<accurate_training_picture> &pictures,
                                     const accurate_geometry &geometry, const accurate_settings &settings,
                                     const accurate_search &search, uint32_t seed, int32_t folds,
                                     const accurate_training_state *trained_state) {
    held_out_scores scores;
    folds = std::max(folds, 2);
    accurate_settings fold_settings = settings;
    fold_settings.mining_rounds = std::min(settings.mining_rounds, settings.calibration_mining_rounds);
    for (int32_t f = 0; f < folds; ++f) {
        // Background: strip f of the columns. Objects: every folds-th one in
        // the order of their centres from left to right, so that each fold
        // keeps objects of every kind there is (pawns of both colours, near
        // and far people) rather than a strip's worth of one.
        std::vector<held_out_part> parts;
        for (const accurate_training_picture &picture : pictures) {
            const double width = picture.pyramid.picture_columns;
            held_out_part part{width * f / folds, width * (f + 1) / folds, {}};
            std::vector<std::pair<double, size_t>> order;
            for (const ostrel_alg_box &b : picture.boxes) {
                if (b.label == 1) order.emplace_back(b.x + b.width / 2.0 + 1e-6 * (b.y + b.height / 2.0), order.size());
            }
            std::stable_sort(order.begin(), order.end());
            part.objects.assign(order.size(), 0);
            for (size_t rank = 0; rank < order.size(); ++rank) {
                part.objects[order[rank].second] = rank % static_cast<size_t>(folds) == static_cast<size_t>(f);
            }
            parts.push_back(std::move(part));
        }
        const accurate_training_result trained = trained_state != nullptr
                                                     ? retrain_without(*trained_state, parts, settings, seed)
                                                     : train_accurate(pictures, geometry, fold_settings, seed, parts);
        if (!trained.trained) continue;
        const std::vector<double> wide(trained.weights.begin(), trained.weights.end());
        const quantised_weights weights =
            quantise_weights(wide.data(), kAccurateChannels, geometry.window_columns, geometry.window_rows);
        for (size_t p = 0; p < pictures.size(); ++p) {
            const accurate_training_picture &picture = pictures[p];
            const int32_t columns = picture.pyramid.picture_columns;
            accurate_search fold_search = search;
            fold_search.weights = &weights;
            fold_search.sum_scale = 1.0;
            fold_search.bias = trained.bias;
            fold_search.box_height = picture.finest_height;
            fold_search.box_width = picture.finest_height * search.box_width / std::max(search.box_height, 1e-9);
            std::vector<ostrel_alg_box> objects;
            for (const ostrel_alg_box &b : picture.boxes) {
                if (b.label == 1) objects.push_back(b);
            }
            for (int32_t mirrored = 0; mirrored <= 1; ++mirrored) {
                held_out_part part = parts[p];
                std::vector<ostrel_alg_box> here = objects;
                if (mirrored) {
                    part.left = columns - parts[p].right;
                    part.right = columns - parts[p].left;
                    for (ostrel_alg_box &b : here) b = mirrored_box(b, columns);
                }
                // The whole picture is searched, as detection searches it: a
                // held-out object anywhere is found or missed, and the
                // suppression sees every neighbour.
                std::vector<margin_box> candidates;
                for (const pyramid_level &level : picture.pyramid.levels) {
                    const feature_map &map = mirrored ? level.mirrored : level.map;
                    if (map.empty()) continue;
                    search_level(map, level, geometry, fold_search, settings.floor_margin_permille / 1000.0f,
                                 &candidates);
                }
                const size_t limit = candidates.size() + 1;
                const std::vector<margin_box> kept =
                    suppress_by_margin(std::move(candidates), settings.suppression_overlap_percent / 100.0f, limit,
                                       settings.suppression_contained_percent / 100.0f);
                score_part(kept, here, part, &scores);
            }
        }
    }
    return scores;
}

held_out_scores score_rescaled_copies(const std::vector<accurate_training_picture> &pictures,
                                      const accurate_geometry &geometry, const accurate_settings &settings,
                                      const accurate_search &search, const std::vector<double> &factors,
                                      const copy_levels &plan) {
    held_out_scores scores;
    for (const accurate_training_picture &picture : pictures) {
        if (picture.bgr.empty()) continue;
        for (double q : factors) {
            const int32_t columns = std::max(1, static_cast<int32_t>(std::lround(picture.bgr.cols * q)));
            const int32_t rows = std::max(1, static_cast<int32_t>(std::lround(picture.bgr.rows * q)));
            cv::Mat copy;
            // The bit-exact interpolation: the same copy on every machine.
            cv::resize(picture.bgr, copy, cv::Size(columns, rows), 0.0, 0.0, cv::INTER_LINEAR_EXACT);
            double finest_height = 0.0;
            const accurate_pyramid pyramid = plan.levels(split_bgr(copy), &finest_height);
            if (pyramid.empty()) continue;
            const double sx = static_cast<double>(columns) / picture.bgr.cols;
            const double sy = static_cast<double>(rows) / picture.bgr.rows;
            std::vector<ostrel_alg_box> objects;
            for (const ostrel_alg_box &b : picture.boxes) {
                if (b.label != 1) continue;
                ostrel_alg_box scaled = b;
                scaled.x = static_cast<int32_t>(std::lround(b.x * sx));
                scaled.y = static_cast<int32_t>(std::lround(b.y * sy));
                scaled.width = std::max(1, static_cast<int32_t>(std::lround(b.width * sx)));
                scaled.height = std::max(1, static_cast<int32_t>(std::lround(b.height * sy)));
                objects.push_back(scaled);
            }
            accurate_search copy_search = search;
            copy_search.box_height = finest_height;
            copy_search.box_width = finest_height * search.box_width / std::max(search.box_height, 1e-9);
            std::vector<margin_box> candidates;
            for (const pyramid_level &level : pyramid.levels) {
                search_level(level.map, level, geometry, copy_search, settings.floor_margin_permille / 1000.0f,
                             &candidates);
            }
            const size_t limit = candidates.size() + 1;
            const std::vector<margin_box> kept =
                suppress_by_margin(std::move(candidates), settings.suppression_overlap_percent / 100.0f, limit,
                                   settings.suppression_contained_percent / 100.0f);
            // Every object is held out of nothing here: the whole copy counts.
            held_out_part all{0.0, static_cast<double>(columns) + 1.0, std::vector<uint8_t>(objects.size(), 1)};
            score_part(kept, objects, all, &scores);
        }
    }
    return scores;
}

namespace {

// The expected count of margins at or above t when each is smeared by a
// normal of width h.
double smoothed_count(const std::vector<float> &margins, double t, double h) {
    double n = 0.0;
    for (float m : margins) {
        // Our own erfc: the C libraries' differ in their last bits, and the
        // cut is the best of these sums, the same on every platform.
        if (std::isfinite(m)) n += 0.5 * portable_erfc((t - m) / (h * std::sqrt(2.0)));
    }
    return n;
}

double smoothed_f1(const held_out_scores &s, double t, double h) {
    const double found = smoothed_count(s.objects, t, h);
    const double alarms = smoothed_count(s.false_alarms, t, h);
    const double total = static_cast<double>(s.objects.size());
    return total + found + alarms > 0.0 ? 2.0 * found / (total + found + alarms) : 0.0;
}

}  // namespace

float best_f1_margin(const std::vector<const held_out_scores *> &sets, float bandwidth, float low, float high,
                     float fallback) {
    bool any_found = false;
    for (const held_out_scores *s : sets) {
        any_found =
            any_found || std::any_of(s->objects.begin(), s->objects.end(), [](float m) { return std::isfinite(m); });
    }
    if (!any_found || !(high > low) || !(bandwidth > 0.0f)) return fallback;
    // The sum of the sets' smoothed F1 over a grid of hundredths. Where it
    // is flat at its best (objects far above every false alarm) the middle
    // of the flat stretch is the cut, not its edge.
    const int32_t steps = static_cast<int32_t>(std::ceil((high - low) * 100.0f));
    std::vector<double> sums(static_cast<size_t>(steps) + 1);
    for (int32_t i = 0; i <= steps; ++i) {
        const double t = low + i / 100.0;
        for (const held_out_scores *s : sets) sums[static_cast<size_t>(i)] += smoothed_f1(*s, t, bandwidth);
    }
    const size_t peak = static_cast<size_t>(std::max_element(sums.begin(), sums.end()) - sums.begin());
    const double flat = sums[peak] * (1.0 - kFlatTolerance);
    size_t first = peak, last = peak;
    while (first > 0 && sums[first - 1] >= flat) --first;
    while (last + 1 < sums.size() && sums[last + 1] >= flat) ++last;
    return static_cast<float>(low + (first + last) / 2 / 100.0);
}

float shrunk_cut(float learnt, size_t objects, float prior, int32_t prior_objects) {
    const double n = static_cast<double>(objects);
    const double n0 = std::max(prior_objects, 0);
    if (n + n0 <= 0.0) return learnt;
    return static_cast<float>((n * learnt + n0 * prior) / (n + n0));
}

}  // namespace ostrel
