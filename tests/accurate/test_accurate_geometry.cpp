// The accurate profile's geometry: the working scale gives the object about
// the requested number of cells, equally along both axes, within the
// limits; the window is the object in cells; what cannot be learnt is
// refused with a reason.
#include <cmath>

#include <gtest/gtest.h>

#include "accurate/accurate_geometry.h"

namespace {

using ostrel::accurate_geometry;
using ostrel::accurate_settings;
using ostrel::derive_accurate_geometry;
using ostrel::geometry_status;

TEST(AccurateGeometry, ABloodCellOnA640x480PictureGetsAbout100Cells) {
    accurate_geometry g;
    ASSERT_EQ(derive_accurate_geometry(96, 99, 640, 480, accurate_settings{}, &g), geometry_status::ok);
    // s = 2 * sqrt(100 / (96 * 99)) = 0.2052: 640 x 480 -> 132 x 98 (even sides).
    EXPECT_EQ(g.working_width, 132);
    EXPECT_EQ(g.working_height, 98);
    EXPECT_EQ(g.window_columns, 10);
    EXPECT_EQ(g.window_rows, 10);
    EXPECT_EQ(g.window_features(), 1000);
    EXPECT_NEAR(g.scale_x, g.scale_y, 0.01f);
}

TEST(AccurateGeometry, ATallNarrowObjectKeepsItsShape) {
    accurate_geometry g;
    ASSERT_EQ(derive_accurate_geometry(19, 40, 416, 416, accurate_settings{}, &g), geometry_status::ok);
    EXPECT_EQ(g.working_width, g.working_height);  // the same scale on both axes
    EXPECT_EQ(g.window_columns, 7);
    EXPECT_EQ(g.window_rows, 15);  // 40 * 302 / 416 / 2 = 14.5, rounded
}

TEST(AccurateGeometry, MoreCellsGiveAFinerScale) {
    accurate_settings fine;
    fine.object_cells = 400;
    accurate_geometry coarse_g, fine_g;
    ASSERT_EQ(derive_accurate_geometry(96, 99, 640, 480, accurate_settings{}, &coarse_g), geometry_status::ok);
    ASSERT_EQ(derive_accurate_geometry(96, 99, 640, 480, fine, &fine_g), geometry_status::ok);
    EXPECT_EQ(fine_g.window_columns, 2 * coarse_g.window_columns);
    EXPECT_GT(fine_g.working_width, coarse_g.working_width);
}

TEST(AccurateGeometry, TheWorkingPictureStaysWithinItsPixelBudget) {
    // A small object on a large picture would need an enormous working
    // picture; the budget wins and the object gets fewer cells.
    accurate_geometry g;
    const accurate_settings settings;
    ASSERT_EQ(derive_accurate_geometry(200, 200, 4000, 3000, settings, &g), geometry_status::ok);
    EXPECT_LE(g.working_width * g.working_height,
              settings.max_working_pixels + 2 * (g.working_width + g.working_height));
    EXPECT_LT(g.window_columns * g.window_rows, settings.object_cells);
}

TEST(AccurateGeometry, ASmallObjectOnALargePictureGetsALargerWorkingPictureRatherThanARefusal) {
    // A 40 x 20 vehicle on a 1920 x 1080 frame: within the budget it would
    // get 3 x 1 cells; the working picture grows until it has about 49.
    accurate_geometry g;
    const accurate_settings settings;
    ASSERT_EQ(derive_accurate_geometry(40, 20, 1920, 1080, settings, &g), geometry_status::ok);
    EXPECT_GT(g.working_width * g.working_height, settings.max_working_pixels);
    EXPECT_LE(g.working_width * g.working_height, settings.hard_working_pixels);
    EXPECT_NEAR(g.window_columns * g.window_rows, settings.min_budget_cells, 8);
    // Past the hard limit: refused, not searched at any cost.
    EXPECT_EQ(derive_accurate_geometry(8, 8, 20000, 20000, settings, &g), geometry_status::object_too_small);
}

TEST(AccurateGeometry, PicturesAreEnlargedAtMostTwice) {
    accurate_geometry g;
    ASSERT_EQ(derive_accurate_geometry(10, 10, 100, 100, accurate_settings{}, &g), geometry_status::ok);
    EXPECT_EQ(g.working_width, 200);
    EXPECT_EQ(g.window_columns, 10);
}

TEST(AccurateGeometry, WhatCannotBeLearntIsRefused) {
    accurate_geometry g;
    const accurate_settings s;
    EXPECT_EQ(derive_accurate_geometry(4, 4, 640, 480, s, &g), geometry_status::object_too_small);
    EXPECT_EQ(derive_accurate_geometry(2, 200, 640, 480, s, &g), geometry_status::object_too_small);
    EXPECT_EQ(derive_accurate_geometry(100, 100, 50, 50, s, &g), geometry_status::picture_too_small);
    EXPECT_EQ(derive_accurate_geometry(0, 10, 640, 480, s, &g), geometry_status::bad_size);
    EXPECT_EQ(derive_accurate_geometry(10, 10, -640, 480, s, &g), geometry_status::bad_size);
    EXPECT_EQ(derive_accurate_geometry(2000000, 10, 640, 480, s, &g), geometry_status::bad_size);
    EXPECT_STRNE(ostrel::geometry_status_text(geometry_status::picture_too_small), "");
}

TEST(AccurateGeometry, TheSameSizesAlwaysGiveTheSameWindow) {
    // A model file records only the four sizes: they must give back the window.
    accurate_geometry a, b;
    ASSERT_EQ(derive_accurate_geometry(57, 113, 1280, 720, accurate_settings{}, &a), geometry_status::ok);
    ASSERT_EQ(derive_accurate_geometry(57, 113, 1280, 720, accurate_settings{}, &b), geometry_status::ok);
    EXPECT_EQ(a.window_features(), b.window_features());
    EXPECT_EQ(a.working_width, b.working_width);
}

}  // namespace
