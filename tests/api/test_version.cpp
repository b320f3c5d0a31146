// The version query: the loaded library reports the numbers of the header
// it was built from, needs no engine and skips null out pointers.
#include <string>

#include <gtest/gtest.h>

#include "ostrel_alg.h"

TEST(VersionApi, ReportsTheHeadersNumbers) {
    int32_t major = -1, minor = -1, patch = -1;
    ASSERT_EQ(ostrel_alg_getVersion(&major, &minor, &patch), 0);
    EXPECT_EQ(major, OSTREL_ALG_VERSION_MAJOR);
    EXPECT_EQ(minor, OSTREL_ALG_VERSION_MINOR);
    EXPECT_EQ(patch, OSTREL_ALG_VERSION_PATCH);
}

TEST(VersionApi, NullOutPointersAreSkipped) {
    int32_t minor = -1;
    EXPECT_EQ(ostrel_alg_getVersion(nullptr, &minor, nullptr), 0);
    EXPECT_EQ(minor, OSTREL_ALG_VERSION_MINOR);
    EXPECT_EQ(ostrel_alg_getVersion(nullptr, nullptr, nullptr), 0);
}

TEST(VersionApi, TheBuildTookItsVersionFromTheHeader) {
    // OSTREL_TEST_PROJECT_VERSION is the CMake project's version string.
    const std::string expected = std::to_string(OSTREL_ALG_VERSION_MAJOR) + "." +
                                 std::to_string(OSTREL_ALG_VERSION_MINOR) + "." +
                                 std::to_string(OSTREL_ALG_VERSION_PATCH);
    EXPECT_EQ(expected, OSTREL_TEST_PROJECT_VERSION);
}
