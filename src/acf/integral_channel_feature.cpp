// Channel features of one pyramid scale.
#include "acf/integral_channel_feature.h"

#include <algorithm>
#include <cstring>

#include "acf/acf_helper.h"
#include "common/log.h"

namespace ostrel {

namespace {

constexpr const char *kAddChnFeatName = "integral_channel_feature::add_chn_feat";
constexpr const char *kNotDivisibleFormat = "\n\n [%s] height or width should be divided by shrink. \n\n";

// The top-left part of `image` whose sides are multiples of `shrink`.
chn_image8 crop_to_multiple(const chn_image8 &image, int32_t shrink) {
    const int32_t width = image.width - image.width % shrink;
    const int32_t height = image.height - image.height % shrink;
    chn_image8 cropped(image.channels, width, height);
    for (int32_t c = 0; c < image.channels; ++c) {
        for (int32_t y = 0; y < height; ++y) {
            const uint8_t *src = image.plane(c) + static_cast<size_t>(y) * image.width;
            std::copy(src, src + width, cropped.plane(c) + static_cast<size_t>(y) * width);
        }
    }
    return cropped;
}

// A 32-bit copy of all planes, values unchanged.
chn_image32 widen(const chn_image8 &image) {
    chn_image32 wide(image.channels, image.width, image.height);
    std::copy(image.data.begin(), image.data.end(), wide.data.begin());
    return wide;
}

}  // namespace

integral_channel_feature::integral_channel_feature() : scratch_(kChannelScratchBytes, 0) {}

int32_t integral_channel_feature::first_plane(int32_t group) const {
    switch (group) {
        case kColorGroup: return 0;
        case kMagnitudeGroup: return config.n_color_chns;
        default: return config.n_color_chns + config.n_mag_chns;
    }
}

float integral_channel_feature::group_factor(int32_t group) {
    return group == kColorGroup ? kColorFactor : kGradientFactor;
}

bool integral_channel_feature::add_chn_feat(const chn_image32 &planes, int32_t target_width, int32_t target_height,
                                            int32_t group) {
    const float factor = group_factor(group);
    const int32_t plane0 = first_plane(group);

    chn_image8 bytes;
    if (planes.width != target_width || planes.height != target_height) {
        bytes = acf_helper::feature_resample_fix(planes, target_width, target_height, factor);
        if (target_width < 1 || target_height < 1) {
            // The resampler has refused the size and said so; there is no
            // multiple to check.
            return false;
        }
        // Only whole reductions are accepted; the resampled planes of any
        // other ratio are dropped and the group stays zero.
        if (planes.width % target_width != 0 || planes.height % target_height != 0) {
            log(kNotDivisibleFormat, kAddChnFeatName);
            return false;
        }
    } else {
        bytes = acf_helper::convert_norm_byte_fix(planes, planes.width, planes.height, factor);
    }
    if (bytes.empty() || bytes.width != feature.width || bytes.height != feature.height || plane0 < 0) {
        return false;
    }

    const int32_t needed = plane0 + bytes.channels;
    if (needed > feature.channels) {
        // Enlarge, keeping the planes already stored; new planes start at 0.
        feature.data.resize(static_cast<size_t>(needed) * feature.plane_size(), 0);
        feature.channels = needed;
    }
    std::memcpy(feature.plane(plane0), bytes.data.data(), bytes.data.size());
    ++n_added;
    return true;
}

void integral_channel_feature::compute_channels(chn_image8 &image, const chn_config &cfg) {
    config = cfg;
    n_added = 0;
    const int32_t shrink = config.shrink;
    if (shrink < 1 || image.channels < 1 || image.width < 0 || image.height < 0) {
        feature = chn_image8();
        return;
    }

    if (image.width % shrink != 0 || image.height % shrink != 0) {
        image = crop_to_multiple(image, shrink);
    }
    const int32_t width = image.width;
    const int32_t height = image.height;
    const int32_t cells_w = width / shrink;
    const int32_t cells_h = height / shrink;
    feature = chn_image8(config.total_channels() > 0 ? config.total_channels() : 0, cells_w, cells_h);

    if (config.color_enabled) {
        add_chn_feat(widen(image), cells_w, cells_h, kColorGroup);
    }
    if (!config.mag_enabled && !config.hist_enabled) {
        return;
    }
    chn_image32 mag(1, width, height);
    chn_image32 orient(1, width, height);
    acf_helper::gradient_mag_orient(image, mag, orient);
    if (config.mag_enabled) {
        add_chn_feat(mag, cells_w, cells_h, kMagnitudeGroup);
    }
    // A cell side below 1 or a negative bin count has no histogram (the
    // histogram kernel would divide by zero); the group then stays zero.
    if (config.hist_enabled && config.hist_bin_size >= 1 && config.n_orients >= 0) {
        const chn_image32 hist =
            acf_helper::gradient_mag_histogram(mag, orient, config.hist_bin_size, config.n_orients);
        // The histogram already has cell size when hist_bin_size equals
        // shrink; handing in the cell sizes then converts it without
        // resampling.
        add_chn_feat(hist, cells_w, cells_h, kHistogramGroup);
    }
}

}  // namespace ostrel
