// ostrel_alg_getConfidenceOfSensitivity through the shared library: the
// values the header documents, refusals that leave the output alone and say
// why, and the same table on every thread without an engine.
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"

namespace {

std::vector<uint32_t> table() {
    std::vector<uint32_t> percent(101, 0);
    for (uint32_t s = 0; s <= 100; ++s) {
        if (ostrel_alg_getConfidenceOfSensitivity(s, &percent[s]) != 0) return {};
    }
    return percent;
}

}  // namespace

TEST(ConfidenceOfSensitivityApi, TheHeadersPointsAndAThresholdThatNeverRises) {
    const std::vector<uint32_t> percent = table();
    ASSERT_EQ(percent.size(), 101u);
    EXPECT_EQ(percent[0], 90u);
    EXPECT_EQ(percent[79], 50u);
    EXPECT_EQ(percent[80], 50u);
    EXPECT_EQ(percent[100], 30u);
    for (uint32_t s = 1; s <= 100; ++s) {
        EXPECT_LE(percent[s], percent[s - 1]) << "sensitivity " << s;
        EXPECT_GE(percent[s], 30u) << "sensitivity " << s;
    }
}

TEST(ConfidenceOfSensitivityApi, ASensitivityAbove100IsRefusedAndNothingIsWritten) {
    for (uint32_t s : {101u, 1000u, UINT32_MAX}) {
        uint32_t percent = 12345;
        EXPECT_EQ(ostrel_alg_getConfidenceOfSensitivity(s, &percent), 1) << s;
        EXPECT_EQ(percent, 12345u) << s;
        int32_t code = OSTREL_ALG_ERR_OK;
        char message[OSTREL_ALG_MAX_ERROR_MESSAGE_BYTES] = {0};
        ASSERT_EQ(ostrel_alg_getLastError(nullptr, &code, message, sizeof message), 0);
        EXPECT_EQ(code, OSTREL_ALG_ERR_BAD_ARGUMENT) << s;
        EXPECT_NE(std::string(message).find("above 100"), std::string::npos) << message;
    }
}

TEST(ConfidenceOfSensitivityApi, ANullOutputIsRefused) {
    EXPECT_EQ(ostrel_alg_getConfidenceOfSensitivity(50, nullptr), 1);
    int32_t code = OSTREL_ALG_ERR_OK;
    char message[OSTREL_ALG_MAX_ERROR_MESSAGE_BYTES] = {0};
    ASSERT_EQ(ostrel_alg_getLastError(nullptr, &code, message, sizeof message), 0);
    EXPECT_EQ(code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_NE(std::string(message).find("percent"), std::string::npos) << message;
}

// Needs no engine and keeps no state: threads asking at once all get the
// table this thread gets.
TEST(ConfidenceOfSensitivityApi, ThreadsAskingAtOnceGetTheSameTable) {
    const std::vector<uint32_t> expected = table();
    ASSERT_EQ(expected.size(), 101u);
    std::vector<std::vector<uint32_t>> got(4);
    std::vector<std::thread> threads;
    for (auto &g : got) {
        threads.emplace_back([&g, &expected] {
            for (int round = 0; round < 200; ++round) {
                g = table();
                if (g != expected) return;  // kept for the check below
            }
        });
    }
    for (auto &t : threads) t.join();
    for (const auto &g : got) EXPECT_EQ(g, expected);
}
