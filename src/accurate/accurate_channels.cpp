#include "accurate/accurate_channels.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "acf/acf_helper.h"
#include "common/sse2.h"

namespace ostrel {

namespace {

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

// Magnitude divided by (local mean + floor), in record terms. The box sums
// are running sums, first along the record's rows, then down its columns,
// in 32-bit integers (at most (2r + 1)^2 magnitudes of 16 * 721); the
// quotient is taken in single precision, whose every step is correctly
// rounded, so the planes are the same on every machine (and the loop
// vectorises).
void normalise(chn_image32 &magnitude, int32_t radius, int32_t floor) {
    const int32_t W = magnitude.width;
    const int32_t H = magnitude.height;
    const size_t w = static_cast<size_t>(W);
    std::vector<int32_t> across(magnitude.data.size());
    for (int32_t y = 0; y < H; ++y) {
        const int32_t *in = magnitude.data.data() + static_cast<size_t>(y) * w;
        int32_t *out = across.data() + static_cast<size_t>(y) * w;
        int32_t sum = 0;
        for (int32_t x = 0; x <= std::min(radius, W - 1); ++x) sum += in[x];
        for (int32_t x = 0; x < W; ++x) {
            out[x] = sum;
            if (x + radius + 1 < W) sum += in[x + radius + 1];
            if (x - radius >= 0) sum -= in[x - radius];
        }
    }
    std::vector<int32_t> box(magnitude.data.size(), 0);
    for (int32_t y = 0; y <= std::min(radius, H - 1); ++y) {
        const int32_t *row = across.data() + static_cast<size_t>(y) * w;
        for (size_t x = 0; x < w; ++x) box[x] += row[x];
    }
    for (int32_t y = 1; y < H; ++y) {
        int32_t *out = box.data() + static_cast<size_t>(y) * w;
        const int32_t *previous = out - w;
        const int32_t *entering = y + radius < H ? across.data() + static_cast<size_t>(y + radius) * w : nullptr;
        const int32_t *leaving =
            y - radius - 1 >= 0 ? across.data() + static_cast<size_t>(y - radius - 1) * w : nullptr;
        for (size_t x = 0; x < w; ++x) {
            out[x] = previous[x] + (entering ? entering[x] : 0) - (leaving ? leaving[x] : 0);
        }
    }
    // Cells of the box along each axis (fewer at the borders).
    std::vector<float> count_x(w);
    for (int32_t x = 0; x < W; ++x) {
        count_x[static_cast<size_t>(x)] = static_cast<float>(std::min(x + radius, W - 1) - std::max(x - radius, 0) + 1);
    }
    const float unit = static_cast<float>(kNormalisedUnit * kMagnitudeScale);
    const float floor_scaled = static_cast<float>(floor * kMagnitudeScale);
    for (int32_t y = 0; y < H; ++y) {
        const float count_y = static_cast<float>(std::min(y + radius, H - 1) - std::max(y - radius, 0) + 1);
        int32_t *row = magnitude.data.data() + static_cast<size_t>(y) * w;
        const int32_t *sums = box.data() + static_cast<size_t>(y) * w;
        for (size_t x = 0; x < w; ++x) {
            const float count = count_x[x] * count_y;
            // v / (sum / count + floor), in units of kNormalisedUnit * kMagnitudeScale.
            row[x] = static_cast<int32_t>(static_cast<float>(row[x]) * (count * unit) /
                                          (static_cast<float>(sums[x]) + floor_scaled * count));
        }
    }
}

}  // namespace

feature_map accurate_channel_map(const chn_image8 &lab, const channel_recipe &recipe) {
    feature_map map;
    if (lab.channels != 3 || lab.width < 2 || lab.height < 2) {
        return map;
    }
    const int32_t cells_w = lab.width / kAccurateShrink;   // along picture rows
    const int32_t cells_h = lab.height / kAccurateShrink;  // along picture columns
    const int32_t width = cells_w * kAccurateShrink;
    const int32_t height = cells_h * kAccurateShrink;
    map.channels = kAccurateChannels;
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
                cell(c, cy, cx) =
                    static_cast<uint8_t>((r0[2 * cx] + r0[2 * cx + 1] + r1[2 * cx] + r1[2 * cx + 1] + 2) / 4);
            }
        }
    }

    // Gradient: squared magnitude of the strongest plane and orientation,
    // from the library's kernel, on the part that makes whole cells (the
    // record itself when its sides are even, as working pictures' are).
    chn_image8 cropped;
    if (width != lab.width || height != lab.height) {
        cropped = chn_image8(3, width, height);
        for (int32_t c = 0; c < 3; ++c) {
            for (int32_t y = 0; y < height; ++y) {
                std::copy(lab.plane(c) + static_cast<size_t>(y) * lab.width,
                          lab.plane(c) + static_cast<size_t>(y) * lab.width + width,
                          cropped.plane(c) + static_cast<size_t>(y) * width);
            }
        }
    }
    chn_image32 squared(1, width, height);
    chn_image32 orient(1, width, height);
    acf_helper::gradient_mag_orient(cropped.empty() ? lab : cropped, squared, orient);
    chn_image32 magnitude(1, width, height);
    // Squares below 2^24 are exact in single precision, whose square root is
    // correctly rounded: the same value on every machine, four at a time or
    // one by one.
    size_t i = 0;
#if defined(OSTREL_SSE2)
    const __m128 scale = _mm_set1_ps(static_cast<float>(kMagnitudeScale));
    const __m128 half = _mm_set1_ps(0.5f);
    for (; i + 4 <= squared.data.size(); i += 4) {
        const __m128 v = _mm_cvtepi32_ps(_mm_loadu_si128(reinterpret_cast<const __m128i *>(squared.data.data() + i)));
        const __m128 m = _mm_add_ps(_mm_mul_ps(_mm_sqrt_ps(v), scale), half);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(magnitude.data.data() + i), _mm_cvttps_epi32(m));
    }
#endif
    for (; i < squared.data.size(); ++i) {
        magnitude.data[i] = static_cast<int32_t>(
            std::sqrt(static_cast<float>(squared.data[i])) * static_cast<float>(kMagnitudeScale) + 0.5f);
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
    const chn_image32 hist =
        acf_helper::gradient_mag_histogram(magnitude, orient, kAccurateShrink, kAccurateOrientations);
    if (hist.channels == kAccurateOrientations && hist.width == cells_w && hist.height == cells_h) {
        for (int32_t b = 0; b < kAccurateOrientations; ++b) {
            for (int32_t cy = 0; cy < cells_h; ++cy) {
                for (int32_t cx = 0; cx < cells_w; ++cx) {
                    cell(4 + b, cy, cx) =
                        to_byte(static_cast<int64_t>(hist.at(b, cy, cx)) * kByteGain / (16 * kMagnitudeScale));
                }
            }
        }
    }
    return map;
}

}  // namespace ostrel
