#include "accurate/accurate_trainer.h"

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "accurate/linear_svm.h"
#include "accurate/window_sums.h"
#include "common/log.h"
#include "common/progress.h"
#include "common/portable_math.h"

namespace ostrel {

namespace {

// A window on the wrong side of this margin still pulls on the classifier.
constexpr float kHingeMargin = -1.0f;

// One map of the training set: a level of a picture, or its mirror image.
struct training_map {
    const feature_map *map = nullptr;
    const pyramid_level *level = nullptr;
    uint32_t picture = 0;
    bool mirrored = false;
    int32_t picture_columns = 0;
    paired_map paired;
    // Windows that may be background: position (x, y) at x * rows + y.
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
// marked_height. Ties keep the smaller size.
size_t nearest_level(const ostrel_alg_box &box, const accurate_training_picture &picture) {
    const double ratio = std::sqrt(static_cast<double>(box.width) * box.height /
                                   (static_cast<double>(picture.marked_width) * picture.marked_height));
    size_t best = static_cast<size_t>(picture.pyramid.marked_level);
    double best_distance = 1e300;
    for (size_t k = 0; k < picture.pyramid.levels.size(); ++k) {
        const double d = std::fabs(portable_log(ratio / picture.pyramid.levels[k].size_factor));
        if (d < best_distance - 1e-12) {
            best_distance = d;
            best = k;
        }
    }
    return best;
}

bool window_inside(const feature_map &map, int32_t x, int32_t y, const accurate_geometry &g) {
    return x >= 0 && y >= 0 && x + g.window_columns <= map.columns && y + g.window_rows <= map.rows;
}

// Marks the windows of a map that may be background: those whose object
// box overlaps no marked object (label 1) by `limit` or more.
void mark_background(training_map &tm, const pyramid_level &level, const accurate_geometry &geometry,
                     const std::vector<ostrel_alg_box> &boxes, double limit, double size_ratio,
                     const held_out_part &held_out) {
    // Areas this many times larger or smaller are another size.
    const double area_ratio = size_ratio > 1.0 ? size_ratio * size_ratio : 0.0;
    tm.columns = tm.map->columns - geometry.window_columns + 1;
    tm.rows = tm.map->rows - geometry.window_rows + 1;
    tm.allowed.assign(static_cast<size_t>(tm.columns) * tm.rows, 1);
    if (tm.columns < 1 || tm.rows < 1) return;
    // A window's object box moves by cell_x picture pixels a column and
    // cell_y a row: only the windows near a box can overlap it.
    double l0, t0, w, h;
    window_object_box(0, 0, level, geometry, &l0, &t0, &w, &h);
    const double cell_x = kAccurateShrink / static_cast<double>(level.scale_x);
    const double cell_y = kAccurateShrink / static_cast<double>(level.scale_y);
    for (int32_t x = 0; x < tm.columns; ++x) {
        if (!held_out.holds(l0 + x * cell_x + w / 2.0)) continue;
        std::fill(tm.allowed.begin() + static_cast<std::ptrdiff_t>(x) * tm.rows,
                  tm.allowed.begin() + static_cast<std::ptrdiff_t>(x + 1) * tm.rows, 0);
    }
    for (const ostrel_alg_box &box : boxes) {
        if (box.label != 1) continue;
        const double areas = w * h / (static_cast<double>(box.width) * box.height);
        if (area_ratio != 0.0 && !(areas < area_ratio && areas * area_ratio > 1.0)) continue;
        // Windows whose object box reaches into the box, one cell either side.
        const int32_t x0 = std::max(0, static_cast<int32_t>(std::floor((box.x - w - l0) / cell_x)) - 1);
        const int32_t x1 =
            std::min(tm.columns - 1, static_cast<int32_t>(std::ceil((box.x + box.width - l0) / cell_x)) + 1);
        const int32_t y0 = std::max(0, static_cast<int32_t>(std::floor((box.y - h - t0) / cell_y)) - 1);
        const int32_t y1 =
            std::min(tm.rows - 1, static_cast<int32_t>(std::ceil((box.y + box.height - t0) / cell_y)) + 1);
        for (int32_t x = x0; x <= x1; ++x) {
            for (int32_t y = y0; y <= y1; ++y) {
                double l, t, ww, hh;
                window_object_box(x, y, level, geometry, &l, &t, &ww, &hh);
                if (overlap(l, t, ww, hh, box.x, box.y, box.width, box.height) >= limit) {
                    tm.allowed[static_cast<size_t>(x) * tm.rows + y] = 0;
                }
            }
        }
    }
}

uint64_t window_id(size_t map_index, int32_t x, int32_t y) {
    return (static_cast<uint64_t>(map_index) << 40) | (static_cast<uint64_t>(x) << 20) | static_cast<uint64_t>(y);
}

}  // namespace

void box_window_cell(const ostrel_alg_box &box, const pyramid_level &level, const accurate_geometry &geometry,
                     int32_t *x, int32_t *y) {
    const double cx = (box.x + box.width / 2.0) * level.scale_x / kAccurateShrink;
    const double cy = (box.y + box.height / 2.0) * level.scale_y / kAccurateShrink;
    *x = static_cast<int32_t>(std::floor(cx - geometry.window_columns / 2.0 + 0.5)) + level.pad_columns;
    *y = static_cast<int32_t>(std::floor(cy - geometry.window_rows / 2.0 + 0.5)) + level.pad_rows;
}

void window_object_box(int32_t x, int32_t y, const pyramid_level &level, const accurate_geometry &geometry,
                       double *left, double *top, double *width, double *height) {
    // The object's cells, centred in the window.
    const double object_columns = geometry.object_columns_or_window();
    const double object_rows = geometry.object_rows_or_window();
    const double inset_x = (geometry.window_columns - object_columns) / 2.0;
    const double inset_y = (geometry.window_rows - object_rows) / 2.0;
    *left = (x - level.pad_columns + inset_x) * static_cast<double>(kAccurateShrink) / level.scale_x;
    *top = (y - level.pad_rows + inset_y) * static_cast<double>(kAccurateShrink) / level.scale_y;
    *width = object_columns * static_cast<double>(kAccurateShrink) / level.scale_x;
    *height = object_rows * static_cast<double>(kAccurateShrink) / level.scale_y;
}

accurate_training_result train_accurate(const std::vector<accurate_training_picture> &pictures,
                                        const accurate_geometry &geometry, const accurate_settings &settings,
                                        uint32_t seed, const std::vector<held_out_part> &held_out,
                                        accurate_training_state *state) {
    accurate_training_result result;
    const int32_t dimension = geometry.window_features();
    auto owned_svm = std::make_unique<linear_svm>(dimension);
    linear_svm &svm = *owned_svm;
    std::vector<sample_origin> origins;
    std::vector<uint8_t> bytes(static_cast<size_t>(dimension));
    // The centre (picture columns) of background window (x, y) of a map.
    auto window_centre = [&](const training_map &tm, int32_t x, int32_t y) {
        double l, t, w, h;
        window_object_box(x, y, *tm.level, geometry, &l, &t, &w, &h);
        const double centre = l + w / 2.0;
        return tm.mirrored ? tm.picture_columns - centre : centre;
    };

    // --- marked windows, and the maps with the windows that may be background
    std::vector<training_map> maps;
    for (size_t p = 0; p < pictures.size(); ++p) {
        const accurate_training_picture &picture = pictures[p];
        const accurate_pyramid &pyramid = picture.pyramid;
        const held_out_part part = p < held_out.size() ? held_out[p] : held_out_part{};
        for (int32_t mirrored = 0; mirrored <= 1; ++mirrored) {
            std::vector<ostrel_alg_box> boxes = picture.boxes;
            // The held-out part in this map's picture (mirrored with it).
            held_out_part here = part;
            if (mirrored) {
                for (ostrel_alg_box &b : boxes) b = mirror_box(b, pyramid.picture_columns);
                here.left = pyramid.picture_columns - part.right;
                here.right = pyramid.picture_columns - part.left;
            }
            // Objects (label 1) and boxes marked as background (other labels).
            size_t object_index = 0;
            for (const ostrel_alg_box &box : boxes) {
                const size_t index = box.label == 1 ? object_index++ : 0;
                if (box.width < 1 || box.height < 1) continue;
                if (box.label == 1 && !picture.object_windows.empty()) continue;  // cut at their own sizes
                if (box.label == 1 ? here.holds_object(index, box.x + box.width / 2.0)
                                   : here.holds(box.x + box.width / 2.0)) {
                    continue;
                }
                const pyramid_level &level = pyramid.levels[nearest_level(box, picture)];
                const feature_map &map = mirrored ? level.mirrored : level.map;
                int32_t x = 0, y = 0;
                box_window_cell(box, level, geometry, &x, &y);
                if (!window_inside(map, x, y, geometry)) continue;
                window_bytes(map, x, y, geometry.window_columns, geometry.window_rows, bytes.data());
                svm.add(bytes.data(), box.label == 1 ? 1 : -1);
                const ostrel_alg_box &original = picture.boxes[static_cast<size_t>(&box - boxes.data())];
                origins.push_back(sample_origin{static_cast<uint32_t>(p),
                                                box.label == 1 ? static_cast<int32_t>(index) : -1,
                                                original.x + original.width / 2.0});
                (box.label == 1 ? result.positives : result.negatives) += 1;
            }
            if (!mirrored) {
                // Each object has as many windows, in the order of the objects.
                std::vector<const ostrel_alg_box *> objects;
                for (const ostrel_alg_box &box : picture.boxes) {
                    if (box.label == 1) objects.push_back(&box);
                }
                const size_t per_object = objects.empty() ? 0 : picture.object_windows.size() / objects.size();
                for (size_t w = 0; w < picture.object_windows.size(); ++w) {
                    const std::vector<uint8_t> &window = picture.object_windows[w];
                    if (window.size() != bytes.size()) continue;
                    const size_t index = per_object > 0 ? w / per_object : objects.size();
                    if (index < objects.size() &&
                        part.holds_object(index, objects[index]->x + objects[index]->width / 2.0)) {
                        continue;
                    }
                    svm.add(window.data(), 1);
                    origins.push_back(
                        sample_origin{static_cast<uint32_t>(p), static_cast<int32_t>(index),
                                      index < objects.size() ? objects[index]->x + objects[index]->width / 2.0 : 0.0});
                    ++result.positives;
                }
            }
            for (const pyramid_level &level : pyramid.levels) {
                training_map tm;
                tm.map = mirrored ? &level.mirrored : &level.map;
                tm.level = &level;
                tm.picture = static_cast<uint32_t>(p);
                tm.mirrored = mirrored != 0;
                tm.picture_columns = pyramid.picture_columns;
                if (tm.map->columns < geometry.window_columns || tm.map->rows < geometry.window_rows) continue;
                mark_background(tm, level, geometry, boxes, settings.negative_overlap_percent / 100.0,
                                settings.negative_size_ratio_percent / 100.0, here);
                tm.paired = pair_cells(*tm.map);
                maps.push_back(std::move(tm));
            }
        }
    }
    if (result.positives == 0) {
        log("[Debug] accurate training: no marked object has a window inside its picture\n");
        return result;
    }

    // --- first background: an even spread over all allowed windows ---------
    std::unordered_set<uint64_t> taken;
    size_t allowed_total = 0;
    for (const training_map &tm : maps) {
        allowed_total += static_cast<size_t>(std::count(tm.allowed.begin(), tm.allowed.end(), 1));
    }
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
                    origins.push_back(sample_origin{tm.picture, -1, window_centre(tm, x, y)});
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
    svm_settings.cost = settings.cost_permille / 1000.0;
    svm_settings.seed = seed;
    int32_t epochs = svm.train(svm_settings);
    log_progress("[Alg. Scc] Accurate training: %u objects, %u background windows, %d passes of the solver\n",
                 result.positives, result.negatives, epochs);
    ostrel_alg_progress first = progress_record(OSTREL_ALG_STAGE_ACCURATE_TRAINING);
    first.object_windows = static_cast<int32_t>(result.positives);
    first.background_windows = static_cast<int32_t>(result.negatives);
    report_progress(first);

    // --- mining rounds ------------------------------------------------------
    struct hard_window {
        float margin;
        uint64_t id;
    };
    for (int32_t round = 1; round <= settings.mining_rounds; ++round) {
        if (result.negatives >= static_cast<uint32_t>(std::max(settings.max_negatives, 0))) break;
        const std::vector<float> byte_weights = svm.byte_weights();
        const std::vector<double> wide(byte_weights.begin(), byte_weights.end());
        const quantised_weights weights =
            quantise_weights(wide.data(), kAccurateChannels, geometry.window_columns, geometry.window_rows);
        const double bias = svm.bias();
        std::vector<hard_window> hard;
        for (size_t m = 0; m < maps.size(); ++m) {
            const training_map &tm = maps[m];
            const window_sum_grid grid = window_sums(tm.paired, weights);
            for (int32_t x = 0; x < grid.columns; ++x) {
                for (int32_t y = 0; y < grid.rows; ++y) {
                    const float margin = static_cast<float>(grid.at(x, y) * weights.scale + bias);
                    if (margin <= kHingeMargin || !tm.allowed[static_cast<size_t>(x) * tm.rows + y]) continue;
                    const uint64_t id = window_id(m, x, y);
                    if (taken.count(id)) continue;
                    hard.push_back({margin, id});
                }
            }
        }
        if (hard.empty()) break;
        std::sort(hard.begin(), hard.end(), [](const hard_window &a, const hard_window &b) {
            return a.margin != b.margin ? a.margin > b.margin : a.id < b.id;
        });
        const size_t room = static_cast<size_t>(settings.max_negatives) - result.negatives;
        const size_t take =
            std::min({hard.size(), static_cast<size_t>(std::max(settings.negatives_per_round, 0)), room});
        for (size_t i = 0; i < take; ++i) {
            const uint64_t id = hard[i].id;
            const size_t m = static_cast<size_t>(id >> 40);
            const int32_t x = static_cast<int32_t>((id >> 20) & 0xFFFFF);
            const int32_t y = static_cast<int32_t>(id & 0xFFFFF);
            window_bytes(*maps[m].map, x, y, geometry.window_columns, geometry.window_rows, bytes.data());
            svm.add(bytes.data(), -1);
            origins.push_back(sample_origin{maps[m].picture, -1, window_centre(maps[m], x, y)});
            taken.insert(id);
            ++result.negatives;
        }
        epochs = svm.train(svm_settings);
        result.rounds = round;
        log_progress(
            "[Alg. Scc] Accurate mining round %d: %zu of %zu hard background windows added, %d passes of the solver\n",
            round, take, hard.size(), epochs);
        ostrel_alg_progress mined = progress_record(OSTREL_ALG_STAGE_MINING_ROUND);
        mined.round = round;
        mined.object_windows = static_cast<int32_t>(result.positives);
        mined.background_windows = static_cast<int32_t>(result.negatives);
        mined.hard_windows_added = static_cast<int32_t>(take);
        mined.hard_windows_found = static_cast<int32_t>(hard.size());
        report_progress(mined);
    }

    result.weights = svm.byte_weights();
    result.bias = svm.bias();
    result.trained = true;
    if (state != nullptr) {
        state->svm = std::move(owned_svm);
        state->origins = std::move(origins);
    }
    return result;
}

accurate_training_result retrain_without(const accurate_training_state &state,
                                         const std::vector<held_out_part> &held_out, const accurate_settings &settings,
                                         uint32_t seed) {
    accurate_training_result result;
    if (!state.svm || state.origins.size() != state.svm->size()) return result;
    const linear_svm &full = *state.svm;
    linear_svm svm(full.dimension());
    svm.set_centre(full.centre());
    for (size_t i = 0; i < full.size(); ++i) {
        const sample_origin &o = state.origins[i];
        if (o.picture < held_out.size()) {
            const held_out_part &part = held_out[o.picture];
            if (o.object >= 0 ? part.holds_object(static_cast<size_t>(o.object), o.centre_x) : part.holds(o.centre_x)) {
                continue;
            }
        }
        svm.add(full.sample(i), full.label(i), full.alpha(i));
        (full.label(i) > 0 ? result.positives : result.negatives) += 1;
    }
    if (result.positives == 0 || result.negatives == 0) return result;
    linear_svm_settings svm_settings;
    svm_settings.cost = settings.cost_permille / 1000.0;
    svm_settings.seed = seed;
    svm.train(svm_settings);
    result.weights = svm.byte_weights();
    result.bias = svm.bias();
    result.trained = true;
    return result;
}

}  // namespace ostrel
