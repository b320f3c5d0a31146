// The searched object sizes: 2n + 1 sizes, geometrically spaced, the marked
// size in the middle; working sides even.
#include <gtest/gtest.h>

#include "accurate/scale_set.h"

namespace {

TEST(ScaleSet, OneStepGivesThreeSizesAroundTheMarkedOne) {
    const ostrel::accurate_settings s;  // one step of 15%
    const std::vector<double> f = ostrel::search_scales(s);
    ASSERT_EQ(f.size(), 3u);
    EXPECT_NEAR(f[0], 1.0 / 1.15, 1e-12);
    EXPECT_EQ(f[1], 1.0);
    EXPECT_NEAR(f[2], 1.15, 1e-12);
    EXPECT_EQ(ostrel::marked_scale_index(s), 1);
}

TEST(ScaleSet, StepsAreBounded) {
    ostrel::accurate_settings s;
    s.size_steps = 0;
    EXPECT_EQ(ostrel::search_scales(s).size(), 1u);
    s.size_steps = 100;
    EXPECT_EQ(ostrel::search_scales(s).size(), static_cast<size_t>(2 * ostrel::kMaxSizeSteps + 1));
    EXPECT_EQ(ostrel::marked_scale_index(s), ostrel::kMaxSizeSteps);
}

TEST(ScaleSet, WorkingSidesAreEvenAndAtLeastTwo) {
    EXPECT_EQ(ostrel::scaled_working_side(132, 1.0), 132);
    EXPECT_EQ(ostrel::scaled_working_side(132, 1.15), 114);  // 57.4 rounded, doubled
    EXPECT_EQ(ostrel::scaled_working_side(3, 10.0), 2);
}

}  // namespace
