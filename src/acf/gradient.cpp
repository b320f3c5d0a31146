// Gradient magnitude and orientation of an 8-bit planar image.
#include <algorithm>
#include <cstddef>
#include <vector>

#include "acf/acf_helper.h"
#include "common/log.h"

namespace ostrel {
namespace acf_helper {

namespace {

constexpr const char *kTooSmallFormat = "[%s] Image must be at least 2x2. \n\n";
constexpr const char *kGradientMagOrientName = "acf_helper::gradient_mag_orient";

// dh * 511 + dv + 130560 is (dh + 255) * 511 + (dv + 255) for interior
// differences; border differences (doubled, up to +-510) are clamped as a
// whole index to the table's ends, so they may land on another cell. That
// aliasing is part of the features trained models expect, so it is kept.
constexpr int32_t kOrientIndexOffset = 255 * 511 + 255;  // 130560
constexpr int32_t kOrientIndexLast = kOrientTableSize - 1;

// A record whose buffer holds fewer values than its extents claim.
bool holds_its_planes(const chn_image8 &image) {
    if (image.channels < 0 || image.width < 0 || image.height < 0) {
        return false;
    }
    return image.data.size() >= static_cast<size_t>(image.channels) * image.plane_size();
}

bool is_single_plane_of(const chn_image32 &plane, int32_t width, int32_t height) {
    return plane.width == width && plane.height == height &&
           plane.data.size() >= static_cast<size_t>(width) * static_cast<size_t>(height);
}

}  // namespace

void gradient_row_diff(const chn_image8 &image, int32_t y, int32_t c, int32_t width, int32_t height,
                       int32_t *vertical_row, int32_t *horizontal_row) {
    if (width <= 0 || vertical_row == nullptr || horizontal_row == nullptr) {
        return;
    }
    std::fill(vertical_row, vertical_row + width, 0);
    std::fill(horizontal_row, horizontal_row + width, 0);
    // Both differences need a neighbour on each axis; anything else leaves
    // the rows zeroed rather than reading past the planes.
    if (width < 2 || height < 2 || width != image.width || height != image.height || y < 0 || y >= height ||
        c < 0 || c >= image.channels || !holds_its_planes(image)) {
        return;
    }

    const size_t w = static_cast<size_t>(width);
    const uint8_t *plane = image.plane(c);
    const uint8_t *row = plane + static_cast<size_t>(y) * w;

    // Vertical: previous row minus next row; at the first and last rows the
    // one-sided difference is doubled (not halved). Row 0 takes the
    // first-row rule.
    if (y == 0) {
        const uint8_t *next = row + w;
        for (size_t x = 0; x < w; ++x) {
            vertical_row[x] = 2 * (static_cast<int32_t>(row[x]) - static_cast<int32_t>(next[x]));
        }
    } else if (y == height - 1) {
        const uint8_t *prev = row - w;
        for (size_t x = 0; x < w; ++x) {
            vertical_row[x] = 2 * (static_cast<int32_t>(prev[x]) - static_cast<int32_t>(row[x]));
        }
    } else {
        const uint8_t *prev = row - w;
        const uint8_t *next = row + w;
        for (size_t x = 0; x < w; ++x) {
            vertical_row[x] = static_cast<int32_t>(prev[x]) - static_cast<int32_t>(next[x]);
        }
    }

    // Horizontal: previous column minus next column, doubled at both ends.
    horizontal_row[0] = 2 * (static_cast<int32_t>(row[0]) - static_cast<int32_t>(row[1]));
    for (size_t x = 1; x + 1 < w; ++x) {
        horizontal_row[x] = static_cast<int32_t>(row[x - 1]) - static_cast<int32_t>(row[x + 1]);
    }
    horizontal_row[w - 1] = 2 * (static_cast<int32_t>(row[w - 2]) - static_cast<int32_t>(row[w - 1]));
}

void gradient_mag_orient(const chn_image8 &image, chn_image32 &mag, chn_image32 &orient) {
    const int32_t width = image.width;
    const int32_t height = image.height;
    if (width < 2 || height < 2) {
        log(kTooSmallFormat, kGradientMagOrientName);
        return;
    }
    if (!holds_its_planes(image)) {
        return;
    }
    // The caller sizes both planes; a plane that does not fit the image is
    // made to fit instead of being written past its end.
    if (!is_single_plane_of(mag, width, height)) {
        mag = chn_image32(1, width, height);
    }
    if (!is_single_plane_of(orient, width, height)) {
        orient = chn_image32(1, width, height);
    }

    const size_t w = static_cast<size_t>(width);
    const size_t plane_size = image.plane_size();
    std::fill(mag.data.begin(), mag.data.begin() + static_cast<std::ptrdiff_t>(plane_size), 0);
    std::fill(orient.data.begin(), orient.data.begin() + static_cast<std::ptrdiff_t>(plane_size), 0);

    const int32_t *table = orient_table();
    // The differences of the winning channel only matter within the row, so
    // they are kept per row rather than per plane.
    std::vector<int32_t> vertical(w);
    std::vector<int32_t> horizontal(w);
    std::vector<int32_t> kept_vertical(w);
    std::vector<int32_t> kept_horizontal(w);

    for (int32_t y = 0; y < height; ++y) {
        int32_t *mag_row = mag.data.data() + static_cast<size_t>(y) * w;
        int32_t *orient_row = orient.data.data() + static_cast<size_t>(y) * w;
        for (int32_t c = 0; c < image.channels; ++c) {
            gradient_row_diff(image, y, c, width, height, vertical.data(), horizontal.data());
            for (size_t x = 0; x < w; ++x) {
                const int32_t dv = vertical[x];
                const int32_t dh = horizontal[x];
                const int32_t m = dh * dh + dv * dv;
                // The strongest channel wins; on a tie the lower one stays.
                if (c == 0 || m > mag_row[x]) {
                    mag_row[x] = m;
                    kept_vertical[x] = dv;
                    kept_horizontal[x] = dh;
                }
            }
        }
        if (image.channels < 1) {
            // No channel: every pixel keeps the (0, 0) orientation.
            std::fill(kept_vertical.begin(), kept_vertical.end(), 0);
            std::fill(kept_horizontal.begin(), kept_horizontal.end(), 0);
        }
        for (size_t x = 0; x < w; ++x) {
            const int32_t index =
                std::clamp(kept_horizontal[x] * 511 + kept_vertical[x] + kOrientIndexOffset, 0, kOrientIndexLast);
            orient_row[x] = table[index];
        }
    }
}

}  // namespace acf_helper
}  // namespace ostrel
