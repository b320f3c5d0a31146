// integral_channel_feature: the ten byte planes of one pyramid scale.
//
// Three colour planes, one gradient-magnitude plane and six orientation
// histogram planes, all at 1/shrink of the scale's image size. The class
// holds the channel configuration, the planes assembled so far and the
// count of channel groups added.
#pragma once

#include <cstdint>
#include <vector>

#include "acf/chn_image.h"

namespace ostrel {

// Which channel groups are computed, and their sizes. Copied from the
// detector parameters before every scale.
struct chn_config {
    int32_t shrink = 2;        // pixels per feature cell along each side
    int32_t n_color_chns = 3;  // colour planes (the image's own planes)
    int32_t n_mag_chns = 1;    // gradient-magnitude planes
    int32_t n_hist_chns = 6;   // orientation-histogram planes
    bool color_enabled = true;
    bool mag_enabled = true;
    int32_t hist_enabled = 1;   // a flag, kept in a full 32-bit word
    int32_t hist_bin_size = 2;  // cell side handed to the histogram kernel
    int32_t n_orients = 6;      // orientation bins handed to the histogram kernel

    int32_t total_channels() const { return n_color_chns + n_mag_chns + n_hist_chns; }
};

// Channel groups, in plane order.
enum chn_group : int32_t {
    kColorGroup = 0,
    kMagnitudeGroup = 1,
    kHistogramGroup = 2,
};

// Conversion factors from 32-bit planes to bytes: colour values stay as they
// are, squared gradient magnitudes are scaled down into 0..255.
inline constexpr float kColorFactor = 1.0f;
inline constexpr float kGradientFactor = 0.005667f;

// Bytes of the object's scratch buffer (carried, never used by the
// computation).
inline constexpr size_t kChannelScratchBytes = 4000;

class integral_channel_feature {
public:
    integral_channel_feature();

    // Computes every enabled group of one scale from `image` (8-bit, planar)
    // into `feature`. An image whose sides are not multiples of the shrink
    // factor is first replaced by its top-left crop that is.
    void compute_channels(chn_image8 &image, const chn_config &config);

    // Converts one group's 32-bit planes to bytes at target_width x
    // target_height (resampling when the sizes differ) and stores them from
    // the group's first plane on. Returns false, storing nothing, when the
    // sizes are not whole multiples of the target or a kernel refused them.
    bool add_chn_feat(const chn_image32 &planes, int32_t target_width, int32_t target_height, int32_t group);

    chn_config config;
    int32_t n_added = 0;  // groups stored so far
    chn_image8 feature;   // channels = total channel count, width W/shrink, height H/shrink

private:
    // First plane and conversion factor of a group.
    int32_t first_plane(int32_t group) const;
    static float group_factor(int32_t group);

    std::vector<uint8_t> scratch_;
};

}  // namespace ostrel
