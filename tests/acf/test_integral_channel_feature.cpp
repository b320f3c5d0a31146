// Channel features of one scale: cropping, group placement, conversion
// factors, refused sizes and flat images.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "acf/integral_channel_feature.h"
#include "acf_test_images.h"
#include "support/stdout_capture.h"

using namespace ostrel;
using acf_test::flat_image;
using acf_test::pattern_image;
using ostrel_test::capture_stdout;

namespace {

const char *const kNotDivisibleLine =
    "\n\n [integral_channel_feature::add_chn_feat] height or width should be divided by shrink. \n\n";

chn_image32 constant_planes(int32_t channels, int32_t width, int32_t height, int32_t value) {
    chn_image32 planes(channels, width, height);
    for (int32_t &v : planes.data) {
        v = value;
    }
    return planes;
}

// An object whose configuration and 10 x w x h feature are ready for
// add_chn_feat, as compute_channels leaves them.
integral_channel_feature prepared(int32_t width, int32_t height) {
    integral_channel_feature f;
    f.config = chn_config{};
    f.feature = chn_image8(f.config.total_channels(), width, height);
    return f;
}

bool plane_is(const chn_image8 &image, int32_t c, uint8_t value) {
    for (size_t i = 0; i < image.plane_size(); ++i) {
        if (image.plane(c)[i] != value) {
            return false;
        }
    }
    return true;
}

}  // namespace

// 101 x 61 pixels are cropped to 100 x 60 (the image itself is replaced)
// and give 10 planes of 50 x 30 cells; all three groups are added.
TEST(ComputeChannels, OddSizesAreCroppedToMultiplesOfShrink) {
    chn_image8 image = pattern_image(3, 101, 61);
    const chn_image8 original = image;
    integral_channel_feature f;
    f.compute_channels(image, chn_config{});
    EXPECT_EQ(image.width, 100);
    EXPECT_EQ(image.height, 60);
    // The crop is the top-left part.
    for (int32_t c = 0; c < 3; ++c) {
        for (int32_t y = 0; y < 60; y += 7) {
            for (int32_t x = 0; x < 100; x += 9) {
                ASSERT_EQ(image.at(c, y, x), original.at(c, y, x));
            }
        }
    }
    EXPECT_EQ(f.feature.channels, 10);
    EXPECT_EQ(f.feature.width, 50);
    EXPECT_EQ(f.feature.height, 30);
    EXPECT_EQ(f.feature.data.size(), 10u * 50u * 30u);
    EXPECT_EQ(f.n_added, 3);
}

// Cropping gives the same features as handing in the cropped image.
TEST(ComputeChannels, CroppedImageGivesTheSameFeatures) {
    chn_image8 odd = pattern_image(3, 101, 61);
    chn_image8 even(3, 100, 60);
    for (int32_t c = 0; c < 3; ++c) {
        for (int32_t y = 0; y < 60; ++y) {
            for (int32_t x = 0; x < 100; ++x) {
                even.at(c, y, x) = odd.at(c, y, x);
            }
        }
    }
    integral_channel_feature a;
    integral_channel_feature b;
    a.compute_channels(odd, chn_config{});
    b.compute_channels(even, chn_config{});
    EXPECT_EQ(a.feature.data, b.feature.data);
}

// A flat image of value g: colour planes g - 1 (0 for g = 0; the resampling
// factor takes one unit off), magnitude and histogram planes 0.
TEST(ComputeChannels, FlatImageGivesValueMinusOneAndNoGradient) {
    for (int g : {0, 1, 2, 100, 254, 255}) {
        chn_image8 image = flat_image(3, 40, 24, static_cast<uint8_t>(g));
        integral_channel_feature f;
        f.compute_channels(image, chn_config{});
        const uint8_t expected = static_cast<uint8_t>(g == 0 ? 0 : g - 1);
        for (int32_t c = 0; c < 3; ++c) {
            EXPECT_TRUE(plane_is(f.feature, c, expected)) << "g " << g << " plane " << c;
        }
        for (int32_t c = 3; c < 10; ++c) {
            EXPECT_TRUE(plane_is(f.feature, c, 0)) << "g " << g << " plane " << c;
        }
    }
}

// Colour planes are the image's own planes, in order, reduced 2 x 2 with
// the factor 8191/8192: clamp(((a + b) >> 1) + ((c + d) >> 1)) * 8191 >> 14).
TEST(ComputeChannels, ColourPlanesAreTheImagePlanesReducedTwoByTwo) {
    chn_image8 image = pattern_image(3, 20, 14);
    const chn_image8 original = image;
    integral_channel_feature f;
    f.compute_channels(image, chn_config{});
    for (int32_t c = 0; c < 3; ++c) {
        for (int32_t y = 0; y < 7; ++y) {
            for (int32_t x = 0; x < 10; ++x) {
                const int32_t left = (original.at(c, 2 * y, 2 * x) + original.at(c, 2 * y + 1, 2 * x)) >> 1;
                const int32_t right = (original.at(c, 2 * y, 2 * x + 1) + original.at(c, 2 * y + 1, 2 * x + 1)) >> 1;
                const int32_t expected = ((left + right) * 8191) >> 14;
                ASSERT_EQ(f.feature.at(c, y, x), expected) << c << " " << y << " " << x;
            }
        }
    }
}

// A vertical step (along the record's width) shows in the magnitude plane
// only at the cells next to the step.
TEST(ComputeChannels, StepEdgeShowsOnlyNearTheEdge) {
    chn_image8 image(3, 32, 16);
    for (int32_t c = 0; c < 3; ++c) {
        for (int32_t y = 0; y < 16; ++y) {
            for (int32_t x = 0; x < 32; ++x) {
                image.at(c, y, x) = x < 16 ? 0 : 255;
            }
        }
    }
    integral_channel_feature f;
    f.compute_channels(image, chn_config{});
    for (int32_t y = 0; y < 8; ++y) {
        for (int32_t x = 0; x < 16; ++x) {
            const bool near_edge = x == 7 || x == 8;
            if (near_edge) {
                EXPECT_GT(f.feature.at(3, y, x), 0) << y << " " << x;
            } else {
                EXPECT_EQ(f.feature.at(3, y, x), 0) << y << " " << x;
            }
        }
    }
}

// Disabled groups stay zero and are not counted.
TEST(ComputeChannels, DisabledGroupsStayZero) {
    chn_image8 image = pattern_image(3, 20, 14);
    chn_config config;
    config.color_enabled = false;
    config.hist_enabled = 0;
    integral_channel_feature f;
    f.compute_channels(image, config);
    EXPECT_EQ(f.n_added, 1);
    for (int32_t c : {0, 1, 2, 4, 5, 6, 7, 8, 9}) {
        EXPECT_TRUE(plane_is(f.feature, c, 0)) << c;
    }
    EXPECT_FALSE(plane_is(f.feature, 3, 0));
}

// The count of added groups starts from 0 on every computation.
TEST(ComputeChannels, AddedCountStartsAgainEachTime) {
    integral_channel_feature f;
    chn_image8 a = pattern_image(3, 20, 14);
    f.compute_channels(a, chn_config{});
    chn_image8 b = pattern_image(3, 20, 14);
    f.compute_channels(b, chn_config{});
    EXPECT_EQ(f.n_added, 3);
}

// Gradient groups use q = 92 (factor 0.005667) when no resampling is
// needed: 2849 gives 15, and they go to planes 3 and 4 on.
TEST(AddChnFeat, GradientGroupsConvertWithTheirFactor) {
    integral_channel_feature f = prepared(4, 3);
    EXPECT_TRUE(f.add_chn_feat(constant_planes(1, 4, 3, 2849), 4, 3, kMagnitudeGroup));
    EXPECT_TRUE(plane_is(f.feature, 3, 15));
    EXPECT_TRUE(f.add_chn_feat(constant_planes(6, 4, 3, 45412), 4, 3, kHistogramGroup));
    for (int32_t c = 4; c < 10; ++c) {
        EXPECT_TRUE(plane_is(f.feature, c, 254)) << c;
    }
    for (int32_t c = 0; c < 3; ++c) {
        EXPECT_TRUE(plane_is(f.feature, c, 0)) << c;
    }
    EXPECT_EQ(f.n_added, 2);
}

// The colour group uses factor 1.0 (q = 16384): values pass unchanged,
// clamped to 0..255.
TEST(AddChnFeat, ColourGroupKeepsValues) {
    integral_channel_feature f = prepared(2, 2);
    chn_image32 planes(3, 2, 2);
    planes.data = {0, 1, 2, 3, 100, 200, 255, 256, -5, 1000, 17, 42};
    EXPECT_TRUE(f.add_chn_feat(planes, 2, 2, kColorGroup));
    const uint8_t expected[12] = {0, 1, 2, 3, 100, 200, 255, 255, 0, 255, 17, 42};
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(f.feature.data[static_cast<size_t>(i)], expected[i]) << i;
    }
}

// The first plane of each group follows the configured plane counts.
TEST(AddChnFeat, FirstPlanesFollowTheConfiguration) {
    integral_channel_feature f;
    f.config.n_color_chns = 2;
    f.config.n_mag_chns = 2;
    f.config.n_hist_chns = 1;
    f.feature = chn_image8(5, 2, 2);
    EXPECT_TRUE(f.add_chn_feat(constant_planes(1, 2, 2, 2849), 2, 2, kMagnitudeGroup));
    EXPECT_TRUE(plane_is(f.feature, 2, 15));
    EXPECT_TRUE(f.add_chn_feat(constant_planes(1, 2, 2, 2849 * 2), 2, 2, kHistogramGroup));
    EXPECT_TRUE(plane_is(f.feature, 4, 31));
}

// Planes that do not fit are added by enlarging the feature; existing
// planes are kept and new ones start at zero.
TEST(AddChnFeat, EnlargesTheFeatureWhenPlanesDoNotFit) {
    integral_channel_feature f;
    f.feature = chn_image8(2, 2, 2);
    f.feature.data.assign(f.feature.data.size(), 9);
    EXPECT_TRUE(f.add_chn_feat(constant_planes(6, 2, 2, 2849), 2, 2, kHistogramGroup));
    EXPECT_EQ(f.feature.channels, 10);
    EXPECT_TRUE(plane_is(f.feature, 0, 9));
    EXPECT_TRUE(plane_is(f.feature, 1, 9));
    EXPECT_TRUE(plane_is(f.feature, 2, 0));
    EXPECT_TRUE(plane_is(f.feature, 3, 0));
    for (int32_t c = 4; c < 10; ++c) {
        EXPECT_TRUE(plane_is(f.feature, c, 15)) << c;
    }
}

// Planes of a size that is no whole multiple of the target: the line is
// logged, nothing is stored and the group is not counted.
TEST(AddChnFeat, NonDivisibleSizesAreRefusedWithTheLine) {
    integral_channel_feature f = prepared(2, 2);
    bool stored = true;
    const std::string out =
        capture_stdout([&] { stored = f.add_chn_feat(constant_planes(3, 5, 4, 200), 2, 2, kColorGroup); });
    EXPECT_FALSE(stored);
    EXPECT_EQ(out, kNotDivisibleLine);
    EXPECT_TRUE(plane_is(f.feature, 0, 0));
    EXPECT_EQ(f.n_added, 0);
}

// Whole reductions are resampled with the group's factor: 4 x 4 of 255
// reduced to 2 x 2 with factor 1.0 gives 254.
TEST(AddChnFeat, WholeReductionsAreResampled) {
    integral_channel_feature f = prepared(2, 2);
    std::string out = capture_stdout([&] { EXPECT_TRUE(f.add_chn_feat(constant_planes(3, 4, 4, 255), 2, 2, 0)); });
    EXPECT_EQ(out, "");
    for (int32_t c = 0; c < 3; ++c) {
        EXPECT_TRUE(plane_is(f.feature, c, 254)) << c;
    }
    EXPECT_EQ(f.n_added, 1);
}

// Images below 2 x 2 after cropping log in the kernels and leave zeros;
// nothing crashes.
TEST(ComputeChannels, TinyImagesLeaveZeroPlanes) {
    chn_image8 image = flat_image(3, 1, 1, 50);
    integral_channel_feature f;
    capture_stdout([&] { f.compute_channels(image, chn_config{}); });
    EXPECT_EQ(f.feature.width, 0);
    EXPECT_EQ(f.feature.height, 0);
    EXPECT_EQ(f.n_added, 0);
}

// A new object has no feature and no groups added.
TEST(IntegralChannelFeature, StartsEmpty) {
    integral_channel_feature f;
    EXPECT_EQ(f.n_added, 0);
    EXPECT_TRUE(f.feature.empty());
    EXPECT_EQ(f.feature.channels, 0);
}

// A histogram cell side of 0 cannot be computed: the histogram group stays
// zero and the other groups are still added.
TEST(ComputeChannels, ZeroHistogramCellSideLeavesTheGroupZero) {
    chn_image8 image = pattern_image(3, 20, 14);
    chn_config config;
    config.hist_bin_size = 0;
    integral_channel_feature f;
    f.compute_channels(image, config);
    EXPECT_EQ(f.n_added, 2);
    for (int32_t c = 4; c < 10; ++c) {
        EXPECT_TRUE(plane_is(f.feature, c, 0)) << c;
    }
}
