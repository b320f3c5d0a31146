// Faster loops of the resampling kernel for 8-bit images, with SSE2.
//
// They give the bytes of the reference loops exactly. What makes 16-bit
// multiplies enough: a byte source keeps every vertical result in 0..255
// (each target's weights are non-negative and sum to at most 1.0 in Q14),
// so the row buffer fits 16 bits, and the weights fit 16 bits too
// (checked per call). Each product then is exact, and the sums, taken
// modulo 2^32 like the reference's, do not depend on their order.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "acf/resample_kernel.h"

namespace ostrel {
namespace acf_helper {
namespace resample_detail {

#if defined(OSTREL_SSE2)

namespace {

constexpr int32_t kLanes = 8;  // 16-bit lanes of one register

// The horizontal entries of each target laid out densely: target x reads
// `taps` consecutive row-buffer values from base[x] with the 16-bit
// weights weight[x * taps ...]. Entries on the same source add their
// weights (padding entries have weight 0); positions no entry names get 0.
struct dense_taps {
    int32_t taps = 0;  // a multiple of kLanes
    std::vector<int32_t> base;
    std::vector<int16_t> weight;
};

struct tap {
    int32_t src;
    int32_t weight;
};

// The (source, weight) pairs that make target x in the reference's
// enlargement or general-reduction case.
void taps_of_target(const resample_plan &plan, int32_t x, std::vector<tap> &taps) {
    taps.clear();
    const resample_coefs &h = plan.horizontal;
    if (plan.horizontal_kind == pass_kind::enlarge) {
        const size_t k = static_cast<size_t>(x);
        const int32_t i = h.src_index[k];
        const int32_t weight = h.weight[k];
        taps.push_back({i, weight});
        if (!(x < h.bd0 || x >= plan.dst_w - h.bd1)) {
            taps.push_back({i + 1, wrap(u32(plan.rq) - u32(weight))});
        }
        return;
    }
    for (size_t k = plan.horizontal_starts[static_cast<size_t>(x)];
         k < plan.horizontal_starts[static_cast<size_t>(x) + 1]; ++k) {
        taps.push_back({h.src_index[k], h.weight[k]});
    }
}

// False when some summed weight leaves 16 bits.
bool make_dense_taps(const resample_plan &plan, dense_taps &dense) {
    const int32_t targets = plan.dst_w;
    std::vector<tap> taps;
    std::vector<int32_t> lowest(static_cast<size_t>(targets), 0);
    int32_t span = 1;
    for (int32_t x = 0; x < targets; ++x) {
        taps_of_target(plan, x, taps);
        if (taps.empty()) {
            continue;
        }
        int32_t lo = taps.front().src;
        int32_t hi = lo;
        for (const tap &t : taps) {
            lo = std::min(lo, t.src);
            hi = std::max(hi, t.src);
        }
        lowest[static_cast<size_t>(x)] = lo;
        span = std::max(span, hi - lo + 1);
    }
    if (span > plan.src_w) {
        return false;
    }
    dense.taps = (span + kLanes - 1) / kLanes * kLanes;
    dense.base.assign(static_cast<size_t>(targets), 0);
    dense.weight.assign(static_cast<size_t>(targets) * static_cast<size_t>(dense.taps), 0);
    std::vector<uint32_t> summed(static_cast<size_t>(dense.taps));
    for (int32_t x = 0; x < targets; ++x) {
        taps_of_target(plan, x, taps);
        // Keep the taps inside the row: a target near the end starts early
        // enough for `span` positions (the extra ones weigh 0).
        const int32_t base = std::min(lowest[static_cast<size_t>(x)], plan.src_w - span);
        dense.base[static_cast<size_t>(x)] = base;
        std::fill(summed.begin(), summed.end(), 0u);
        for (const tap &t : taps) {
            summed[static_cast<size_t>(t.src - base)] += u32(t.weight);
        }
        int16_t *row = dense.weight.data() + static_cast<size_t>(x) * static_cast<size_t>(dense.taps);
        for (int32_t k = 0; k < dense.taps; ++k) {
            const int32_t w = wrap(summed[static_cast<size_t>(k)]);
            if (w < -32768 || w > 32767) {
                return false;
            }
            row[k] = static_cast<int16_t>(w);
        }
    }
    return true;
}

// The vertical weights must be non-negative, below 2^15, and sum to at most
// 1.0 per target, so that byte rows stay bytes.
bool vertical_weights_suit(const resample_plan &plan) {
    const resample_coefs &v = plan.vertical;
    if (plan.vertical_kind == pass_kind::enlarge) {
        for (int32_t w : v.weight) {
            if (w < 0 || w > kOne) {
                return false;
            }
        }
        return true;
    }
    if (plan.vertical_kind != pass_kind::reduce) {
        return true;
    }
    for (int32_t y = 0; y < plan.dst_h; ++y) {
        int64_t total = 0;
        for (size_t k = plan.vertical_starts[static_cast<size_t>(y)];
             k < plan.vertical_starts[static_cast<size_t>(y) + 1]; ++k) {
            if (v.weight[k] < 0 || v.weight[k] > kOne) {
                return false;
            }
            total += v.weight[k];
        }
        if (total > kOne) {
            return false;
        }
    }
    return true;
}

// C[x] = (sum over the rows of row_k[x] * weight_k) >> 14 for byte rows,
// two rows per multiply-add.
void weighted_rows(const uint8_t *const *rows, const int32_t *weights, size_t count, size_t width, int16_t *c) {
    const __m128i zero = _mm_setzero_si128();
    size_t x = 0;
    for (; x + 16 <= width; x += 16) {
        __m128i acc0 = zero;
        __m128i acc1 = zero;
        __m128i acc2 = zero;
        __m128i acc3 = zero;
        size_t k = 0;
        for (; k < count; k += 2) {
            const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(rows[k] + x));
            const bool pair = k + 1 < count;
            const __m128i b = pair ? _mm_loadu_si128(reinterpret_cast<const __m128i *>(rows[k + 1] + x)) : zero;
            const uint32_t w_a = static_cast<uint16_t>(weights[k]);
            const uint32_t w_b = pair ? static_cast<uint16_t>(weights[k + 1]) : 0u;
            const __m128i w = _mm_set1_epi32(static_cast<int32_t>(w_a | (w_b << 16)));
            add_weighted_byte_pair(a, b, w, acc0, acc1, acc2, acc3);
        }
        acc0 = _mm_srai_epi32(acc0, 14);
        acc1 = _mm_srai_epi32(acc1, 14);
        acc2 = _mm_srai_epi32(acc2, 14);
        acc3 = _mm_srai_epi32(acc3, 14);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(c + x), _mm_packs_epi32(acc0, acc1));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(c + x + 8), _mm_packs_epi32(acc2, acc3));
    }
    for (; x < width; ++x) {
        uint32_t acc = 0;
        for (size_t k = 0; k < count; ++k) {
            acc += u32(rows[k][x]) * u32(weights[k]);
        }
        c[x] = static_cast<int16_t>(wrap(acc) >> 14);
    }
}

void widen_row(const uint8_t *row, size_t width, int16_t *c) {
    for (size_t x = 0; x < width; ++x) {
        c[x] = static_cast<int16_t>(row[x]);
    }
}

// Vertical pass of target row y into the 16-bit row buffer.
void vertical_pass_bytes(const resample_plan &plan, const uint8_t *plane, int32_t y, int16_t *c,
                         std::vector<int32_t> &wide, std::vector<const uint8_t *> &rows,
                         std::vector<int32_t> &weights) {
    const size_t width = static_cast<size_t>(plan.src_w);
    auto row = [&](int32_t index) { return plane + static_cast<size_t>(index) * width; };
    switch (plan.vertical_kind) {
        case pass_kind::half:
        case pass_kind::third:
        case pass_kind::quarter:
            // The integer-ratio shortcuts are cheap already; their byte
            // results are narrowed.
            vertical_pass(plan, plane, y, wide.data());
            for (size_t x = 0; x < width; ++x) {
                c[x] = static_cast<int16_t>(wide[x]);
            }
            return;
        case pass_kind::enlarge: {
            const size_t k = static_cast<size_t>(y);
            const int32_t i = plan.vertical.src_index[k];
            if (y < plan.vertical.bd0 || y >= plan.dst_h - plan.vertical.bd1) {
                widen_row(row(i), width, c);
                return;
            }
            const uint8_t *pair[2] = {row(i), row(i + 1)};
            const int32_t pair_weights[2] = {plan.vertical.weight[k], kOne - plan.vertical.weight[k]};
            weighted_rows(pair, pair_weights, 2, width, c);
            return;
        }
        case pass_kind::reduce: {
            rows.clear();
            weights.clear();
            for (size_t k = plan.vertical_starts[static_cast<size_t>(y)];
                 k < plan.vertical_starts[static_cast<size_t>(y) + 1]; ++k) {
                rows.push_back(row(plan.vertical.src_index[k]));
                weights.push_back(plan.vertical.weight[k]);
            }
            weighted_rows(rows.data(), weights.data(), rows.size(), width, c);
            return;
        }
    }
}

// The taps of one target multiplied and added pairwise: four 32-bit
// partial sums whose total is the target's sum.
inline __m128i target_partial_sums(const int16_t *source, const int16_t *weight, size_t taps) {
    __m128i acc = _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(source)),
                                 _mm_loadu_si128(reinterpret_cast<const __m128i *>(weight)));
    for (size_t t = kLanes; t < taps; t += kLanes) {
        acc = _mm_add_epi32(acc, _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(source + t)),
                                                _mm_loadu_si128(reinterpret_cast<const __m128i *>(weight + t))));
    }
    return acc;
}

// Target x = (sum over its taps of C * weight) >> 14, clamped to a byte;
// four targets at a time, their partial sums added across by a transpose.
// The two saturating packs clamp exactly like clamp(v, 0, 255).
void dense_horizontal_pass(const dense_taps &dense, int32_t targets, const int16_t *c, uint8_t *out) {
    const size_t taps = static_cast<size_t>(dense.taps);
    const size_t count = static_cast<size_t>(targets);
    const int16_t *weights = dense.weight.data();
    size_t x = 0;
    for (; x + 4 <= count; x += 4) {
        const __m128i s0 = target_partial_sums(c + dense.base[x], weights + x * taps, taps);
        const __m128i s1 = target_partial_sums(c + dense.base[x + 1], weights + (x + 1) * taps, taps);
        const __m128i s2 = target_partial_sums(c + dense.base[x + 2], weights + (x + 2) * taps, taps);
        const __m128i s3 = target_partial_sums(c + dense.base[x + 3], weights + (x + 3) * taps, taps);
        const __m128i u0 = _mm_add_epi32(_mm_unpacklo_epi32(s0, s1), _mm_unpackhi_epi32(s0, s1));
        const __m128i u1 = _mm_add_epi32(_mm_unpacklo_epi32(s2, s3), _mm_unpackhi_epi32(s2, s3));
        __m128i sums = _mm_add_epi32(_mm_unpacklo_epi64(u0, u1), _mm_unpackhi_epi64(u0, u1));
        sums = _mm_srai_epi32(sums, 14);
        const __m128i words = _mm_packs_epi32(sums, sums);
        const __m128i bytes = _mm_packus_epi16(words, words);
        const uint32_t four = static_cast<uint32_t>(_mm_cvtsi128_si32(bytes));
        std::memcpy(out + x, &four, sizeof four);
    }
    for (; x < count; ++x) {
        __m128i acc = target_partial_sums(c + dense.base[x], weights + x * taps, taps);
        acc = _mm_add_epi32(acc, _mm_shuffle_epi32(acc, _MM_SHUFFLE(1, 0, 3, 2)));
        acc = _mm_add_epi32(acc, _mm_shuffle_epi32(acc, _MM_SHUFFLE(2, 3, 0, 1)));
        out[x] = clamp_byte(_mm_cvtsi128_si32(acc) >> 14);
    }
}

}  // namespace

bool resample_bytes_fast(const chn_image8 &src, const resample_plan &plan, chn_image8 &out) {
    if (!vertical_weights_suit(plan)) {
        return false;
    }
    const bool dense = plan.horizontal_kind == pass_kind::enlarge || plan.horizontal_kind == pass_kind::reduce;
    dense_taps taps;
    if (dense && !make_dense_taps(plan, taps)) {
        return false;
    }

    const size_t width = static_cast<size_t>(plan.src_w);
    // One spare register's worth of zeros after the row, for the last
    // targets' full-width loads.
    std::vector<int16_t> c(width + kLanes, 0);
    std::vector<int32_t> wide(width);
    std::vector<const uint8_t *> rows;
    std::vector<int32_t> weights;
    for (int32_t ch = 0; ch < src.channels; ++ch) {
        const uint8_t *plane = src.plane(ch);
        uint8_t *target = out.plane(ch);
        for (int32_t y = 0; y < plan.dst_h; ++y) {
            vertical_pass_bytes(plan, plane, y, c.data(), wide, rows, weights);
            uint8_t *out_row = target + static_cast<size_t>(y) * static_cast<size_t>(plan.dst_w);
            if (dense) {
                dense_horizontal_pass(taps, plan.dst_w, c.data(), out_row);
            } else {
                horizontal_pass(plan, c.data(), out_row);
            }
        }
    }
    return true;
}

#else  // no SSE2: the reference loops do all the work

bool resample_bytes_fast(const chn_image8 &, const resample_plan &, chn_image8 &) { return false; }

#endif

}  // namespace resample_detail
}  // namespace acf_helper
}  // namespace ostrel
