// Every loop of the window scan - plain, SSE2, AVX2, AVX-512 VNNI - gives
// the reference loop's integers, for windows of many shapes and maps of
// many sizes (the loops the processor lacks fall back and are skipped).
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/window_sums.h"

namespace {

TEST(WindowSumsPaths, EveryLoopGivesTheReferenceSums) {
    std::mt19937 random(7);
    for (int trial = 0; trial < 12; ++trial) {
        ostrel::feature_map map;
        map.channels = 10;
        map.columns = 9 + static_cast<int32_t>(random() % 60);
        map.rows = 9 + static_cast<int32_t>(random() % 90);
        map.data.resize(static_cast<size_t>(map.channels) * map.columns * map.rows);
        for (uint8_t &v : map.data) v = static_cast<uint8_t>(random() & 0xff);
        const int32_t columns = 3 + static_cast<int32_t>(random() % 6);
        const int32_t rows = 3 + static_cast<int32_t>(random() % 7);
        std::vector<double> weights(static_cast<size_t>(10 * columns * rows));
        for (double &w : weights) w = (static_cast<double>(random() % 20001) - 10000.0) * 1e-6;
        const ostrel::quantised_weights q = ostrel::quantise_weights(weights.data(), 10, columns, rows);
        const ostrel::window_sum_grid reference = ostrel::window_sums_reference(map, q);
        const ostrel::paired_map paired = ostrel::pair_cells(map);
        for (const ostrel::sums_path path : {ostrel::sums_path::portable, ostrel::sums_path::sse2, ostrel::sums_path::avx2,
                                             ostrel::sums_path::avx512_vnni, ostrel::sums_path::fastest}) {
            if (!ostrel::sums_path_available(path)) continue;
            const ostrel::window_sum_grid sums = ostrel::window_sums(paired, q, path);
            ASSERT_EQ(sums.sums, reference.sums) << "trial " << trial << " path " << static_cast<int>(path);
        }
    }
}

}  // namespace
