#include "accurate/accurate_trainer.h"

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "accurate/linear_svm.h"
#include "accurate/window_margins.h"
#include "accurate/window_sums.h"
#include "common/log.h"

namespace ostrel {

namespace {

// One map of the training set: a level of a picture, or its mirror image.
struct training_map {
    const feature_map *map = nullptr;
    const pyramid_level *level = nullptr;
    bool mirrored = false;
    int32_t picture = 0;
    // Windows that may be negatives: position (x, y) at x * rows + y.
    int32_t columns = 0;
    int32_t rows = 0;
    std::vector<uint8_t> allowed;
};

double overlap(double al, double at, double aw, double ah, double bl, double bt, double bw, double bh) {
    const double iw = std::min(al + aw, bl + bw) - std::max(al, bl);
    const double ih = std::min(at + ah, bt + bh) - std::max(at, bt);
    if (iw <= 0.0 || ih <= 0.0) return 0.0;
    const double inter = iw * ih;
    return inter / (aw * ah + bw * bh - inter);
}

ostrel_alg_box mirror_box(const ostrel_alg_box &box, int32_t picture_columns) {
    ostrel_alg_box out = box;
    out.x = picture_columns - box.x - box.width;
    return out;
}

// The level whose object size is nearest (in area, on a log scale) to the
// box's size, for a picture whose marked size is marked_width x
// marked_height.
int32_t nearest_level(const ostrel_alg_box &box, const accurate_training_picture &picture) {
    const double ratio = std::sqrt(static_cast<double>(box.width) * box.height /
                                   (static_cast<double>(picture.marked_width) * picture.marked_height));
    int32_t best = picture.pyramid.marked_level;
    double best_distance = 1e300;
    for (size_t k = 0; k < picture.pyramid.levels.size(); ++k) {
        const double d = std::fabs(std::log(ratio / picture.pyramid.levels[k].size_factor));
        if (d < best_distance - 1e-12) {
            best_distance = d;
            best = static_cast<int32_t>(k);
        }
    }
    return best;
}

bool window_inside(const feature_map &map, int32_t x, int32_t y, const accurate_geometry &g) {
    return x >= 0 && y >= 0 && x + g.window_columns <= map.columns && y + g.window_rows <= map.rows;
}

}  // namespace

void box_window_cell(const ostrel_alg_box &box, const pyramid_level &level, const accurate_geometry &geometry,
                     int32_t *x, int32_t *y) {
    const double cx = (box.x + box.width / 2.0) * level.scale_x / kAccurateShrink;
    const double cy = (box.y + box.height / 2.0) * level.scale_y / kAccurateShrink;
    *x = static_cast<int32_t>(std::floor(cx - geometry.object_columns / 2.0 + 0.5)) - geometry.context +
         level.pad_columns;
    *y = static_cast<int32_t>(std::floor(cy - geometry.object_rows / 2.0 + 0.5)) - geometry.context + level.pad_rows;
}

void window_object_box(int32_t x, int32_t y, const pyramid_level &level, const accurate_geometry &geometry,
                       double *left, double *top, double *width, double *height) {
    *left = (x - level.pad_columns + geometry.context) * static_cast<double>(kAccurateShrink) / level.scale_x;
    *top = (y - level.pad_rows + geometry.context) * static_cast<double>(kAccurateShrink) / level.scale_y;
    *width = geometry.object_columns * static_cast<double>(kAccurateShrink) / level.scale_x;
    *height = geometry.object_rows * static_cast<double>(kAccurateShrink) / level.scale_y;
}

accurate_training_result train_accurate(const std::vector<accurate_training_picture> &pictures,
                                        const accurate_geometry &geometry, const accurate_settings &settings,
                                        uint32_t seed, const std::vector<picture_band> *bands) {
    accurate_training_result result;
    const int32_t dimension = geometry.window_features();
    linear_svm svm(dimension);
    std::vector<uint8_t> bytes(static_cast<size_t>(dimension));

    // --- positives, and the maps with the windows that may be negatives ----
    std::vector<training_map> maps;
    for (size_t p = 0; p < pictures.size(); ++p) {
        const accurate_training_picture &picture = pictures[p];
        const accurate_pyramid &pyramid = picture.pyramid;
        const picture_band band = bands != nullptr && p < bands->size() ? (*bands)[p] : picture_band{};
        for (int32_t mirrored = 0; mirrored <= (settings.mirror ? 1 : 0); ++mirrored) {
            std::vector<ostrel_alg_box> boxes = picture.boxes;
            if (mirrored) {
                for (ostrel_alg_box &b : boxes) b = mirror_box(b, pyramid.picture_columns);
            }
            // Positives (label 1) and marked background (other labels).
            for (const ostrel_alg_box &box : boxes) {
                if (!band.holds(box.y + box.height / 2.0)) continue;
                const pyramid_level &level = pyramid.levels[static_cast<size_t>(nearest_level(box, picture))];
                const feature_map &map = mirrored ? level.mirrored : level.map;
                int32_t x0 = 0, y0 = 0;
                box_window_cell(box, level, geometry, &x0, &y0);
                const int32_t reach = box.label == 1 ? std::max(settings.jitter_cells, 0) : 0;
                for (int32_t dx = -reach; dx <= reach; ++dx) {
                    for (int32_t dy = -reach; dy <= reach; ++dy) {
                        if (!window_inside(map, x0 + dx, y0 + dy, geometry)) continue;
                        window_bytes(map, x0 + dx, y0 + dy, geometry.window_columns, geometry.window_rows, bytes.data());
                        svm.add(bytes.data(), box.label == 1 ? 1 : -1);
                        (box.label == 1 ? result.positives : result.negatives) += 1;
                    }
                }
            }
            for (const pyramid_level &level : pyramid.levels) {
                training_map tm;
                tm.map = mirrored ? &level.mirrored : &level.map;
                tm.level = &level;
                tm.mirrored = mirrored != 0;
                tm.picture = static_cast<int32_t>(p);
                if (tm.map->columns < geometry.window_columns || tm.map->rows < geometry.window_rows) continue;
                tm.columns = tm.map->columns - geometry.window_columns + 1;
                tm.rows = tm.map->rows - geometry.window_rows + 1;
                tm.allowed.assign(static_cast<size_t>(tm.columns) * tm.rows, 1);
                const double limit = settings.negative_overlap_percent / 100.0;
                for (int32_t x = 0; x < tm.columns; ++x) {
                    for (int32_t y = 0; y < tm.rows; ++y) {
                        double l, t, w, h;
                        window_object_box(x, y, level, geometry, &l, &t, &w, &h);
                        if (!band.holds(t + h / 2.0)) {
                            tm.allowed[static_cast<size_t>(x) * tm.rows + y] = 0;
                            continue;
                        }
                        for (const ostrel_alg_box &box : boxes) {
                            if (box.label != 1) continue;
                            if (overlap(l, t, w, h, box.x, box.y, box.width, box.height) >= limit) {
                                tm.allowed[static_cast<size_t>(x) * tm.rows + y] = 0;
                                break;
                            }
                        }
                    }
                }
                maps.push_back(std::move(tm));
            }
        }
    }
    if (result.positives == 0) {
        log("[Debug] accurate training: no marked object has a window inside its picture\n");
        return result;
    }

    // --- first negatives: an even spread over all allowed windows ----------
    std::unordered_set<uint64_t> taken;
    auto window_id = [](size_t map_index, int32_t x, int32_t y) {
        return (static_cast<uint64_t>(map_index) << 40) | (static_cast<uint64_t>(x) << 20) | static_cast<uint64_t>(y);
    };
    size_t allowed_total = 0;
    for (const training_map &tm : maps) allowed_total += static_cast<size_t>(std::count(tm.allowed.begin(), tm.allowed.end(), 1));
    if (allowed_total == 0) {
        log("[Debug] accurate training: every window overlaps a marked object, no background to learn from\n");
        return result;
    }
    const size_t wanted = std::min<size_t>(allowed_total, static_cast<size_t>(std::max(settings.initial_negatives, 1)));
    const double spread = static_cast<double>(allowed_total) / static_cast<double>(wanted);
    size_t seen = 0;
    double next = 0.0;
    for (size_t m = 0; m < maps.size(); ++m) {
        const training_map &tm = maps[m];
        for (int32_t x = 0; x < tm.columns; ++x) {
            for (int32_t y = 0; y < tm.rows; ++y) {
                if (!tm.allowed[static_cast<size_t>(x) * tm.rows + y]) continue;
                if (static_cast<double>(seen) >= next) {
                    window_bytes(*tm.map, x, y, geometry.window_columns, geometry.window_rows, bytes.data());
                    svm.add(bytes.data(), -1);
                    taken.insert(window_id(m, x, y));
                    ++result.negatives;
                    next += spread;
                }
                ++seen;
            }
        }
    }

    svm.centre_on_samples();
    linear_svm_settings svm_settings;
    svm_settings.cost_positive = settings.cost_positive_permille / 1000.0;
    svm_settings.cost_negative = settings.cost_negative_permille / 1000.0;
    svm_settings.seed = seed;
    int32_t epochs = svm.train(svm_settings);
    log("[Alg. Scc] Accurate training: %u positives, %u negatives, %d epochs\n", result.positives, result.negatives,
        epochs);

    // --- mining rounds ------------------------------------------------------
    struct hard_window {
        float margin;
        uint64_t id;
    };
    for (int32_t round = 1; round <= settings.mining_rounds; ++round) {
        const std::vector<float> byte_weights = svm.byte_weights();
        const std::vector<double> wide(byte_weights.begin(), byte_weights.end());
        const quantised_weights weights =
            quantise_weights(wide.data(), geometry.channels, geometry.window_columns, geometry.window_rows);
        const double bias = svm.bias();
        const float suspect = settings.suspect_margin_permille / 1000.0f;
        std::vector<hard_window> hard;
        for (size_t m = 0; m < maps.size(); ++m) {
            const training_map &tm = maps[m];
            const window_sum_grid grid = window_sums(pair_cells(*tm.map), weights);
            for (int32_t x = 0; x < grid.columns; ++x) {
                for (int32_t y = 0; y < grid.rows; ++y) {
                    const float margin = static_cast<float>(grid.at(x, y) * weights.scale + bias);
                    if (margin <= -1.0f || margin > suspect || !tm.allowed[static_cast<size_t>(x) * tm.rows + y]) continue;
                    const uint64_t id = window_id(m, x, y);
                    if (taken.count(id)) continue;
                    hard.push_back({margin, id});
                }
            }
        }
        if (hard.empty() || result.negatives >= static_cast<uint32_t>(settings.max_negatives)) {
            result.rounds = round - 1;
            break;
        }
        std::sort(hard.begin(), hard.end(), [](const hard_window &a, const hard_window &b) {
            return a.margin != b.margin ? a.margin > b.margin : a.id < b.id;
        });
        const size_t room = static_cast<size_t>(settings.max_negatives) - result.negatives;
        const size_t take = std::min({hard.size(), static_cast<size_t>(settings.negatives_per_round), room});
        for (size_t i = 0; i < take; ++i) {
            const uint64_t id = hard[i].id;
            const size_t m = static_cast<size_t>(id >> 40);
            const int32_t x = static_cast<int32_t>((id >> 20) & 0xFFFFF);
            const int32_t y = static_cast<int32_t>(id & 0xFFFFF);
            window_bytes(*maps[m].map, x, y, geometry.window_columns, geometry.window_rows, bytes.data());
            svm.add(bytes.data(), -1);
            taken.insert(id);
            ++result.negatives;
        }
        epochs = svm.train(svm_settings);
        result.rounds = round;
        log("[Alg. Scc] Accurate mining round %d: %zu hard negatives of %zu added, %d epochs\n", round, take,
            hard.size(), epochs);
    }

    result.weights = svm.byte_weights();
    result.bias = svm.bias();
    result.trained = true;
    return result;
}

}  // namespace ostrel
