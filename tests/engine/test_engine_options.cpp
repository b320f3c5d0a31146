// The engine's option table: six options, numbered 1 to 4, 6 and 7 (5 is
// not used), each with its range and default; the record's get and set
// reach the fields the profile reads; the defaults are the classic profile
// and the measured accurate settings.
#include <gtest/gtest.h>

#include "engine/engine_options.h"

namespace {

TEST(EngineOptions, TheTableListsEveryOptionWithItsRangeAndDefault) {
    int32_t count = 0;
    const ostrel::option_range *ranges = ostrel::option_table(&count);
    ASSERT_EQ(count, 6);
    const int32_t ids[] = {1, 2, 3, 4, 6, 7};
    for (int32_t i = 0; i < count; ++i) {
        EXPECT_EQ(ranges[i].id, ids[i]);
        EXPECT_LE(ranges[i].minimum, ranges[i].default_value);
        EXPECT_GE(ranges[i].maximum, ranges[i].default_value);
        EXPECT_EQ(ostrel::find_option(ranges[i].id), &ranges[i]);
        EXPECT_EQ(ostrel::engine_options{}.get(ranges[i].id), ranges[i].default_value);
    }
    EXPECT_EQ(ostrel::find_option(0), nullptr);
    EXPECT_EQ(ostrel::find_option(5), nullptr);
    EXPECT_EQ(ostrel::find_option(8), nullptr);
}

TEST(EngineOptions, TheHeightOptionsTakeZeroOrEightPixelsAndMoreAndKeepTheirOrder) {
    const ostrel::option_range *minimum = ostrel::find_option(ostrel::kOptionAccurateMinHeight);
    ASSERT_NE(minimum, nullptr);
    for (const int32_t v : {0, 8, 100, 16384}) EXPECT_TRUE(ostrel::within_range(*minimum, v)) << v;
    for (const int32_t v : {-1, 1, 7, 16385}) EXPECT_FALSE(ostrel::within_range(*minimum, v)) << v;
    ostrel::engine_options o;
    o.set(ostrel::kOptionAccurateMaxHeight, 100);
    EXPECT_NE(o.conflict(ostrel::kOptionAccurateMinHeight, 101), nullptr);
    EXPECT_EQ(o.conflict(ostrel::kOptionAccurateMinHeight, 100), nullptr);
    EXPECT_EQ(o.conflict(ostrel::kOptionAccurateMinHeight, 0), nullptr);
    o.set(ostrel::kOptionAccurateMinHeight, 50);
    EXPECT_NE(o.conflict(ostrel::kOptionAccurateMaxHeight, 49), nullptr);
    EXPECT_EQ(o.conflict(ostrel::kOptionAccurateMaxHeight, 0), nullptr);
    EXPECT_EQ(o.accurate.min_height, 50);
    EXPECT_EQ(o.get(ostrel::kOptionAccurateMaxHeight), 100);
    EXPECT_FALSE(o.host_set(ostrel::kOptionAccurateMinHeight));  // only the interface marks what its host set
}

TEST(EngineOptions, SetAndGetReachTheFieldsTheProfileReads) {
    ostrel::engine_options o;
    EXPECT_FALSE(o.is_accurate());
    o.set(ostrel::kOptionProfile, ostrel::kProfileAccurate);
    o.set(ostrel::kOptionAccurateCells, 144);
    o.set(ostrel::kOptionAccurateSizeSteps, 2);
    o.set(ostrel::kOptionAccurateOverlap, 45);
    EXPECT_TRUE(o.is_accurate());
    EXPECT_EQ(o.accurate.object_cells, 144);
    EXPECT_EQ(o.accurate.size_steps, 2);
    EXPECT_EQ(o.accurate.suppression_overlap_percent, 45);
    EXPECT_EQ(o.get(ostrel::kOptionAccurateCells), 144);
    o.set(99, 7);  // unknown: nothing changes
    EXPECT_EQ(o.get(99), 0);
    EXPECT_EQ(o.accurate.object_cells, 144);
}

}  // namespace
