// Column-by-column loading and resampling of picture planes.
//
// The record resampler works in two passes: a vertical pass that combines
// record rows (picture columns) into one row buffer per target row, then a
// horizontal pass along that buffer. Here the vertical pass runs straight
// on the picture: strips of 16 picture rows (16 record columns) are
// transposed into a small tile and combined lane by lane, with the
// resampler's own plan (coefficients and case) and its arithmetic, so every
// row-buffer value is the resampler's. Those values are bytes (the
// vertical weights of a target are non-negative and sum to at most 1.0),
// so they make a byte record of target height; resampling that record to
// the target size with the record resampler runs its vertical pass as an
// exact copy (equal heights: weight 1.0 everywhere) and then its own
// horizontal pass on exactly these values. The result is therefore the
// resampler's result on the full-size record, which is never built. The
// unit test compares every case with acf_helper::image_resample_fix.
#include "acf/picture_resample.h"

#include <algorithm>
#include <cstring>

#include "acf/acf_helper.h"
#include "acf/plane_transpose.h"
#include "acf/resample_kernel.h"

namespace ostrel {

namespace {

namespace rd = acf_helper::resample_detail;

constexpr int32_t kLanes = kStripRows;

// Whether every row-buffer value of the vertical pass stays in 0..255: the
// shortcuts average bytes, and the weights of each enlargement or
// reduction target are non-negative and sum to at most 1.0.
bool vertical_results_are_bytes(const rd::resample_plan &plan) {
    const acf_helper::resample_coefs &v = plan.vertical;
    switch (plan.vertical_kind) {
        case rd::pass_kind::enlarge:
            // One entry per target: w and 1.0 - w, or a copy at the borders.
            return std::all_of(v.weight.begin(), v.weight.end(), [](int32_t w) { return w >= 0 && w <= rd::kOne; });
        case rd::pass_kind::reduce:
            for (int32_t y = 0; y < plan.dst_h; ++y) {
                int64_t total = 0;
                for (size_t k = plan.vertical_starts[static_cast<size_t>(y)];
                     k < plan.vertical_starts[static_cast<size_t>(y) + 1]; ++k) {
                    if (v.weight[k] < 0 || v.weight[k] > rd::kOne) {
                        return false;
                    }
                    total += v.weight[k];
                }
                if (total > rd::kOne) {
                    return false;
                }
            }
            return true;
        default: return true;  // averages of 2, 3 or 4 bytes
    }
}

#if defined(OSTREL_SSE2)

// (sum over the rows of tile_row_k * weight_k) >> 14 for 16 lanes, two rows
// per 16-bit multiply-add, packed to bytes. Exact: bytes and weights
// (0..16384) fit the signed 16-bit operands, a pair's sum fits 32 bits, the
// 32-bit additions wrap like the reference's, and the results are bytes
// already, so the packs do not saturate.
inline void weighted_rows_sse2(const uint8_t *tile, const int32_t *src_index, const int32_t *weight, size_t count,
                               uint8_t *out) {
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
        rd::add_weighted_byte_pair(a, b, w, acc0, acc1, acc2, acc3);
    }
    const __m128i lo = _mm_packs_epi32(_mm_srai_epi32(acc0, 14), _mm_srai_epi32(acc1, 14));
    const __m128i hi = _mm_packs_epi32(_mm_srai_epi32(acc2, 14), _mm_srai_epi32(acc3, 14));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm_packus_epi16(lo, hi));
}

// The enlargement and reduction cases with multiply-adds; false for the
// cases left to the reference loop.
bool vertical_lanes_sse2(const rd::resample_plan &plan, const uint8_t *tile, int32_t y, uint8_t *out) {
    const acf_helper::resample_coefs &v = plan.vertical;
    if (plan.vertical_kind == rd::pass_kind::reduce) {
        const size_t begin = plan.vertical_starts[static_cast<size_t>(y)];
        const size_t end = plan.vertical_starts[static_cast<size_t>(y) + 1];
        weighted_rows_sse2(tile, v.src_index.data() + begin, v.weight.data() + begin, end - begin, out);
        return true;
    }
    if (plan.vertical_kind == rd::pass_kind::enlarge) {
        const size_t k = static_cast<size_t>(y);
        const bool border = y < v.bd0 || y >= plan.dst_h - v.bd1;
        // A border row copies its source: one row of weight 1.0.
        const int32_t index[2] = {v.src_index[k], v.src_index[k] + 1};
        const int32_t weight[2] = {border ? rd::kOne : v.weight[k], rd::kOne - v.weight[k]};
        weighted_rows_sse2(tile, index, weight, border ? 1 : 2, out);
        return true;
    }
    return false;
}

#endif

// Vertical pass of record row y for the 16 record columns of one tile
// (tile row k = record row k): the resampler's own loop on a plan whose
// rows are 16 wide, or the multiply-add form of it.
void vertical_lanes(const rd::resample_plan &plan, const rd::resample_plan &lane_plan, const uint8_t *tile, int32_t y,
                    uint8_t *out) {
#if defined(OSTREL_SSE2)
    if (vertical_lanes_sse2(plan, tile, y, out)) {
        return;
    }
#endif
    int32_t sums[kLanes];
    rd::vertical_pass(lane_plan, tile, y, sums);
    for (int l = 0; l < kLanes; ++l) {
        out[l] = static_cast<uint8_t>(sums[l]);  // 0..255, see vertical_results_are_bytes
    }
}

// Fills `out` with the resampled record of the planes; false (out
// untouched) for sizes the resampler refuses or a plan whose row buffers
// would not be bytes.
bool resample_picture_planes_into(const uint8_t *const *planes, const size_t *strides, int32_t n_planes, int32_t rows,
                                  int32_t columns, int32_t dst_width, int32_t dst_height, float r,
                                  picture_resample_scratch &scratch, chn_image8 &out) {
    if (planes == nullptr || strides == nullptr || n_planes < 1 || rows < 1 || columns < 1 || dst_width < 1 ||
        dst_height < 1 || rows > rd::kMaxSide || columns > rd::kMaxSide || dst_width > rd::kMaxSide ||
        dst_height > rd::kMaxSide) {
        return false;
    }
    // Record terms: width = picture rows, height = picture columns.
    const rd::resample_plan plan = rd::make_plan(rows, columns, dst_width, dst_height, r);
    if (!vertical_results_are_bytes(plan)) {
        return false;
    }
    rd::resample_plan lane_plan = plan;
    lane_plan.src_w = kLanes;

    // The row buffers of all target rows, one byte record of target height.
    chn_image8 &middle = scratch.middle;
    middle.channels = n_planes;
    middle.width = rows;
    middle.height = dst_height;
    middle.data.resize(static_cast<size_t>(n_planes) * middle.plane_size());
    scratch.tile.resize(static_cast<size_t>(columns) * kLanes);

    for (int32_t c = 0; c < n_planes; ++c) {
        uint8_t *target = middle.plane(c);
        for (int32_t r0 = 0; r0 < rows; r0 += kLanes) {
            const int32_t lanes = std::min(kLanes, rows - r0);
            transpose_strip(planes[c] + static_cast<size_t>(r0) * strides[c], strides[c], lanes, columns,
                            scratch.tile.data());
            for (int32_t y = 0; y < dst_height; ++y) {
                uint8_t lane_bytes[kLanes];
                vertical_lanes(plan, lane_plan, scratch.tile.data(), y, lane_bytes);
                std::memcpy(target + static_cast<size_t>(y) * static_cast<size_t>(rows) + static_cast<size_t>(r0),
                            lane_bytes, static_cast<size_t>(lanes));
            }
        }
    }
    // Equal heights: the resampler's vertical pass copies the rows, then
    // its horizontal pass and factor give the target.
    out = acf_helper::image_resample_fix(middle, dst_width, dst_height, r);
    return true;
}

}  // namespace

bool resample_picture_plane(const uint8_t *plane, size_t stride, int32_t rows, int32_t columns, int32_t dst_width,
                            int32_t dst_height, float r, uint8_t *dst, picture_resample_scratch &scratch) {
    if (dst == nullptr) {
        return false;
    }
    chn_image8 out;
    const uint8_t *planes[1] = {plane};
    const size_t strides[1] = {stride};
    if (plane == nullptr ||
        !resample_picture_planes_into(planes, strides, 1, rows, columns, dst_width, dst_height, r, scratch, out)) {
        return false;
    }
    std::memcpy(dst, out.data.data(), out.data.size());
    return true;
}

chn_image8 resample_picture_planes(const uint8_t *const *planes, const size_t *strides, int32_t n_planes, int32_t rows,
                                   int32_t columns, int32_t dst_width, int32_t dst_height, float r,
                                   picture_resample_scratch &scratch) {
    chn_image8 out;
    if (!resample_picture_planes_into(planes, strides, n_planes, rows, columns, dst_width, dst_height, r, scratch,
                                      out)) {
        return chn_image8();
    }
    return out;
}

}  // namespace ostrel
