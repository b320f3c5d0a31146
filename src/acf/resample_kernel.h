// resample_kernel: the parts of the fixed-point resampling kernel that the
// reference loops (any element type) and the SSE2 loops for 8-bit images
// share: constants, 32-bit wrap-around helpers, the per-call plan
// (coefficient lists, factor, which case each pass takes), the reference
// passes and the SSE2 loops' multiply-add step.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "acf/acf_helper.h"
#include "common/sse2.h"

namespace ostrel {
namespace acf_helper {
namespace resample_detail {

constexpr int32_t kOne = 1 << 14;    // 1.0 in Q14
constexpr int32_t kHalf = 1 << 13;   // 0.5 in Q14
constexpr int32_t kMinWeight = 163;  // weights up to this are dropped; also the end tolerance
constexpr int32_t kThirdQ10 = 342;   // 1/3 in Q10, used by the 3:1 shortcuts

// Longest side the Q14 positions (side << 14) hold in 32 bits.
constexpr int32_t kMaxSide = 1 << 16;

// 32-bit wrap-around arithmetic without signed overflow.
inline int32_t wrap(uint32_t v) { return static_cast<int32_t>(v); }
inline uint32_t u32(int32_t v) { return static_cast<uint32_t>(v); }
inline int32_t mul32(int32_t a, int32_t b) { return wrap(u32(a) * u32(b)); }

inline uint8_t clamp_byte(int32_t v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

inline bool holds_its_planes(int32_t channels, int32_t width, int32_t height, size_t stored) {
    if (channels < 0 || width < 0 || height < 0) {
        return false;
    }
    return stored >= static_cast<size_t>(channels) * static_cast<size_t>(width) * static_cast<size_t>(height);
}

// Start of each target's entries in a coefficient list (entries are stored
// in target order), with one extra element for the end of the last.
inline std::vector<size_t> target_starts(const resample_coefs &coefs, int32_t targets) {
    std::vector<size_t> starts(static_cast<size_t>(targets) + 1, 0);
    size_t k = 0;
    for (int32_t j = 0; j < targets; ++j) {
        starts[static_cast<size_t>(j)] = k;
        while (k < coefs.weight.size() && coefs.dst_index[k] == j) {
            ++k;
        }
    }
    starts[static_cast<size_t>(targets)] = k;
    return starts;
}

enum class pass_kind { half, third, quarter, enlarge, reduce };

// First matching case: the three integer-ratio shortcuts, then enlargement
// (including equal size), then the general reduction.
inline pass_kind pass_kind_of(int32_t src, int32_t dst) {
    if (src == 2 * dst) {
        return pass_kind::half;
    }
    if (src == 3 * dst) {
        return pass_kind::third;
    }
    if (src == 4 * dst) {
        return pass_kind::quarter;
    }
    if (src <= dst) {
        return pass_kind::enlarge;
    }
    return pass_kind::reduce;
}

// Everything one call needs besides the planes: coefficient lists, their
// per-target ranges and the factor, built once and used for every channel
// and row.
struct resample_plan {
    int32_t src_w = 0;
    int32_t src_h = 0;
    int32_t dst_w = 0;
    int32_t dst_h = 0;
    int32_t r13 = 0;  // factor in Q13 (already reduced by 1.000001)
    int32_t rq = 0;   // factor in Q14 as the blend total of enlargement
    pass_kind vertical_kind = pass_kind::reduce;
    pass_kind horizontal_kind = pass_kind::reduce;
    resample_coefs vertical;
    resample_coefs horizontal;  // weights already multiplied by the factor
    std::vector<size_t> vertical_starts;
    std::vector<size_t> horizontal_starts;
};

resample_plan make_plan(int32_t src_w, int32_t src_h, int32_t dst_w, int32_t dst_h, float r);

// Vertical pass of target row y: combines source rows of one plane into the
// row buffer `column_sums` (src_w values). No factor is applied here.
template <typename In>
void vertical_pass(const resample_plan &plan, const In *plane, int32_t y, int32_t *column_sums) {
    const size_t w = static_cast<size_t>(plan.src_w);
    auto row = [&](int32_t index) { return plane + static_cast<size_t>(index) * w; };
    switch (plan.vertical_kind) {
        case pass_kind::half: {
            const In *a0 = row(2 * y);
            const In *a1 = a0 + w;
            for (size_t x = 0; x < w; ++x) {
                column_sums[x] = wrap(u32(a0[x]) + u32(a1[x])) >> 1;
            }
            return;
        }
        case pass_kind::third: {
            const In *a0 = row(3 * y);
            const In *a1 = a0 + w;
            const In *a2 = a1 + w;
            for (size_t x = 0; x < w; ++x) {
                column_sums[x] = wrap((u32(a0[x]) + u32(a1[x]) + u32(a2[x])) * u32(kThirdQ10)) >> 10;
            }
            return;
        }
        case pass_kind::quarter: {
            const In *a0 = row(4 * y);
            const In *a1 = a0 + w;
            const In *a2 = a1 + w;
            const In *a3 = a2 + w;
            for (size_t x = 0; x < w; ++x) {
                column_sums[x] = wrap(u32(a0[x]) + u32(a1[x]) + u32(a2[x]) + u32(a3[x])) >> 2;
            }
            return;
        }
        case pass_kind::enlarge: {
            // One entry per target row. The first bd0 and last bd1 rows copy
            // their source row; the rows between blend two neighbours with
            // weights summing to 1.0.
            const size_t k = static_cast<size_t>(y);
            const In *a0 = row(plan.vertical.src_index[k]);
            if (y < plan.vertical.bd0 || y >= plan.dst_h - plan.vertical.bd1) {
                for (size_t x = 0; x < w; ++x) {
                    column_sums[x] = static_cast<int32_t>(a0[x]);
                }
                return;
            }
            const In *a1 = a0 + w;
            const uint32_t w0 = u32(plan.vertical.weight[k]);
            const uint32_t w1 = u32(kOne - plan.vertical.weight[k]);
            for (size_t x = 0; x < w; ++x) {
                column_sums[x] = wrap(u32(a0[x]) * w0 + u32(a1[x]) * w1) >> 14;
            }
            return;
        }
        case pass_kind::reduce: {
            // Sum of all the row's weighted sources, shifted once at the end
            // (accumulate, then shift, however many sources there are).
            uint32_t *acc = reinterpret_cast<uint32_t *>(column_sums);
            const size_t begin = plan.vertical_starts[static_cast<size_t>(y)];
            const size_t end = plan.vertical_starts[static_cast<size_t>(y) + 1];
            std::fill(acc, acc + w, 0u);
            for (size_t k = begin; k < end; ++k) {
                const In *a = row(plan.vertical.src_index[k]);
                const uint32_t weight = u32(plan.vertical.weight[k]);
                for (size_t x = 0; x < w; ++x) {
                    acc[x] += u32(a[x]) * weight;
                }
            }
            for (size_t x = 0; x < w; ++x) {
                column_sums[x] = wrap(acc[x]) >> 14;
            }
            return;
        }
    }
}

// Horizontal pass: from the row buffer to one target row of bytes, with the
// factor applied.
// C is the row buffer, 32-bit values, or 16-bit ones where the source was
// 8-bit (the vertical pass of bytes never leaves 0..255).
template <typename C>
void horizontal_pass(const resample_plan &plan, const C *c, uint8_t *out) {
    const size_t dst_w = static_cast<size_t>(plan.dst_w);
    const uint32_t r13 = u32(plan.r13);
    switch (plan.horizontal_kind) {
        case pass_kind::half:
            for (size_t x = 0; x < dst_w; ++x) {
                out[x] = clamp_byte(wrap((u32(c[2 * x]) + u32(c[2 * x + 1])) * r13) >> 14);
            }
            return;
        case pass_kind::third:
            for (size_t x = 0; x < dst_w; ++x) {
                const int32_t third =
                    wrap((u32(c[3 * x]) + u32(c[3 * x + 1]) + u32(c[3 * x + 2])) * u32(kThirdQ10)) >> 10;
                out[x] = clamp_byte(wrap(u32(third) * r13) >> 13);
            }
            return;
        case pass_kind::quarter:
            for (size_t x = 0; x < dst_w; ++x) {
                const uint32_t sum = u32(c[4 * x]) + u32(c[4 * x + 1]) + u32(c[4 * x + 2]) + u32(c[4 * x + 3]);
                out[x] = clamp_byte(wrap(sum * r13) >> 15);
            }
            return;
        case pass_kind::enlarge: {
            // One entry per target. Border targets scale their source by the
            // (factor-scaled) weight; the others blend two neighbours with
            // weights summing to rq, the factor in Q14.
            const resample_coefs &h = plan.horizontal;
            for (size_t x = 0; x < dst_w; ++x) {
                const int32_t i = h.src_index[x];
                const int32_t weight = h.weight[x];
                const int32_t xi = static_cast<int32_t>(x);
                if (xi < h.bd0 || xi >= plan.dst_w - h.bd1) {
                    out[x] = clamp_byte(mul32(c[i], weight) >> 14);
                } else {
                    out[x] =
                        clamp_byte(wrap(u32(c[i]) * u32(weight) + u32(c[i + 1]) * (u32(plan.rq) - u32(weight))) >> 14);
                }
            }
            return;
        }
        case pass_kind::reduce: {
            // Each target sums its entries' weighted sources and shifts once.
            // With at most four sources per target (bd0 <= 4) every target
            // holds exactly four entries, the real ones first and then
            // weight-0 padding, so summing all four equals summing the first
            // bd0 of them; this also covers bd0 of 0 or 1. With more sources
            // the per-target accumulators take every entry.
            const resample_coefs &h = plan.horizontal;
            for (size_t x = 0; x < dst_w; ++x) {
                uint32_t acc = 0;
                for (size_t k = plan.horizontal_starts[x]; k < plan.horizontal_starts[x + 1]; ++k) {
                    acc += u32(c[h.src_index[k]]) * u32(h.weight[k]);
                }
                out[x] = clamp_byte(wrap(acc) >> 14);
            }
            return;
        }
    }
}

// The reference kernel for 8-bit images: the public routine without its
// faster loops (same checks, same messages, same bytes). Kept callable so
// that the faster loops can be compared with it.
chn_image8 image_resample_fix_reference(const chn_image8 &src, int32_t dst_width, int32_t dst_height, float r);

// The faster loops for 8-bit images with SSE2. Fills `out` (already sized
// to the target) and returns true, or returns false without touching it
// when the plan does not suit them (factor weights outside 16 bits, or no
// SSE2 in this build); the reference kernel is used then.
bool resample_bytes_fast(const chn_image8 &src, const resample_plan &plan, chn_image8 &out);

#if defined(OSTREL_SSE2)
// The step both 8-bit SSE2 resampling loops are built from.
// Adds a * wa + b * wb to the four accumulators, lanes 0-3, 4-7, 8-11 and
// 12-15 of the sixteen bytes of a and b in that order, where w holds
// (wb << 16) | wa in every 32-bit lane. Exact for weights that fit 16 bits
// (signed) and sums that fit 32 bits.
inline void add_weighted_byte_pair(__m128i a, __m128i b, __m128i w, __m128i &acc0, __m128i &acc1, __m128i &acc2,
                                   __m128i &acc3) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i a_lo = _mm_unpacklo_epi8(a, zero);
    const __m128i a_hi = _mm_unpackhi_epi8(a, zero);
    const __m128i b_lo = _mm_unpacklo_epi8(b, zero);
    const __m128i b_hi = _mm_unpackhi_epi8(b, zero);
    acc0 = _mm_add_epi32(acc0, _mm_madd_epi16(_mm_unpacklo_epi16(a_lo, b_lo), w));
    acc1 = _mm_add_epi32(acc1, _mm_madd_epi16(_mm_unpackhi_epi16(a_lo, b_lo), w));
    acc2 = _mm_add_epi32(acc2, _mm_madd_epi16(_mm_unpacklo_epi16(a_hi, b_hi), w));
    acc3 = _mm_add_epi32(acc3, _mm_madd_epi16(_mm_unpackhi_epi16(a_hi, b_hi), w));
}
#endif

}  // namespace resample_detail
}  // namespace acf_helper
}  // namespace ostrel
