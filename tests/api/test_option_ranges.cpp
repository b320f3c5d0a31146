// The ranges a host reads instead of copying them: ostrel_alg_getOptionRange
// gives, for every option, exactly the values ostrel_alg_setOption takes
// (each end and the default accepted, one past each end refused), and the
// sensitivity macros are the bounds ostrel_alg_setSensitivity checks.
#include <string>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"

namespace {

// Every option number the header defines.
const int32_t kEveryOption[] = {
    OSTREL_ALG_OPTION_PROFILE,          OSTREL_ALG_OPTION_ACCURATE_CELLS,      OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS,
    OSTREL_ALG_OPTION_ACCURATE_OVERLAP, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT};

class OptionRanges : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ostrel_alg_create(&engine_), 0); }
    void TearDown() override { ostrel_alg_destroy(engine_); }
    // setOption on a fresh engine, so that no other option's value conflicts.
    int32_t set_on_fresh_engine(int32_t option, int32_t value) {
        ostrel_alg *engine = nullptr;
        EXPECT_EQ(ostrel_alg_create(&engine), 0);
        int32_t status = 0;
        ostrel_test::capture_stdout([&] { status = ostrel_alg_setOption(engine, option, value); });
        ostrel_alg_destroy(engine);
        return status;
    }
    ostrel_alg *engine_ = nullptr;
};

}  // namespace

TEST_F(OptionRanges, TheRangeIsWhatSetOptionTakes) {
    for (const int32_t option : kEveryOption) {
        int32_t minimum = -1, maximum = -1, default_value = -1;
        ASSERT_EQ(ostrel_alg_getOptionRange(option, &minimum, &maximum, &default_value), 0) << option;
        EXPECT_LE(minimum, maximum) << option;
        EXPECT_EQ(set_on_fresh_engine(option, minimum), 0) << option;
        EXPECT_EQ(set_on_fresh_engine(option, maximum), 0) << option;
        EXPECT_EQ(set_on_fresh_engine(option, default_value), 0) << option;
        EXPECT_EQ(set_on_fresh_engine(option, maximum + 1), 1) << option;
        if (minimum - 1 != default_value) {
            EXPECT_EQ(set_on_fresh_engine(option, minimum - 1), 1) << option;
        }
        int32_t value = -1;
        ASSERT_EQ(ostrel_alg_getOption(engine_, option, &value), 0);
        EXPECT_EQ(value, default_value) << option;
    }
}

TEST_F(OptionRanges, TheDocumentedNumbers) {
    int32_t minimum = -1, maximum = -1, default_value = -1;
    ASSERT_EQ(ostrel_alg_getOptionRange(OSTREL_ALG_OPTION_ACCURATE_CELLS, &minimum, &maximum, &default_value), 0);
    EXPECT_EQ(minimum, 36);
    EXPECT_EQ(maximum, 400);
    EXPECT_EQ(default_value, 100);
    // The heights: 0 is automatic (the default), set values start at 8.
    ASSERT_EQ(ostrel_alg_getOptionRange(OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, &minimum, &maximum, &default_value), 0);
    EXPECT_EQ(minimum, 8);
    EXPECT_EQ(maximum, 16384);
    EXPECT_EQ(default_value, 0);
    // Null pointers are skipped.
    EXPECT_EQ(ostrel_alg_getOptionRange(OSTREL_ALG_OPTION_PROFILE, nullptr, &maximum, nullptr), 0);
    EXPECT_EQ(maximum, OSTREL_ALG_PROFILE_ACCURATE);
}

TEST_F(OptionRanges, AnUnknownOptionIsRefusedWithOneLineAndNothingWritten) {
    for (const int32_t option : {0, 5, 8, -1}) {
        int32_t minimum = -7, maximum = -7, default_value = -7;
        const std::string log = ostrel_test::capture_stdout(
            [&] { EXPECT_EQ(ostrel_alg_getOptionRange(option, &minimum, &maximum, &default_value), 1); });
        EXPECT_EQ(log, "[Alg.Fail] ostrel_alg_getOptionRange: option " + std::to_string(option) + " is unknown\n");
        EXPECT_EQ(minimum, -7);
        EXPECT_EQ(maximum, -7);
        EXPECT_EQ(default_value, -7);
        int32_t code = -1;
        char message[OSTREL_ALG_MAX_ERROR_MESSAGE_BYTES];
        ASSERT_EQ(ostrel_alg_getLastError(nullptr, &code, message, sizeof message), 0);
        EXPECT_EQ(code, OSTREL_ALG_ERR_BAD_ARGUMENT);
        EXPECT_EQ(std::string(message), "ostrel_alg_getOptionRange: option " + std::to_string(option) + " is unknown");
    }
}

TEST_F(OptionRanges, TheSensitivityMacrosAreTheBoundsTheLibraryChecks) {
    EXPECT_EQ(OSTREL_ALG_MIN_SENSITIVITY, 0);
    EXPECT_EQ(ostrel_alg_setSensitivity(engine_, OSTREL_ALG_MIN_SENSITIVITY), 0);
    EXPECT_EQ(ostrel_alg_setSensitivity(engine_, OSTREL_ALG_MAX_SENSITIVITY), 0);
    const std::string log = ostrel_test::capture_stdout(
        [&] { EXPECT_EQ(ostrel_alg_setSensitivity(engine_, OSTREL_ALG_MAX_SENSITIVITY + 1), 1); });
    EXPECT_EQ(log, "[Alg.Fail] ostrel_alg_setSensitivity: sensitivity 101 is above 100\n");
    uint32_t percent = 0;
    EXPECT_EQ(ostrel_alg_getConfidenceOfSensitivity(OSTREL_ALG_MAX_SENSITIVITY, &percent), 0);
    EXPECT_EQ(percent, 30u);
    ostrel_test::capture_stdout(
        [&] { EXPECT_EQ(ostrel_alg_getConfidenceOfSensitivity(OSTREL_ALG_MAX_SENSITIVITY + 1, &percent), 1); });
}
