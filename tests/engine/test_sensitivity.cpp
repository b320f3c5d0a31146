// The sensitivity rule: the confidence a box needs at each sensitivity, and
// that the engine's threshold and the interface's report of it are that one
// rule for every sensitivity.
#include "engine/sensitivity.h"

#include <gtest/gtest.h>

#include "engine/ostrel_alg.h"
#include "ostrel_alg.h"

// Every value the engine has always set: 90 - sensitivity / 2 rounded down
// below 80 (single-precision arithmetic truncated toward zero), one percent
// a step from 50 at 80 down to 30 at 100.
TEST(ConfidenceOfSensitivity, EveryValueIsTheEnginesLongstandingThreshold) {
    for (uint32_t s = 0; s <= ostrel::kMaxSensitivity; ++s) {
        const int32_t expected = s < 80 ? 90 - static_cast<int32_t>((s + 1) / 2) : 130 - static_cast<int32_t>(s);
        EXPECT_EQ(ostrel::confidence_of_sensitivity(s), expected) << "sensitivity " << s;
    }
}

// What setSensitivity sets and what getConfidenceOfSensitivity reports are
// the same number for every sensitivity a host may give.
TEST(ConfidenceOfSensitivity, TheInterfaceReportsWhatSetSensitivitySets) {
    ostrel_alg *handle = nullptr;
    ASSERT_EQ(ostrel_alg_create(&handle), 0);
    ASSERT_NE(handle, nullptr);
    for (uint32_t s = 0; s <= ostrel::kMaxSensitivity; ++s) {
        ASSERT_EQ(ostrel_alg_setSensitivity(handle, s), 0) << s;
        uint32_t percent = 0;
        ASSERT_EQ(ostrel_alg_getConfidenceOfSensitivity(s, &percent), 0) << s;
        EXPECT_EQ(static_cast<int32_t>(percent), handle->confidence_threshold) << "sensitivity " << s;
    }
    EXPECT_EQ(ostrel_alg_destroy(handle), 0);
}
