// The sizes the accurate profile searches, in pixels: the taught range, its
// margin, the host's range; the levels that cover it on a picture of any
// size, and the bounds that keep every search finite.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "accurate/size_range.h"

namespace {

ostrel::window_shape person_shape() { return ostrel::window_for_aspect(0.3, 100, ostrel::accurate_settings{}); }

TEST(SizeRange, TheTaughtRangeIsTheSmallestAndLargestObject) {
    const ostrel::window_shape shape = ostrel::window_for_aspect(0.5, 100, ostrel::accurate_settings{});
    const std::vector<ostrel_alg_box> boxes = {{0, 0, 20, 40, 0.0f, 1, 0, 0},
                                               {0, 0, 60, 120, 0.0f, 1, 0, 0},
                                               {0, 0, 500, 500, 0.0f, -1, 0, 0}};
    const ostrel::height_range r = ostrel::taught_range(boxes, shape);
    EXPECT_DOUBLE_EQ(r.min, 40.0);
    EXPECT_DOUBLE_EQ(r.max, 120.0);
    EXPECT_FALSE(ostrel::taught_range({}, shape).valid());
    const ostrel::height_range both = ostrel::cover(r, ostrel::height_range{30.0, 50.0});
    EXPECT_DOUBLE_EQ(both.min, 30.0);
    EXPECT_DOUBLE_EQ(both.max, 120.0);
}

TEST(SizeRange, TheSearchReachesTheMarginBeyondTheTaughtRange) {
    ostrel::accurate_settings s;
    const ostrel::height_range taught{60.0, 120.0};
    ostrel::searched_range r = ostrel::search_range(taught, s);
    EXPECT_DOUBLE_EQ(r.range.min, 40.0);  // 1.5 times each way by default
    EXPECT_DOUBLE_EQ(r.range.max, 180.0);
    EXPECT_FALSE(r.min_from_host || r.max_from_host);
    s.size_steps = 0;
    r = ostrel::search_range(taught, s);
    EXPECT_DOUBLE_EQ(r.range.min, 60.0);
    s.size_steps = 2;
    r = ostrel::search_range(taught, s);
    EXPECT_DOUBLE_EQ(r.range.max, 120.0 * 2.25);
}

TEST(SizeRange, TheHostsHeightsReplaceTheAutomaticOnes) {
    ostrel::accurate_settings s;
    s.min_height = 30;
    s.max_height = 300;
    ostrel::searched_range r = ostrel::search_range(ostrel::height_range{60.0, 120.0}, s);
    EXPECT_DOUBLE_EQ(r.range.min, 30.0);
    EXPECT_DOUBLE_EQ(r.range.max, 300.0);
    EXPECT_TRUE(r.min_from_host && r.max_from_host);
    // One bound above the other's automatic value: the automatic one gives way.
    s.min_height = 400;
    s.max_height = 0;
    r = ostrel::search_range(ostrel::height_range{60.0, 120.0}, s);
    EXPECT_DOUBLE_EQ(r.range.min, 400.0);
    EXPECT_DOUBLE_EQ(r.range.max, 400.0);
}

TEST(SizeRange, LevelsCoverTheRangeInPixelsOnAPictureOfAnySize) {
    const ostrel::accurate_settings s;  // 6 levels an octave
    const ostrel::window_shape shape = person_shape();
    ostrel::searched_range searched;
    searched.range = ostrel::height_range{50.0, 200.0};
    for (const int width : {640, 1920}) {
        const int height = width * 9 / 16;
        ostrel::level_plan plan;
        ASSERT_EQ(ostrel::plan_levels(width, height, searched, searched.range, shape, s, 2, 5, &plan),
                  ostrel::plan_status::ok);
        // Two octaves: 13 levels, the first for 50-pixel objects, the last at 200.
        ASSERT_EQ(plan.factors.size(), 13u);
        EXPECT_DOUBLE_EQ(plan.heights.front(), 50.0);
        EXPECT_NEAR(plan.heights.back(), 200.0, 1e-6);
        // The finest level gives a 50-pixel object the window's height.
        EXPECT_NEAR(static_cast<double>(plan.base_columns) / width, shape.object_height_working() / 50.0, 2.0 / width);
        EXPECT_GT(plan.windows, 0);
    }
}

TEST(SizeRange, EverySearchIsBounded) {
    ostrel::accurate_settings s;
    const ostrel::window_shape shape = person_shape();
    ostrel::searched_range searched;
    ostrel::level_plan plan;
    // Objects of 5 pixels would have to be enlarged about 7 times.
    searched.range = ostrel::height_range{5.0, 40.0};
    searched.min_from_host = true;
    EXPECT_EQ(ostrel::plan_levels(320, 240, searched, searched.range, shape, s, 2, 5, &plan),
              ostrel::plan_status::too_small);
    // Objects of 40 pixels on a 16384 x 16384 picture would need a working
    // picture far beyond the bound.
    searched.range = ostrel::height_range{40.0, 80.0};
    EXPECT_EQ(ostrel::plan_levels(16384, 16384, searched, searched.range, shape, s, 2, 5, &plan),
              ostrel::plan_status::too_large);
    EXPECT_GT(plan.smallest_searchable, 40.0);
    // The automatic margin gives way to the bound when the taught range fits.
    searched.min_from_host = false;
    const ostrel::height_range taught{plan.smallest_searchable * 1.2, 400.0};
    searched.range = ostrel::height_range{taught.min / 1.5, 600.0};
    ASSERT_EQ(ostrel::plan_levels(16384, 16384, searched, taught, shape, s, 2, 5, &plan), ostrel::plan_status::ok);
    EXPECT_NEAR(plan.range.min, plan.smallest_searchable, 1e-9);
    EXPECT_LE(static_cast<int64_t>(plan.base_columns) * plan.base_rows, s.max_level_pixels + 2 * (16384 + 16384));
    EXPECT_LE(plan.windows, s.max_search_windows);
    // Too many levels.
    searched.range = ostrel::height_range{20.0, 20.0 * std::pow(2.0, 9)};
    searched.min_from_host = true;
    EXPECT_EQ(ostrel::plan_levels(640, 480, searched, searched.range, shape, s, 2, 5, &plan),
              ostrel::plan_status::too_many_levels);
    s.max_levels = 100;
    searched.range = ostrel::height_range{20.0, 400.0};
    EXPECT_EQ(ostrel::plan_levels(640, 480, searched, searched.range, shape, s, 2, 5, &plan), ostrel::plan_status::ok);
}

TEST(SizeRange, LevelsWhoseObjectsCannotHalfShowAreLeftOut) {
    const ostrel::accurate_settings s;
    const ostrel::window_shape shape = person_shape();
    ostrel::searched_range searched;
    searched.range = ostrel::height_range{50.0, 800.0};
    ostrel::level_plan plan;
    ASSERT_EQ(ostrel::plan_levels(640, 240, searched, searched.range, shape, s, 2, 5, &plan), ostrel::plan_status::ok);
    EXPECT_LE(plan.heights.back(), 480.0);
    EXPECT_GT(plan.heights.back() * std::pow(2.0, 1.0 / 6.0), 480.0);
    EXPECT_EQ(ostrel::plan_levels(20, 20, searched, searched.range, shape, s, 2, 5, &plan),
              ostrel::plan_status::nothing_fits);
    EXPECT_EQ(ostrel::plan_levels(640, 480, ostrel::searched_range{}, searched.range, shape, s, 2, 5, &plan),
              ostrel::plan_status::no_range);
}

}  // namespace
