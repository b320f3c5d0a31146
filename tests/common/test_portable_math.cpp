// portable_exp, portable_log and portable_erfc: exp and log within two units in the last place of the
// C library's values, with its special cases, and the same bits on every
// platform (pinned here; scripts/test-windows.sh compares the accurate
// profile's scores, which go through them, with the Windows DLL's).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "common/portable_math.h"

namespace {

int64_t ulps_apart(double a, double b) {
    int64_t ia = 0, ib = 0;
    std::memcpy(&ia, &a, sizeof a);
    std::memcpy(&ib, &b, sizeof b);
    return ia > ib ? ia - ib : ib - ia;
}

// A fixed sequence of doubles in [0, 1).
struct sequence {
    uint64_t state = 88172645463325252ull;
    double next() {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return static_cast<double>(state >> 11) * 0x1p-53;
    }
};

TEST(PortableMath, ExpIsWithinOneUnitInTheLastPlace) {
    sequence s;
    for (int i = 0; i < 200000; ++i) {
        const double x = (s.next() - 0.5) * 1400.0;
        ASSERT_LE(ulps_apart(ostrel::portable_exp(x), std::exp(x)), 1) << x;
    }
}

TEST(PortableMath, LogIsWithinTwoUnitsInTheLastPlace) {
    sequence s;
    for (int i = 0; i < 200000; ++i) {
        const double y = std::ldexp(0.5 + s.next(), static_cast<int>(s.next() * 200.0) - 100);
        ASSERT_LE(ulps_apart(ostrel::portable_log(y), std::log(y)), 2) << y;
        const double near_one = 0.7 + 0.7 * s.next();
        ASSERT_LE(ulps_apart(ostrel::portable_log(near_one), std::log(near_one)), 2) << near_one;
    }
}

TEST(PortableMath, ErfcIsWithinAnAbsoluteTenToTheMinusFourteen) {
    for (double x = -7.0; x <= 7.0; x += 0.00037) {
        ASSERT_NEAR(ostrel::portable_erfc(x), std::erfc(x), 1e-14) << x;
    }
    EXPECT_EQ(ostrel::portable_erfc(0.0), 1.0);
    EXPECT_EQ(ostrel::portable_erfc(40.0), 0.0);
    EXPECT_EQ(ostrel::portable_erfc(-40.0), 2.0);
}

TEST(PortableMath, SpecialValues) {
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(ostrel::portable_exp(0.0), 1.0);
    EXPECT_EQ(ostrel::portable_exp(1000.0), inf);
    EXPECT_EQ(ostrel::portable_exp(-1000.0), 0.0);
    EXPECT_EQ(ostrel::portable_exp(-inf), 0.0);
    EXPECT_TRUE(std::isnan(ostrel::portable_exp(std::nan(""))));
    EXPECT_EQ(ostrel::portable_log(1.0), 0.0);
    EXPECT_EQ(ostrel::portable_log(0.0), -inf);
    EXPECT_EQ(ostrel::portable_log(inf), inf);
    EXPECT_TRUE(std::isnan(ostrel::portable_log(-1.0)));
    EXPECT_TRUE(std::isnan(ostrel::portable_log(std::nan(""))));
}

// The bits the Linux build and the Windows DLL both compute.
TEST(PortableMath, ValuesArePinnedBitForBit) {
    EXPECT_EQ(ostrel::portable_exp(1.0), 0x1.5bf0a8b14576ap+1);
    EXPECT_EQ(ostrel::portable_exp(-2.5), 0x1.50385c094f425p-4);
    EXPECT_EQ(ostrel::portable_exp(10.0), 0x1.5829dcf95056p+14);
    EXPECT_EQ(ostrel::portable_log(2.0), 0x1.62e42fefa39efp-1);
    EXPECT_EQ(ostrel::portable_log(0.3), -0x1.34378fcbda721p+0);
    EXPECT_EQ(ostrel::portable_log(1.15), 0x1.1e3b825dd05e8p-3);
}

}  // namespace
