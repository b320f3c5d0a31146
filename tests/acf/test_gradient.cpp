// Gradient differences, squared magnitude and orientation of 8-bit planes.
#include <algorithm>
#include <cstdint>
#include <utility>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "acf/acf_helper.h"
#include "support/stdout_capture.h"

namespace {

using ostrel::chn_image32;
using ostrel::chn_image8;
using ostrel::acf_helper::gradient_mag_orient;
using ostrel::acf_helper::gradient_row_diff;

// A planar image from rows given channel by channel, row by row.
chn_image8 image_of(int32_t channels, int32_t width, int32_t height, std::initializer_list<int> values) {
    chn_image8 image(channels, width, height);
    EXPECT_EQ(values.size(), image.data.size());
    size_t i = 0;
    for (int v : values) {
        image.data[i++] = static_cast<uint8_t>(v);
    }
    return image;
}

struct gradient_result {
    chn_image32 mag;
    chn_image32 orient;
};

gradient_result run_gradient(const chn_image8 &image) {
    gradient_result r{chn_image32(1, image.width, image.height), chn_image32(1, image.width, image.height)};
    gradient_mag_orient(image, r.mag, r.orient);
    return r;
}

struct row_diff {
    std::vector<int32_t> vertical;
    std::vector<int32_t> horizontal;
};

row_diff diff_of(const chn_image8 &image, int32_t y, int32_t c) {
    row_diff d{std::vector<int32_t>(image.width, 99), std::vector<int32_t>(image.width, 99)};
    gradient_row_diff(image, y, c, image.width, image.height, d.vertical.data(), d.horizontal.data());
    return d;
}

const char *const kTooSmallLine = "[acf_helper::gradient_mag_orient] Image must be at least 2x2. \n\n";

}  // namespace

// Differences are previous minus next; border differences are one-sided
// and doubled.
TEST(GradientRowDiff, PreviousMinusNextWithDoubledBorders) {
    // 4 wide, 3 high.
    const chn_image8 image = image_of(1, 4, 3,
                                      {1, 5, 2, 9,  //
                                       3, 4, 8, 6,  //
                                       7, 0, 2, 1});
    const row_diff top = diff_of(image, 0, 0);
    EXPECT_EQ(top.vertical, (std::vector<int32_t>{2 * (1 - 3), 2 * (5 - 4), 2 * (2 - 8), 2 * (9 - 6)}));
    EXPECT_EQ(top.horizontal, (std::vector<int32_t>{2 * (1 - 5), 1 - 2, 5 - 9, 2 * (2 - 9)}));
    const row_diff middle = diff_of(image, 1, 0);
    EXPECT_EQ(middle.vertical, (std::vector<int32_t>{1 - 7, 5 - 0, 2 - 2, 9 - 1}));
    EXPECT_EQ(middle.horizontal, (std::vector<int32_t>{2 * (3 - 4), 3 - 8, 4 - 6, 2 * (8 - 6)}));
    const row_diff bottom = diff_of(image, 2, 0);
    EXPECT_EQ(bottom.vertical, (std::vector<int32_t>{2 * (3 - 7), 2 * (4 - 0), 2 * (8 - 2), 2 * (6 - 1)}));
    EXPECT_EQ(bottom.horizontal, (std::vector<int32_t>{2 * (7 - 0), 7 - 2, 0 - 1, 2 * (2 - 1)}));
}

// The row routine reads the requested channel's plane.
TEST(GradientRowDiff, ReadsTheRequestedChannel) {
    const chn_image8 image = image_of(2, 2, 2,
                                      {0, 0, 0, 0,  //
                                       9, 1, 4, 2});
    const row_diff d = diff_of(image, 0, 1);
    EXPECT_EQ(d.vertical, (std::vector<int32_t>{2 * (9 - 4), 2 * (1 - 2)}));
    EXPECT_EQ(d.horizontal, (std::vector<int32_t>{2 * (9 - 1), 2 * (9 - 1)}));
}

// Rows the routine cannot form (channel or row out of range) come back zeroed.
TEST(GradientRowDiff, OutOfRangeRequestLeavesZeroedRows) {
    const chn_image8 image = image_of(1, 2, 2, {1, 2, 3, 4});
    const row_diff bad_channel = diff_of(image, 0, 1);
    EXPECT_EQ(bad_channel.vertical, (std::vector<int32_t>{0, 0}));
    EXPECT_EQ(bad_channel.horizontal, (std::vector<int32_t>{0, 0}));
    const row_diff bad_row = diff_of(image, 2, 0);
    EXPECT_EQ(bad_row.vertical, (std::vector<int32_t>{0, 0}));
    EXPECT_EQ(bad_row.horizontal, (std::vector<int32_t>{0, 0}));
}

// 2x2: every pixel is a border pixel on both axes, so every difference is
// doubled.
TEST(GradientMagOrient, TwoByTwoDoublesAllDifferences) {
    const chn_image8 image = image_of(1, 2, 2,
                                      {10, 4,  //
                                       1, 7});
    const gradient_result r = run_gradient(image);
    // (dh, dv): (12, 18), (12, -6), (-12, 18), (-12, -6).
    EXPECT_EQ(r.mag.data, (std::vector<int32_t>{468, 180, 468, 180}));
    EXPECT_EQ(r.orient.data, (std::vector<int32_t>{5880, 20344, 25535, 11071}));
}

// 1xn and nx1 images are refused with one log line; the outputs keep what
// they held.
TEST(GradientMagOrient, SingleRowOrColumnIsRefused) {
    for (const auto &size : {std::pair<int32_t, int32_t>{1, 5}, {5, 1}, {1, 1}}) {
        const chn_image8 image(1, size.first, size.second);
        chn_image32 mag(1, size.first, size.second);
        chn_image32 orient(1, size.first, size.second);
        std::fill(mag.data.begin(), mag.data.end(), 7);
        std::fill(orient.data.begin(), orient.data.end(), 8);
        const std::string out = ostrel_test::capture_stdout([&] { gradient_mag_orient(image, mag, orient); });
        EXPECT_EQ(out, kTooSmallLine);
        EXPECT_EQ(mag.data, std::vector<int32_t>(mag.data.size(), 7));
        EXPECT_EQ(orient.data, std::vector<int32_t>(mag.data.size(), 8));
    }
}

// Channels with equal magnitude at a pixel: channel 0's orientation is kept.
TEST(GradientMagOrient, EqualMagnitudeKeepsChannelZero) {
    // Centre pixel of a 3x3: channel 0 has (dh, dv) = (3, 4), channel 1 has
    // (5, 0), both of squared magnitude 25.
    const chn_image8 image = image_of(2, 3, 3,
                                      {0, 14, 0,   //
                                       13, 0, 10,  //
                                       0, 10, 0,   //
                                                   //
                                       0, 20, 0,   //
                                       25, 0, 20,  //
                                       0, 20, 0});
    const gradient_result r = run_gradient(image);
    EXPECT_EQ(r.mag.at(0, 1, 1), 25);
    EXPECT_EQ(r.orient.at(0, 1, 1), 6435);  // atan2(3, 4), not atan2(5, 0)
}

// A later channel with a strictly larger magnitude wins the pixel.
TEST(GradientMagOrient, StrongerLaterChannelWins) {
    const chn_image8 image = image_of(3, 3, 3,
                                      {0, 14, 0,   //
                                       13, 0, 10,  //
                                       0, 10, 0,   //
                                                   //
                                       0, 0, 0,    //
                                       0, 0, 0,    //
                                       0, 0, 0,    //
                                                   //
                                       0, 20, 0,   //
                                       26, 0, 20,  //
                                       0, 20, 0});
    const gradient_result r = run_gradient(image);
    EXPECT_EQ(r.mag.at(0, 1, 1), 36);
    EXPECT_EQ(r.orient.at(0, 1, 1), 15707);  // (6, 0) of channel 2
}

// A flat image: no gradient anywhere, orientation of (0, 0) = 0.
TEST(GradientMagOrient, FlatImage) {
    chn_image8 image(3, 7, 5);
    std::fill(image.data.begin(), image.data.end(), 77);
    const gradient_result r = run_gradient(image);
    EXPECT_EQ(r.mag.data, std::vector<int32_t>(35, 0));
    EXPECT_EQ(r.orient.data, std::vector<int32_t>(35, 0));
}

// Outputs that held values before are overwritten everywhere.
TEST(GradientMagOrient, OutputsAreRewritten) {
    chn_image8 image(1, 4, 4);
    std::fill(image.data.begin(), image.data.end(), 3);
    chn_image32 mag(1, 4, 4);
    chn_image32 orient(1, 4, 4);
    std::fill(mag.data.begin(), mag.data.end(), 123);
    std::fill(orient.data.begin(), orient.data.end(), 456);
    gradient_mag_orient(image, mag, orient);
    EXPECT_EQ(mag.data, std::vector<int32_t>(16, 0));
    EXPECT_EQ(orient.data, std::vector<int32_t>(16, 0));
}

// A vertical step edge (left half 0, right half 255) away from the borders:
// the two pixels beside the edge see a horizontal difference of magnitude 255
// (previous minus next makes it -255), no vertical one: orientation pi/2,
// squared magnitude 65025.
TEST(GradientMagOrient, VerticalStepEdge) {
    const int32_t width = 8;
    const int32_t height = 6;
    chn_image8 image(1, width, height);
    for (int32_t y = 0; y < height; ++y) {
        for (int32_t x = width / 2; x < width; ++x) {
            image.at(0, y, x) = 255;
        }
    }
    const gradient_result r = run_gradient(image);
    for (int32_t y = 1; y < height - 1; ++y) {
        for (int32_t x : {width / 2 - 1, width / 2}) {
            EXPECT_EQ(r.mag.at(0, y, x), 65025) << y << "," << x;
            EXPECT_EQ(r.orient.at(0, y, x), 15707) << y << "," << x;
        }
        EXPECT_EQ(r.mag.at(0, y, 1), 0);
        EXPECT_EQ(r.mag.at(0, y, width - 2), 0);
    }
    const row_diff d = diff_of(image, 2, 0);
    EXPECT_EQ(d.horizontal[width / 2 - 1], -255);
    EXPECT_EQ(d.vertical[width / 2 - 1], 0);

    // The mirrored edge (left 255, right 0) gives +255 and the same values.
    chn_image8 mirrored = image;
    for (auto &v : mirrored.data) {
        v = static_cast<uint8_t>(255 - v);
    }
    EXPECT_EQ(diff_of(mirrored, 2, 0).horizontal[width / 2 - 1], 255);
    const gradient_result m = run_gradient(mirrored);
    EXPECT_EQ(m.mag.data, r.mag.data);
    EXPECT_EQ(m.orient.data, r.orient.data);
}

// A horizontal step at the top border: the doubled difference |dv| = 510
// leaves the table's cell range and the clamped index lands on another
// cell (3pi/4), not on the true angle (pi); one row further down the
// interior difference gives pi.
TEST(GradientMagOrient, HorizontalStepAtTopBorderAliases) {
    const int32_t width = 5;
    const int32_t height = 4;
    chn_image8 image(1, width, height);
    for (int32_t y = 1; y < height; ++y) {
        for (int32_t x = 0; x < width; ++x) {
            image.at(0, y, x) = 255;
        }
    }
    const gradient_result r = run_gradient(image);
    for (int32_t x = 0; x < width; ++x) {
        EXPECT_EQ(r.mag.at(0, 0, x), 510 * 510) << x;
        EXPECT_EQ(r.orient.at(0, 0, x), 23561) << x;  // index 130050 = cell (-1, 1)
        EXPECT_EQ(r.mag.at(0, 1, x), 255 * 255) << x;
        EXPECT_EQ(r.orient.at(0, 1, x), 31415) << x;  // (0, -255): pi
    }
}

// The worked aliasing examples, each produced by a border pixel:
// (dh, dv) = (300, 0) -> 7853, (-300, 0) -> 7853, (0, 400) -> 31325,
// (0, -400) -> 31325, (10, 300) -> 30895.
TEST(GradientMagOrient, BorderDifferencesUseTheClampedIndex) {
    // Left column 150, rest 0: dh = 300 at x = 0 of the middle row.
    chn_image8 left(1, 4, 3);
    for (int32_t y = 0; y < 3; ++y) {
        left.at(0, y, 0) = 150;
    }
    EXPECT_EQ(diff_of(left, 1, 0).horizontal[0], 300);
    EXPECT_EQ(run_gradient(left).orient.at(0, 1, 0), 7853);

    // Left column 0, rest 150: dh = -300.
    chn_image8 right(1, 4, 3);
    for (int32_t y = 0; y < 3; ++y) {
        for (int32_t x = 1; x < 4; ++x) {
            right.at(0, y, x) = 150;
        }
    }
    EXPECT_EQ(diff_of(right, 1, 0).horizontal[0], -300);
    EXPECT_EQ(run_gradient(right).orient.at(0, 1, 0), 7853);

    // Top row 200, rest 0: dv = 400 at y = 0.
    chn_image8 top(1, 3, 3);
    for (int32_t x = 0; x < 3; ++x) {
        top.at(0, 0, x) = 200;
    }
    EXPECT_EQ(diff_of(top, 0, 0).vertical[1], 400);
    EXPECT_EQ(run_gradient(top).orient.at(0, 0, 1), 31325);

    // Top row 0, rest 200: dv = -400.
    chn_image8 bottom(1, 3, 3);
    for (int32_t y = 1; y < 3; ++y) {
        for (int32_t x = 0; x < 3; ++x) {
            bottom.at(0, y, x) = 200;
        }
    }
    EXPECT_EQ(diff_of(bottom, 0, 0).vertical[1], -400);
    EXPECT_EQ(run_gradient(bottom).orient.at(0, 0, 1), 31325);

    // (10, 300) at (y, x) = (0, 1): dh = 20 - 10, dv = 2 * (160 - 10).
    const chn_image8 mixed = image_of(1, 3, 2,
                                      {20, 160, 10,  //
                                       0, 10, 0});
    const row_diff d = diff_of(mixed, 0, 0);
    EXPECT_EQ(d.horizontal[1], 10);
    EXPECT_EQ(d.vertical[1], 300);
    const gradient_result r = run_gradient(mixed);
    EXPECT_EQ(r.orient.at(0, 0, 1), 30895);  // the true angle would give 333
    EXPECT_EQ(r.mag.at(0, 0, 1), 10 * 10 + 300 * 300);
}

// Interior pixels use the table cell of their own differences.
TEST(GradientMagOrient, InteriorPixelUsesItsOwnCell) {
    // Centre of a 3x3: dh = 13 - 10 = 3, dv = 14 - 10 = 4.
    const chn_image8 image = image_of(1, 3, 3,
                                      {0, 14, 0,   //
                                       13, 0, 10,  //
                                       0, 10, 0});
    const gradient_result r = run_gradient(image);
    EXPECT_EQ(r.mag.at(0, 1, 1), 25);
    EXPECT_EQ(r.orient.at(0, 1, 1), 6435);
}

// Output planes that do not fit the image are resized rather than overrun.
TEST(GradientMagOrient, MisfitOutputsAreResized) {
    chn_image8 image(1, 3, 3);
    image.at(0, 1, 0) = 6;
    chn_image32 mag;
    chn_image32 orient(1, 2, 2);
    gradient_mag_orient(image, mag, orient);
    ASSERT_EQ(mag.data.size(), 9u);
    ASSERT_EQ(orient.data.size(), 9u);
    EXPECT_EQ(mag.width, 3);
    EXPECT_EQ(orient.height, 3);
    EXPECT_EQ(mag.at(0, 1, 1), 36);  // dh = 6 - 0
}

// On random images of several sizes and channel counts the routine equals
// its rule written out pixel by pixel: row differences per channel, the
// first channel or a strictly stronger later one wins, whole-index clamp.
TEST(GradientMagOrient, MatchesThePixelRuleOnRandomImages) {
    const int32_t *table = ostrel::acf_helper::orient_table();
    std::mt19937 rng(9);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> small(100, 140);
    const std::vector<std::vector<int32_t>> shapes = {{1, 2, 2}, {3, 17, 5}, {3, 136, 242}, {2, 2, 9}, {4, 33, 3}};
    for (const auto &shape : shapes) {
        for (bool smooth : {false, true}) {
            chn_image8 image(shape[0], shape[1], shape[2]);
            for (auto &v : image.data) {
                v = static_cast<uint8_t>(smooth ? small(rng) : byte(rng));
            }
            const gradient_result r = run_gradient(image);
            for (int32_t y = 0; y < image.height; ++y) {
                std::vector<int32_t> best_m(image.width, 0);
                std::vector<int32_t> best_dh(image.width, 0);
                std::vector<int32_t> best_dv(image.width, 0);
                for (int32_t c = 0; c < image.channels; ++c) {
                    const row_diff d = diff_of(image, y, c);
                    for (int32_t x = 0; x < image.width; ++x) {
                        const int32_t m = d.horizontal[x] * d.horizontal[x] + d.vertical[x] * d.vertical[x];
                        if (c == 0 || m > best_m[x]) {
                            best_m[x] = m;
                            best_dh[x] = d.horizontal[x];
                            best_dv[x] = d.vertical[x];
                        }
                    }
                }
                for (int32_t x = 0; x < image.width; ++x) {
                    const int32_t index = std::clamp(best_dh[x] * 511 + best_dv[x] + 130560, 0, 261120);
                    ASSERT_EQ(r.mag.at(0, y, x), best_m[x]) << y << "," << x;
                    ASSERT_EQ(r.orient.at(0, y, x), table[index]) << y << "," << x;
                }
            }
        }
    }
}

// An image record without channels has no gradient: mag 0, orientation of
// the (0, 0) cell.
TEST(GradientMagOrient, NoChannelsGivesZeroPlanes) {
    const chn_image8 image(0, 3, 3);
    chn_image32 mag(1, 3, 3);
    chn_image32 orient(1, 3, 3);
    std::fill(mag.data.begin(), mag.data.end(), 5);
    std::fill(orient.data.begin(), orient.data.end(), 5);
    gradient_mag_orient(image, mag, orient);
    EXPECT_EQ(mag.data, std::vector<int32_t>(9, 0));
    EXPECT_EQ(orient.data, std::vector<int32_t>(9, 0));
}
