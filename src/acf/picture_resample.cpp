// Column-by-column loading and resampling of picture planes in one pass.
//
// The arithmetic is the record resampler's, step for step: the vertical
// pass (across record rows, i.e. along picture rows) by the first of the
// cases 2:1, 3:1, 4:1, enlargement, general reduction, without the factor;
// then the horizontal pass (along record rows, i.e. down picture columns)
// with the factor, clamped to bytes. Only the order in which the record's
// elements are visited differs: the vertical pass runs on strips of 16
// record columns (16 picture rows) at a time, which each element's value
// does not depend on. The unit test compares every case with
// acf_helper::image_resample_fix.
#include "acf/picture_resample.h"

#include <algorithm>
#include <cstring>

#include "acf/acf_helper.h"
#include "acf/fixed_point_factor.h"
#include "acf/plane_transpose.h"

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <emmintrin.h>
#define OSTREL_PICTURE_RESAMPLE_SSE2 1
#endif

namespace ostrel {

namespace {

constexpr int32_t kOne = 1 << 14;
constexpr int32_t kThirdQ10 = 342;
constexpr int32_t kMaxSide = 1 << 16;  // longest side whose Q14 positions fit 32 bits
constexpr int32_t kLanes = kStripRows;

inline int32_t wrap(uint32_t v) { return static_cast<int32_t>(v); }
inline uint32_t u32(int32_t v) { return static_cast<uint32_t>(v); }
inline uint8_t clamp_byte(int32_t v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

enum class pass_kind { half, third, quarter, enlarge, reduce };

pass_kind pass_kind_of(int32_t src, int32_t dst) {
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

// Start of each target's entries (entries are in target order), plus the end.
std::vector<size_t> target_starts(const acf_helper::resample_coefs &coefs, int32_t targets) {
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

// Whether the 16-bit multiply-add path holds every weight of the vertical
// list exactly (weights 0..16384 always do; anything else takes the plain
// loop).
bool weights_fit_16_bits(const acf_helper::resample_coefs &coefs) {
    for (int32_t w : coefs.weight) {
        if (w < 0 || w > kOne) {
            return false;
        }
    }
    return true;
}

struct plan {
    int32_t src_w = 0;  // record width = picture rows
    int32_t src_h = 0;  // record height = picture columns
    int32_t dst_w = 0;
    int32_t dst_h = 0;
    int32_t r13 = 0;
    int32_t rq = 0;
    pass_kind vertical_kind = pass_kind::reduce;
    pass_kind horizontal_kind = pass_kind::reduce;
    acf_helper::resample_coefs vertical;
    acf_helper::resample_coefs horizontal;
    std::vector<size_t> vertical_starts;
    std::vector<size_t> horizontal_starts;
    bool vertical_fits_16_bits = false;
};

plan make_plan(int32_t src_w, int32_t src_h, int32_t dst_w, int32_t dst_h, float r) {
    plan p;
    p.src_w = src_w;
    p.src_h = src_h;
    p.dst_w = dst_w;
    p.dst_h = dst_h;
    p.r13 = acf_helper::resample_factor_q13(r);
    p.rq = wrap(u32(p.r13) << 14) >> 13;
    p.vertical_kind = pass_kind_of(src_h, dst_h);
    p.horizontal_kind = pass_kind_of(src_w, dst_w);
    p.vertical = acf_helper::resample_coef(src_h, dst_h, 0);
    p.horizontal = acf_helper::resample_coef(src_w, dst_w, 4);
    for (int32_t &w : p.horizontal.weight) {
        w = wrap(u32(p.r13) * u32(w)) >> 13;
    }
    p.vertical_starts = target_starts(p.vertical, dst_h);
    p.vertical_fits_16_bits = weights_fit_16_bits(p.vertical);
    p.horizontal_starts = target_starts(p.horizontal, dst_w);
    return p;
}

#if defined(OSTREL_PICTURE_RESAMPLE_SSE2)

// Weighted sum of tile rows for 16 lanes, two rows per step with 16-bit
// multiply-adds. Exact: bytes and weights (0..16384) fit the signed 16-bit
// operands, a pair's sum cannot overflow 32 bits, and the 32-bit additions
// wrap around like the plain loop's.
inline void weighted_rows_sse2(const uint8_t *tile, const int32_t *src_index, const int32_t *weight, size_t count,
                               int32_t *out) {
    const __m128i zero = _mm_setzero_si128();
    __m128i acc0 = zero;
    __m128i acc1 = zero;
    __m128i acc2 = zero;
    __m128i acc3 = zero;
    for (size_t k = 0; k < count; k += 2) {
        const __m128i a =
            _mm_loadu_si128(reinterpret_cast<const __m128i *>(tile + static_cast<size_t>(src_index[k]) * kLanes));
        __m128i b = zero;
        uint32_t w1 = 0;
        if (k + 1 < count) {
            b = _mm_loadu_si128(
                reinterpret_cast<const __m128i *>(tile + static_cast<size_t>(src_index[k + 1]) * kLanes));
            w1 = static_cast<uint32_t>(weight[k + 1]);
        }
        const __m128i w = _mm_set1_epi32(static_cast<int>((w1 << 16) | static_cast<uint32_t>(weight[k])));
        const __m128i a_lo = _mm_unpacklo_epi8(a, zero);
        const __m128i a_hi = _mm_unpackhi_epi8(a, zero);
        const __m128i b_lo = _mm_unpacklo_epi8(b, zero);
        const __m128i b_hi = _mm_unpackhi_epi8(b, zero);
        acc0 = _mm_add_epi32(acc0, _mm_madd_epi16(_mm_unpacklo_epi16(a_lo, b_lo), w));
        acc1 = _mm_add_epi32(acc1, _mm_madd_epi16(_mm_unpackhi_epi16(a_lo, b_lo), w));
        acc2 = _mm_add_epi32(acc2, _mm_madd_epi16(_mm_unpacklo_epi16(a_hi, b_hi), w));
        acc3 = _mm_add_epi32(acc3, _mm_madd_epi16(_mm_unpackhi_epi16(a_hi, b_hi), w));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm_srai_epi32(acc0, 14));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 4), _mm_srai_epi32(acc1, 14));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 8), _mm_srai_epi32(acc2, 14));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 12), _mm_srai_epi32(acc3, 14));
}

#endif

// Vertical pass of record row y for the 16 record columns of one tile
// (tile row k = record row k, 16 lanes).
void vertical_pass(const plan &p, const uint8_t *tile, int32_t y, int32_t *out) {
    auto row = [tile](int32_t k) { return tile + static_cast<size_t>(k) * kLanes; };
    switch (p.vertical_kind) {
        case pass_kind::half: {
            const uint8_t *a0 = row(2 * y);
            const uint8_t *a1 = a0 + kLanes;
            for (int l = 0; l < kLanes; ++l) {
                out[l] = wrap(u32(a0[l]) + u32(a1[l])) >> 1;
            }
            return;
        }
        case pass_kind::third: {
            const uint8_t *a0 = row(3 * y);
            const uint8_t *a1 = a0 + kLanes;
            const uint8_t *a2 = a1 + kLanes;
            for (int l = 0; l < kLanes; ++l) {
                out[l] = wrap((u32(a0[l]) + u32(a1[l]) + u32(a2[l])) * u32(kThirdQ10)) >> 10;
            }
            return;
        }
        case pass_kind::quarter: {
            const uint8_t *a0 = row(4 * y);
            for (int l = 0; l < kLanes; ++l) {
                out[l] = wrap(u32(a0[l]) + u32(a0[l + kLanes]) + u32(a0[l + 2 * kLanes]) + u32(a0[l + 3 * kLanes])) >> 2;
            }
            return;
        }
        case pass_kind::enlarge: {
            const size_t k = static_cast<size_t>(y);
            const uint8_t *a0 = row(p.vertical.src_index[k]);
            if (y < p.vertical.bd0 || y >= p.dst_h - p.vertical.bd1) {
                for (int l = 0; l < kLanes; ++l) {
                    out[l] = static_cast<int32_t>(a0[l]);
                }
                return;
            }
#if defined(OSTREL_PICTURE_RESAMPLE_SSE2)
            if (p.vertical_fits_16_bits) {
                const int32_t index[2] = {p.vertical.src_index[k], p.vertical.src_index[k] + 1};
                const int32_t weight[2] = {p.vertical.weight[k], kOne - p.vertical.weight[k]};
                weighted_rows_sse2(tile, index, weight, 2, out);
                return;
            }
#endif
            const uint8_t *a1 = a0 + kLanes;
            const uint32_t w0 = u32(p.vertical.weight[k]);
            const uint32_t w1 = u32(kOne - p.vertical.weight[k]);
            for (int l = 0; l < kLanes; ++l) {
                out[l] = wrap(u32(a0[l]) * w0 + u32(a1[l]) * w1) >> 14;
            }
            return;
        }
        case pass_kind::reduce: {
            const size_t begin = p.vertical_starts[static_cast<size_t>(y)];
            const size_t end = p.vertical_starts[static_cast<size_t>(y) + 1];
#if defined(OSTREL_PICTURE_RESAMPLE_SSE2)
            if (p.vertical_fits_16_bits) {
                weighted_rows_sse2(tile, p.vertical.src_index.data() + begin, p.vertical.weight.data() + begin,
                                   end - begin, out);
                return;
            }
#endif
            uint32_t acc[kLanes] = {};
            for (size_t k = begin; k < end; ++k) {
                const uint8_t *a = row(p.vertical.src_index[k]);
                const uint32_t weight = u32(p.vertical.weight[k]);
                for (int l = 0; l < kLanes; ++l) {
                    acc[l] += u32(a[l]) * weight;
                }
            }
            for (int l = 0; l < kLanes; ++l) {
                out[l] = wrap(acc[l]) >> 14;
            }
            return;
        }
    }
}

// Horizontal pass of one record row: from its vertical-pass values to
// bytes, with the factor.
void horizontal_pass(const plan &p, const int32_t *c, uint8_t *out) {
    const size_t dst_w = static_cast<size_t>(p.dst_w);
    const uint32_t r13 = u32(p.r13);
    switch (p.horizontal_kind) {
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
            const acf_helper::resample_coefs &h = p.horizontal;
            for (size_t x = 0; x < dst_w; ++x) {
                const int32_t i = h.src_index[x];
                const int32_t weight = h.weight[x];
                const int32_t xi = static_cast<int32_t>(x);
                if (xi < h.bd0 || xi >= p.dst_w - h.bd1) {
                    out[x] = clamp_byte(wrap(u32(c[i]) * u32(weight)) >> 14);
                } else {
                    out[x] = clamp_byte(wrap(u32(c[i]) * u32(weight) + u32(c[i + 1]) * (u32(p.rq) - u32(weight))) >> 14);
                }
            }
            return;
        }
        case pass_kind::reduce: {
            // Every entry of a target is summed (padding entries weigh 0), then
            // shifted once.
            const acf_helper::resample_coefs &h = p.horizontal;
            for (size_t x = 0; x < dst_w; ++x) {
                uint32_t acc = 0;
                for (size_t k = p.horizontal_starts[x]; k < p.horizontal_starts[x + 1]; ++k) {
                    acc += u32(c[h.src_index[k]]) * u32(h.weight[k]);
                }
                out[x] = clamp_byte(wrap(acc) >> 14);
            }
            return;
        }
    }
}

}  // namespace

bool resample_picture_plane(const uint8_t *plane, size_t stride, int32_t rows, int32_t columns, int32_t dst_width,
                            int32_t dst_height, float r, uint8_t *dst, picture_resample_scratch &scratch) {
    if (plane == nullptr || dst == nullptr || rows < 1 || columns < 1 || dst_width < 1 || dst_height < 1) {
        return false;
    }
    const size_t dst_bytes = static_cast<size_t>(dst_width) * static_cast<size_t>(dst_height);
    if (rows > kMaxSide || columns > kMaxSide || dst_width > kMaxSide || dst_height > kMaxSide) {
        // Sides too long for Q14 positions leave the target zero, as the
        // record resampler does.
        std::memset(dst, 0, dst_bytes);
        return true;
    }
    const plan p = make_plan(rows, columns, dst_width, dst_height, r);

    // Vertical pass, strip by strip: record rows' values for 16 record
    // columns at a time, kept for the whole picture.
    const int32_t strips = (rows + kLanes - 1) / kLanes;
    const size_t sums_stride = static_cast<size_t>(strips) * kLanes;
    scratch.tile.resize(static_cast<size_t>(columns) * kLanes);
    scratch.column_sums.resize(sums_stride * static_cast<size_t>(dst_height));
    for (int32_t s = 0; s < strips; ++s) {
        const int32_t r0 = s * kLanes;
        transpose_strip(plane + static_cast<size_t>(r0) * stride, stride, std::min(kLanes, rows - r0), columns,
                        scratch.tile.data());
        for (int32_t y = 0; y < dst_height; ++y) {
            vertical_pass(p, scratch.tile.data(), y,
                          scratch.column_sums.data() + static_cast<size_t>(y) * sums_stride + static_cast<size_t>(r0));
        }
    }
    // Horizontal pass, record row by record row.
    for (int32_t y = 0; y < dst_height; ++y) {
        horizontal_pass(p, scratch.column_sums.data() + static_cast<size_t>(y) * sums_stride,
                        dst + static_cast<size_t>(y) * static_cast<size_t>(dst_width));
    }
    return true;
}

chn_image8 resample_picture_planes(const uint8_t *const *planes, const size_t *strides, int32_t n_planes,
                                   int32_t rows, int32_t columns, int32_t dst_width, int32_t dst_height, float r,
                                   picture_resample_scratch &scratch) {
    if (n_planes < 1 || rows < 1 || columns < 1 || dst_width < 1 || dst_height < 1) {
        return chn_image8();
    }
    chn_image8 out(n_planes, dst_width, dst_height);
    for (int32_t c = 0; c < n_planes; ++c) {
        resample_picture_plane(planes[c], strides[c], rows, columns, dst_width, dst_height, r, out.plane(c), scratch);
    }
    return out;
}

}  // namespace ostrel
