#include "accurate/accurate_detect.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "accurate/accurate_trainer.h"
#include "common/box_geometry.h"
#include "common/portable_math.h"
#include "detect/color_labels.h"

namespace ostrel {

bool neighbours_suppressed(int32_t window_columns, int32_t window_rows, float max_overlap) {
    if (window_columns < 2 || window_rows < 2) return false;
    const double inside = static_cast<double>(window_columns - 1) * (window_rows - 1);
    const double area = static_cast<double>(window_columns) * window_rows;
    return inside / (2.0 * area - inside) >= max_overlap;
}

double size_prior_penalty(const accurate_search &search, double object_height) {
    if (!(search.size_penalty > 0.0) || !(search.taught_min > 0.0) || !(object_height > 0.0) ||
        !(search.penalty_step > 1.0)) {
        return 0.0;
    }
    // Logarithms of our own: the penalty goes into the score, which must be
    // the same bits on every platform.
    const double beyond = std::max({0.0, portable_log(search.taught_min / object_height),
                                    portable_log(object_height / std::max(search.taught_max, search.taught_min))});
    return search.size_penalty * beyond / portable_log(search.penalty_step);
}

namespace {

// Whether the window at (x, y) is the strongest of its 3 x 3 neighbourhood
// among the positions searched (inset from the grid's edges); of equal sums
// the first in column, row order. The windows above and below are looked
// at first: on a slope one of them is the stronger, and the other column's
// windows need not be read.
bool neighbourhood_maximum(const window_sum_grid &grid, int32_t x, int32_t y, int32_t inset_columns,
                           int32_t inset_rows) {
    const int32_t rows = grid.rows;
    const int32_t *column = grid.sums.data() + static_cast<std::ptrdiff_t>(x) * rows;
    const int32_t sum = column[y];
    const bool above = y - 1 >= inset_rows;
    const bool below = y + 1 < rows - inset_rows;
    // An earlier window (the column before, or above) wins a tie.
    if ((above && column[y - 1] >= sum) || (below && column[y + 1] > sum)) return false;
    if (x - 1 >= inset_columns) {
        const int32_t *left = column - rows;
        if (left[y] >= sum || (above && left[y - 1] >= sum) || (below && left[y + 1] >= sum)) return false;
    }
    if (x + 1 < grid.columns - inset_columns) {
        const int32_t *right = column + rows;
        if (right[y] > sum || (above && right[y - 1] > sum) || (below && right[y + 1] > sum)) return false;
    }
    return true;
}

}  // namespace

void search_level(const feature_map &map, const pyramid_level &level, const accurate_geometry &geometry,
                  const accurate_search &search, float floor_margin, std::vector<margin_box> *out) {
    search_paired_level(pair_cells(map), level, geometry, search, floor_margin, 0, 0, out);
}

namespace {

// What a class's search needs of a level: its margin's terms and the
// least sum that can reach the floor.
struct level_terms {
    double scale = 0.0;  // margin per unit of window sum
    double width = 0.0;  // reported box, pixels
    double height = 0.0;
    double bias = 0.0;
    double floor_sum = 0.0;  // sums below this cannot reach the floor (the test below is exact)
};

level_terms terms_of(const accurate_search &search, const pyramid_level &level, float floor_margin) {
    level_terms t;
    t.scale = search.weights->scale * search.sum_scale;
    t.width = search.box_width * level.size_factor;
    t.height = search.box_height * level.size_factor;
    t.bias = search.bias - size_prior_penalty(search, t.height);
    t.floor_sum = (floor_margin - t.bias) / t.scale - 1.0;
    return t;
}

// Where the coarse-to-fine scan refines the odd columns from; -infinity
// when every window is computed.
double refine_from(const accurate_search &search, const level_terms &t) {
    return search.refine_margin >= 0.0 && t.scale > 0.0 ? t.floor_sum - search.refine_margin / t.scale
                                                        : -std::numeric_limits<double>::infinity();
}

// The candidates of a level's grid of sums, appended to *out.
// Marks (1) the positions [first, end) of a grid column that reach `least`
// and beat the windows above and below among the searched rows (the
// first step of the neighbourhood test), in one pass without branches.
void mark_column_peaks(const int32_t *column, int32_t first, int32_t end, int32_t least, uint8_t *marks) {
    if (end - first < 3) {
        for (int32_t y = first; y < end; ++y) {
            const bool above = y - 1 >= first && column[y - 1] >= column[y];
            const bool below = y + 1 < end && column[y + 1] > column[y];
            marks[y] = static_cast<uint8_t>(column[y] >= least && !above && !below);
        }
        return;
    }
    marks[first] = static_cast<uint8_t>(column[first] >= least && column[first + 1] <= column[first]);
    for (int32_t y = first + 1; y < end - 1; ++y) {
        const int32_t sum = column[y];
        marks[y] = static_cast<uint8_t>((sum >= least) & (column[y - 1] < sum) & (column[y + 1] <= sum));
    }
    marks[end - 1] = static_cast<uint8_t>(column[end - 1] >= least && column[end - 2] < column[end - 1]);
}

// The candidates of a level's grid of sums, appended to *out.
void collect_candidates(const window_sum_grid &grid, const level_terms &t, const pyramid_level &level,
                        const accurate_geometry &geometry, const accurate_search &search, float floor_margin,
                        int32_t inset_columns, int32_t inset_rows, std::vector<margin_box> *out) {
    // The positions whose sum is not below floor_sum (every one for a NaN),
    // found in integers.
    const int64_t least = std::isnan(t.floor_sum) ? INT32_MIN : least_sum_reaching(t.floor_sum);
    if (least > INT32_MAX) return;
    const int32_t end = grid.rows - inset_rows;
    const auto add = [&](int32_t x, int32_t y, int32_t sum) {
        const float margin = static_cast<float>(sum * t.scale + t.bias);
        if (margin < floor_margin) return;
        double l, tp, w, h;
        window_object_box(x, y, level, geometry, &l, &tp, &w, &h);
        margin_box candidate;
        candidate.margin = margin;
        candidate.box.x = static_cast<int32_t>(std::floor(l + w / 2.0 - t.width / 2.0 + 0.5));
        candidate.box.y = static_cast<int32_t>(std::floor(tp + h / 2.0 - t.height / 2.0 + 0.5));
        candidate.box.width = static_cast<int32_t>(std::floor(t.width + 0.5));
        candidate.box.height = static_cast<int32_t>(std::floor(t.height + 0.5));
        out->push_back(candidate);
    };
    if (!search.neighbourhood_maxima) {
        for (int32_t x = inset_columns; x < grid.columns - inset_columns; ++x) {
            const int32_t *column = grid.sums.data() + static_cast<size_t>(x) * grid.rows;
            for (int32_t y = next_sum_reaching(column, inset_rows, end, static_cast<int32_t>(least)); y < end;
                 y = next_sum_reaching(column, y + 1, end, static_cast<int32_t>(least))) {
                add(x, y, column[y]);
            }
        }
        return;
    }
    // Where most windows reach the floor, testing each one's neighbourhood
    // costs a branch per window that goes either way: the peaks of each
    // column are marked first, and only they take the whole test.
    std::vector<uint8_t> marks(static_cast<size_t>(std::max(grid.rows, 0)));
    for (int32_t x = inset_columns; x < grid.columns - inset_columns; ++x) {
        const int32_t *column = grid.sums.data() + static_cast<size_t>(x) * grid.rows;
        if (end <= inset_rows) continue;
        mark_column_peaks(column, inset_rows, end, static_cast<int32_t>(least), marks.data());
        for (int32_t y = inset_rows; y < end;) {
            uint64_t eight = 1;  // few positions are peaks: eight marks are passed over at once
            if (y + 8 <= end) std::memcpy(&eight, marks.data() + y, sizeof eight);
            if (eight == 0) {
                y += 8;
                continue;
            }
            if (marks[static_cast<size_t>(y)] != 0 && neighbourhood_maximum(grid, x, y, inset_columns, inset_rows)) {
                add(x, y, column[y]);
            }
            ++y;
        }
    }
}

}  // namespace

void search_paired_level(const paired_map &paired, const pyramid_level &level, const accurate_geometry &geometry,
                         const accurate_search &search, float floor_margin, int32_t inset_columns, int32_t inset_rows,
                         std::vector<margin_box> *out) {
    const level_terms t = terms_of(search, level, floor_margin);
    const double from = refine_from(search, t);
    const window_sum_grid grid = from == -std::numeric_limits<double>::infinity()
                                     ? window_sums(paired, *search.weights)
                                     : window_sums_coarse_to_fine(paired, *search.weights, from);
    collect_candidates(grid, t, level, geometry, search, floor_margin, inset_columns, inset_rows, out);
}

void search_paired_level_classes(const paired_map &paired, const pyramid_level &level,
                                 const std::vector<class_level_search> &classes, float floor_margin,
                                 level_scan_scratch *scratch) {
    // Classes of one window shape go through one scan.
    std::vector<bool> done(classes.size(), false);
    std::vector<level_terms> terms(classes.size());
    std::vector<size_t> group;
    for (size_t i = 0; i < classes.size(); ++i) {
        if (done[i]) continue;
        const quantised_weights &shape = *classes[i].search->weights;
        group.clear();
        scratch->weights.clear();
        scratch->refine_from.clear();
        for (size_t k = i; k < classes.size(); ++k) {
            const quantised_weights &w = *classes[k].search->weights;
            if (done[k] || w.channels != shape.channels || w.window_columns != shape.window_columns ||
                w.window_rows != shape.window_rows) {
                continue;
            }
            done[k] = true;
            group.push_back(k);
            terms[k] = terms_of(*classes[k].search, level, floor_margin);
            scratch->weights.push_back(&w);
            scratch->refine_from.push_back(refine_from(*classes[k].search, terms[k]));
        }
        window_sums_classes(paired, scratch->weights, scratch->refine_from, sums_path::fastest, &scratch->grids);
        for (size_t g = 0; g < group.size(); ++g) {
            const class_level_search &c = classes[group[g]];
            collect_candidates(scratch->grids[g], terms[group[g]], level, *c.geometry, *c.search, floor_margin,
                               c.inset_columns, c.inset_rows, c.out);
        }
    }
}

std::vector<margin_box> search_pyramid(const accurate_pyramid &pyramid, const accurate_geometry &geometry,
                                       const accurate_search &search, float floor_margin) {
    std::vector<margin_box> out;
    for (const pyramid_level &level : pyramid.levels) {
        search_level(level.map, level, geometry, search, floor_margin, &out);
    }
    return out;
}

std::vector<margin_box> suppress_by_margin(std::vector<margin_box> boxes, float max_overlap, size_t limit) {
    return suppress_by_margin(std::move(boxes), max_overlap, limit, 1.0f);
}

namespace {

// The part of the smaller box's area inside the other box.
float contained_fraction(const ostrel_alg_box &a, const ostrel_alg_box &b) {
    const int64_t iw = std::min<int64_t>(static_cast<int64_t>(a.x) + a.width, static_cast<int64_t>(b.x) + b.width) -
                       std::max(a.x, b.x);
    const int64_t ih = std::min<int64_t>(static_cast<int64_t>(a.y) + a.height, static_cast<int64_t>(b.y) + b.height) -
                       std::max(a.y, b.y);
    if (iw <= 0 || ih <= 0) return 0.0f;
    const double smaller = std::min(static_cast<double>(a.width) * a.height, static_cast<double>(b.width) * b.height);
    return smaller > 0.0 ? static_cast<float>(static_cast<double>(iw) * static_cast<double>(ih) / smaller) : 0.0f;
}

}  // namespace

std::vector<margin_box> suppress_by_margin(std::vector<margin_box> boxes, float max_overlap, size_t limit,
                                           float max_contained) {
    std::stable_sort(boxes.begin(), boxes.end(),
                     [](const margin_box &a, const margin_box &b) { return a.margin > b.margin; });
    std::vector<margin_box> kept;
    for (const margin_box &candidate : boxes) {
        if (kept.size() >= limit) break;
        bool suppressed = false;
        for (const margin_box &k : kept) {
            if (box_overlap(candidate.box, k.box) >= max_overlap ||
                (max_contained < 1.0f && contained_fraction(candidate.box, k.box) >= max_contained)) {
                suppressed = true;
                break;
            }
        }
        if (!suppressed) kept.push_back(candidate);
    }
    return kept;
}

float margin_confidence(float margin) {
    return static_cast<float>(1.0 / (1.0 + portable_exp(-static_cast<double>(margin))));
}

ostrel_alg_box clip_to_picture(const ostrel_alg_box &box, int32_t width, int32_t height) {
    ostrel_alg_box out = box;
    const int64_t left = std::max<int64_t>(box.x, 0);
    const int64_t top = std::max<int64_t>(box.y, 0);
    const int64_t right = std::min<int64_t>(static_cast<int64_t>(box.x) + box.width, width);
    const int64_t bottom = std::min<int64_t>(static_cast<int64_t>(box.y) + box.height, height);
    out.x = static_cast<int32_t>(std::min<int64_t>(left, width - 1));
    out.y = static_cast<int32_t>(std::min<int64_t>(top, height - 1));
    out.width = static_cast<int32_t>(std::max<int64_t>(right - out.x, 1));
    out.height = static_cast<int32_t>(std::max<int64_t>(bottom - out.y, 1));
    return out;
}

namespace {

// Colour classes of boxes from one Lab record of a level.
void label_colours_on(const chn_image8 &lab_record, const pyramid_level &level, std::vector<ostrel_alg_box> &boxes) {
    // The Lab record is the transposed working picture (its rows are the
    // picture's columns), so each box is scaled and transposed to match it.
    std::vector<ostrel_alg_box> transposed = boxes;
    for (ostrel_alg_box &b : transposed) {
        const int32_t x = static_cast<int32_t>(b.x * level.scale_x);
        const int32_t y = static_cast<int32_t>(b.y * level.scale_y);
        const int32_t w = std::max(1, static_cast<int32_t>(b.width * level.scale_x));
        const int32_t h = std::max(1, static_cast<int32_t>(b.height * level.scale_y));
        b.x = y;
        b.y = x;
        b.width = h;
        b.height = w;
    }
    lab_planes_view lab;
    lab.width = lab_record.width;
    lab.height = lab_record.height;
    lab.L = lab_record.plane(0);
    lab.a = lab_record.plane(1);
    lab.b = lab_record.plane(2);
    labelColors(lab, lab.width, lab.height, transposed);
    for (size_t i = 0; i < boxes.size(); ++i) {
        boxes[i].color_main = transposed[i].color_main;
        boxes[i].color_second = transposed[i].color_second;
    }
}

}  // namespace

void label_colours(const accurate_pyramid &pyramid, std::vector<ostrel_alg_box> &boxes) {
    if (pyramid.lab.empty() || pyramid.levels.empty()) return;
    label_colours_on(pyramid.lab, pyramid.levels[static_cast<size_t>(pyramid.marked_level)], boxes);
}

void label_colours_by_level(const accurate_pyramid &pyramid, std::vector<ostrel_alg_box> &boxes) {
    // Exact levels with Lab planes, finest first (the order of the levels).
    std::vector<size_t> with_lab;
    for (size_t k = 0; k < pyramid.levels.size(); ++k) {
        if (!pyramid.levels[k].lab.empty()) with_lab.push_back(k);
    }
    if (with_lab.empty()) return;
    std::vector<std::vector<size_t>> groups(with_lab.size());
    for (size_t i = 0; i < boxes.size(); ++i) {
        size_t chosen = 0;
        for (size_t j = 0; j < with_lab.size(); ++j) {
            if (boxes[i].height * pyramid.levels[with_lab[j]].scale_y >= kColourRows) chosen = j;
        }
        groups[chosen].push_back(i);
    }
    for (size_t j = 0; j < with_lab.size(); ++j) {
        if (groups[j].empty()) continue;
        std::vector<ostrel_alg_box> group;
        for (size_t i : groups[j]) group.push_back(boxes[i]);
        const pyramid_level &level = pyramid.levels[with_lab[j]];
        label_colours_on(level.lab, level, group);
        for (size_t g = 0; g < group.size(); ++g) boxes[groups[j][g]] = group[g];
    }
}

}  // namespace ostrel
