// The window scan on the channel maps of real pictures (a chess board and
// a blood smear of data/), for windows of the heights models have (whose
// taps the scan unrolls) and of others: every loop the processor runs gives
// the reference loop's integers, whole and coarse to fine, so detections
// do not depend on how the loop is written. And the integer bound the
// search compares the sums with says exactly what the comparison with the
// double bound says.
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "accurate/accurate_pyramid.h"
#include "accurate/window_sums.h"
#include "support/test_data.h"

namespace {

// The levels of a picture at three sizes, padded as detection pads them.
std::vector<ostrel::feature_map> picture_maps(const std::string &relative) {
    const cv::Mat bgr = cv::imread(ostrel_test::data_path(relative), cv::IMREAD_COLOR);
    EXPECT_FALSE(bgr.empty()) << relative;
    if (bgr.empty()) return {};
    ostrel::pyramid_request r;
    r.base_columns = 2 * (bgr.cols / 4);
    r.base_rows = 2 * (bgr.rows / 4);
    r.size_factors = {1.0, 1.41, 2.0};
    r.marked_index = 0;
    r.pad_columns = 3;
    r.pad_rows = 5;
    ostrel::picture_resample_scratch scratch;
    const ostrel::accurate_pyramid pyramid = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), r, scratch);
    std::vector<ostrel::feature_map> maps;
    for (const ostrel::pyramid_level &level : pyramid.levels) maps.push_back(level.map);
    return maps;
}

ostrel::quantised_weights random_weights(int32_t channels, int32_t columns, int32_t rows, std::mt19937 &random) {
    std::vector<double> w(static_cast<size_t>(channels) * columns * rows);
    for (double &v : w) v = (static_cast<double>(random() % 20001) - 10000.0) * 1e-6 + 0.0015;
    return ostrel::quantise_weights(w.data(), channels, columns, rows);
}

TEST(WindowSumsPictures, EveryLoopGivesTheReferenceSumsOnRealPictures) {
    // Window heights 13..20 (7 to 10 tap pairs, unrolled), and 5 and 23
    // (3 and 12 tap pairs, counted at run time).
    const struct {
        int32_t columns, rows;
    } windows[] = {{6, 16}, {7, 15}, {7, 13}, {6, 17}, {7, 14}, {8, 19}, {5, 20}, {4, 5}, {6, 23}};
    std::mt19937 random(11);
    int compared = 0;
    for (const char *picture :
         {"chess/images/03d3ff4582c8125d69c19a72f846bec8_jpg.rf.5f77781cbc56eff8679f258ff4f7cc9f.jpg",
          "bccd/images/BloodImage_00001.jpg"}) {
        for (const ostrel::feature_map &map : picture_maps(picture)) {
            const ostrel::paired_map paired = ostrel::pair_cells(map);
            for (const auto &window : windows) {
                const ostrel::quantised_weights q = random_weights(map.channels, window.columns, window.rows, random);
                const ostrel::window_sum_grid reference = ostrel::window_sums_reference(map, q);
                if (reference.sums.empty()) continue;
                // A refine level among the upper sums, as detection sets it.
                std::vector<int32_t> sorted = reference.sums;
                std::sort(sorted.begin(), sorted.end());
                const double refine_from = sorted[sorted.size() * 9 / 10];
                for (const ostrel::sums_path path : ostrel::available_sums_paths()) {
                    const ostrel::window_sum_grid whole = ostrel::window_sums(paired, q, path);
                    ASSERT_EQ(whole.sums, reference.sums) << picture << " window " << window.columns << "x"
                                                          << window.rows << " path " << static_cast<int>(path);
                    const ostrel::window_sum_grid coarse =
                        ostrel::window_sums_coarse_to_fine(paired, q, refine_from, path);
                    ASSERT_EQ(coarse.sums.size(), reference.sums.size());
                    int computed_odd = 0;
                    for (int32_t x = 0; x < coarse.columns; ++x) {
                        for (int32_t y = 0; y < coarse.rows; ++y) {
                            const int32_t sum = coarse.at(x, y);
                            if (x % 2 == 0 || sum != ostrel::kSkippedSum) {
                                ASSERT_EQ(sum, reference.at(x, y)) << picture << " at " << x << "," << y;
                                computed_odd += x % 2;
                            }
                            // An odd position beside one reaching the refine
                            // level is computed.
                            const bool beside =
                                x % 2 == 1 && (reference.at(x - 1, y) >= refine_from ||
                                               (x + 1 < coarse.columns && reference.at(x + 1, y) >= refine_from));
                            if (beside) ASSERT_EQ(sum, reference.at(x, y)) << picture << " at " << x << "," << y;
                        }
                    }
                    EXPECT_GT(computed_odd, 0) << "no odd column computed: the case shows nothing";
                    ++compared;
                }
            }
        }
    }
    EXPECT_GT(compared, 50);
}

TEST(WindowSumsPictures, TheIntegerBoundSaysWhatTheDoubleBoundSays) {
    const double inf = std::numeric_limits<double>::infinity();
    const double values[] = {0.0,          -0.0,         0.5,           -0.5,          1.0,           -1.0,
                             1e-300,       -1e-300,      12345.25,      -12345.75,     2147483646.5,  2147483647.0,
                             2147483647.5, 2147483648.0, -2147483647.5, -2147483648.0, -2147483648.5, 1e12,
                             -1e12,        inf,          -inf};
    const int32_t sums[] = {INT32_MIN, INT32_MIN + 1, -12346, -12345, -1, 0, 1, 12345, 12346, INT32_MAX - 1, INT32_MAX};
    for (const double value : values) {
        const int64_t least = ostrel::least_sum_reaching(value);
        for (const int32_t s : sums) {
            EXPECT_EQ(s >= value, s >= least) << "sum " << s << " value " << value;
        }
    }
    // A NaN is reached by no sum.
    EXPECT_GT(ostrel::least_sum_reaching(std::numeric_limits<double>::quiet_NaN()), INT32_MAX);
}

TEST(WindowSumsPictures, TheNextReachingPositionIsTheFirstAtOrAfter) {
    std::mt19937 random(5);
    std::vector<int32_t> column(83);
    for (int32_t &v : column) v = static_cast<int32_t>(random() % 1000) - 500;
    const int32_t end = static_cast<int32_t>(column.size());
    for (const int32_t least : {-600, -100, 0, 300, 480, 499, 500}) {
        for (int32_t from = 0; from <= end; ++from) {
            int32_t expected = from;
            while (expected < end && column[static_cast<size_t>(expected)] < least) ++expected;
            ASSERT_EQ(ostrel::next_sum_reaching(column.data(), from, end, least), expected)
                << "from " << from << " least " << least;
        }
    }
}

}  // namespace
