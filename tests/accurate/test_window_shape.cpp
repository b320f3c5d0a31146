// The one window of objects of every size: the median shape of the marked
// boxes, about the requested cells, refused when the shapes differ too much
// to share it; sizes count as heights of the window's shape.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/window_shape.h"

namespace {

ostrel_alg_box box(int w, int h, int label = 1) { return ostrel_alg_box{0, 0, w, h, 0.0f, label, 0, 0}; }

TEST(WindowShape, TheMedianShapeOfTheMarkedBoxesGetsAbout100Cells) {
    // People of three sizes, all about 1:3.
    const std::vector<ostrel_alg_box> boxes = {box(36, 110), box(61, 219), box(75, 225), box(20, 60, -1)};
    const ostrel::shape_result r = ostrel::derive_window_shape(boxes, 100, ostrel::accurate_settings{});
    ASSERT_EQ(r.status, ostrel::shape_status::ok);
    // The middle of 0.2785, 0.327, 0.333; the background box does not count.
    EXPECT_NEAR(r.median_aspect, 36.0 / 110.0, 1e-9);
    EXPECT_EQ(r.shape.columns, 6);  // sqrt(100 * 0.327) = 5.7
    EXPECT_EQ(r.shape.rows, 17);    // sqrt(100 / 0.327) = 17.5
    EXPECT_EQ(r.shape.features(), 6 * 17 * 10);
}

TEST(WindowShape, AnEvenCountTakesTheGeometricMeanOfTheMiddleTwo) {
    // 1:2 and 2:1: the median is 1:1, each twice from it (the spread allowed).
    const std::vector<ostrel_alg_box> boxes = {box(10, 20), box(20, 10)};
    const ostrel::shape_result r = ostrel::derive_window_shape(boxes, 100, ostrel::accurate_settings{});
    ASSERT_EQ(r.status, ostrel::shape_status::ok);
    EXPECT_NEAR(r.median_aspect, 1.0, 1e-9);
    EXPECT_EQ(r.shape.columns, 10);
    EXPECT_EQ(r.shape.rows, 10);
}

TEST(WindowShape, ShapesMoreThanTwiceApartFromTheMedianAreRefused) {
    ostrel::accurate_settings s;
    // 1:1, 1:1, 1:2.1 -> the last is 2.1 times narrower than the median.
    const ostrel::shape_result far = ostrel::derive_window_shape({box(50, 50), box(40, 40), box(20, 42)}, 100, s);
    EXPECT_EQ(far.status, ostrel::shape_status::aspects_differ);
    EXPECT_EQ(far.odd_box, 2u);
    // 1:1.9 is within the spread.
    EXPECT_EQ(ostrel::derive_window_shape({box(50, 50), box(40, 40), box(20, 38)}, 100, s).status,
              ostrel::shape_status::ok);
    s.max_aspect_spread_percent = 300;
    EXPECT_EQ(ostrel::derive_window_shape({box(50, 50), box(40, 40), box(20, 42)}, 100, s).status,
              ostrel::shape_status::ok);
}

TEST(WindowShape, EmptyExtremeOrAbsurdBoxesAreRefused) {
    const ostrel::accurate_settings s;
    EXPECT_EQ(ostrel::derive_window_shape({}, 100, s).status, ostrel::shape_status::bad_size);
    EXPECT_EQ(ostrel::derive_window_shape({box(10, 10, -1)}, 100, s).status, ostrel::shape_status::bad_size);
    EXPECT_EQ(ostrel::derive_window_shape({box(0, 10)}, 100, s).status, ostrel::shape_status::bad_size);
    EXPECT_EQ(ostrel::derive_window_shape({box(1 << 21, 10)}, 100, s).status, ostrel::shape_status::bad_size);
    EXPECT_EQ(ostrel::derive_window_shape({box(170, 10)}, 100, s).status, ostrel::shape_status::aspect_extreme);
    EXPECT_EQ(ostrel::derive_window_shape({box(10, 170)}, 100, s).status, ostrel::shape_status::aspect_extreme);
}

TEST(WindowShape, HeightsCountTheAreaInTheWindowsShape) {
    ostrel::window_shape shape = ostrel::window_for_aspect(0.5, 100, ostrel::accurate_settings{});
    ASSERT_FALSE(shape.empty());
    EXPECT_DOUBLE_EQ(ostrel::box_height(box(50, 100), shape), 100.0);
    // Twice as wide, same height: the area of a 0.5-shaped box of height 141.
    EXPECT_NEAR(ostrel::box_height(box(100, 100), shape), 100.0 * std::sqrt(2.0), 1e-9);
    EXPECT_EQ(ostrel::box_height(box(0, 100), shape), 0.0);
    // The scale that gives an object of a height the window's object height.
    EXPECT_NEAR(ostrel::scale_for_height(100.0, shape) * 100.0, shape.object_height_working(), 1e-9);
    EXPECT_NEAR(shape.object_width_working() / shape.object_height_working(), 0.5, 1e-6);
    // The window's object is centred in the window, its area the window's.
    EXPECT_NEAR(shape.object_columns() * shape.object_rows(), shape.columns * shape.rows, 1e-6);
}

TEST(WindowShape, AspectFitsWithinTheSpread) {
    const ostrel::accurate_settings s;
    const ostrel::window_shape shape = ostrel::window_for_aspect(1.0, 100, s);
    EXPECT_TRUE(ostrel::aspect_fits(box(40, 79), shape, s));
    EXPECT_FALSE(ostrel::aspect_fits(box(40, 81), shape, s));
    EXPECT_FALSE(ostrel::aspect_fits(box(0, 81), shape, s));
}

}  // namespace
