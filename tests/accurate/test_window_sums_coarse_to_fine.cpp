// The coarse-to-fine window scan: every sum it computes is the reference
// loop's integer, on every loop the processor runs; the even columns are
// always computed whole; an odd column is computed exactly in the rows
// within two of a row where an even column beside it reaches the refine
// level, and holds kSkippedSum elsewhere; with the refine level below every
// sum it is the whole scan, above every sum it computes no odd column. And
// the search over a level with the coarse-to-fine scan finds the very boxes
// of the whole scan when the refine margin reaches below every window.
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/accurate_detect.h"
#include "accurate/window_sums.h"

namespace {

struct scan_setup {
    ostrel::feature_map map;
    ostrel::quantised_weights weights;
};

// A map of smooth blobs (so that neighbouring windows have near sums, as on
// pictures) plus noise.
scan_setup make_setup(int32_t map_columns, int32_t map_rows, int32_t columns, int32_t rows, uint32_t seed) {
    std::mt19937 random(seed);
    scan_setup s;
    s.map.channels = 10;
    s.map.columns = map_columns;
    s.map.rows = map_rows;
    s.map.data.resize(static_cast<size_t>(s.map.channels) * map_columns * map_rows);
    const double cx = map_columns * 0.4, cy = map_rows * 0.6;
    for (int32_t c = 0; c < s.map.channels; ++c) {
        for (int32_t x = 0; x < map_columns; ++x) {
            for (int32_t y = 0; y < map_rows; ++y) {
                const double d2 = ((x - cx) * (x - cx) + (y - cy) * (y - cy)) / (8.0 * 8.0);
                const double v = 40.0 + 180.0 * std::exp(-d2) * (c % 2 == 0 ? 1.0 : 0.5) + (random() % 30);
                s.map.data[s.map.index(c, x, y)] = static_cast<uint8_t>(std::min(255.0, v));
            }
        }
    }
    std::vector<double> w(static_cast<size_t>(s.map.channels) * columns * rows);
    for (double &v : w) v = (static_cast<double>(random() % 20001) - 10000.0) * 1e-6 + 0.002;
    s.weights = ostrel::quantise_weights(w.data(), s.map.channels, columns, rows);
    return s;
}

// The rows of odd column x that the scan must compute for refine level t.
std::vector<bool> expected_rows(const ostrel::window_sum_grid &whole, int32_t x, double t) {
    std::vector<bool> rows(static_cast<size_t>(whole.rows), false);
    for (int32_t y = 0; y < whole.rows; ++y) {
        const bool reaches = whole.at(x - 1, y) >= t || (x + 1 < whole.columns && whole.at(x + 1, y) >= t);
        if (!reaches) continue;
        for (int32_t z = std::max(0, y - 2); z <= std::min(whole.rows - 1, y + 2); ++z)
            rows[static_cast<size_t>(z)] = true;
    }
    return rows;
}

TEST(WindowSumsCoarseToFine, ComputedSumsAreTheReferenceSumsAndSkippedOnesAreWhereNoNeighbourReaches) {
    const struct {
        int32_t map_columns, map_rows, columns, rows;
    } shapes[] = {{40, 70, 7, 15}, {41, 133, 6, 12}, {9, 20, 8, 19}, {33, 65, 1, 1}, {50, 97, 5, 5}};
    uint32_t seed = 3;
    for (const auto &shape : shapes) {
        const scan_setup s = make_setup(shape.map_columns, shape.map_rows, shape.columns, shape.rows, seed++);
        const ostrel::window_sum_grid reference = ostrel::window_sums_reference(s.map, s.weights);
        ASSERT_FALSE(reference.sums.empty());
        std::vector<int32_t> sorted = reference.sums;
        std::sort(sorted.begin(), sorted.end());
        // Refine levels from below every sum to above every sum.
        const double levels[] = {static_cast<double>(sorted.front()) - 1.0,
                                 static_cast<double>(sorted[sorted.size() / 2]),
                                 static_cast<double>(sorted[sorted.size() * 9 / 10]),
                                 static_cast<double>(sorted.back()) + 1.0};
        for (const ostrel::sums_path path : ostrel::available_sums_paths()) {
            for (const double t : levels) {
                const ostrel::window_sum_grid grid =
                    ostrel::window_sums_coarse_to_fine(ostrel::pair_cells(s.map), s.weights, t, path);
                ASSERT_EQ(grid.columns, reference.columns);
                ASSERT_EQ(grid.rows, reference.rows);
                for (int32_t x = 0; x < grid.columns; ++x) {
                    const std::vector<bool> wanted = x % 2 == 0
                                                         ? std::vector<bool>(static_cast<size_t>(grid.rows), true)
                                                         : expected_rows(reference, x, t);
                    for (int32_t y = 0; y < grid.rows; ++y) {
                        if (wanted[static_cast<size_t>(y)]) {
                            ASSERT_EQ(grid.at(x, y), reference.at(x, y))
                                << "path " << static_cast<int>(path) << " level " << t << " at " << x << "," << y;
                        } else {
                            // Computing more is allowed (runs are joined), but
                            // a sum is either the reference or skipped.
                            ASSERT_TRUE(grid.at(x, y) == ostrel::kSkippedSum || grid.at(x, y) == reference.at(x, y))
                                << "path " << static_cast<int>(path) << " at " << x << "," << y;
                        }
                    }
                }
                if (t < sorted.front()) {
                    EXPECT_EQ(grid.sums, reference.sums) << "below every sum: the whole scan";
                }
                if (t > sorted.back()) {
                    for (int32_t x = 1; x < grid.columns; x += 2) {
                        for (int32_t y = 0; y < grid.rows; ++y) EXPECT_EQ(grid.at(x, y), ostrel::kSkippedSum);
                    }
                }
            }
        }
    }
}

TEST(WindowSumsCoarseToFine, NoWindowFitsGivesAnEmptyGrid) {
    const scan_setup s = make_setup(5, 30, 7, 15, 1);  // narrower than the window
    EXPECT_TRUE(ostrel::window_sums_coarse_to_fine(ostrel::pair_cells(s.map), s.weights, 0.0).sums.empty());
}

bool same_boxes(const std::vector<ostrel::margin_box> &a, const std::vector<ostrel::margin_box> &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].margin != b[i].margin || a[i].box.x != b[i].box.x || a[i].box.y != b[i].box.y ||
            a[i].box.width != b[i].box.width || a[i].box.height != b[i].box.height) {
            return false;
        }
    }
    return true;
}

TEST(WindowSumsCoarseToFine, TheSearchWithAMarginBelowEveryWindowFindsTheWholeScansBoxes) {
    const scan_setup s = make_setup(60, 90, 7, 15, 11);
    ostrel::pyramid_level level;
    level.size_factor = 1.0;
    level.scale_x = level.scale_y = 1.0f;
    ostrel::accurate_geometry geometry;
    geometry.window_columns = 7;
    geometry.window_rows = 15;
    geometry.object_columns = 5.0;
    geometry.object_rows = 11.0;
    geometry.scale_x = geometry.scale_y = 1.0f;
    ostrel::accurate_search search;
    search.weights = &s.weights;
    search.sum_scale = 1e-6;
    search.box_width = 10.0;
    search.box_height = 22.0;
    // The bias that puts the floor at the grid's median sum: half the
    // windows reach it.
    const ostrel::window_sum_grid reference = ostrel::window_sums_reference(s.map, s.weights);
    std::vector<int32_t> sorted = reference.sums;
    std::sort(sorted.begin(), sorted.end());
    const double scale = s.weights.scale * search.sum_scale;
    search.bias = -static_cast<double>(sorted[sorted.size() / 2]) * scale;
    const double span = (static_cast<double>(sorted.back()) - sorted.front()) * scale;
    for (const bool maxima : {false, true}) {
        search.neighbourhood_maxima = maxima;
        std::vector<ostrel::margin_box> whole, coarse, narrow;
        search.refine_margin = -1.0;
        ostrel::search_level(s.map, level, geometry, search, 0.0f, &whole);
        search.refine_margin = span + 1.0;
        ostrel::search_level(s.map, level, geometry, search, 0.0f, &coarse);
        ASSERT_FALSE(whole.empty());
        EXPECT_TRUE(same_boxes(whole, coarse)) << "maxima " << maxima;
        // With a refine margin of 0 the windows found are some of the whole
        // scan's (without the neighbourhood test, a subset of them).
        search.refine_margin = 0.0;
        ostrel::search_level(s.map, level, geometry, search, 0.0f, &narrow);
        EXPECT_FALSE(narrow.empty());
        if (!maxima) EXPECT_LE(narrow.size(), whole.size());
    }
}

}  // namespace
