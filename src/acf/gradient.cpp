// Gradient magnitude and orientation of an 8-bit planar image.
#include <algorithm>
#include <cstddef>
#include <vector>

#include "acf/acf_helper.h"
#include "acf/orient_table_compact.h"
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

// Differences of one row of one plane, written for every x (the checks are
// the callers'): previous minus next, one-sided and doubled at the borders.
// Needs width >= 2 and height >= 2.
void row_differences(const uint8_t *plane, int32_t y, int32_t width, int32_t height, int32_t *vertical_row,
                     int32_t *horizontal_row) {
    const size_t w = static_cast<size_t>(width);
    const uint8_t *row = plane + static_cast<size_t>(y) * w;
    // Row 0 takes the first-row rule (it would also be the last row of a
    // one-row plane, which never gets here).
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
    horizontal_row[0] = 2 * (static_cast<int32_t>(row[0]) - static_cast<int32_t>(row[1]));
    for (size_t x = 1; x + 1 < w; ++x) {
        horizontal_row[x] = static_cast<int32_t>(row[x - 1]) - static_cast<int32_t>(row[x + 1]);
    }
    horizontal_row[w - 1] = 2 * (static_cast<int32_t>(row[w - 2]) - static_cast<int32_t>(row[w - 1]));
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
    if (width < 2 || height < 2 || width != image.width || height != image.height || y < 0 || y >= height || c < 0 ||
        c >= image.channels || !holds_its_planes(image)) {
        return;
    }

    row_differences(image.plane(c), y, width, height, vertical_row, horizontal_row);
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

    // The 16-bit copy of the table: the lookups are scattered over it.
    const int16_t *table = orient_table_compact();
    // Only the winning channel's table index is needed, and only within the
    // row, so it is kept per row.
    std::vector<int32_t> vertical(w);
    std::vector<int32_t> horizontal(w);
    std::vector<int32_t> kept_index(w);

    for (int32_t y = 0; y < height; ++y) {
        int32_t *mag_row = mag.data.data() + static_cast<size_t>(y) * w;
        int32_t *orient_row = orient.data.data() + static_cast<size_t>(y) * w;
        if (image.channels < 1) {
            // No channel at all: no gradient, and the (0, 0) cell.
            std::fill(mag_row, mag_row + w, 0);
            std::fill(kept_index.begin(), kept_index.end(), kOrientIndexOffset);
        }
        for (int32_t c = 0; c < image.channels; ++c) {
            row_differences(image.plane(c), y, width, height, vertical.data(), horizontal.data());
            if (c == 0) {
                for (size_t x = 0; x < w; ++x) {
                    const int32_t dv = vertical[x];
                    const int32_t dh = horizontal[x];
                    mag_row[x] = dh * dh + dv * dv;
                    kept_index[x] = dh * 511 + dv + kOrientIndexOffset;
                }
                continue;
            }
            for (size_t x = 0; x < w; ++x) {
                const int32_t dv = vertical[x];
                const int32_t dh = horizontal[x];
                const int32_t m = dh * dh + dv * dv;
                // A later channel wins only with a strictly greater
                // magnitude, so on a tie the lower channel stays. Written
                // as selects: which channel wins is data-dependent.
                const bool take = m > mag_row[x];
                mag_row[x] = take ? m : mag_row[x];
                kept_index[x] = take ? dh * 511 + dv + kOrientIndexOffset : kept_index[x];
            }
        }
        for (size_t x = 0; x < w; ++x) {
            orient_row[x] = table[std::clamp(kept_index[x], 0, kOrientIndexLast)];
        }
    }
}

}  // namespace acf_helper
}  // namespace ostrel
