#include "accurate/cell_resample.h"

#include <algorithm>
#include <vector>

#include "accurate/cpu_features.h"
#if defined(OSTREL_HAVE_X86_VECTOR_LOOPS)
#include <immintrin.h>
#define OSTREL_CELL_RESAMPLE_AVX2 1
#endif

namespace ostrel {

namespace {

// Weights of one axis in Q15: target j takes source cells first[j] ..
// first[j] + count[j] - 1 with weights[offset[j] + k], summing to 2^15.
struct axis_taps {
    std::vector<int32_t> first;
    std::vector<int32_t> count;
    std::vector<int32_t> offset;
    std::vector<uint32_t> weights;
};

constexpr int32_t kWeightBits = 15;
constexpr uint32_t kWeightOne = 1u << kWeightBits;
// Bits of fraction the first pass keeps.
constexpr int32_t kMiddleBits = 8;

axis_taps taps_for(int32_t source, int32_t target) {
    axis_taps taps;
    taps.first.resize(static_cast<size_t>(target));
    taps.count.resize(static_cast<size_t>(target));
    taps.offset.resize(static_cast<size_t>(target));
    // Target j covers [j * source / target, (j + 1) * source / target) in
    // source cells; in units of 1 / target cell that is [j * source,
    // (j + 1) * source), exact in integers.
    for (int32_t j = 0; j < target; ++j) {
        const int64_t begin = static_cast<int64_t>(j) * source;
        const int64_t end = begin + source;
        const int32_t first = static_cast<int32_t>(begin / target);
        const int32_t last = static_cast<int32_t>((end - 1) / target);
        taps.first[static_cast<size_t>(j)] = first;
        taps.count[static_cast<size_t>(j)] = last - first + 1;
        taps.offset[static_cast<size_t>(j)] = static_cast<int32_t>(taps.weights.size());
        uint32_t given = 0;
        for (int32_t k = first; k <= last; ++k) {
            const int64_t lo = std::max<int64_t>(begin, static_cast<int64_t>(k) * target);
            const int64_t hi = std::min<int64_t>(end, static_cast<int64_t>(k + 1) * target);
            // The last tap takes what rounding left, so the weights sum to one.
            const uint32_t w =
                k == last ? kWeightOne - given : static_cast<uint32_t>(((hi - lo) * kWeightOne + source / 2) / source);
            taps.weights.push_back(w);
            given += w;
        }
    }
    return taps;
}

// Down a column a target takes at most kDownTaps source cells when the
// shrink is by at most two (every approximated level); unused taps weigh 0.
constexpr int32_t kDownTaps = 3;

// The taps of one shrink, both axes.
struct shrink_plan {
    axis_taps across;
    axis_taps down;
    // Three taps per target row, starting at down_first (general: false
    // when shrinking by more than two or a column is shorter than 3).
    bool three_taps = false;
    std::vector<int32_t> down_first;
    std::vector<uint32_t> down_weight;  // kDownTaps per target row
};

shrink_plan plan_shrink(int32_t source_columns, int32_t source_rows, int32_t columns, int32_t rows) {
    shrink_plan plan;
    plan.across = taps_for(source_columns, columns);
    plan.down = taps_for(source_rows, rows);
    plan.three_taps =
        source_rows >= kDownTaps && *std::max_element(plan.down.count.begin(), plan.down.count.end()) <= kDownTaps;
    if (!plan.three_taps) return plan;
    plan.down_first.resize(static_cast<size_t>(rows));
    plan.down_weight.assign(static_cast<size_t>(rows) * kDownTaps, 0);
    for (int32_t j = 0; j < rows; ++j) {
        const size_t sj = static_cast<size_t>(j);
        plan.down_first[sj] = std::min(plan.down.first[sj], source_rows - kDownTaps);
        for (int32_t k = 0; k < plan.down.count[sj]; ++k) {
            const int32_t cell = plan.down.first[sj] + k;
            plan.down_weight[sj * kDownTaps + static_cast<size_t>(cell - plan.down_first[sj])] =
                plan.down.weights[static_cast<size_t>(plan.down.offset[sj] + k)];
        }
    }
    return plan;
}

// The rounding of the two passes.
inline uint32_t middle_value(uint32_t sum) {
    return (sum + (1u << (kWeightBits - kMiddleBits - 1))) >> (kWeightBits - kMiddleBits);
}
inline uint8_t cell_value(uint32_t sum) {
    return static_cast<uint8_t>(
        std::min<uint32_t>((sum + (1u << (kWeightBits + kMiddleBits - 1))) >> (kWeightBits + kMiddleBits), 255));
}

// One target column of one plane: `in` is the plane, `gain` (Q15) scales
// the across weights, `middle` holds source_rows values.
void shrink_column(const shrink_plan &plan, const uint8_t *plane, int32_t source_rows, int32_t i, uint32_t gain,
                   uint32_t *middle, uint8_t *column, int32_t rows) {
    std::fill(middle, middle + source_rows, 0u);
    const size_t si = static_cast<size_t>(i);
    const uint32_t *w = plan.across.weights.data() + plan.across.offset[si];
    for (int32_t k = 0; k < plan.across.count[si]; ++k) {
        const uint8_t *in = plane + static_cast<size_t>(plan.across.first[si] + k) * static_cast<size_t>(source_rows);
        const uint32_t weight = (w[k] * gain + (1u << (kWeightBits - 1))) >> kWeightBits;
        for (int32_t y = 0; y < source_rows; ++y) middle[y] += weight * in[y];
    }
    for (int32_t y = 0; y < source_rows; ++y) middle[y] = middle_value(middle[y]);
    for (int32_t j = 0; j < rows; ++j) {
        const size_t sj = static_cast<size_t>(j);
        uint32_t sum = 0;
        if (plan.three_taps) {
            const uint32_t *m = middle + plan.down_first[sj];
            const uint32_t *dw = plan.down_weight.data() + sj * kDownTaps;
            sum = dw[0] * m[0] + dw[1] * m[1] + dw[2] * m[2];
        } else {
            for (int32_t k = 0; k < plan.down.count[sj]; ++k) {
                sum +=
                    plan.down.weights[static_cast<size_t>(plan.down.offset[sj] + k)] * middle[plan.down.first[sj] + k];
            }
        }
        column[j] = cell_value(sum);
    }
}

#if defined(OSTREL_CELL_RESAMPLE_AVX2)
// The same column with AVX2: eight rows at a time across, and the three
// taps of eight target rows gathered at once. The same integers.
__attribute__((target("avx2"))) void shrink_column_avx2(const shrink_plan &plan, const uint8_t *plane,
                                                        int32_t source_rows, int32_t i, uint32_t gain, uint32_t *middle,
                                                        uint8_t *column, int32_t rows) {
    const size_t si = static_cast<size_t>(i);
    const uint32_t *w = plan.across.weights.data() + plan.across.offset[si];
    const int32_t count = plan.across.count[si];
    const __m256i middle_round = _mm256_set1_epi32(1 << (kWeightBits - kMiddleBits - 1));
    int32_t y = 0;
    for (; y + 8 <= source_rows; y += 8) {
        __m256i sum = _mm256_setzero_si256();
        for (int32_t k = 0; k < count; ++k) {
            const uint8_t *in =
                plane + static_cast<size_t>(plan.across.first[si] + k) * static_cast<size_t>(source_rows) + y;
            const uint32_t weight = (w[k] * gain + (1u << (kWeightBits - 1))) >> kWeightBits;
            const __m256i bytes = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(in)));
            sum = _mm256_add_epi32(sum, _mm256_mullo_epi32(bytes, _mm256_set1_epi32(static_cast<int32_t>(weight))));
        }
        sum = _mm256_srli_epi32(_mm256_add_epi32(sum, middle_round), kWeightBits - kMiddleBits);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(middle + y), sum);
    }
    for (; y < source_rows; ++y) {
        uint32_t sum = 0;
        for (int32_t k = 0; k < count; ++k) {
            const uint32_t weight = (w[k] * gain + (1u << (kWeightBits - 1))) >> kWeightBits;
            sum +=
                weight * plane[static_cast<size_t>(plan.across.first[si] + k) * static_cast<size_t>(source_rows) + y];
        }
        middle[y] = middle_value(sum);
    }
    const __m256i cell_round = _mm256_set1_epi32(1 << (kWeightBits + kMiddleBits - 1));
    const __m256i largest = _mm256_set1_epi32(255);
    const __m256i offsets = _mm256_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21);
    int32_t j = 0;
    for (; j + 8 <= rows; j += 8) {
        const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(plan.down_first.data() + j));
        const int32_t *dw =
            reinterpret_cast<const int32_t *>(plan.down_weight.data()) + static_cast<size_t>(j) * kDownTaps;
        __m256i sum = _mm256_setzero_si256();
        for (int32_t k = 0; k < kDownTaps; ++k) {
            const __m256i weights = _mm256_i32gather_epi32(dw + k, offsets, 4);
            const __m256i m = _mm256_i32gather_epi32(reinterpret_cast<const int32_t *>(middle) + k, first, 4);
            sum = _mm256_add_epi32(sum, _mm256_mullo_epi32(weights, m));
        }
        // (sum + round) >> bits, at most 255, as bytes.
        __m256i v = _mm256_srli_epi32(_mm256_add_epi32(sum, cell_round), kWeightBits + kMiddleBits);
        v = _mm256_min_epu32(v, largest);
        const __m128i packed16 = _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
        const __m128i packed8 = _mm_packus_epi16(packed16, packed16);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(column + j), packed8);
    }
    for (; j < rows; ++j) {
        const size_t sj = static_cast<size_t>(j);
        const uint32_t *m = middle + plan.down_first[sj];
        const uint32_t *dw = plan.down_weight.data() + sj * kDownTaps;
        column[j] = cell_value(dw[0] * m[0] + dw[1] * m[1] + dw[2] * m[2]);
    }
}
#endif

}  // namespace

feature_map shrink_cells(const feature_map &source, int32_t columns, int32_t rows, const uint32_t *plane_gains,
                         bool faster) {
    feature_map out;
    if (source.empty() || columns < 1 || rows < 1 || columns > source.columns || rows > source.rows) {
        return out;
    }
    out.channels = source.channels;
    out.columns = columns;
    out.rows = rows;
    out.data.resize(static_cast<size_t>(out.channels) * out.plane_size());
    const shrink_plan plan = plan_shrink(source.columns, source.rows, columns, rows);
#if defined(OSTREL_CELL_RESAMPLE_AVX2)
    const bool vectors = faster && plan.three_taps && cpu_has_avx2();
#else
    const bool vectors = false;
    (void)faster;
#endif
    std::vector<uint32_t> middle(static_cast<size_t>(source.rows));
    for (int32_t c = 0; c < source.channels; ++c) {
        const uint8_t *plane = source.data.data() + source.index(c, 0, 0);
        const uint32_t gain = plane_gains != nullptr ? plane_gains[c] : kWeightOne;
        for (int32_t i = 0; i < columns; ++i) {
            uint8_t *column = out.data.data() + out.index(c, i, 0);
#if defined(OSTREL_CELL_RESAMPLE_AVX2)
            if (vectors) {
                shrink_column_avx2(plan, plane, source.rows, i, gain, middle.data(), column, rows);
                continue;
            }
#endif
            shrink_column(plan, plane, source.rows, i, gain, middle.data(), column, rows);
        }
    }
    return out;
}

}  // namespace ostrel
