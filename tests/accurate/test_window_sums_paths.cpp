// Every loop of the window scan - plain, SSE2, AVX2, AVX-512 VNNI - gives
// the reference loop's integers, for windows of many shapes and maps of
// many sizes: odd sizes, a map exactly one window large, a window one cell
// wide or tall, bytes and weights at their extremes. A loop the processor
// lacks is reported as skipped, never passed.
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/window_sums.h"

namespace {

struct scan_case {
    ostrel::feature_map map;
    std::vector<double> weights;
    int32_t columns = 0;
    int32_t rows = 0;
    std::string name;
};

ostrel::feature_map filled_map(int32_t channels, int32_t columns, int32_t rows, std::mt19937 &random, int fill) {
    ostrel::feature_map map;
    map.channels = channels;
    map.columns = columns;
    map.rows = rows;
    map.data.resize(static_cast<size_t>(channels) * columns * rows);
    for (uint8_t &v : map.data) v = fill < 0 ? static_cast<uint8_t>(random() & 0xff) : static_cast<uint8_t>(fill);
    return map;
}

std::vector<scan_case> scan_cases() {
    std::mt19937 random(7);
    std::vector<scan_case> cases;
    auto add = [&](int32_t channels, int32_t map_columns, int32_t map_rows, int32_t columns, int32_t rows, int fill,
                   double weight_fill, const std::string &name) {
        scan_case c;
        c.map = filled_map(channels, map_columns, map_rows, random, fill);
        c.columns = columns;
        c.rows = rows;
        c.weights.resize(static_cast<size_t>(channels) * columns * rows);
        for (double &w : c.weights) {
            w = weight_fill != 0.0 ? weight_fill : (static_cast<double>(random() % 20001) - 10000.0) * 1e-6;
        }
        c.name = name;
        cases.push_back(std::move(c));
    };
    for (int trial = 0; trial < 12; ++trial) {
        add(10, 9 + static_cast<int32_t>(random() % 60), 9 + static_cast<int32_t>(random() % 90),
            3 + static_cast<int32_t>(random() % 6), 3 + static_cast<int32_t>(random() % 7), -1, 0.0,
            "random " + std::to_string(trial));
    }
    add(10, 6, 8, 6, 8, -1, 0.0, "map one window large");
    add(10, 7, 9, 6, 8, -1, 0.0, "two positions each way");
    add(3, 31, 97, 1, 1, -1, 0.0, "window of one cell");
    add(3, 33, 5, 4, 5, -1, 0.0, "one row of positions");
    add(3, 5, 131, 5, 1, -1, 0.0, "one column of positions, window one cell tall");
    add(10, 21, 67, 5, 11, 255, 0.5, "all bytes 255, weights all positive");
    add(10, 21, 67, 5, 11, 255, -0.5, "all bytes 255, weights all negative");
    add(10, 19, 45, 4, 8, -1, 1e-9, "tiny weights");
    add(10, 64, 127, 8, 16, -1, 0.0, "block edges");
    add(10, 65, 129, 7, 15, -1, 0.0, "just past the block edges");
    return cases;
}

void expect_path_matches_reference(ostrel::sums_path path) {
    if (!ostrel::sums_path_available(path)) GTEST_SKIP() << "this processor does not run this loop";
    for (const scan_case &c : scan_cases()) {
        const ostrel::quantised_weights q =
            ostrel::quantise_weights(c.weights.data(), c.map.channels, c.columns, c.rows);
        const ostrel::window_sum_grid reference = ostrel::window_sums_reference(c.map, q);
        ASSERT_FALSE(reference.sums.empty()) << c.name;
        const ostrel::window_sum_grid sums = ostrel::window_sums(ostrel::pair_cells(c.map), q, path);
        ASSERT_EQ(sums.columns, reference.columns) << c.name;
        ASSERT_EQ(sums.rows, reference.rows) << c.name;
        ASSERT_EQ(sums.sums, reference.sums) << c.name;
    }
}

TEST(WindowSumsPaths, ThePortableLoopGivesTheReferenceSums) {
    expect_path_matches_reference(ostrel::sums_path::portable);
}
TEST(WindowSumsPaths, TheSse2LoopGivesTheReferenceSums) { expect_path_matches_reference(ostrel::sums_path::sse2); }
TEST(WindowSumsPaths, TheAvx2LoopGivesTheReferenceSums) { expect_path_matches_reference(ostrel::sums_path::avx2); }
TEST(WindowSumsPaths, TheAvx512VnniLoopGivesTheReferenceSums) {
    expect_path_matches_reference(ostrel::sums_path::avx512_vnni);
}
TEST(WindowSumsPaths, TheFastestLoopGivesTheReferenceSums) {
    expect_path_matches_reference(ostrel::sums_path::fastest);
}

TEST(WindowSumsPaths, AWindowLargerThanTheMapGivesNoSums) {
    std::mt19937 random(3);
    const ostrel::feature_map map = filled_map(2, 5, 7, random, -1);
    const std::vector<double> weights(2 * 6 * 7, 0.01);
    const ostrel::quantised_weights q = ostrel::quantise_weights(weights.data(), 2, 6, 7);
    for (const ostrel::sums_path path : {ostrel::sums_path::portable, ostrel::sums_path::fastest}) {
        EXPECT_TRUE(ostrel::window_sums(ostrel::pair_cells(map), q, path).sums.empty());
    }
    EXPECT_TRUE(ostrel::window_sums_reference(map, q).sums.empty());
}

}  // namespace
