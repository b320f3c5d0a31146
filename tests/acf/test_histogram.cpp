// Orientation histograms over square cells of the squared magnitude.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "acf/acf_helper.h"
#include "support/stdout_capture.h"

namespace {

using ostrel::chn_image32;
using ostrel::acf_helper::gradient_mag_histogram;

chn_image32 plane_of(int32_t width, int32_t height, int32_t value) {
    chn_image32 p(1, width, height);
    std::fill(p.data.begin(), p.data.end(), value);
    return p;
}

// Histogram of one pixel of magnitude `mag` and orientation `orient` in a
// 2x2 cell whose other pixels carry no magnitude.
std::vector<int32_t> single_pixel_bins(int32_t mag, int32_t orient, int32_t n_orients) {
    chn_image32 m = plane_of(2, 2, 0);
    chn_image32 o = plane_of(2, 2, 0);
    m.data[0] = mag;
    o.data[0] = orient;
    return gradient_mag_histogram(m, o, 2, n_orients).data;
}

// Index of the one non-zero bin of a single-cell histogram, -1 if none.
int32_t bin_of(int32_t orient, int32_t n_orients) {
    const std::vector<int32_t> bins = single_pixel_bins(400, orient, n_orients);
    int32_t found = -1;
    for (size_t b = 0; b < bins.size(); ++b) {
        if (bins[b] != 0) {
            EXPECT_EQ(found, -1) << "two bins filled";
            EXPECT_EQ(bins[b], 100);
            found = static_cast<int32_t>(b);
        }
    }
    return found;
}

const char *const kBadLine = "[acf_helper::gradient_mag_histogram] Mag or Smooth is bad. \n\n";

}  // namespace

// Bin width trunc(31415.927734375f / n): 4 -> 7853, 6 -> 5235, 8 -> 3926,
// 9 -> 3490, 12 -> 2617, seen through the first orientation of bin 1.
TEST(GradientMagHistogram, BinWidths) {
    const std::vector<std::pair<int32_t, int32_t>> widths = {{4, 7853}, {6, 5235}, {8, 3926}, {9, 3490}, {12, 2617}};
    for (const auto &[n, width] : widths) {
        EXPECT_EQ(bin_of(width - 1, n), 0) << n;
        EXPECT_EQ(bin_of(width, n), 1) << n;
        EXPECT_EQ(bin_of(2 * width, n), 2) << n;
    }
}

// 0 -> bin 0, 5234 -> bin 0, 5235 -> bin 1, pi (31415) -> last bin (6 bins).
TEST(GradientMagHistogram, SixBinBoundaries) {
    EXPECT_EQ(bin_of(0, 6), 0);
    EXPECT_EQ(bin_of(5234, 6), 0);
    EXPECT_EQ(bin_of(5235, 6), 1);
    EXPECT_EQ(bin_of(31410, 6), 5);  // 31410 / 5235 = 6, clamped
    EXPECT_EQ(bin_of(31415, 6), 5);
    EXPECT_EQ(bin_of(26174, 6), 4);
    EXPECT_EQ(bin_of(26175, 6), 5);
}

// Each magnitude is divided by the cell side twice, truncating each time:
// 7 / 2 / 2 = 1, and magnitudes below the side squared are lost (3 / 2 / 2 = 0).
TEST(GradientMagHistogram, MagnitudeDividedTwice) {
    EXPECT_EQ(single_pixel_bins(7, 0, 6)[0], 1);
    EXPECT_EQ(single_pixel_bins(3, 0, 6)[0], 0);
    EXPECT_EQ(single_pixel_bins(4, 0, 6)[0], 1);
    // Side 3: 26 / 3 / 3 = 2, and 8 (below 9) adds nothing.
    chn_image32 m = plane_of(3, 3, 0);
    chn_image32 o = plane_of(3, 3, 0);
    m.data[4] = 26;
    EXPECT_EQ(gradient_mag_histogram(m, o, 3, 1).data, std::vector<int32_t>{2});
    m.data[4] = 8;
    EXPECT_EQ(gradient_mag_histogram(m, o, 3, 1).data, std::vector<int32_t>{0});
}

// A cell sums all its pixels of the bin; other bins and cells stay apart.
TEST(GradientMagHistogram, CellsSumTheirPixelsPerBin) {
    // 4 wide, 2 high: two cells side by side, 2 bins (width 15707).
    chn_image32 m(1, 4, 2);
    chn_image32 o(1, 4, 2);
    m.data = {40, 8,   100, 12,  //
              20, 400, 4,   16};
    o.data = {0,     20000, 31415, 0,  //
              15706, 15707, 100,   5};
    const chn_image32 hist = gradient_mag_histogram(m, o, 2, 2);
    ASSERT_EQ(hist.channels, 2);
    ASSERT_EQ(hist.width, 2);
    ASSERT_EQ(hist.height, 1);
    // Bin 0: cell 0 gets 40/4 + 20/4 = 15; cell 1 gets 12/4 + 4/4 + 16/4 = 8.
    // Bin 1: cell 0 gets 8/4 + 400/4 = 102; cell 1 gets 100/4 = 25.
    EXPECT_EQ(hist.data, (std::vector<int32_t>{15, 8, 102, 25}));
}

// Odd sizes with side 2: the last column and row belong to no cell; 5x3
// gives 2x1 cells.
TEST(GradientMagHistogram, OddSizesDropTheLastColumnAndRow) {
    chn_image32 m = plane_of(5, 3, 4);
    const chn_image32 o = plane_of(5, 3, 0);
    // Large values in the dropped column and row must not show.
    for (int32_t y = 0; y < 3; ++y) {
        m.at(0, y, 4) = 1000;
    }
    for (int32_t x = 0; x < 5; ++x) {
        m.at(0, 2, x) = 1000;
    }
    const chn_image32 hist = gradient_mag_histogram(m, o, 2, 6);
    EXPECT_EQ(hist.channels, 6);
    EXPECT_EQ(hist.width, 2);
    EXPECT_EQ(hist.height, 1);
    EXPECT_EQ(hist.data, (std::vector<int32_t>{4, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// Planes narrower than the cell side: n_orients planes of width 0, no data.
TEST(GradientMagHistogram, NarrowerThanACell) {
    const chn_image32 m = plane_of(1, 6, 50);
    const chn_image32 o = plane_of(1, 6, 0);
    const chn_image32 hist = gradient_mag_histogram(m, o, 2, 6);
    EXPECT_EQ(hist.channels, 6);
    EXPECT_EQ(hist.width, 0);
    EXPECT_EQ(hist.height, 3);
    EXPECT_TRUE(hist.data.empty());
}

// No bins: 0 planes of the cell grid's size, nothing computed.
TEST(GradientMagHistogram, ZeroOrientations) {
    const chn_image32 m = plane_of(6, 4, 50);
    const chn_image32 o = plane_of(6, 4, 0);
    const chn_image32 hist = gradient_mag_histogram(m, o, 2, 0);
    EXPECT_EQ(hist.channels, 0);
    EXPECT_EQ(hist.width, 3);
    EXPECT_EQ(hist.height, 2);
    EXPECT_TRUE(hist.data.empty());
}

// A two-plane magnitude or an orientation plane one pixel wider: failure
// line and an empty record.
TEST(GradientMagHistogram, MismatchedInputsAreRefused) {
    chn_image32 two_planes(2, 4, 4);
    const chn_image32 o = plane_of(4, 4, 0);
    chn_image32 hist(1, 1, 1);
    std::string out = ostrel_test::capture_stdout([&] { hist = gradient_mag_histogram(two_planes, o, 2, 6); });
    EXPECT_EQ(out, kBadLine);
    EXPECT_EQ(hist.channels, 0);
    EXPECT_EQ(hist.width, 0);
    EXPECT_EQ(hist.height, 0);
    EXPECT_TRUE(hist.data.empty());

    const chn_image32 m = plane_of(4, 4, 8);
    const chn_image32 wider = plane_of(5, 4, 0);
    hist = chn_image32(1, 1, 1);
    out = ostrel_test::capture_stdout([&] { hist = gradient_mag_histogram(m, wider, 2, 6); });
    EXPECT_EQ(out, kBadLine);
    EXPECT_EQ(hist.channels, 0);
    EXPECT_TRUE(hist.data.empty());

    const chn_image32 taller = plane_of(4, 5, 0);
    out = ostrel_test::capture_stdout([&] { hist = gradient_mag_histogram(m, taller, 2, 6); });
    EXPECT_EQ(out, kBadLine);
}

// The orientation record's channel count is not checked.
TEST(GradientMagHistogram, OrientationChannelCountIsNotChecked) {
    const chn_image32 m = plane_of(2, 2, 8);
    chn_image32 o(3, 2, 2);
    const std::string out = ostrel_test::capture_stdout([&] {
        EXPECT_EQ(gradient_mag_histogram(m, o, 2, 2).data, (std::vector<int32_t>{8, 0}));
    });
    EXPECT_EQ(out, "");
}

// Histograms of a gradient over the whole 6-bin range: every cell's total
// equals the sum of its pixels' scaled magnitudes, whatever their bins.
TEST(GradientMagHistogram, EveryPixelCountsOnce) {
    const int32_t width = 10;
    const int32_t height = 8;
    chn_image32 m(1, width, height);
    chn_image32 o(1, width, height);
    for (int32_t i = 0; i < width * height; ++i) {
        m.data[i] = 37 * i + 5;
        o.data[i] = (i * 4001) % 31416;
    }
    const chn_image32 hist = gradient_mag_histogram(m, o, 2, 6);
    ASSERT_EQ(hist.data.size(), 6u * 5u * 4u);
    for (int32_t cy = 0; cy < 4; ++cy) {
        for (int32_t cx = 0; cx < 5; ++cx) {
            int32_t expected = 0;
            for (int32_t j = 0; j < 2; ++j) {
                for (int32_t i = 0; i < 2; ++i) {
                    expected += m.at(0, 2 * cy + j, 2 * cx + i) / 2 / 2;
                }
            }
            int32_t total = 0;
            for (int32_t b = 0; b < 6; ++b) {
                total += hist.at(b, cy, cx);
            }
            EXPECT_EQ(total, expected) << cx << "," << cy;
        }
    }
}

// Every orientation 0..31415 lands in trunc(orient / width) (clamped to the
// last bin) for bin counts 1..12 and a few large ones, with the bin width
// computed as trunc(31415.927734375f / n) in single precision.
TEST(GradientMagHistogram, EveryOrientationFindsItsBin) {
    const int32_t count = 31416;
    chn_image32 m = plane_of(count, 1, 4);
    chn_image32 o(1, count, 1);
    for (int32_t i = 0; i < count; ++i) {
        o.data[i] = i;
    }
    for (int32_t n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 17, 64}) {
        const int32_t width = static_cast<int32_t>(31415.927734375f / static_cast<float>(n));
        const chn_image32 hist = gradient_mag_histogram(m, o, 1, n);
        ASSERT_EQ(hist.data.size(), static_cast<size_t>(n) * count);
        for (int32_t i = 0; i < count; ++i) {
            const int32_t expected = std::min(i / width, n - 1);
            ASSERT_EQ(hist.at(expected, 0, i), 4) << "n " << n << " orient " << i;
        }
    }
}

// Sizes other than 2 take the general cell loop: side 3 on 7 x 5 gives 2 x 1
// cells of nine pixels each.
TEST(GradientMagHistogram, OtherCellSides) {
    chn_image32 m(1, 7, 5);
    chn_image32 o(1, 7, 5);
    for (int32_t i = 0; i < 35; ++i) {
        m.data[i] = 9 * (i + 1);
        o.data[i] = (i % 2) * 20000;  // 2 bins: even pixels bin 0, odd bin 1
    }
    const chn_image32 hist = gradient_mag_histogram(m, o, 3, 2);
    ASSERT_EQ(hist.width, 2);
    ASSERT_EQ(hist.height, 1);
    int32_t expected[2][2] = {{0, 0}, {0, 0}};
    for (int32_t y = 0; y < 3; ++y) {
        for (int32_t x = 0; x < 6; ++x) {
            const int32_t i = y * 7 + x;
            expected[i % 2][x / 3] += m.data[i] / 3 / 3;
        }
    }
    EXPECT_EQ(hist.data, (std::vector<int32_t>{expected[0][0], expected[0][1], expected[1][0], expected[1][1]}));
}
