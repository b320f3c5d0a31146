// The engine's random generator gives the C library's rand() draws for every
// seed, so seeded trainings keep their models and match on every platform.
#include "common/additive_random.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

namespace {

using ostrel::additive_random;

// The first draws after srand(1) (and rand() without srand) of the GNU C
// library: the sequence every seeded training depends on, pinned here so
// that a build on another C runtime checks it too.
TEST(AdditiveRandom, SeedOneGivesTheKnownSequence) {
    additive_random random(1);
    const int32_t expected[] = {1804289383, 846930886, 1681692777, 1714636915, 1957747793,
                                424238335,  719885386, 1649760492, 596516649,  1189641421};
    for (int32_t value : expected) {
        EXPECT_EQ(random.next(), value);
    }
}

TEST(AdditiveRandom, SeedZeroActsAsOne) {
    additive_random zero(0), one(1);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(zero.next(), one.next());
    }
}

TEST(AdditiveRandom, ReseedingRestartsTheSequence) {
    additive_random random(42);
    std::vector<int32_t> first;
    for (int i = 0; i < 50; ++i) first.push_back(random.next());
    random.seed(7);
    random.next();
    random.seed(42);
    for (int32_t value : first) {
        EXPECT_EQ(random.next(), value);
    }
}

TEST(AdditiveRandom, DrawsStayInRange) {
    additive_random random(0xFFFFFFFFu);
    for (int i = 0; i < 10000; ++i) {
        const int32_t value = random.next();
        ASSERT_GE(value, 0);
        ASSERT_LE(value, additive_random::kMax);
    }
}

#if defined(__GLIBC__)
// Against the C library itself: seeds of every kind, including those above
// 2^31 that the library stores as negative words, and long runs that wrap
// the state many times.
TEST(AdditiveRandom, EqualsTheCLibraryForEverySeedKind) {
    ASSERT_EQ(RAND_MAX, additive_random::kMax);
    const uint32_t seeds[] = {0u,          1u,          2u,          3u,          12345u,      127773u,
                              127774u,     2147483646u, 2147483647u, 2147483648u, 2147483649u, 3000000000u,
                              4294967294u, 4294967295u, 1700000000u, 1763900000u};
    for (uint32_t seed : seeds) {
        additive_random random(seed);
        std::srand(seed);
        for (int i = 0; i < 2000; ++i) {
            ASSERT_EQ(random.next(), std::rand()) << "seed " << seed << ", draw " << i;
        }
    }
    // A spread of further seeds, a few draws each.
    for (uint64_t seed = 5; seed < 4294967296ull; seed += 104729ull * 977ull) {
        additive_random random(static_cast<uint32_t>(seed));
        std::srand(static_cast<unsigned>(seed));
        for (int i = 0; i < 40; ++i) {
            ASSERT_EQ(random.next(), std::rand()) << "seed " << seed << ", draw " << i;
        }
    }
}
#endif

}  // namespace
