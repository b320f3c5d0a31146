// The searched object sizes: 2n + 1 sizes, geometrically spaced, the marked
// size in the middle; working sides even.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "accurate/scale_set.h"
#include "accurate/size_range.h"

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

// The pyramid's level factors 2^(k/n) are the same bits on every platform:
// whole octaves exact, the roots between them from basic arithmetic alone.
TEST(OctaveFactor, WholeOctavesAreExactPowersOfTwo) {
    for (int32_t n = 1; n <= 16; ++n) {
        for (int32_t octaves = -4; octaves <= 4; ++octaves) {
            EXPECT_EQ(ostrel::octave_factor(octaves * n, n), std::ldexp(1.0, octaves)) << n << " " << octaves;
        }
    }
}

int64_t ulps_apart(double a, double b) {
    int64_t ia = 0, ib = 0;
    std::memcpy(&ia, &a, sizeof a);
    std::memcpy(&ib, &b, sizeof b);
    return ia > ib ? ia - ib : ib - ia;
}

TEST(OctaveFactor, WithinTwoUnitsInTheLastPlaceAndIncreasing) {
    for (int32_t n = 1; n <= 16; ++n) {
        double previous = 0.0;
        for (int32_t k = -3 * n; k <= 3 * n; ++k) {
            const double f = ostrel::octave_factor(k, n);
            EXPECT_LE(ulps_apart(f, std::exp2(static_cast<double>(k) / n)), 2) << k << "/" << n;
            EXPECT_GT(f, previous) << k << "/" << n;
            previous = f;
        }
    }
    EXPECT_EQ(ostrel::octave_factor(3, 0), 8.0);  // fewer than one level per octave counts as one
}

// The default six levels per octave, bit for bit: the factors the Linux
// build and the Windows DLL both search.
TEST(OctaveFactor, DefaultLevelsArePinnedBitForBit) {
    const double expected[] = {0x1p+0,
                               0x1.1f59ac3c7d6cp+0,
                               0x1.428a2f98d728bp+0,
                               0x1.6a09e667f3bcdp+0,
                               0x1.965fea53d6e3cp+0,
                               0x1.c823e074ec129p+0,
                               0x1p+1};
    for (int32_t k = 0; k <= 6; ++k) EXPECT_EQ(ostrel::octave_factor(k, 6), expected[k]) << k;
    // Half a step either way (the calibration's rescaled copies).
    EXPECT_EQ(ostrel::octave_factor(-1, 12), 0x1.e3437e7101344p-1);
    EXPECT_EQ(ostrel::octave_factor(1, 12), 0x1.0f38f92d97963p+0);
}

// A side that lands exactly halfway between two even sides goes the way
// the caller says; any other side is plainly rounded either way.
TEST(ScaledWorkingSide, ExactHalvesGoAsTheTieRuleSays) {
    EXPECT_EQ(ostrel::scaled_working_side(222, 2.0, ostrel::halfway::down), 110);
    EXPECT_EQ(ostrel::scaled_working_side(222, 2.0, ostrel::halfway::up), 112);
    EXPECT_EQ(ostrel::scaled_working_side(222, 2.0), 112);  // plain rounding unless told
    EXPECT_EQ(ostrel::scaled_working_side(641, 1.0, ostrel::halfway::down), 640);
    EXPECT_EQ(ostrel::scaled_working_side(641, 1.0, ostrel::halfway::up), 642);
    for (ostrel::halfway tie : {ostrel::halfway::down, ostrel::halfway::up}) {
        EXPECT_EQ(ostrel::scaled_working_side(132, 1.15, tie), 114);  // 57.4
        EXPECT_EQ(ostrel::scaled_working_side(138, 1.15, tie), 120);  // 60.0
        EXPECT_EQ(ostrel::scaled_working_side(3, 10.0, tie), 2);
    }
}

// An octave level of a side of 4m + 2 pixels: a single class's levels take
// the smaller side, as when their factors were a hair above 2 (222 -> 110),
// and the shared grid of several classes the larger one, as when its
// factors were exactly 2 (222 -> 112).
TEST(OctaveFactor, OctaveLevelOfAnExactHalfGoesAsEachSearchLaidItOut) {
    const double octave = ostrel::octave_factor(6, 6);
    EXPECT_EQ(ostrel::scaled_working_side(222, octave, ostrel::level_plan{}.ties), 110);
    EXPECT_EQ(ostrel::scaled_working_side(222, octave, ostrel::halfway::up), 112);
}

}  // namespace
