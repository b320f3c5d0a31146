// Several classifiers scanned together (window_sums_classes): each one's
// grid is exactly what its own scan gives - the reference loop's integers
// for a whole scan, the one-class coarse-to-fine grid (kSkippedSum at the
// very same positions) otherwise - on every loop the processor runs, for
// one to nine classifiers of one window shape (the shared loop takes them
// four at a time), for classifiers of several shapes, for a mix of whole
// and coarse-to-fine scans, and with grids kept from an earlier call.
#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/window_sums.h"

namespace {

constexpr double kWhole = -std::numeric_limits<double>::infinity();

ostrel::feature_map smooth_map(int32_t columns, int32_t rows, std::mt19937 &random) {
    ostrel::feature_map map;
    map.channels = 10;
    map.columns = columns;
    map.rows = rows;
    map.data.resize(static_cast<size_t>(map.channels) * columns * rows);
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t x = 0; x < columns; ++x) {
            for (int32_t y = 0; y < rows; ++y) {
                const int v = 60 + ((x * 7 + y * 3 + c * 11) % 90) + static_cast<int>(random() % 100);
                map.data[map.index(c, x, y)] = static_cast<uint8_t>(std::min(v, 255));
            }
        }
    }
    return map;
}

std::vector<ostrel::quantised_weights> classifiers(size_t count, int32_t columns, int32_t rows, std::mt19937 &random) {
    std::vector<ostrel::quantised_weights> out;
    for (size_t k = 0; k < count; ++k) {
        std::vector<double> w(static_cast<size_t>(10) * columns * rows);
        for (double &v : w) {
            v = (static_cast<double>(random() % 20001) - 10000.0) * 1e-6 + 0.001 * static_cast<double>(k % 3);
        }
        out.push_back(ostrel::quantise_weights(w.data(), 10, columns, rows));
    }
    return out;
}

std::vector<const ostrel::quantised_weights *> pointers(const std::vector<ostrel::quantised_weights> &weights) {
    std::vector<const ostrel::quantised_weights *> out;
    for (const ostrel::quantised_weights &w : weights) out.push_back(&w);
    return out;
}

// A refine level near the top tenth of the classifier's sums, so that the
// coarse-to-fine scan skips most odd positions but computes some.
double upper_sum(const ostrel::feature_map &map, const ostrel::quantised_weights &weights) {
    std::vector<int32_t> sums = ostrel::window_sums_reference(map, weights).sums;
    std::sort(sums.begin(), sums.end());
    return static_cast<double>(sums[sums.size() * 9 / 10]);
}

// Each grid against the classifier's own scan on the same loop.
void expect_own_scans(const ostrel::paired_map &paired, const ostrel::feature_map &map,
                      const std::vector<const ostrel::quantised_weights *> &weights,
                      const std::vector<double> &refine_from, ostrel::sums_path path,
                      const std::vector<ostrel::window_sum_grid> &grids, const std::string &what) {
    ASSERT_EQ(grids.size(), weights.size()) << what;
    for (size_t k = 0; k < weights.size(); ++k) {
        const bool whole = refine_from.empty() || refine_from[k] == kWhole;
        const ostrel::window_sum_grid own =
            whole ? ostrel::window_sums_reference(map, *weights[k])
                  : ostrel::window_sums_coarse_to_fine(paired, *weights[k], refine_from[k], path);
        ASSERT_FALSE(own.sums.empty()) << what;
        EXPECT_EQ(grids[k].columns, own.columns) << what << ", classifier " << k;
        EXPECT_EQ(grids[k].rows, own.rows) << what << ", classifier " << k;
        EXPECT_EQ(grids[k].sums, own.sums) << what << ", classifier " << k;
    }
}

TEST(WindowSumsClasses, EachClassifierOfOneShapeGetsItsOwnScansSumsOnEveryLoop) {
    std::mt19937 random(5);
    const struct {
        int32_t map_columns, map_rows, columns, rows;
    } cases[] = {{40, 70, 7, 15}, {37, 133, 6, 16}, {7, 14, 7, 14}, {29, 81, 5, 9}, {22, 200, 7, 23}};
    for (const auto &c : cases) {
        const ostrel::feature_map map = smooth_map(c.map_columns, c.map_rows, random);
        const ostrel::paired_map paired = ostrel::pair_cells(map);
        for (const size_t count : {size_t{1}, size_t{2}, size_t{3}, size_t{4}, size_t{5}, size_t{9}}) {
            const std::vector<ostrel::quantised_weights> weights = classifiers(count, c.columns, c.rows, random);
            const std::vector<const ostrel::quantised_weights *> list = pointers(weights);
            std::vector<double> coarse, mixed;
            for (size_t k = 0; k < count; ++k) {
                coarse.push_back(upper_sum(map, weights[k]));
                mixed.push_back(k % 2 == 0 ? kWhole : coarse.back());
            }
            for (const ostrel::sums_path path : ostrel::available_sums_paths()) {
                const std::string what = std::to_string(count) + " classifiers of " + std::to_string(c.columns) + "x" +
                                         std::to_string(c.rows) + " on " + std::to_string(c.map_columns) + "x" +
                                         std::to_string(c.map_rows) + ", loop " +
                                         std::to_string(static_cast<int>(path));
                std::vector<ostrel::window_sum_grid> grids;
                ostrel::window_sums_classes(paired, list, {}, path, &grids);
                expect_own_scans(paired, map, list, {}, path, grids, what + ", whole");
                ostrel::window_sums_classes(paired, list, coarse, path, &grids);
                expect_own_scans(paired, map, list, coarse, path, grids, what + ", coarse to fine");
                ostrel::window_sums_classes(paired, list, mixed, path, &grids);
                expect_own_scans(paired, map, list, mixed, path, grids, what + ", whole and coarse to fine");
            }
        }
    }
}

TEST(WindowSumsClasses, ClassifiersOfSeveralShapesEachGetTheirOwnScansSums) {
    std::mt19937 random(9);
    const ostrel::feature_map map = smooth_map(45, 90, random);
    const ostrel::paired_map paired = ostrel::pair_cells(map);
    std::vector<ostrel::quantised_weights> weights = classifiers(2, 7, 15, random);
    for (ostrel::quantised_weights &w : classifiers(1, 6, 16, random)) weights.push_back(std::move(w));
    for (ostrel::quantised_weights &w : classifiers(1, 7, 14, random)) weights.push_back(std::move(w));
    const std::vector<const ostrel::quantised_weights *> list = pointers(weights);
    std::vector<double> coarse;
    for (const ostrel::quantised_weights &w : weights) coarse.push_back(upper_sum(map, w));
    for (const ostrel::sums_path path : ostrel::available_sums_paths()) {
        std::vector<ostrel::window_sum_grid> grids;
        ostrel::window_sums_classes(paired, list, {}, path, &grids);
        expect_own_scans(paired, map, list, {}, path, grids, "several shapes, whole");
        ostrel::window_sums_classes(paired, list, coarse, path, &grids);
        expect_own_scans(paired, map, list, coarse, path, grids, "several shapes, coarse to fine");
    }
}

TEST(WindowSumsClasses, GridsKeptFromALargerMapHoldOnlyTheNewMapsSums) {
    std::mt19937 random(13);
    const ostrel::feature_map large = smooth_map(50, 120, random);
    const ostrel::feature_map small = smooth_map(19, 41, random);
    const std::vector<ostrel::quantised_weights> weights = classifiers(3, 7, 15, random);
    const std::vector<const ostrel::quantised_weights *> list = pointers(weights);
    const ostrel::paired_map small_paired = ostrel::pair_cells(small);
    std::vector<ostrel::window_sum_grid> grids;
    ostrel::window_sums_classes(ostrel::pair_cells(large), list, {}, ostrel::sums_path::fastest, &grids);
    ostrel::window_sums_classes(small_paired, list, {}, ostrel::sums_path::fastest, &grids);
    expect_own_scans(small_paired, small, list, {}, ostrel::sums_path::fastest, grids, "after a larger map");
}

TEST(WindowSumsClasses, AMapSmallerThanTheWindowGivesEveryClassifierAnEmptyGrid) {
    std::mt19937 random(17);
    const std::vector<ostrel::quantised_weights> weights = classifiers(3, 7, 15, random);
    std::vector<ostrel::window_sum_grid> grids;
    ostrel::window_sums_classes(ostrel::pair_cells(smooth_map(30, 60, random)), pointers(weights), {},
                                ostrel::sums_path::fastest, &grids);
    ostrel::window_sums_classes(ostrel::pair_cells(smooth_map(6, 40, random)), pointers(weights), {},
                                ostrel::sums_path::fastest, &grids);
    ASSERT_EQ(grids.size(), 3u);
    for (const ostrel::window_sum_grid &g : grids) EXPECT_TRUE(g.sums.empty());
}

}  // namespace
