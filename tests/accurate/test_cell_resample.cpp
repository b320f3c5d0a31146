// Shrinking a channel map by area averaging (the approximated levels of the
// fast pyramid): a plane of one value keeps it, a map's means are kept, the
// gains scale a plane and saturate at 255, the vector loop gives the plain
// loop's bytes.
#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/cell_resample.h"
#include "accurate/cpu_features.h"

namespace {

ostrel::feature_map random_map(int32_t channels, int32_t columns, int32_t rows, unsigned seed) {
    ostrel::feature_map map;
    map.channels = channels;
    map.columns = columns;
    map.rows = rows;
    map.data.resize(static_cast<size_t>(channels) * columns * rows);
    std::mt19937 random(seed);
    for (uint8_t &v : map.data) v = static_cast<uint8_t>(random() & 0xff);
    return map;
}

double plane_mean(const ostrel::feature_map &map, int32_t c) {
    double sum = 0.0;
    for (size_t i = 0; i < map.plane_size(); ++i) sum += map.data[static_cast<size_t>(c) * map.plane_size() + i];
    return sum / static_cast<double>(map.plane_size());
}

TEST(CellResample, APlaneOfOneValueKeepsIt) {
    ostrel::feature_map map = random_map(2, 57, 41, 1);
    std::fill(map.data.begin(), map.data.begin() + static_cast<std::ptrdiff_t>(map.plane_size()), 77);
    std::fill(map.data.begin() + static_cast<std::ptrdiff_t>(map.plane_size()), map.data.end(), 255);
    for (const auto &size : {std::pair<int, int>{50, 36}, {32, 23}, {29, 21}, {57, 41}, {1, 1}}) {
        const ostrel::feature_map out = ostrel::shrink_cells(map, size.first, size.second);
        ASSERT_EQ(out.columns, size.first);
        ASSERT_EQ(out.rows, size.second);
        for (size_t i = 0; i < out.plane_size(); ++i) {
            ASSERT_EQ(out.data[i], 77);
            ASSERT_EQ(out.data[out.plane_size() + i], 255);
        }
    }
}

TEST(CellResample, TheMeansAreKept) {
    const ostrel::feature_map map = random_map(3, 120, 90, 2);
    const ostrel::feature_map out = ostrel::shrink_cells(map, 85, 64);  // 2^(1/2) smaller
    for (int32_t c = 0; c < 3; ++c) EXPECT_NEAR(plane_mean(out, c), plane_mean(map, c), 0.6);
}

TEST(CellResample, GainsScaleAPlaneAndSaturate) {
    ostrel::feature_map map = random_map(2, 40, 30, 3);
    std::fill(map.data.begin(), map.data.begin() + static_cast<std::ptrdiff_t>(map.plane_size()), 100);
    std::fill(map.data.begin() + static_cast<std::ptrdiff_t>(map.plane_size()), map.data.end(), 200);
    const uint32_t gains[2] = {1u << 15, 3u << 14};  // 1 and 1.5
    const ostrel::feature_map out = ostrel::shrink_cells(map, 33, 25, gains);
    EXPECT_EQ(out.data[0], 100);
    EXPECT_EQ(out.data[out.plane_size()], 255);  // 300 saturates
}

TEST(CellResample, TheVectorLoopGivesThePlainLoopsBytes) {
    // `faster` takes the AVX2 loop on a processor that has it; without it
    // both calls would run the plain loop and prove nothing.
    if (!ostrel::cpu_has_avx2()) GTEST_SKIP() << "this processor has no AVX2: the vector loop is not run";
    const uint32_t gains[10] = {32768, 32768, 32768, 34000, 30000, 40000, 32768, 32768, 36000, 65536};
    auto check = [&](const ostrel::feature_map &map, int32_t columns, int32_t rows, const std::string &what) {
        const ostrel::feature_map plain = ostrel::shrink_cells(map, columns, rows, gains, false);
        const ostrel::feature_map fast = ostrel::shrink_cells(map, columns, rows, gains, true);
        ASSERT_EQ(plain.columns, fast.columns) << what;
        ASSERT_EQ(plain.rows, fast.rows) << what;
        ASSERT_EQ(plain.data, fast.data) << what;
    };
    for (unsigned seed = 0; seed < 6; ++seed) {
        const ostrel::feature_map map =
            random_map(10, 37 + 11 * static_cast<int>(seed), 29 + 7 * static_cast<int>(seed), seed);
        for (const double ratio : {1.0, 1.12, 1.26, 1.41, 1.59, 1.78, 2.0, 2.5}) {
            const int32_t columns = std::max(1, static_cast<int32_t>(map.columns / ratio));
            const int32_t rows = std::max(1, static_cast<int32_t>(map.rows / ratio));
            check(map, columns, rows, "seed " + std::to_string(seed) + " ratio " + std::to_string(ratio));
        }
    }
    // Edges: columns shorter than one vector (tails only), exactly one or
    // two vectors, one cell across, every byte 255 under the largest gain.
    for (const auto &size :
         {std::pair<int, int>{5, 3}, {9, 7}, {13, 8}, {17, 9}, {11, 16}, {12, 17}, {1, 23}, {40, 31}}) {
        const ostrel::feature_map map =
            random_map(10, size.first, size.second, 100u + static_cast<unsigned>(size.second));
        for (const double ratio : {1.0, 1.19, 1.5, 2.0}) {
            const int32_t columns = std::max(1, static_cast<int32_t>(map.columns / ratio));
            const int32_t rows = std::max(1, static_cast<int32_t>(map.rows / ratio));
            check(map, columns, rows,
                  std::to_string(size.first) + "x" + std::to_string(size.second) + " ratio " + std::to_string(ratio));
        }
    }
    ostrel::feature_map bright = random_map(10, 23, 19, 9);
    std::fill(bright.data.begin(), bright.data.end(), 255);
    check(bright, 17, 13, "every byte 255");
}

TEST(CellResample, SizesOutsideTheSourceAreRefused) {
    const ostrel::feature_map map = random_map(1, 10, 10, 4);
    EXPECT_TRUE(ostrel::shrink_cells(map, 11, 10).empty());
    EXPECT_TRUE(ostrel::shrink_cells(map, 0, 5).empty());
    EXPECT_TRUE(ostrel::shrink_cells(ostrel::feature_map{}, 5, 5).empty());
}

}  // namespace
