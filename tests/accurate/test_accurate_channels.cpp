// The accurate profile's channel planes: colour planes are the 2 x 2 cell
// means; a flat picture has no gradient; an edge lands in the histogram bin
// of its orientation; with normalisation an edge counts the same at low and
// high contrast, without it its plane grows with the contrast; the map is
// half the picture's size in picture terms.
#include <cstdint>

#include <gtest/gtest.h>

#include "accurate/accurate_channels.h"

namespace {

// A Lab record (record terms: width = picture rows) of columns x rows
// picture pixels, every plane `value`.
ostrel::chn_image8 flat(int32_t columns, int32_t rows, uint8_t value) {
    ostrel::chn_image8 lab(3, rows, columns);
    std::fill(lab.data.begin(), lab.data.end(), value);
    return lab;
}

// Left half `left`, right half `right` (a vertical edge in the picture) in
// the L plane; a and b flat at 128.
ostrel::chn_image8 vertical_edge(int32_t columns, int32_t rows, uint8_t left, uint8_t right) {
    ostrel::chn_image8 lab = flat(columns, rows, 128);
    for (int32_t x = 0; x < columns; ++x) {
        for (int32_t y = 0; y < rows; ++y)
            lab.at(0, x, y) = x < columns / 2 ? left : right;  // record row = picture column
    }
    return lab;
}

TEST(AccurateChannels, TheMapIsHalfThePictureInPictureTerms) {
    const ostrel::feature_map map = ostrel::accurate_channel_map(flat(40, 30, 90), ostrel::channel_recipe{});
    EXPECT_EQ(map.channels, 10);
    EXPECT_EQ(map.columns, 20);
    EXPECT_EQ(map.rows, 15);
    EXPECT_EQ(map.data.size(), 10u * 20u * 15u);
    EXPECT_TRUE(ostrel::accurate_channel_map(flat(1, 1, 0), ostrel::channel_recipe{}).empty());
}

TEST(AccurateChannels, ColourPlanesAreCellMeansAndAFlatPictureHasNoGradient) {
    ostrel::chn_image8 lab = flat(8, 8, 100);
    lab.at(1, 0, 0) = 104;  // a plane, picture column 0, row 0: one pixel of cell (0, 0)
    const ostrel::feature_map map = ostrel::accurate_channel_map(lab, ostrel::channel_recipe{});
    EXPECT_EQ(map.at(0, 0, 0), 100);
    EXPECT_EQ(map.at(1, 0, 0), 101);
    EXPECT_EQ(map.at(2, 3, 3), 100);
    const ostrel::feature_map smooth = ostrel::accurate_channel_map(flat(8, 8, 100), ostrel::channel_recipe{});
    for (int32_t c = 3; c < 10; ++c) {
        for (int32_t x = 0; x < 4; ++x) {
            for (int32_t y = 0; y < 4; ++y) EXPECT_EQ(smooth.at(c, x, y), 0);
        }
    }
}

TEST(AccurateChannels, AVerticalEdgeFillsOneOrientationBinAtTheEdge) {
    const ostrel::feature_map map =
        ostrel::accurate_channel_map(vertical_edge(32, 16, 40, 200), ostrel::channel_recipe{});
    const int32_t edge_cell = 8;  // picture columns 15 and 16 meet in cells 7 and 8
    int32_t strongest = -1, strongest_value = 0, total = 0;
    for (int32_t b = 0; b < 6; ++b) {
        const int32_t v = map.at(4 + b, edge_cell, 4);
        total += v;
        if (v > strongest_value) {
            strongest_value = v;
            strongest = b;
        }
    }
    EXPECT_GT(map.at(3, edge_cell, 4), 0);
    EXPECT_GE(strongest, 0);
    EXPECT_EQ(strongest_value, total);  // a single orientation
    EXPECT_EQ(map.at(3, 2, 4), 0);      // far from the edge: nothing
}

TEST(AccurateChannels, NormalisationMakesContrastMatterLess) {
    ostrel::channel_recipe raw;
    raw.norm_radius = -1;
    const ostrel::channel_recipe normalised;
    const int32_t cell = 8;
    const auto magnitude = [&](const ostrel::channel_recipe &r, uint8_t low, uint8_t high) {
        return static_cast<int>(ostrel::accurate_channel_map(vertical_edge(32, 16, low, high), r).at(3, cell, 4));
    };
    const int raw_faint = magnitude(raw, 100, 120);
    const int raw_strong = magnitude(raw, 60, 180);
    const int norm_faint = magnitude(normalised, 100, 120);
    const int norm_strong = magnitude(normalised, 60, 180);
    EXPECT_GT(raw_strong, 3 * raw_faint);
    EXPECT_GT(norm_faint, 0);
    EXPECT_LT(norm_strong, 2 * norm_faint);
}

TEST(AccurateChannels, ThePlanesAreTheSameEveryTime) {
    const ostrel::chn_image8 lab = vertical_edge(50, 38, 30, 220);
    EXPECT_EQ(ostrel::accurate_channel_map(lab, ostrel::channel_recipe{}).data,
              ostrel::accurate_channel_map(lab, ostrel::channel_recipe{}).data);
}

}  // namespace
