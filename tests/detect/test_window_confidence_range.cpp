// The confidence of a window stays in 0..100 for every margin an int32 can
// hold. Where the fast exponential's integer part lies in [-126, 127] its
// bits are a normal float and the score is the classic one, bit for bit;
// beyond that the power is taken as 0 (below) or infinity (above), the
// values the logistic tends to.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include <gtest/gtest.h>

#include "detect/window_scan.h"

namespace {

// The classic computation, bits and all: the integer part of the exponent
// added to the exponent field of the quadratic, with wrap-around.
int32_t classic_confidence(int32_t margin) {
    const float v = static_cast<float>(margin) / -100000.0f * 1.442695f;
    const float whole = std::floor(v);
    const int32_t i = static_cast<int32_t>(whole);
    const float f = v - whole;
    const float p = (0.33718944f * f + 0.6576363f) * f + 1.0017247f;
    uint32_t bits = 0;
    std::memcpy(&bits, &p, 4);
    bits += static_cast<uint32_t>(i) << 23;
    float e = 0.0f;
    std::memcpy(&e, &bits, 4);
    const float probability = static_cast<float>(1.0 - 1.0 / (static_cast<double>(e) + 1.0));
    const double percent = static_cast<double>(probability) * 100.0;
    if (!(percent > -2147483649.0 && percent < 2147483648.0)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(percent);
}

int32_t exponent_of(int32_t margin) {
    return static_cast<int32_t>(std::floor(static_cast<float>(margin) / -100000.0f * 1.442695f));
}

// Margins (the bias 0) whose exponent is `i`, found by bisection on the
// monotone map from margin to exponent: the first and the last.
int64_t first_margin_with_exponent_at_most(int32_t i) {
    int64_t low = std::numeric_limits<int32_t>::min();
    int64_t high = std::numeric_limits<int32_t>::max();
    // exponent_of falls as the margin grows.
    while (low < high) {
        const int64_t mid = low + (high - low) / 2;
        if (exponent_of(static_cast<int32_t>(mid)) <= i)
            high = mid;
        else
            low = mid + 1;
    }
    return low;
}

}  // namespace

// Over the whole int32 range the score is in 0..100 and never rises with
// the margin.
TEST(WindowConfidenceRange, EveryMarginScoresInRangeAndMonotonically) {
    int32_t previous = 100;
    for (int64_t margin = std::numeric_limits<int32_t>::min(); margin <= std::numeric_limits<int32_t>::max();
         margin += 4093) {
        const int32_t score = ostrel::window_confidence(static_cast<int32_t>(margin), 0);
        ASSERT_GE(score, 0) << margin;
        ASSERT_LE(score, 100) << margin;
        ASSERT_LE(score, previous) << margin;
        previous = score;
    }
}

// Inside the exponent range the score is the classic one; the sweep takes
// every margin near both edges and a stride through the middle.
TEST(WindowConfidenceRange, ClassicScoresInsideTheExponentRange) {
    const int64_t lowest_inside = first_margin_with_exponent_at_most(127);        // exponent 127
    const int64_t highest_inside = first_margin_with_exponent_at_most(-127) - 1;  // exponent -126
    ASSERT_EQ(exponent_of(static_cast<int32_t>(lowest_inside)), 127);
    ASSERT_EQ(exponent_of(static_cast<int32_t>(lowest_inside - 1)), 128);
    ASSERT_EQ(exponent_of(static_cast<int32_t>(highest_inside)), -126);
    ASSERT_EQ(exponent_of(static_cast<int32_t>(highest_inside + 1)), -127);
    for (int64_t margin = lowest_inside; margin <= highest_inside; margin += 997) {
        ASSERT_EQ(ostrel::window_confidence(static_cast<int32_t>(margin), 0),
                  classic_confidence(static_cast<int32_t>(margin)))
            << margin;
    }
    for (const int64_t edge : {lowest_inside, highest_inside}) {
        for (int64_t margin = edge - 2000; margin <= edge + 2000; ++margin) {
            const bool inside = margin >= lowest_inside && margin <= highest_inside;
            const int32_t expected =
                inside ? classic_confidence(static_cast<int32_t>(margin)) : (margin < lowest_inside ? 100 : 0);
            ASSERT_EQ(ostrel::window_confidence(static_cast<int32_t>(margin), 0), expected) << margin;
        }
    }
}

// Beyond it the classic bits went wrong: a NaN or negative power gave a
// score far outside 0..100 (or 0 where the logistic is 1). Now it is 100
// for large negative margins and 0 for large positive ones.
TEST(WindowConfidenceRange, BeyondTheRangeTheScoreSaturates) {
    const int32_t lowest = std::numeric_limits<int32_t>::min();
    const int32_t highest = std::numeric_limits<int32_t>::max();
    EXPECT_EQ(ostrel::window_confidence(lowest, 0), 100);
    EXPECT_EQ(ostrel::window_confidence(highest, 0), 0);
    EXPECT_EQ(ostrel::window_confidence(0, highest), 100);   // the bias at its limit
    EXPECT_EQ(ostrel::window_confidence(-9000000, 0), 100);  // exponent 129
    EXPECT_EQ(ostrel::window_confidence(9000000, 0), 0);     // exponent -130
    // What the classic bits gave there.
    EXPECT_FALSE(classic_confidence(lowest) >= 0 && classic_confidence(lowest) <= 100);
    EXPECT_EQ(classic_confidence(-9000000), 0);
}
