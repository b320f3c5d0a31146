// Fixed-point resampling of planar images and conversion of 32-bit planes
// to bytes.
//
// Every step is integer multiply, add and arithmetic shift with 32-bit
// wrap-around (done on uint32_t, so that large 32-bit inputs wrap instead
// of overflowing), and no rounding constants: the truncations are part of
// the features trained models expect, bit for bit.
#include <algorithm>
#include <cstddef>
#include <vector>

#include "acf/acf_helper.h"
#include "acf/fixed_point_factor.h"
#include "common/log.h"

namespace ostrel {
namespace acf_helper {

namespace {

constexpr const char *kTooSmallFormat = "[%s] downsampling factor too small (height: %d, width: %d) \n\n";
constexpr const char *kImageResampleName = "acf_helper::image_resample_fix";
constexpr const char *kFeatureResampleName = "acf_helper::feature_resample_fix";
constexpr const char *kConvertNormByteName = "acf_helper::convert_norm_byte_fix";

constexpr int32_t kOne = 1 << 14;      // 1.0 in Q14
constexpr int32_t kHalf = 1 << 13;     // 0.5 in Q14
constexpr int32_t kMinWeight = 163;    // weights up to this are dropped; also the end tolerance
constexpr int32_t kThirdQ10 = 342;     // 1/3 in Q10, used by the 3:1 shortcuts

// Longest side the Q14 positions (side << 14) hold in 32 bits.
constexpr int32_t kMaxSide = 1 << 16;

// 32-bit wrap-around arithmetic without signed overflow.
inline int32_t wrap(uint32_t v) { return static_cast<int32_t>(v); }
inline uint32_t u32(int32_t v) { return static_cast<uint32_t>(v); }
inline int32_t mul32(int32_t a, int32_t b) { return wrap(u32(a) * u32(b)); }

inline uint8_t clamp_byte(int32_t v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

bool holds_its_planes(int32_t channels, int32_t width, int32_t height, size_t stored) {
    if (channels < 0 || width < 0 || height < 0) {
        return false;
    }
    return stored >= static_cast<size_t>(channels) * static_cast<size_t>(width) * static_cast<size_t>(height);
}

// Start of each target's entries in a coefficient list (entries are stored
// in target order), with one extra element for the end of the last.
std::vector<size_t> target_starts(const resample_coefs &coefs, int32_t targets) {
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

resample_plan make_plan(int32_t src_w, int32_t src_h, int32_t dst_w, int32_t dst_h, float r) {
    resample_plan plan;
    plan.src_w = src_w;
    plan.src_h = src_h;
    plan.dst_w = dst_w;
    plan.dst_h = dst_h;
    plan.r13 = resample_factor_q13(r);
    plan.rq = wrap(u32(plan.r13) << 14) >> 13;
    plan.vertical_kind = pass_kind_of(src_h, dst_h);
    plan.horizontal_kind = pass_kind_of(src_w, dst_w);
    plan.vertical = resample_coef(src_h, dst_h, 0);
    plan.horizontal = resample_coef(src_w, dst_w, 4);
    for (int32_t &w : plan.horizontal.weight) {
        w = mul32(plan.r13, w) >> 13;
    }
    plan.vertical_starts = target_starts(plan.vertical, dst_h);
    plan.horizontal_starts = target_starts(plan.horizontal, dst_w);
    return plan;
}

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
void horizontal_pass(const resample_plan &plan, const int32_t *c, uint8_t *out) {
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
                    out[x] = clamp_byte(wrap(u32(c[i]) * u32(weight) + u32(c[i + 1]) * (u32(plan.rq) - u32(weight))) >> 14);
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

// The resampling kernel shared by 8-bit images and 32-bit planes: for every
// plane and target row a vertical pass into the row buffer, then a
// horizontal pass into the target row.
template <typename In>
chn_image8 resample_kernel(const chn_image<In> &src, int32_t dst_width, int32_t dst_height, float r,
                           const char *name) {
    if (dst_width < 1 || dst_height < 1) {
        // The target width is printed first, after the word "height".
        log(kTooSmallFormat, name, dst_width, dst_height);
        return chn_image8();
    }
    chn_image8 out(std::max(src.channels, 0), dst_width, dst_height);
    // An empty source (a length of 0 has no coefficients), a side too long
    // for Q14 positions or a buffer shorter than its extents leaves the
    // target zero.
    if (src.width < 1 || src.height < 1 || src.channels < 1 || src.width > kMaxSide || src.height > kMaxSide ||
        dst_width > kMaxSide || dst_height > kMaxSide ||
        !holds_its_planes(src.channels, src.width, src.height, src.data.size())) {
        return out;
    }

    const resample_plan plan = make_plan(src.width, src.height, dst_width, dst_height, r);
    std::vector<int32_t> column_sums(static_cast<size_t>(src.width));
    for (int32_t ch = 0; ch < src.channels; ++ch) {
        const In *plane = src.plane(ch);
        uint8_t *target = out.plane(ch);
        for (int32_t y = 0; y < dst_height; ++y) {
            vertical_pass(plan, plane, y, column_sums.data());
            horizontal_pass(plan, column_sums.data(), target + static_cast<size_t>(y) * static_cast<size_t>(dst_width));
        }
    }
    return out;
}

}  // namespace

resample_coefs resample_coef(int32_t a, int32_t b, int32_t p) {
    resample_coefs coefs;
    // A length below 1 has no coefficients (it would divide by zero), nor
    // has one too long for Q14 positions in 32 bits.
    if (a < 1 || b < 1 || a > kMaxSide || b > kMaxSide) {
        return coefs;
    }
    const int32_t s = static_cast<int32_t>((static_cast<int64_t>(b) << 14) / a);  // target per source, Q14
    const int32_t t = static_cast<int32_t>((static_cast<int64_t>(a) << 14) / b);  // source per target, Q14
    auto append = [&coefs](int32_t src_index, int32_t dst_index, int32_t weight) {
        coefs.src_index.push_back(src_index);
        coefs.dst_index.push_back(dst_index);
        coefs.weight.push_back(weight);
    };

    if (a <= b) {
        // Enlargement (or equal size): one entry per target, the source
        // pixel left of the target's centre and its share; targets left of
        // the first source centre (bd0) or at/after the last (bd1) take a
        // single source with the full weight.
        coefs.src_index.reserve(static_cast<size_t>(b));
        coefs.dst_index.reserve(static_cast<size_t>(b));
        coefs.weight.reserve(static_cast<size_t>(b));
        for (int32_t j = 0; j < b; ++j) {
            const int32_t f = (t >> 1) - kHalf + j * t;  // source position of the target centre
            int32_t i = f >> 14;
            int32_t weight;
            if (i < 0) {
                coefs.bd0 += 1;
                weight = kOne;
                i = 0;
            } else {
                weight = i < a - 1 ? ((i + 1) << 14) - f : kOne;
            }
            if (i >= a - 1) {
                coefs.bd1 += 1;
                i = a - 1;
            }
            append(i, j, weight);
        }
        return coefs;
    }

    // Reduction: each target covers the source interval [j*t, (j+1)*t) and
    // takes every source pixel it overlaps, weighted by the overlap (in
    // units of s). Slivers of weight up to 163 are dropped, and the end is
    // rounded down with a tolerance of 163/16384.
    for (int32_t j = 0; j < b; ++j) {
        const int32_t end = (j + 1) * t;
        const int32_t start = end - t;
        const int32_t first = ((start + 16383) >> 14) - 1;  // one below the ceiling of the start
        const int32_t last = (end + kMinWeight) >> 14;
        const size_t target_begin = coefs.weight.size();
        int32_t total = 0;
        for (int32_t i = first; i <= last; ++i) {
            int32_t weight = s;
            if (i == first) {
                weight = ((((first + 1) << 14) - start) * s) >> 14;
            } else if (i == last) {
                weight = ((end - (last << 14)) * s) >> 14;
            }
            if (weight > kMinWeight && i >= 0) {
                append(i, j, weight);
                total += weight;
            }
        }
        const size_t target_end = coefs.weight.size();
        if (total > kOne) {
            for (size_t k = target_begin; k < target_end; ++k) {
                coefs.weight[k] = (coefs.weight[k] << 14) / total;
            }
        }
        coefs.bd0 = std::max(coefs.bd0, static_cast<int32_t>(target_end - target_begin));
        // Padding repeats the previous entry's source with weight 0 (source 0
        // when no entry exists yet), so that every target has p entries.
        for (size_t count = target_end - target_begin; count < static_cast<size_t>(std::max(p, 0)); ++count) {
            append(coefs.src_index.empty() ? 0 : coefs.src_index.back(), j, 0);
        }
    }
    return coefs;
}

chn_image8 image_resample_fix(const chn_image8 &src, int32_t dst_width, int32_t dst_height, float r) {
    return resample_kernel(src, dst_width, dst_height, r, kImageResampleName);
}

chn_image8 feature_resample_fix(const chn_image32 &src, int32_t dst_width, int32_t dst_height, float r) {
    return resample_kernel(src, dst_width, dst_height, r, kFeatureResampleName);
}

chn_image8 convert_norm_byte_fix(const chn_image32 &src, int32_t width, int32_t height, float r) {
    if (width < 1 || height < 1) {
        log(kTooSmallFormat, kConvertNormByteName, width, height);
        return chn_image8();
    }
    chn_image8 out(std::max(src.channels, 0), width, height);
    const uint32_t q = u32(convert_factor_q14(r));
    // Values past the end of a buffer shorter than the given extents stay 0.
    const size_t count = std::min(out.data.size(), src.data.size());
    const int32_t *in = src.data.data();
    uint8_t *bytes = out.data.data();
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = clamp_byte(wrap(u32(in[i]) * q) >> 14);
    }
    return out;
}

}  // namespace acf_helper
}  // namespace ostrel
