// The 16-bit window sums: every loop (AVX2 where the processor has it,
// SSE2, portable) gives exactly the reference sums, for windows of odd and
// even heights and maps of many sizes; the quantised weights never let a
// sum leave 32 bits; window bytes come in the weights' order.
#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/window_sums.h"

namespace {

ostrel::feature_map random_map(int32_t channels, int32_t columns, int32_t rows, uint32_t seed) {
    ostrel::feature_map map;
    map.channels = channels;
    map.columns = columns;
    map.rows = rows;
    map.data.resize(static_cast<size_t>(channels) * columns * rows);
    for (uint8_t &v : map.data) {
        seed = seed * 1664525u + 1013904223u;
        v = static_cast<uint8_t>(seed >> 24);
    }
    return map;
}

std::vector<double> random_weights(size_t n, uint32_t seed, double magnitude) {
    std::vector<double> w(n);
    for (double &v : w) {
        seed = seed * 1664525u + 1013904223u;
        v = (static_cast<double>(seed >> 8) / 16777216.0 - 0.5) * 2.0 * magnitude;
    }
    return w;
}

TEST(WindowSums, EveryLoopGivesTheReferenceSums) {
    struct shape {
        int32_t channels, columns, rows, window_columns, window_rows;
    };
    const shape shapes[] = {{10, 30, 25, 7, 14}, {10, 30, 25, 7, 15}, {10, 12, 9, 12, 9},  {3, 40, 3, 5, 1},
                            {10, 17, 33, 4, 3},  {1, 5, 60, 2, 59},   {10, 64, 64, 10, 10}};
    uint32_t seed = 1;
    for (const shape &s : shapes) {
        const ostrel::feature_map map = random_map(s.channels, s.columns, s.rows, seed++);
        const std::vector<double> w =
            random_weights(static_cast<size_t>(s.channels) * s.window_columns * s.window_rows, seed++, 0.01);
        const ostrel::quantised_weights q =
            ostrel::quantise_weights(w.data(), s.channels, s.window_columns, s.window_rows);
        const ostrel::window_sum_grid reference = ostrel::window_sums_reference(map, q);
        ASSERT_EQ(reference.columns, s.columns - s.window_columns + 1);
        ASSERT_EQ(reference.rows, s.rows - s.window_rows + 1);
        const ostrel::paired_map paired = ostrel::pair_cells(map);
        for (const ostrel::sums_path path :
             {ostrel::sums_path::fastest, ostrel::sums_path::sse2, ostrel::sums_path::portable}) {
            const ostrel::window_sum_grid fast = ostrel::window_sums(paired, q, path);
            ASSERT_EQ(fast.columns, reference.columns);
            ASSERT_EQ(fast.rows, reference.rows);
            EXPECT_EQ(fast.sums, reference.sums) << s.columns << "x" << s.rows << " window " << s.window_columns << "x"
                                                 << s.window_rows << " path " << static_cast<int>(path);
        }
    }
}

TEST(WindowSums, NoWindowFitsAMapSmallerThanIt) {
    const ostrel::feature_map map = random_map(10, 5, 5, 3);
    const std::vector<double> w(10 * 6 * 2, 0.1);
    const ostrel::quantised_weights q = ostrel::quantise_weights(w.data(), 10, 6, 2);
    EXPECT_TRUE(ostrel::window_sums(ostrel::pair_cells(map), q).sums.empty());
    EXPECT_TRUE(ostrel::window_sums_reference(map, q).sums.empty());
}

TEST(WindowSums, QuantisedWeightsCannotOverflowASum) {
    for (const double magnitude : {1e-6, 0.01, 1.0, 1e6}) {
        const size_t n = 10 * 19 * 31;
        const std::vector<double> w = random_weights(n, 9, magnitude);
        const ostrel::quantised_weights q = ostrel::quantise_weights(w.data(), 10, 19, 31);
        double total = 0.0;
        int32_t largest = 0;
        for (int16_t v : q.plain) {
            total += std::abs(v);
            largest = std::max<int32_t>(largest, std::abs(v));
        }
        EXPECT_LE(total * 255.0, 2147483647.0);
        EXPECT_LE(largest, 32767);
        // The finest such scale: half of it would break one of the bounds.
        double w_largest = 0.0, w_total = 0.0;
        for (double v : w) {
            w_largest = std::max(w_largest, std::fabs(v));
            w_total += std::fabs(v);
        }
        const double finer = 2.0 / q.scale;
        EXPECT_TRUE(w_largest * finer > 32767.0 || (w_total * finer + static_cast<double>(n)) * 255.0 > 2147483647.0)
            << magnitude;
        for (size_t i = 0; i < n; ++i) EXPECT_NEAR(q.plain[i] * q.scale, w[i], q.scale);
    }
}

TEST(WindowSums, WindowBytesFollowTheWeightsOrder) {
    const ostrel::feature_map map = random_map(2, 6, 5, 4);
    std::vector<uint8_t> bytes(2 * 3 * 2);
    ostrel::window_bytes(map, 2, 1, 3, 2, bytes.data());
    size_t i = 0;
    for (int32_t c = 0; c < 2; ++c) {
        for (int32_t r = 0; r < 3; ++r) {
            for (int32_t k = 0; k < 2; ++k) EXPECT_EQ(bytes[i++], map.at(c, 2 + r, 1 + k));
        }
    }
}

}  // namespace
