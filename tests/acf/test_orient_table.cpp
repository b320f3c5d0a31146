// The arctangent table: orientation of a (horizontal, vertical) difference
// pair in 1/10000 radian, folded into 0..pi.
#include <cmath>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "acf/acf_helper.h"
#include "acf/orient_table_compact.h"

namespace {

using ostrel::acf_helper::kOrientTableSize;
using ostrel::acf_helper::orient_table;

int32_t entry(int32_t a, int32_t b) { return orient_table()[(a + 255) * 511 + (b + 255)]; }

}  // namespace

// The named directions: 0 along +b, pi/2 along +-a, pi/4 and 3pi/4 on the
// diagonals, pi kept for (0, -1), and 0 for no gradient at all.
TEST(OrientTable, NamedDirections) {
    EXPECT_EQ(entry(0, 1), 0);
    EXPECT_EQ(entry(1, 0), 15707);
    EXPECT_EQ(entry(-1, 0), 15707);
    EXPECT_EQ(entry(1, 1), 7853);
    EXPECT_EQ(entry(1, -1), 23561);
    EXPECT_EQ(entry(-1, 1), 23561);
    EXPECT_EQ(entry(0, -1), 31415);
    EXPECT_EQ(entry(0, 0), 0);
}

// The table ends and the cells that clamped border indices land on.
TEST(OrientTable, CellsReachedByClampedIndices) {
    const int32_t *table = orient_table();
    EXPECT_EQ(table[0], 7853);       // (-255, -255)
    EXPECT_EQ(table[261120], 7853);  // (255, 255)
    EXPECT_EQ(table[130960], 31325);
    EXPECT_EQ(table[130160], 31325);
    EXPECT_EQ(table[135970], 30895);
}

// Cells where older models' tables are one unit higher: this table follows
// the double-precision rule there.
TEST(OrientTable, FollowsTheRuleWhereOlderTablesAreOneHigher) {
    EXPECT_EQ(entry(-255, -215), 8702);
    EXPECT_EQ(entry(-250, -153), 10215);
    EXPECT_EQ(entry(-249, 243), 23439);
    EXPECT_EQ(entry(-245, -202), 8812);
}

// Every entry lies in 0..31415 and opposite differences share a value
// (except the pi / 0 pair on the b axis).
TEST(OrientTable, RangeAndSymmetry) {
    const int32_t *table = orient_table();
    for (int32_t i = 0; i < kOrientTableSize; ++i) {
        ASSERT_GE(table[i], 0) << i;
        ASSERT_LE(table[i], 31415) << i;
    }
    for (int32_t a = -255; a <= 255; ++a) {
        for (int32_t b = -255; b <= 255; ++b) {
            if (a == 0) {
                continue;
            }
            // atan2 of opposite vectors differs by exactly pi; after the fold
            // both round down from (nearly) the same value, so they may differ
            // by a unit at most.
            ASSERT_LE(std::abs(entry(a, b) - entry(-a, -b)), 1) << a << "," << b;
        }
    }
}

// Threads that ask for the table at once all get the same, ready table.
TEST(OrientTable, ConcurrentFirstUseSeesOneTable) {
    std::vector<const int32_t *> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = orient_table(); });
    }
    for (auto &t : threads) {
        t.join();
    }
    for (const int32_t *p : seen) {
        EXPECT_EQ(p, orient_table());
    }
    EXPECT_EQ(orient_table()[(1 + 255) * 511 + (1 + 255)], 7853);
}

// The 16-bit copy used by the gradient kernel holds the same entries.
TEST(OrientTable, CompactCopyHoldsTheSameEntries) {
    const int32_t *table = orient_table();
    const int16_t *compact = ostrel::acf_helper::orient_table_compact();
    for (int32_t i = 0; i < kOrientTableSize; ++i) {
        ASSERT_EQ(static_cast<int32_t>(compact[i]), table[i]) << i;
    }
}
