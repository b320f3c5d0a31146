// Defaults of the feature extractor's four set-up blocks and the
// (re)initialisation of the tree tables.
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "acf/extractor_blocks.h"

using namespace ostrel;

namespace {

uint32_t bits_of(float v) {
    uint32_t bits = 0;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

}  // namespace

// Every detector parameter starts at its default, including the two
// pyramid parameters given by bit pattern.
TEST(PyramidParams, DefaultsOfEveryField) {
    const pyramid_params p;
    EXPECT_EQ(p.n_per_oct, 8);
    EXPECT_EQ(p.reserved, 0);
    EXPECT_EQ(p.n_approx, 7);
    EXPECT_EQ(p.pyr_param_a, 0.00033f);
    EXPECT_EQ(bits_of(p.pyr_param_b), 0x3F046FBDu);
    EXPECT_EQ(bits_of(p.pyr_param_c), 0x3F063C75u);
    EXPECT_EQ(p.pad_x, 8);
    EXPECT_EQ(p.pad_y, 6);
    EXPECT_EQ(p.model_w, 50.0f);
    EXPECT_EQ(p.model_h, 20.5f);
    EXPECT_EQ(p.model_w_copy, 50.0f);
    EXPECT_EQ(p.model_h_copy, 20.5f);
    EXPECT_EQ(p.model_pad_w, 64);
    EXPECT_EQ(p.model_pad_h, 32);
}

// The channel configuration inside the detector parameters: shrink 2,
// 3 + 1 + 6 planes, every group on, cells of 2, 6 orientations.
TEST(PyramidParams, ChannelConfigurationDefaults) {
    const chn_config &c = pyramid_params{}.chns;
    EXPECT_EQ(c.shrink, 2);
    EXPECT_EQ(c.n_color_chns, 3);
    EXPECT_EQ(c.n_mag_chns, 1);
    EXPECT_EQ(c.n_hist_chns, 6);
    EXPECT_TRUE(c.color_enabled);
    EXPECT_TRUE(c.mag_enabled);
    EXPECT_EQ(c.hist_enabled, 1);
    EXPECT_EQ(c.hist_bin_size, 2);
    EXPECT_EQ(c.n_orients, 6);
    EXPECT_EQ(c.total_channels(), 10);
}

// The run options hold nine words in the set-up's order.
TEST(RunOptions, ValuesInOrder) {
    const run_options o;
    static_assert(sizeof(run_options) == 9 * 4, "nine 32-bit words");
    uint32_t words[9];
    std::memcpy(words, &o, sizeof words);
    EXPECT_EQ(words[0], 1u);
    EXPECT_EQ(words[1], 1u);
    EXPECT_EQ(words[2], bits_of(0.65f));
    EXPECT_EQ(words[3], 0u);
    EXPECT_EQ(words[4], 2147483647u);
    EXPECT_EQ(words[5], 0x8000000Bu);
    EXPECT_EQ(words[6], 2u);
    EXPECT_EQ(static_cast<int32_t>(words[7]), -3000);
    EXPECT_EQ(words[8], bits_of(0.005f));
    EXPECT_EQ(o.run_threshold, -3000);
}

// A new channel-options block is all zero.
TEST(ChannelOptions, StartZero) {
    const channel_options o;
    EXPECT_EQ(o.color_option, 0);
    EXPECT_EQ(o.n_added, 0);
}

// 2048 trees of 7 nodes, depth 2; four arrays of 57,344 bytes.
TEST(TreeTables, SizesAfterInit) {
    tree_tables t;
    t.init();
    EXPECT_EQ(t.n_trees, 2048);
    EXPECT_EQ(t.n_nodes, 7);
    EXPECT_EQ(t.depth, 2);
    EXPECT_EQ(t.table_size() * sizeof(int32_t), 57344u);
    ASSERT_TRUE(t.fids && t.child && t.thrs && t.hs);
}

// The first tree's values and the child pattern of every tree.
TEST(TreeTables, FirstTreeAndChildPattern) {
    tree_tables t;
    t.init();
    const int32_t fids[7] = {741, 2759, 1790, 0, 0, 0, 0};
    const int32_t thrs[7] = {129, 7, 1, 0, 0, 0, 0};
    const int32_t hs[7] = {50, -3237, 2335, -4160, 2118, 3969, -1736};
    const int32_t child[7] = {2, 4, 6, 0, 0, 0, 0};
    for (int k = 0; k < 7; ++k) {
        EXPECT_EQ(t.fids[k], fids[k]) << k;
        EXPECT_EQ(t.thrs[k], thrs[k]) << k;
        EXPECT_EQ(t.hs[k], hs[k]) << k;
    }
    for (int32_t tree = 0; tree < t.n_trees; ++tree) {
        for (int k = 0; k < 7; ++k) {
            ASSERT_EQ(t.child[static_cast<size_t>(tree) * 7 + k], child[k]) << tree << "," << k;
        }
    }
}

// The tables are copies: changing one leaves the library's data and a
// re-initialisation restores it.
TEST(TreeTables, ReinitCopiesTheConstantDataAgain) {
    tree_tables t;
    t.init();
    t.fids[0] = 1;
    t.hs[6] = 2;
    EXPECT_EQ(kTreeFids[0], 741);
    t.init();
    EXPECT_EQ(t.fids[0], 741);
    EXPECT_EQ(t.hs[6], -1736);
}

// Re-initialising twice leaves exactly one copy of each array: the old
// arrays are freed before the new ones are made.
TEST(TreeTables, ReinitTwiceLeavesOneCopyOfEachArray) {
    const size_t before = tree_table_live_arrays();
    {
        tree_tables t;
        EXPECT_EQ(tree_table_live_arrays(), before);
        t.init();
        EXPECT_EQ(tree_table_live_arrays(), before + 4);
        t.init();
        t.init();
        EXPECT_EQ(tree_table_live_arrays(), before + 4);
    }
    EXPECT_EQ(tree_table_live_arrays(), before);
}
