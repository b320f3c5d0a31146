// The scale pyramid: the scale search, the store's layout, padding and the
// pyramid computation (rebase at half size, colour option, approximated
// scales).
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "acf/acf_helper.h"
#include "acf/integral_channel_feature.h"
#include "acf/pyramid.h"
#include "acf_test_images.h"

using namespace ostrel;
using acf_test::flat_image;
using acf_test::pattern_image;

namespace {

// A store with one scale of the given image size, laid out for the
// default parameters.
pyramid_store one_scale_store(float factor, int32_t image_w, int32_t image_h) {
    pyramid_store store;
    store.add_scale(factor, image_w, image_h);
    store.classify_scales(pyramid_params{}.n_approx);
    store.layout_maps(10, 2);
    return store;
}

// Channel computation of one image, as the pyramid runs it.
chn_image8 channels_of(chn_image8 image) {
    integral_channel_feature f;
    f.compute_channels(image, chn_config{});
    return f.feature;
}

}  // namespace

// --- scale search -----------------------------------------------------------

// The working size 480 x 270 (record 270 wide, 480 high): candidate 58,
// factor 0.504, image 136 x 242.
TEST(RefineScale, WorkingSizeGivesFactor0504) {
    const refined_scale r = refine_scale(270, 480, 2);
    const float lo = (136.0f - 0.5f) / 270.0f;
    const float hi = (136.0f + 0.5f) / 270.0f;
    EXPECT_EQ(r.factor, lo + 0.01f * 58.0f * (hi - lo));
    EXPECT_NEAR(r.factor, 0.504f, 1e-6f);
    EXPECT_EQ(r.image_a, 136);
    EXPECT_EQ(r.image_b, 242);
    EXPECT_EQ(r.factor_a, 136.0f / 270.0f);
    EXPECT_EQ(r.factor_b, 242.0f / 480.0f);
}

// Sides are answered in the order given.
TEST(RefineScale, SidesKeepTheirOrder) {
    const refined_scale r = refine_scale(480, 270, 2);
    EXPECT_EQ(r.image_a, 242);
    EXPECT_EQ(r.image_b, 136);
}

// Sides 2 and 3: candidates 10 (image 2 x 2) and 90 (image 2 x 4) have the
// same error; the earlier one wins.
TEST(RefineScale, EarliestCandidateWinsATie) {
    const refined_scale r = refine_scale(2, 3, 2);
    const float lo = (2.0f - 0.5f) / 2.0f;
    const float hi = (2.0f + 0.5f) / 2.0f;
    EXPECT_EQ(r.factor, lo + 0.01f * 10.0f * (hi - lo));
    EXPECT_EQ(r.image_a, 2);
    EXPECT_EQ(r.image_b, 2);
}

// A side of 0 has no scale.
TEST(RefineScale, ZeroSideGivesNothing) {
    const refined_scale r = refine_scale(0, 480, 2);
    EXPECT_EQ(r.factor, 0.0f);
    EXPECT_EQ(r.image_a, 0);
    EXPECT_EQ(r.image_b, 0);
}

// The pyramid of the working size: one computed scale, maps of 68 x 121
// cells (record terms; 121 picture columns, 68 picture rows), padded to
// 76 x 127.
TEST(ComputeScales, WorkingSizeHasOneComputedScale) {
    pyramid_store store;
    compute_scales(store, pyramid_params{}, 270, 480, 0);
    ASSERT_EQ(store.n_scales, 1);
    EXPECT_NEAR(store.scales[0], 0.504f, 1e-6f);
    EXPECT_EQ(store.image_width[0], 136);
    EXPECT_EQ(store.image_height[0], 242);
    EXPECT_EQ(store.n_computed, 1);
    EXPECT_EQ(store.computed[0], 0);
    EXPECT_EQ(store.n_approximated, 0);
    EXPECT_TRUE(store.is_computed(0));
    EXPECT_EQ(store.channels[0], 10);
    EXPECT_EQ(store.width[0], 68);
    EXPECT_EQ(store.height[0], 121);
    EXPECT_EQ(store.padded_width[0], 76);
    EXPECT_EQ(store.padded_height[0], 127);
    EXPECT_EQ(store.unpadded.size(), 10u * 68u * 121u);
    EXPECT_EQ(store.padded.size(), 10u * 76u * 127u);
    EXPECT_EQ(store.offset[0], 0u);
    EXPECT_EQ(store.padded_offset[0], 0u);
}

// The caller's pyramid flag is kept by the store.
TEST(ComputeScales, KeepsThePyramidFlag) {
    pyramid_store store;
    compute_scales(store, pyramid_params{}, 270, 480, 1);
    EXPECT_EQ(store.pyramid_flag, 1);
}

// A picture side of 0 skips the search and clears the scale entries.
TEST(ComputeScales, ZeroSideClearsTheScales) {
    pyramid_store store;
    compute_scales(store, pyramid_params{}, 270, 480, 0);
    ASSERT_EQ(store.n_scales, 1);
    compute_scales(store, pyramid_params{}, 0, 480, 0);
    EXPECT_EQ(store.n_scales, 0);
    EXPECT_EQ(store.scales[0], 0.0f);
    EXPECT_EQ(store.image_width[0], 0);
    EXPECT_EQ(store.image_height[0], 0);
    EXPECT_EQ(store.n_computed, 0);
    EXPECT_EQ(store.width[0], 0);
    EXPECT_TRUE(store.unpadded.empty());
    EXPECT_TRUE(store.padded.empty());
    compute_scales(store, pyramid_params{}, 270, 0, 0);
    EXPECT_EQ(store.n_scales, 0);
}

// Scale i is computed when i mod (n_approx + 1) is 0; the others are
// approximated from the nearest computed scale.
TEST(PyramidStore, ClassifiesComputedAndApproximatedScales) {
    pyramid_store store;
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(store.add_scale(1.0f, 8, 8));
    }
    store.classify_scales(3);
    ASSERT_EQ(store.n_computed, 3);
    EXPECT_EQ(store.computed[0], 0);
    EXPECT_EQ(store.computed[1], 4);
    EXPECT_EQ(store.computed[2], 8);
    ASSERT_EQ(store.n_approximated, 7);
    EXPECT_EQ(store.approximated[0], 1);
    EXPECT_EQ(store.approximated_from[0], 0);
    EXPECT_EQ(store.approximated[1], 2);
    EXPECT_EQ(store.approximated_from[1], 0);  // 0 and 4 equally near: the earlier
    EXPECT_EQ(store.approximated[2], 3);
    EXPECT_EQ(store.approximated_from[2], 4);
}

// At most 30 scales.
TEST(PyramidStore, HoldsAtMostThirtyScales) {
    pyramid_store store;
    for (int i = 0; i < 30; ++i) {
        ASSERT_TRUE(store.add_scale(1.0f, 4, 4));
    }
    EXPECT_FALSE(store.add_scale(1.0f, 4, 4));
    EXPECT_EQ(store.n_scales, 30);
}

// Maps of several scales lie one after the other in both stores.
TEST(PyramidStore, LaysOutScalesOneAfterTheOther) {
    pyramid_store store;
    store.add_scale(1.0f, 20, 10);
    store.add_scale(0.5f, 10, 6);
    store.classify_scales(0);
    store.layout_maps(10, 2);
    store.layout_padded(4, 3);
    EXPECT_EQ(store.offset[1], 10u * 10u * 5u);
    EXPECT_EQ(store.padded_offset[1], 10u * 18u * 11u);
    EXPECT_EQ(store.unpadded.size(), 10u * 10u * 5u + 10u * 5u * 3u);
    EXPECT_EQ(store.padded.size(), 10u * 18u * 11u + 10u * 13u * 9u);
}

// --- padding ----------------------------------------------------------------

// Replicated planes repeat the nearest map cell (corners the corner value);
// the other planes get zero borders. The map sits at (pad_x, pad_y).
TEST(PadFeatureMap, ReplicatesTheFirstPlanesAndZeroesTheRest) {
    chn_image8 map(2, 3, 2);
    map.data = {1, 2, 3, 4, 5, 6, 11, 12, 13, 14, 15, 16};
    const chn_image8 padded = pad_feature_map(map, 2, 1, 1);
    ASSERT_EQ(padded.channels, 2);
    ASSERT_EQ(padded.width, 7);
    ASSERT_EQ(padded.height, 4);
    const uint8_t plane0[4][7] = {
        {1, 1, 1, 2, 3, 3, 3},
        {1, 1, 1, 2, 3, 3, 3},
        {4, 4, 4, 5, 6, 6, 6},
        {4, 4, 4, 5, 6, 6, 6},
    };
    const uint8_t plane1[4][7] = {
        {0, 0, 0, 0, 0, 0, 0},
        {0, 0, 11, 12, 13, 0, 0},
        {0, 0, 14, 15, 16, 0, 0},
        {0, 0, 0, 0, 0, 0, 0},
    };
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 7; ++x) {
            EXPECT_EQ(padded.at(0, y, x), plane0[y][x]) << y << " " << x;
            EXPECT_EQ(padded.at(1, y, x), plane1[y][x]) << y << " " << x;
        }
    }
}

// --- pyramid ----------------------------------------------------------------

// A 101 x 61 image at its own size: features of 50 x 30 cells, padded to
// 58 x 36 (4 and 3 cells each side); the groups added are recorded.
TEST(ComputeAcfPyramid, OddImageGivesFiftyByThirtyPaddedToFiftyEightByThirtySix) {
    pyramid_store store = one_scale_store(1.0f, 101, 61);
    channel_options options;
    options.color_option = 1;
    const chn_image8 image = pattern_image(3, 101, 61);
    compute_acf_pyramid(options, image, pyramid_params{}, store);
    EXPECT_EQ(store.width[0], 50);
    EXPECT_EQ(store.height[0], 30);
    EXPECT_EQ(store.padded_width[0], 58);
    EXPECT_EQ(store.padded_height[0], 36);
    EXPECT_EQ(options.n_added, 3);
    // The unpadded map is the channel computation of the (cropped) image,
    // and sits inside the padded one at (4, 3).
    const chn_image8 expected = channels_of(image);
    EXPECT_EQ(store.map(0).data, expected.data);
    const chn_image8 padded = store.padded_map(0);
    for (int32_t c = 0; c < 10; ++c) {
        for (int32_t y = 0; y < 30; ++y) {
            for (int32_t x = 0; x < 50; ++x) {
                ASSERT_EQ(padded.at(c, y + 3, x + 4), expected.at(c, y, x));
            }
        }
    }
}

// A scale of another size is resampled from the input with factor 1.0.
TEST(ComputeAcfPyramid, ScalesAreResampledFromTheInput) {
    pyramid_store store = one_scale_store(0.5f, 40, 24);
    channel_options options;
    const chn_image8 image = pattern_image(3, 80, 48);
    compute_acf_pyramid(options, image, pyramid_params{}, store);
    EXPECT_EQ(store.map(0).data, channels_of(acf_helper::image_resample_fix(image, 40, 24, 1.0f)).data);
}

// Flat image of value g: colour cells g - 1 and gradient cells 0; the
// border repeats the colour values and is 0 in the other planes.
TEST(ComputeAcfPyramid, FlatImageBordersRepeatColourAndZeroElsewhere) {
    for (int g : {0, 1, 77, 255}) {
        pyramid_store store = one_scale_store(1.0f, 24, 16);
        channel_options options;
        options.color_option = 1;
        compute_acf_pyramid(options, flat_image(3, 24, 16, static_cast<uint8_t>(g)), pyramid_params{}, store);
        const chn_image8 padded = store.padded_map(0);
        ASSERT_EQ(padded.width, 20);
        ASSERT_EQ(padded.height, 14);
        const uint8_t colour = static_cast<uint8_t>(g == 0 ? 0 : g - 1);
        for (int32_t c = 0; c < 10; ++c) {
            for (int32_t y = 0; y < 14; ++y) {
                for (int32_t x = 0; x < 20; ++x) {
                    ASSERT_EQ(padded.at(c, y, x), c < 3 ? colour : 0) << g << " " << c << " " << y << " " << x;
                }
            }
        }
    }
}

// Colour option other than 1: the colour group still has all three planes,
// but only plane 0 is padded by replication; planes 1 and 2 get zero
// borders.
TEST(ComputeAcfPyramid, ColourOptionOtherThanOneReplicatesOnlyPlaneZero) {
    for (int option : {0, 2}) {
        pyramid_store store = one_scale_store(1.0f, 24, 16);
        channel_options options;
        options.color_option = option;
        compute_acf_pyramid(options, flat_image(3, 24, 16, 101), pyramid_params{}, store);
        const chn_image8 padded = store.padded_map(0);
        for (int32_t c = 0; c < 3; ++c) {
            EXPECT_EQ(padded.at(c, 0, 0), c == 0 ? 100 : 0) << option << " " << c;    // corner
            EXPECT_EQ(padded.at(c, 7, 1), c == 0 ? 100 : 0) << option << " " << c;    // left border
            EXPECT_EQ(padded.at(c, 13, 10), c == 0 ? 100 : 0) << option << " " << c;  // bottom border
            EXPECT_EQ(padded.at(c, 5, 10), 100) << option << " " << c;                // inside
        }
    }
}

// The pad in cells is pad / shrink (integer division) on each side.
TEST(ComputeAcfPyramid, PadCellsArePadDividedByShrink) {
    pyramid_store store = one_scale_store(1.0f, 24, 16);
    channel_options options;
    pyramid_params params;
    params.pad_x = 5;  // 2 cells
    params.pad_y = 1;  // 0 cells
    compute_acf_pyramid(options, flat_image(3, 24, 16, 9), params, store);
    EXPECT_EQ(store.padded_width[0], 12 + 4);
    EXPECT_EQ(store.padded_height[0], 8);
}

// A scale whose factor is exactly 0.5 becomes the base image: the scales
// after it are resampled from the half-size image, not from the input.
TEST(ComputeAcfPyramid, HalfScaleBecomesTheBaseOfLaterScales) {
    const chn_image8 image = pattern_image(3, 96, 64);
    pyramid_params params;
    params.n_approx = 0;
    params.n_per_oct = 1;
    pyramid_store store;
    store.add_scale(0.5f, 48, 32);
    store.add_scale(0.25f, 24, 16);
    store.classify_scales(params.n_approx);
    store.layout_maps(10, 2);
    channel_options options;
    compute_acf_pyramid(options, image, params, store);

    const chn_image8 half = acf_helper::image_resample_fix(image, 48, 32, 1.0f);
    const chn_image8 from_half = acf_helper::image_resample_fix(half, 24, 16, 1.0f);
    const chn_image8 direct = acf_helper::image_resample_fix(image, 24, 16, 1.0f);
    ASSERT_NE(from_half.data, direct.data);  // the two roads really differ
    EXPECT_EQ(store.map(0).data, channels_of(half).data);
    EXPECT_EQ(store.map(1).data, channels_of(from_half).data);
}

// A flat 255 image shows the rebase in its values: 253 through the half
// image, 254 when resampled directly, then one unit less in the colour
// cells.
TEST(ComputeAcfPyramid, RebaseShowsInFlatImageValues) {
    for (bool rebase : {true, false}) {
        pyramid_params params;
        params.n_approx = 0;
        params.n_per_oct = rebase ? 1 : 8;  // neither condition holds when false
        pyramid_store store;
        store.add_scale(0.5f, 48, 32);
        store.add_scale(0.25f, 24, 16);
        store.classify_scales(params.n_approx);
        store.layout_maps(10, 2);
        channel_options options;
        compute_acf_pyramid(options, flat_image(3, 96, 64, 255), params, store);
        EXPECT_EQ(store.map(1).at(0, 3, 3), rebase ? 252 : 253) << rebase;
    }
}

// The rebase also happens when n_approx is above 0.
TEST(ComputeAcfPyramid, RebaseWithApproximatedScales) {
    pyramid_params params;
    params.n_approx = 1;
    params.n_per_oct = 8;
    pyramid_store store;
    store.add_scale(0.5f, 48, 32);   // computed
    store.add_scale(0.4f, 40, 26);   // approximated
    store.add_scale(0.25f, 24, 16);  // computed, from the half image
    store.classify_scales(params.n_approx);
    store.layout_maps(10, 2);
    channel_options options;
    compute_acf_pyramid(options, flat_image(3, 96, 64, 255), params, store);
    EXPECT_EQ(store.map(2).at(0, 3, 3), 252);
}

// Approximated scales are not computed; their unpadded maps are padded as
// they stand.
TEST(ComputeAcfPyramid, ApproximatedScalesArePaddedAsTheyStand) {
    pyramid_params params;
    params.n_approx = 1;
    pyramid_store store;
    store.add_scale(1.0f, 24, 16);
    store.add_scale(0.5f, 12, 8);
    store.classify_scales(params.n_approx);
    store.layout_maps(10, 2);
    ASSERT_FALSE(store.is_computed(1));
    std::memset(store.unpadded.data() + store.offset[1], 7, store.map_bytes(1));
    channel_options options;
    options.color_option = 1;
    compute_acf_pyramid(options, flat_image(3, 24, 16, 50), params, store);
    const chn_image8 map1 = store.map(1);
    for (uint8_t v : map1.data) {
        ASSERT_EQ(v, 7);
    }
    const chn_image8 padded1 = store.padded_map(1);
    EXPECT_EQ(padded1.width, 14);
    EXPECT_EQ(padded1.height, 10);
    EXPECT_EQ(padded1.at(0, 0, 0), 7);  // replicated colour plane
    EXPECT_EQ(padded1.at(5, 0, 0), 0);  // zero border
    EXPECT_EQ(padded1.at(5, 4, 5), 7);
}

// A store without scales leaves everything as it was.
TEST(ComputeAcfPyramid, StoreWithoutScalesDoesNothing) {
    pyramid_store store;
    channel_options options;
    options.n_added = 5;
    compute_acf_pyramid(options, pattern_image(3, 10, 10), pyramid_params{}, store);
    EXPECT_EQ(options.n_added, 5);
    EXPECT_TRUE(store.unpadded.empty());
    EXPECT_TRUE(store.padded.empty());
}
