// Box arithmetic of the tool: overlap, median size, centring, moving inside.
#include <gtest/gtest.h>

#include "boxes/box_geometry.h"

using namespace ostrel_tool;

TEST(IntersectionOverUnion, IdenticalBoxesGiveOne) {
    EXPECT_DOUBLE_EQ(intersection_over_union({10, 10, 20, 20}, {10, 10, 20, 20}), 1.0);
}

TEST(IntersectionOverUnion, HalfShiftedBoxGivesOneThird) {
    // 10x10 overlapping by 5x10: 50 / (100 + 100 - 50).
    EXPECT_DOUBLE_EQ(intersection_over_union({0, 0, 10, 10}, {5, 0, 10, 10}), 50.0 / 150.0);
}

TEST(IntersectionOverUnion, TouchingOrEmptyBoxesGiveZero) {
    EXPECT_EQ(intersection_over_union({0, 0, 10, 10}, {10, 0, 10, 10}), 0.0);
    EXPECT_EQ(intersection_over_union({0, 0, 0, 10}, {0, 0, 10, 10}), 0.0);
}

TEST(MedianSize, TakesWidthAndHeightSeparately) {
    const Size s = median_size({{0, 0, 10, 90}, {0, 0, 30, 70}, {0, 0, 20, 80}});
    EXPECT_EQ(s.w, 20);
    EXPECT_EQ(s.h, 80);
}

TEST(MedianSize, EvenCountTakesTheLowerMiddle) {
    const Size s = median_size({{0, 0, 10, 1}, {0, 0, 40, 4}, {0, 0, 20, 2}, {0, 0, 30, 3}});
    EXPECT_EQ(s.w, 20);
    EXPECT_EQ(s.h, 2);
    EXPECT_EQ(median_size({}).w, 0);
}

TEST(Centred, KeepsTheCentre) {
    // Centre of (100, 50, 20, 40) is (110, 70); a 10x10 box there starts at (105, 65).
    EXPECT_EQ(centred({100, 50, 20, 40}, {10, 10}), (Rect{105, 65, 10, 10}));
    // Odd difference: the centre is rounded down.
    EXPECT_EQ(centred({0, 0, 11, 11}, {10, 10}), (Rect{0, 0, 10, 10}));
    // A larger box may start left of the picture; rounding stays downwards.
    EXPECT_EQ(centred({0, 0, 10, 10}, {21, 21}), (Rect{-6, -6, 21, 21}));
}

TEST(MovedInside, ShiftsWithoutResizing) {
    EXPECT_EQ(moved_inside({600, 450, 100, 90}, 640, 480), (Rect{540, 390, 100, 90}));
    EXPECT_EQ(moved_inside({-5, -7, 100, 90}, 640, 480), (Rect{0, 0, 100, 90}));
    EXPECT_EQ(moved_inside({10, 10, 100, 90}, 640, 480), (Rect{10, 10, 100, 90}));
}

TEST(TouchesPicture, NeedsOneSharedPixel) {
    EXPECT_TRUE(touches_picture({639, 479, 10, 10}, 640, 480));
    EXPECT_FALSE(touches_picture({640, 0, 10, 10}, 640, 480));
    EXPECT_FALSE(touches_picture({-10, 0, 10, 10}, 640, 480));
    EXPECT_TRUE(touches_picture({-9, 0, 10, 10}, 640, 480));
}

TEST(MarkedBox, IsAPositiveRecord) {
    const ostrel_alg_box b = marked_box({1, 2, 3, 4});
    EXPECT_EQ(b.x, 1);
    EXPECT_EQ(b.y, 2);
    EXPECT_EQ(b.width, 3);
    EXPECT_EQ(b.height, 4);
    EXPECT_EQ(b.label, 1);
    EXPECT_EQ(rect_of(b), (Rect{1, 2, 3, 4}));
    EXPECT_EQ(to_string(Rect{1, 2, 3, 4}), "1,2,3,4");
}

TEST(PlacedOn, CentresWhereTheAnnotationIsWhole) {
    EXPECT_EQ(placed_on({100, 50, 20, 40}, {10, 10}, 640, 480), centred({100, 50, 20, 40}, {10, 10}));
}

TEST(PlacedOn, EdgeCutAnnotationsKeepTheirInnerSide) {
    // Cut by the right edge (x + w = 640): the box starts where the annotation does.
    EXPECT_EQ(placed_on({555, 200, 85, 100}, {100, 100}, 640, 480), (Rect{555, 200, 100, 100}));
    // Cut by the left edge: the box ends where the annotation does.
    EXPECT_EQ(placed_on({0, 200, 86, 100}, {100, 100}, 640, 480), (Rect{-14, 200, 100, 100}));
    // Cut by the bottom edge only: centred across, top side kept.
    EXPECT_EQ(placed_on({468, 411, 99, 69}, {97, 100}, 640, 480), (Rect{469, 411, 97, 100}));
    // Cut by the top edge.
    EXPECT_EQ(placed_on({259, 0, 115, 83}, {97, 100}, 640, 480), (Rect{268, -17, 97, 100}));
    // Cut on both sides of an axis: centred along it.
    EXPECT_EQ(placed_on({0, 10, 640, 20}, {100, 20}, 640, 480), (Rect{270, 10, 100, 20}));
}
