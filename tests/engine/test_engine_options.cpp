// The engine's option table: four options, numbered 1 to 4, each with its
// range and default; the record's get and set reach the fields the profile
// reads; the defaults are the classic profile and the measured accurate
// settings.
#include <gtest/gtest.h>

#include "engine/engine_options.h"

namespace {

TEST(EngineOptions, TheTableListsEveryOptionWithItsRangeAndDefault) {
    int32_t count = 0;
    const ostrel::option_range *ranges = ostrel::option_table(&count);
    ASSERT_EQ(count, 4);
    for (int32_t i = 0; i < count; ++i) {
        EXPECT_EQ(ranges[i].id, i + 1);
        EXPECT_LE(ranges[i].minimum, ranges[i].default_value);
        EXPECT_GE(ranges[i].maximum, ranges[i].default_value);
        EXPECT_EQ(ostrel::find_option(ranges[i].id), &ranges[i]);
        EXPECT_EQ(ostrel::engine_options{}.get(ranges[i].id), ranges[i].default_value);
    }
    EXPECT_EQ(ostrel::find_option(0), nullptr);
    EXPECT_EQ(ostrel::find_option(5), nullptr);
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
