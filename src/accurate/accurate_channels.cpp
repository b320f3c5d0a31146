#include "accurate/accurate_channels.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "acf/acf_helper.h"

namespace ostrel {

namespace {

constexpr int32_t kShrink = 2;
constexpr int32_t kOrientations = 6;
// Magnitudes are kept 16 times finer than the differences, so that the
// histogram kernel's divisions by the cell area lose nothing that matters.
constexpr int32_t kMagnitudeScale = 16;
// A normalised magnitude of 64 * kMagnitudeScale means "as strong as the
// edges around it".
constexpr int64_t kNormalisedUnit = 64;
// Byte gain (per 16) of the magnitude and histogram planes: an edge as
// strong as those around it gives 64.
constexpr int64_t kByteGain = 16;

uint8_t to_byte(int64_t v) { return static_cast<uint8_t>(std::min<int64_t>(std::max<int64_t>(v, 0), 255)); }

// Magnitude divided by (local mean + floor), in record terms. The mean is
// taken from an integral image; the quotient in double precision, which is
// exact to well below the truncation (numerator and divisor are integers
// below 2^53) and the same on every machine.
void normalise(chn_image32 &magnitude, int32_t radius, int32_t floor) {
    const int32_t W = magnitude.width;
    const int32_t H = magnitude.height;
    const size_t stride = static_cast<size_t>(W) + 1;
    std::vector<int64_t> integral(stride * (static_cast<size_t>(H) + 1), 0);
    for (int32_t y = 0; y < H; ++y) {
        int64_t row = 0;
        const int32_t *in = magnitude.data.data() + static_cast<size_t>(y) * W;
        const int64_t *above = integral.data() + static_cast<size_t>(y) * stride;
        int64_t *here = integral.data() + static_cast<size_t>(y + 1) * stride;
        for (int32_t x = 0; x < W; ++x) {
            row += in[x];
            here[x + 1] = above[x + 1] + row;
        }
    }
    const int64_t floor_scaled = static_cast<int64_t>(floor) * kMagnitudeScale;
    const double unit = static_cast<double>(kNormalisedUnit * kMagnitudeScale);
    for (int32_t y = 0; y < H; ++y) {
        const int32_t y0 = std::max(0, y - radius), y1 = std::min(H, y + radius + 1);
        const int64_t *top = integral.data() + static_cast<size_t>(y0) * stride;
        const int64_t *bottom = integral.data() + static_cast<size_t>(y1) * stride;
        int32_t *row = magnitude.data.data() + static_cast<size_t>(y) * W;
        for (int32_t x = 0; x < W; ++x) {
            const int32_t x0 = std::max(0, x - radius), x1 = std::min(W, x + radius + 1);
            const int64_t sum = bottom[x1] - top[x1] - bottom[x0] + top[x0];
            const int64_t count = static_cast<int64_t>(x1 - x0) * (y1 - y0);
            // v / (sum / count + floor), in units of kNormalisedUnit * kMagnitudeScale.
            const double quotient = static_cast<double>(row[x]) * static_cast<double>(count) * unit /
                                    static_cast<double>(sum + floor_scaled * count);
            row[x] = static_cast<int32_t>(quotient);
        }
    }
}

}  // namespace

feature_map accurate_channel_map(const chn_image8 &lab, const channel_recipe &recipe) {
    feature_map map;
    if (lab.channels != 3 || lab.width < 2 || lab.height < 2) {
        return map;
    }
    const int32_t cells_w = lab.width / kShrink;   // along picture rows
    const int32_t cells_h = lab.height / kShrink;  // along picture columns
    const int32_t width = cells_w * kShrink;
    const int32_t height = cells_h * kShrink;
    map.channels = 3 + 1 + kOrientations;
    map.rows = cells_w;
    map.columns = cells_h;
    map.data.assign(static_cast<size_t>(map.channels) * map.plane_size(), 0);
    // Record cell (cy, cx) is map cell (column cy, row cx): plane offset cy * rows + cx.
    auto cell = [&](int32_t c, int32_t cy, int32_t cx) -> uint8_t & {
        return map.data[static_cast<size_t>(c) * map.plane_size() + static_cast<size_t>(cy) * cells_w + cx];
    };

    // Colour: the mean of each 2 x 2 cell.
    for (int32_t c = 0; c < 3; ++c) {
        for (int32_t cy = 0; cy < cells_h; ++cy) {
            const uint8_t *r0 = lab.plane(c) + static_cast<size_t>(2 * cy) * lab.width;
            const uint8_t *r1 = r0 + lab.width;
            for (int32_t cx = 0; cx < cells_w; ++cx) {
                cell(c, cy, cx) = static_cast<uint8_t>((r0[2 * cx] + r0[2 * cx + 1] + r1[2 * cx] + r1[2 * cx + 1] + 2) / 4);
            }
        }
    }

    // Gradient: squared magnitude of the strongest plane and orientation,
    // from the library's kernel, on the part that makes whole cells.
    chn_image8 cropped(3, width, height);
    for (int32_t c = 0; c < 3; ++c) {
        for (int32_t y = 0; y < height; ++y) {
            std::copy(lab.plane(c) + static_cast<size_t>(y) * lab.width,
                      lab.plane(c) + static_cast<size_t>(y) * lab.width + width,
                      cropped.plane(c) + static_cast<size_t>(y) * width);
        }
    }
    chn_image32 squared(1, width, height);
    chn_image32 orient(1, width, height);
    acf_helper::gradient_mag_orient(cropped, squared, orient);
    chn_image32 magnitude(1, width, height);
    for (size_t i = 0; i < squared.data.size(); ++i) {
        // Squares below 2^24 are exact in single precision, whose square
        // root is correctly rounded: the same value on every machine.
        magnitude.data[i] = static_cast<int32_t>(std::sqrt(static_cast<float>(squared.data[i])) *
                                                     static_cast<float>(kMagnitudeScale) + 0.5f);
    }
    if (recipe.norm_radius >= 0) {
        normalise(magnitude, recipe.norm_radius, std::max(recipe.norm_floor, 1));
    }

    // Magnitude plane: the cell mean, times the gain.
    for (int32_t cy = 0; cy < cells_h; ++cy) {
        const int32_t *r0 = magnitude.data.data() + static_cast<size_t>(2 * cy) * width;
        const int32_t *r1 = r0 + width;
        for (int32_t cx = 0; cx < cells_w; ++cx) {
            const int64_t sum = static_cast<int64_t>(r0[2 * cx]) + r0[2 * cx + 1] + r1[2 * cx] + r1[2 * cx + 1];
            cell(3, cy, cx) = to_byte(sum * kByteGain / (4 * 16 * kMagnitudeScale));
        }
    }
    // Orientation histograms over the cells (cell means of the magnitude).
    const chn_image32 hist = acf_helper::gradient_mag_histogram(magnitude, orient, kShrink, kOrientations);
    if (hist.channels == kOrientations && hist.width == cells_w && hist.height == cells_h) {
        for (int32_t b = 0; b < kOrientations; ++b) {
            for (int32_t cy = 0; cy < cells_h; ++cy) {
                for (int32_t cx = 0; cx < cells_w; ++cx) {
                    cell(4 + b, cy, cx) = to_byte(static_cast<int64_t>(hist.at(b, cy, cx)) * kByteGain / (16 * kMagnitudeScale));
                }
            }
        }
    }
    return map;
}

}  // namespace ostrel
