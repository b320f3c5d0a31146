// Fixed-point resampling of planar images and conversion of 32-bit planes
// to bytes.
//
// Every step is integer multiply, add and arithmetic shift with 32-bit
// wrap-around (done on uint32_t, so that large 32-bit inputs wrap instead
// of overflowing), and no rounding constants: the truncations are part of
// the features trained models expect, bit for bit.
//
// The loops here are the reference for every element type. 8-bit images
// (every pyramid scale of a picture) go through the SSE2 loops of
// resample_fast.cpp when the build has them; those give the same bytes.
#include <algorithm>
#include <cstddef>
#include <type_traits>
#include <vector>

#include "acf/acf_helper.h"
#include "acf/fixed_point_factor.h"
#include "acf/resample_kernel.h"
#include "common/log.h"

namespace ostrel {
namespace acf_helper {

using namespace resample_detail;

namespace {

constexpr const char *kTooSmallFormat = "[%s] downsampling factor too small (height: %d, width: %d) \n\n";
constexpr const char *kImageResampleName = "acf_helper::image_resample_fix";
constexpr const char *kFeatureResampleName = "acf_helper::feature_resample_fix";
constexpr const char *kConvertNormByteName = "acf_helper::convert_norm_byte_fix";

// The resampling kernel shared by 8-bit images and 32-bit planes: for every
// plane and target row a vertical pass into the row buffer, then a
// horizontal pass into the target row.
//
// `faster` lets 8-bit images take the SSE2 loops, which give the same bytes.
template <typename In>
chn_image8 resample_kernel(const chn_image<In> &src, int32_t dst_width, int32_t dst_height, float r, const char *name,
                           bool faster) {
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
    if constexpr (std::is_same_v<In, uint8_t>) {
        if (faster && resample_bytes_fast(src, plan, out)) {
            return out;
        }
    }
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

namespace resample_detail {

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

}  // namespace resample_detail

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
    return resample_kernel(src, dst_width, dst_height, r, kImageResampleName, true);
}

chn_image8 feature_resample_fix(const chn_image32 &src, int32_t dst_width, int32_t dst_height, float r) {
    return resample_kernel(src, dst_width, dst_height, r, kFeatureResampleName, false);
}

namespace resample_detail {

chn_image8 image_resample_fix_reference(const chn_image8 &src, int32_t dst_width, int32_t dst_height, float r) {
    return resample_kernel(src, dst_width, dst_height, r, kImageResampleName, false);
}

}  // namespace resample_detail

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
