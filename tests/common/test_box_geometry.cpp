// Intersection over union of integer boxes in single precision.
#include "common/box_geometry.h"

#include <cstdint>

#include <gtest/gtest.h>

namespace {

ostrel_alg_box make_box(int32_t x, int32_t y, int32_t width, int32_t height) {
    ostrel_alg_box box{};
    box.x = x;
    box.y = y;
    box.width = width;
    box.height = height;
    return box;
}

}  // namespace

// A box against itself overlaps fully.
TEST(BoxOverlap, IdenticalBoxesGiveOne) { EXPECT_EQ(ostrel::box_overlap(3, 4, 10, 20, 3, 4, 10, 20), 1.0f); }

// Disjoint boxes and boxes sharing only an edge or a corner have an empty
// intersection and overlap 0.
TEST(BoxOverlap, EmptyIntersectionGivesZero) {
    EXPECT_EQ(ostrel::box_overlap(0, 0, 10, 10, 20, 20, 5, 5), 0.0f);
    EXPECT_EQ(ostrel::box_overlap(0, 0, 10, 10, 10, 0, 10, 10), 0.0f);
    EXPECT_EQ(ostrel::box_overlap(0, 0, 10, 10, 0, 10, 10, 10), 0.0f);
    EXPECT_EQ(ostrel::box_overlap(0, 0, 10, 10, 10, 10, 10, 10), 0.0f);
    EXPECT_EQ(ostrel::box_overlap(0, 0, 0, 10, 0, 0, 10, 10), 0.0f);
}

// Partial overlap: I / ((float)(A + B) - I) in single precision.
TEST(BoxOverlap, RatioInSinglePrecision) {
    // 5 x 10 shared of two 10 x 10 boxes: 50 / 150.
    EXPECT_EQ(ostrel::box_overlap(0, 0, 10, 10, 5, 0, 10, 10), 50.0f / 150.0f);
    // A small box inside a large one: its area over the large one's.
    EXPECT_EQ(ostrel::box_overlap(0, 0, 10, 10, 2, 2, 4, 4), 16.0f / 100.0f);
    // Boxes with different sizes: 3 x 2 shared, areas 20 and 12.
    EXPECT_EQ(ostrel::box_overlap(0, 0, 5, 4, 2, 2, 6, 2), 6.0f / 26.0f);
}

// One row of ten pixels shared by a 10 x 10 and a 10 x 11 box: 10 / 200,
// exactly the float 0.05f.
TEST(BoxOverlap, ExactlyFivePercent) { EXPECT_EQ(ostrel::box_overlap(0, 0, 10, 10, 0, 9, 10, 11), 0.05f); }

// The order of the boxes does not matter, and the record overload agrees.
TEST(BoxOverlap, SymmetricAndRecordOverload) {
    const ostrel_alg_box a = make_box(1, 2, 7, 9);
    const ostrel_alg_box b = make_box(4, -3, 8, 8);
    EXPECT_EQ(ostrel::box_overlap(a, b), ostrel::box_overlap(b, a));
    EXPECT_EQ(ostrel::box_overlap(a, b), ostrel::box_overlap(1, 2, 7, 9, 4, -3, 8, 8));
    // Shared: columns 4..7 (4), rows 2..4 (3) = 12; areas 63 and 64.
    EXPECT_EQ(ostrel::box_overlap(a, b), 12.0f / (127.0f - 12.0f));
}

// Areas that pass the 32-bit range wrap around, as the integer box
// arithmetic does, instead of being undefined.
TEST(BoxOverlap, HugeAreasWrapInThirtyTwoBits) {
    const int32_t side = 46341;  // side * side = 2147488281 > INT32_MAX
    const int32_t area = static_cast<int32_t>(static_cast<uint32_t>(side) * static_cast<uint32_t>(side));
    const int32_t area_sum = static_cast<int32_t>(static_cast<uint32_t>(area) * 2u);
    const float expected = static_cast<float>(area) / (static_cast<float>(area_sum) - static_cast<float>(area));
    EXPECT_EQ(ostrel::box_overlap(0, 0, side, side, 0, 0, side, side), expected);
}
