#include "accurate/window_sums.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "common/sse2.h"  // OSTREL_SSE2, with <emmintrin.h>
#include "accurate/cpu_features.h"
#if defined(OSTREL_HAVE_X86_VECTOR_LOOPS)
#include <immintrin.h>
#define OSTREL_WINDOW_SUMS_AVX2 1
#endif

namespace ostrel {

namespace {

// Positions computed per block; columns carry this many spare pairs.
constexpr int32_t kBlock = 4;
constexpr double kMaxSumMagnitude = 2147483647.0;

}  // namespace

quantised_weights quantise_weights(const double *weights, int32_t channels, int32_t window_columns,
                                   int32_t window_rows) {
    quantised_weights q;
    q.channels = channels;
    q.window_columns = window_columns;
    q.window_rows = window_rows;
    q.tap_pairs = (window_rows + 1) / 2;
    const size_t n = static_cast<size_t>(channels) * window_columns * window_rows;
    double largest = 0.0;
    double total = 0.0;
    for (size_t i = 0; i < n; ++i) {
        largest = std::max(largest, std::fabs(weights[i]));
        total += std::fabs(weights[i]);
    }
    // The finest power of two that keeps values within 16 bits and every
    // possible sum (bytes up to 255) within 32; rounding adds at most half
    // a unit per weight, so a unit of margin is left for it.
    int32_t exponent = 0;
    const double room = kMaxSumMagnitude / 255.0 - static_cast<double>(n);  // positive for any window a model holds
    if (largest > 0.0 && std::isfinite(total) && room > 0.0) {
        const double limit = std::min(32767.0 / largest, room / total);
        exponent = std::max(-1000, std::min(1000, std::ilogb(limit)));
        while (std::ldexp(largest, exponent) > 32767.0 ||
               (std::ldexp(total, exponent) + static_cast<double>(n)) * 255.0 > kMaxSumMagnitude) {
            --exponent;
        }
    }
    q.scale = std::ldexp(1.0, -exponent);
    q.plain.resize(n);
    for (size_t i = 0; i < n; ++i) {
        q.plain[i] = static_cast<int16_t>(std::lround(std::ldexp(weights[i], exponent)));
    }
    q.pairs.assign(static_cast<size_t>(channels) * window_columns * q.tap_pairs * 2, 0);
    for (int32_t c = 0; c < channels; ++c) {
        for (int32_t r = 0; r < window_columns; ++r) {
            const int16_t *w = q.plain.data() + (static_cast<size_t>(c) * window_columns + r) * window_rows;
            int16_t *p = q.pairs.data() + (static_cast<size_t>(c) * window_columns + r) * q.tap_pairs * 2;
            for (int32_t k = 0; k < window_rows; ++k) p[k] = w[k];  // pairs (w[2j], w[2j+1]) are consecutive
        }
    }
    return q;
}

void window_bytes(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows,
                  uint8_t *out) {
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t r = 0; r < window_columns; ++r) {
            std::memcpy(out, map.data.data() + map.index(c, x + r, y), static_cast<size_t>(window_rows));
            out += window_rows;
        }
    }
}

paired_map pair_cells(const feature_map &map) {
    paired_map out;
    out.channels = map.channels;
    out.columns = map.columns;
    out.rows = map.rows;
    // Room for a last block of sixteen positions (the AVX-512 loop) past
    // the end.
    out.stride = 2 * (map.rows + 4 * kBlock + 2);
    out.data.resize(static_cast<size_t>(map.channels) * map.columns * out.stride);  // written whole below
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t x = 0; x < map.columns; ++x) {
            const uint8_t *column = map.data.data() + map.index(c, x, 0);
            int16_t *p = out.data.data() + (static_cast<size_t>(c) * map.columns + x) * out.stride;
            for (int32_t y = 0; y < map.rows; ++y) {
                p[2 * y] = column[y];
                p[2 * y + 1] = y + 1 < map.rows ? column[y + 1] : 0;
            }
            std::fill(p + 2 * map.rows, p + out.stride, static_cast<int16_t>(0));
        }
    }
    return out;
}

namespace {

#if defined(OSTREL_WINDOW_SUMS_AVX2)
// GCC's predictive commoning would carry loaded cells from one tap to the
// next (a tap's cells are the last tap's moved by one pair) in more
// registers than there are, spilling the sums to memory at every tap.
#if defined(__GNUC__) && !defined(__clang__)
#define OSTREL_SCAN_LOOP_OPTIONS optimize("no-predictive-commoning")
#else
#define OSTREL_SCAN_LOOP_OPTIONS unused
#endif

// N blocks of eight positions (N 1..4) from block b on, every tap of the
// window, with AVX2. Each block's sum is a named register of its own and
// the taps go two at a time: a compiler keeps such sums in registers across
// the window's columns, where an array of them indexed at run time went
// through memory at every tap.
template <int N>
__attribute__((target("avx2"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void avx2_tap(
    const int16_t *in, const int16_t *w, __m256i &s0, __m256i &s1, __m256i &s2, __m256i &s3) {
    int32_t pair_bits;
    std::memcpy(&pair_bits, w, sizeof pair_bits);
    const __m256i wv = _mm256_set1_epi32(pair_bits);
    s0 = _mm256_add_epi32(s0, _mm256_madd_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(in)), wv));
    if constexpr (N > 1) {
        const __m256i cells = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + 16));
        s1 = _mm256_add_epi32(s1, _mm256_madd_epi16(cells, wv));
    }
    if constexpr (N > 2) {
        const __m256i cells = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + 32));
        s2 = _mm256_add_epi32(s2, _mm256_madd_epi16(cells, wv));
    }
    if constexpr (N > 3) {
        const __m256i cells = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + 48));
        s3 = _mm256_add_epi32(s3, _mm256_madd_epi16(cells, wv));
    }
}

template <int N, int TAPS>
__attribute__((target("avx2"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void avx2_blocks(
    const paired_map &map, const quantised_weights &weights, int32_t x, int32_t first_row, int32_t b,
    int32_t *accumulator) {
    const int32_t taps = TAPS > 0 ? TAPS : weights.tap_pairs;
    __m256i s0 = _mm256_setzero_si256(), s1 = _mm256_setzero_si256(), s2 = _mm256_setzero_si256(),
            s3 = _mm256_setzero_si256();
    for (int32_t c = 0; c < weights.channels; ++c) {
        for (int32_t r = 0; r < weights.window_columns; ++r) {
            const int16_t *column = map.data.data() +
                                    (static_cast<size_t>(c) * map.columns + x + r) * static_cast<size_t>(map.stride) +
                                    2 * first_row + 16 * b;
            const int16_t *w = weights.pairs.data() + (static_cast<size_t>(c) * weights.window_columns + r) * taps * 2;
            if constexpr (TAPS > 0) {
                // Two taps a turn: unrolled whole, the cells that taps four
                // apart share stay loaded in more registers than there are.
#pragma GCC unroll 2
                for (int32_t j = 0; j < TAPS; ++j) avx2_tap<N>(column + 4 * j, w + 2 * j, s0, s1, s2, s3);
            } else {
                int32_t j = 0;
                for (; j + 1 < taps; j += 2) {
                    avx2_tap<N>(column + 4 * j, w + 2 * j, s0, s1, s2, s3);
                    avx2_tap<N>(column + 4 * j + 4, w + 2 * j + 2, s0, s1, s2, s3);
                }
                if (j < taps) avx2_tap<N>(column + 4 * j, w + 2 * j, s0, s1, s2, s3);
            }
        }
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(accumulator + 8 * b), s0);
    if constexpr (N > 1) _mm256_storeu_si256(reinterpret_cast<__m256i *>(accumulator + 8 * (b + 1)), s1);
    if constexpr (N > 2) _mm256_storeu_si256(reinterpret_cast<__m256i *>(accumulator + 8 * (b + 2)), s2);
    if constexpr (N > 3) _mm256_storeu_si256(reinterpret_cast<__m256i *>(accumulator + 8 * (b + 3)), s3);
}

// avx2_blocks with the window's taps known to the compiler for the usual
// window heights (less loop work per window column), else counted at run
// time.
template <int N>
__attribute__((target("avx2"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void avx2_blocks_any(
    const paired_map &map, const quantised_weights &weights, int32_t x, int32_t first_row, int32_t b,
    int32_t *accumulator) {
    switch (weights.tap_pairs) {
        case 5: avx2_blocks<N, 5>(map, weights, x, first_row, b, accumulator); return;
        case 6: avx2_blocks<N, 6>(map, weights, x, first_row, b, accumulator); return;
        case 7: avx2_blocks<N, 7>(map, weights, x, first_row, b, accumulator); return;
        case 8: avx2_blocks<N, 8>(map, weights, x, first_row, b, accumulator); return;
        case 9: avx2_blocks<N, 9>(map, weights, x, first_row, b, accumulator); return;
        case 10: avx2_blocks<N, 10>(map, weights, x, first_row, b, accumulator); return;
        default: avx2_blocks<N, 0>(map, weights, x, first_row, b, accumulator); return;
    }
}

// The column loop with eight positions per instruction, for processors
// that have AVX2: 32 positions at a time stay in four registers while every
// tap of the window passes, so the sums are written once. The same integer
// sums as the loop below.
__attribute__((target("avx2"), OSTREL_SCAN_LOOP_OPTIONS)) void column_sums_avx2(const paired_map &map,
                                                                                const quantised_weights &weights,
                                                                                int32_t x, int32_t first_row,
                                                                                int32_t blocks8, int32_t *accumulator) {
    int32_t b = 0;
    for (; b + 4 <= blocks8; b += 4) avx2_blocks_any<4>(map, weights, x, first_row, b, accumulator);
    switch (blocks8 - b) {
        case 3: avx2_blocks_any<3>(map, weights, x, first_row, b, accumulator); break;
        case 2: avx2_blocks_any<2>(map, weights, x, first_row, b, accumulator); break;
        case 1: avx2_blocks_any<1>(map, weights, x, first_row, b, accumulator); break;
        default: break;
    }
}

// N blocks of eight positions for K classifiers of one window shape (K
// 1..4), as vnni_class_blocks below: each tap's cells are loaded once for
// every classifier. K * N sums, N loaded blocks and a weight stay in the
// sixteen registers.
template <int K, int N>
__attribute__((target("avx2"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void avx2_class_blocks(
    const paired_map &map, const quantised_weights *const *weights, int32_t x, int32_t first_row, int32_t b,
    int32_t *const *accumulators) {
    const quantised_weights &shape = *weights[0];
    const int32_t taps = shape.tap_pairs;
    __m256i s[K][N];
#pragma GCC unroll 4
    for (int k = 0; k < K; ++k) {
#pragma GCC unroll 8
        for (int n = 0; n < N; ++n) s[k][n] = _mm256_setzero_si256();
    }
    for (int32_t c = 0; c < shape.channels; ++c) {
        for (int32_t r = 0; r < shape.window_columns; ++r) {
            const size_t tap_column = static_cast<size_t>(c) * shape.window_columns + r;
            const int16_t *column = map.data.data() +
                                    (static_cast<size_t>(c) * map.columns + x + r) * static_cast<size_t>(map.stride) +
                                    2 * first_row + 16 * b;
            const int16_t *w[K];
#pragma GCC unroll 4
            for (int k = 0; k < K; ++k) w[k] = weights[k]->pairs.data() + tap_column * taps * 2;
            for (int32_t j = 0; j < taps; ++j) {
                __m256i cells[N];
#pragma GCC unroll 8
                for (int n = 0; n < N; ++n) {
                    cells[n] = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(column + 4 * j + 16 * n));
                }
#pragma GCC unroll 4
                for (int k = 0; k < K; ++k) {
                    int32_t pair_bits;
                    std::memcpy(&pair_bits, w[k] + 2 * j, sizeof pair_bits);
                    const __m256i wv = _mm256_set1_epi32(pair_bits);
#pragma GCC unroll 8
                    for (int n = 0; n < N; ++n) s[k][n] = _mm256_add_epi32(s[k][n], _mm256_madd_epi16(cells[n], wv));
                }
            }
        }
    }
#pragma GCC unroll 4
    for (int k = 0; k < K; ++k) {
#pragma GCC unroll 8
        for (int n = 0; n < N; ++n) {
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(accumulators[k] + 8 * (b + n)), s[k][n]);
        }
    }
}

// column_sums_avx2 for K classifiers of one window shape at once.
// Blocks a turn: enough sums to hide the multiply-add's latency, few enough
// for the registers (K * N + N + 1 of 16).
template <int K>
constexpr int kAvx2ClassBlocks = K <= 2   ? 4
                                 : K == 3 ? 3
                                          : 2;

// The last `left` blocks (fewer than M).
template <int K, int M>
__attribute__((target("avx2"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void avx2_class_tail(
    const paired_map &map, const quantised_weights *const *weights, int32_t x, int32_t first_row, int32_t b,
    int32_t left, int32_t *const *accumulators) {
    if constexpr (M > 1) {
        if (left == M - 1) {
            avx2_class_blocks<K, M - 1>(map, weights, x, first_row, b, accumulators);
        } else {
            avx2_class_tail<K, M - 1>(map, weights, x, first_row, b, left, accumulators);
        }
    }
}

template <int K>
__attribute__((target("avx2"), OSTREL_SCAN_LOOP_OPTIONS)) void column_class_sums_avx2(
    const paired_map &map, const quantised_weights *const *weights, int32_t x, int32_t first_row, int32_t blocks8,
    int32_t *const *accumulators) {
    constexpr int N = kAvx2ClassBlocks<K>;
    int32_t b = 0;
    for (; b + N <= blocks8; b += N) avx2_class_blocks<K, N>(map, weights, x, first_row, b, accumulators);
    avx2_class_tail<K, N>(map, weights, x, first_row, b, blocks8 - b, accumulators);
}

// N blocks of sixteen positions (N 1..4) from block b on with the fused
// multiply-add of pairs (vpdpwssd), for processors with AVX-512 VNNI; kept
// in registers as in avx2_blocks. vpdpwssd adds the two products and the
// accumulator exactly (no saturation), so the sums are the integers of the
// loops below.
template <int N>
__attribute__((target("avx512f,avx512vnni"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void vnni_tap(
    const int16_t *in, const int16_t *w, __m512i &s0, __m512i &s1, __m512i &s2, __m512i &s3) {
    int32_t pair_bits;
    std::memcpy(&pair_bits, w, sizeof pair_bits);
    const __m512i wv = _mm512_set1_epi32(pair_bits);
    s0 = _mm512_dpwssd_epi32(s0, _mm512_loadu_si512(in), wv);
    if constexpr (N > 1) s1 = _mm512_dpwssd_epi32(s1, _mm512_loadu_si512(in + 32), wv);
    if constexpr (N > 2) s2 = _mm512_dpwssd_epi32(s2, _mm512_loadu_si512(in + 64), wv);
    if constexpr (N > 3) s3 = _mm512_dpwssd_epi32(s3, _mm512_loadu_si512(in + 96), wv);
}

template <int N, int TAPS>
__attribute__((target("avx512f,avx512vnni"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void vnni_blocks(
    const paired_map &map, const quantised_weights &weights, int32_t x, int32_t first_row, int32_t b,
    int32_t *accumulator) {
    const int32_t taps = TAPS > 0 ? TAPS : weights.tap_pairs;
    __m512i s0 = _mm512_setzero_si512(), s1 = _mm512_setzero_si512(), s2 = _mm512_setzero_si512(),
            s3 = _mm512_setzero_si512();
    for (int32_t c = 0; c < weights.channels; ++c) {
        for (int32_t r = 0; r < weights.window_columns; ++r) {
            const int16_t *column = map.data.data() +
                                    (static_cast<size_t>(c) * map.columns + x + r) * static_cast<size_t>(map.stride) +
                                    2 * first_row + 32 * b;
            const int16_t *w = weights.pairs.data() + (static_cast<size_t>(c) * weights.window_columns + r) * taps * 2;
            if constexpr (TAPS > 0) {
                // Two taps a turn: unrolled whole, the cells that taps four
                // apart share stay loaded in more registers than there are.
#pragma GCC unroll 2
                for (int32_t j = 0; j < TAPS; ++j) vnni_tap<N>(column + 4 * j, w + 2 * j, s0, s1, s2, s3);
            } else {
                int32_t j = 0;
                for (; j + 1 < taps; j += 2) {
                    vnni_tap<N>(column + 4 * j, w + 2 * j, s0, s1, s2, s3);
                    vnni_tap<N>(column + 4 * j + 4, w + 2 * j + 2, s0, s1, s2, s3);
                }
                if (j < taps) vnni_tap<N>(column + 4 * j, w + 2 * j, s0, s1, s2, s3);
            }
        }
    }
    _mm512_storeu_si512(accumulator + 16 * b, s0);
    if constexpr (N > 1) _mm512_storeu_si512(accumulator + 16 * (b + 1), s1);
    if constexpr (N > 2) _mm512_storeu_si512(accumulator + 16 * (b + 2), s2);
    if constexpr (N > 3) _mm512_storeu_si512(accumulator + 16 * (b + 3), s3);
}

// vnni_blocks with the window's taps known to the compiler for the usual
// window heights (less loop work per window column), else counted at run
// time.
template <int N>
__attribute__((target("avx512f,avx512vnni"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void vnni_blocks_any(
    const paired_map &map, const quantised_weights &weights, int32_t x, int32_t first_row, int32_t b,
    int32_t *accumulator) {
    switch (weights.tap_pairs) {
        case 5: vnni_blocks<N, 5>(map, weights, x, first_row, b, accumulator); return;
        case 6: vnni_blocks<N, 6>(map, weights, x, first_row, b, accumulator); return;
        case 7: vnni_blocks<N, 7>(map, weights, x, first_row, b, accumulator); return;
        case 8: vnni_blocks<N, 8>(map, weights, x, first_row, b, accumulator); return;
        case 9: vnni_blocks<N, 9>(map, weights, x, first_row, b, accumulator); return;
        case 10: vnni_blocks<N, 10>(map, weights, x, first_row, b, accumulator); return;
        default: vnni_blocks<N, 0>(map, weights, x, first_row, b, accumulator); return;
    }
}

// Sixteen positions per instruction, for processors with AVX-512 VNNI: 64
// positions stay in four registers while every tap passes.
__attribute__((target("avx512f,avx512vnni"), OSTREL_SCAN_LOOP_OPTIONS)) void column_sums_vnni(
    const paired_map &map, const quantised_weights &weights, int32_t x, int32_t first_row, int32_t blocks16,
    int32_t *accumulator) {
    int32_t b = 0;
    for (; b + 4 <= blocks16; b += 4) vnni_blocks_any<4>(map, weights, x, first_row, b, accumulator);
    switch (blocks16 - b) {
        case 3: vnni_blocks_any<3>(map, weights, x, first_row, b, accumulator); break;
        case 2: vnni_blocks_any<2>(map, weights, x, first_row, b, accumulator); break;
        case 1: vnni_blocks_any<1>(map, weights, x, first_row, b, accumulator); break;
        default: break;
    }
}

// N blocks of sixteen positions for K classifiers of one window shape: each
// tap's cells are loaded once and multiplied by every classifier's weights,
// so the loads are shared, and the K * N sums are independent chains of
// multiply-adds, enough to hide their latency. The sums, N loaded blocks
// and a weight stay in registers.
template <int K, int N>
__attribute__((target("avx512f,avx512vnni"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void vnni_class_blocks(
    const paired_map &map, const quantised_weights *const *weights, int32_t x, int32_t first_row, int32_t b,
    int32_t *const *accumulators) {
    const quantised_weights &shape = *weights[0];
    const int32_t taps = shape.tap_pairs;
    __m512i s[K][N];
#pragma GCC unroll 6
    for (int k = 0; k < K; ++k) {
#pragma GCC unroll 8
        for (int n = 0; n < N; ++n) s[k][n] = _mm512_setzero_si512();
    }
    for (int32_t c = 0; c < shape.channels; ++c) {
        for (int32_t r = 0; r < shape.window_columns; ++r) {
            const size_t tap_column = static_cast<size_t>(c) * shape.window_columns + r;
            const int16_t *column = map.data.data() +
                                    (static_cast<size_t>(c) * map.columns + x + r) * static_cast<size_t>(map.stride) +
                                    2 * first_row + 32 * b;
            const int16_t *w[K];
#pragma GCC unroll 6
            for (int k = 0; k < K; ++k) w[k] = weights[k]->pairs.data() + tap_column * taps * 2;
            for (int32_t j = 0; j < taps; ++j) {
                __m512i cells[N];
#pragma GCC unroll 8
                for (int n = 0; n < N; ++n) cells[n] = _mm512_loadu_si512(column + 4 * j + 32 * n);
#pragma GCC unroll 6
                for (int k = 0; k < K; ++k) {
                    int32_t pair_bits;
                    std::memcpy(&pair_bits, w[k] + 2 * j, sizeof pair_bits);
                    const __m512i wv = _mm512_set1_epi32(pair_bits);
#pragma GCC unroll 8
                    for (int n = 0; n < N; ++n) s[k][n] = _mm512_dpwssd_epi32(s[k][n], cells[n], wv);
                }
            }
        }
    }
#pragma GCC unroll 6
    for (int k = 0; k < K; ++k) {
#pragma GCC unroll 8
        for (int n = 0; n < N; ++n) _mm512_storeu_si512(accumulators[k] + 16 * (b + n), s[k][n]);
    }
}

// column_sums_vnni for K classifiers of one window shape at once.
// Blocks a turn: at least sixteen sums, so that the multiply-add's latency
// is hidden, within the registers (K * N + N + 1 of 32).
template <int K>
constexpr int kVnniClassBlocks = K <= 2   ? 8
                                 : K == 3 ? 6
                                 : K == 4 ? 5
                                          : 4;

// The last `left` blocks (fewer than M).
template <int K, int M>
__attribute__((target("avx512f,avx512vnni"), always_inline, OSTREL_SCAN_LOOP_OPTIONS)) inline void vnni_class_tail(
    const paired_map &map, const quantised_weights *const *weights, int32_t x, int32_t first_row, int32_t b,
    int32_t left, int32_t *const *accumulators) {
    if constexpr (M > 1) {
        if (left == M - 1) {
            vnni_class_blocks<K, M - 1>(map, weights, x, first_row, b, accumulators);
        } else {
            vnni_class_tail<K, M - 1>(map, weights, x, first_row, b, left, accumulators);
        }
    }
}

template <int K>
__attribute__((target("avx512f,avx512vnni"), OSTREL_SCAN_LOOP_OPTIONS)) void column_class_sums_vnni(
    const paired_map &map, const quantised_weights *const *weights, int32_t x, int32_t first_row, int32_t blocks16,
    int32_t *const *accumulators) {
    constexpr int N = kVnniClassBlocks<K>;
    int32_t b = 0;
    for (; b + N <= blocks16; b += N) vnni_class_blocks<K, N>(map, weights, x, first_row, b, accumulators);
    vnni_class_tail<K, N>(map, weights, x, first_row, b, blocks16 - b, accumulators);
}
#endif

}  // namespace

namespace {

// The loop a scan takes.
struct scan_choice {
    bool vnni = false;
    bool avx2 = false;
    bool sse2 = false;
    // Positions one call of the loop computes at a time (a row range starts
    // at a multiple of it, so that it reads no further than the whole column).
    int32_t unit() const { return vnni ? 16 : avx2 ? 8 : kBlock; }
};

scan_choice choose_loop(const paired_map &map, const quantised_weights &weights, sums_path path, int32_t grid_rows) {
    scan_choice choice;
    const int32_t blocks = (grid_rows + kBlock - 1) / kBlock;
#if defined(OSTREL_WINDOW_SUMS_AVX2)
    choice.vnni = (path == sums_path::fastest || path == sums_path::avx512_vnni) && cpu_has_avx512_vnni() &&
                  map.stride >= 2 * (4 * ((blocks + 3) / 4) * kBlock + weights.window_rows + 1);
    choice.avx2 = !choice.vnni &&
                  (path == sums_path::fastest || path == sums_path::avx2 || path == sums_path::avx512_vnni) &&
                  cpu_has_avx2() && map.stride >= 2 * (2 * ((blocks + 1) / 2) * kBlock + weights.window_rows + 1);
#else
    (void)map;
    (void)weights;
    (void)blocks;
#endif
#if defined(OSTREL_SSE2)
    choice.sse2 = path != sums_path::portable;
#endif
    return choice;
}

// The sums of column x's positions first..end-1, written to out[first..end-1]
// (out: the grid's column). `accumulator` holds a whole column's blocks.
void column_sums(const paired_map &map, const quantised_weights &weights, int32_t x, int32_t first, int32_t end,
                 const scan_choice &choice, std::vector<int32_t> &accumulator, int32_t *out) {
    const int32_t unit = choice.unit();
    const int32_t start = first / unit * unit;
    const int32_t units = (end - start + unit - 1) / unit;
#if defined(OSTREL_WINDOW_SUMS_AVX2)
    // These two write every sum of their blocks (no accumulator to clear).
    if (choice.vnni) {
        column_sums_vnni(map, weights, x, start, units, accumulator.data());
        std::copy(accumulator.begin() + (first - start), accumulator.begin() + (end - start), out + first);
        return;
    }
    if (choice.avx2) {
        column_sums_avx2(map, weights, x, start, units, accumulator.data());
        std::copy(accumulator.begin() + (first - start), accumulator.begin() + (end - start), out + first);
        return;
    }
#endif
    const int32_t blocks = units;  // unit == kBlock here
    std::fill(accumulator.begin(), accumulator.begin() + static_cast<std::ptrdiff_t>(blocks) * kBlock, 0);
    const int32_t taps = weights.tap_pairs;
    for (int32_t c = 0; c < weights.channels; ++c) {
        for (int32_t r = 0; r < weights.window_columns; ++r) {
            const int16_t *column = map.data.data() +
                                    (static_cast<size_t>(c) * map.columns + x + r) * static_cast<size_t>(map.stride) +
                                    2 * start;
            const int16_t *w = weights.pairs.data() + (static_cast<size_t>(c) * weights.window_columns + r) * taps * 2;
            for (int32_t j = 0; j < taps; ++j) {
                const int16_t *in = column + 4 * j;  // pair at row y + 2j starts at 2 * (y + 2j)
#if defined(OSTREL_SSE2)
                if (choice.sse2) {
                    int32_t pair_bits;
                    std::memcpy(&pair_bits, w + 2 * j, sizeof pair_bits);
                    const __m128i wv = _mm_set1_epi32(pair_bits);
                    for (int32_t b = 0; b < blocks; ++b) {
                        const __m128i cells = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + 2 * kBlock * b));
                        __m128i *acc = reinterpret_cast<__m128i *>(accumulator.data() + kBlock * b);
                        _mm_storeu_si128(acc, _mm_add_epi32(_mm_loadu_si128(acc), _mm_madd_epi16(cells, wv)));
                    }
                    continue;
                }
#endif
                const int32_t w0 = w[2 * j];
                const int32_t w1 = w[2 * j + 1];
                for (int32_t y = 0; y < blocks * kBlock; ++y) {
                    accumulator[static_cast<size_t>(y)] += in[2 * y] * w0 + in[2 * y + 1] * w1;
                }
            }
        }
    }
    std::copy(accumulator.begin() + (first - start), accumulator.begin() + (end - start), out + first);
}

// An empty grid when no window fits, else one of the right size, every
// sum `fill`.
// The grid's sizes, unless no window fits.
bool shape_grid(const paired_map &map, const quantised_weights &weights, window_sum_grid *grid) {
    if (map.channels != weights.channels || weights.window_columns < 1 || weights.window_rows < 1 ||
        map.columns < weights.window_columns || map.rows < weights.window_rows) {
        return false;
    }
    grid->columns = map.columns - weights.window_columns + 1;
    grid->rows = map.rows - weights.window_rows + 1;
    return true;
}

bool size_grid(const paired_map &map, const quantised_weights &weights, window_sum_grid *grid, int32_t fill = 0) {
    if (!shape_grid(map, weights, grid)) return false;
    grid->sums.assign(static_cast<size_t>(grid->columns) * grid->rows, fill);
    return true;
}

// size_grid for a grid whose every sum is written next: its buffer is kept,
// not filled.
bool size_grid_unfilled(const paired_map &map, const quantised_weights &weights, window_sum_grid *grid) {
    if (!shape_grid(map, weights, grid)) return false;
    grid->sums.resize(static_cast<size_t>(grid->columns) * grid->rows);
    return true;
}

std::vector<int32_t> column_accumulator(const window_sum_grid &grid) {
    const int32_t blocks = (grid.rows + kBlock - 1) / kBlock;
    return std::vector<int32_t>(static_cast<size_t>(blocks) * kBlock + 4 * kBlock);
}

}  // namespace

window_sum_grid window_sums(const paired_map &map, const quantised_weights &weights, sums_path path) {
    window_sum_grid grid;
    if (!size_grid(map, weights, &grid)) return grid;
    const scan_choice choice = choose_loop(map, weights, path, grid.rows);
    std::vector<int32_t> accumulator = column_accumulator(grid);
    for (int32_t x = 0; x < grid.columns; ++x) {
        column_sums(map, weights, x, 0, grid.rows, choice, accumulator,
                    grid.sums.data() + static_cast<std::ptrdiff_t>(x) * grid.rows);
    }
    return grid;
}

namespace {

// A row range [first, end) of a grid column.
using row_run = std::pair<int32_t, int32_t>;

// The runs of odd column x of a coarse-to-fine grid whose even columns are
// done. near[y]: a position of row y in an even column beside reaches the
// refine level (least: least_sum_reaching of it). The column is computed in
// the rows within two of such a row (its 3 x 3 neighbourhood, and the
// neighbours above and below of what that adds); runs less than a loop's
// unit apart are joined.
void odd_column_runs(const window_sum_grid &grid, int32_t x, int64_t least, int32_t unit, std::vector<uint8_t> &near,
                     std::vector<row_run> *runs) {
    runs->clear();
    const int32_t rows = grid.rows;
    if (least > INT32_MAX) return;
    const int32_t least32 = static_cast<int32_t>(std::max<int64_t>(least, INT32_MIN));
    const int32_t *left = grid.sums.data() + static_cast<std::ptrdiff_t>(x - 1) * rows;
    const int32_t *right = x + 1 < grid.columns ? left + 2 * static_cast<std::ptrdiff_t>(rows) : left;
    near.resize(static_cast<size_t>(rows));
    for (int32_t y = 0; y < rows; ++y) {
        near[static_cast<size_t>(y)] = static_cast<uint8_t>((left[y] >= least32) | (right[y] >= least32));
    }
    int32_t run_first = -1, run_end = -1;
    for (int32_t y = 0; y < rows; ++y) {
        if (!near[static_cast<size_t>(y)]) continue;
        const int32_t first = std::max(0, y - 2);
        const int32_t end = std::min(rows, y + 3);
        if (run_first >= 0 && first <= run_end + unit) {
            run_end = std::max(run_end, end);
            continue;
        }
        if (run_first >= 0) runs->emplace_back(run_first, run_end);
        run_first = first;
        run_end = end;
    }
    if (run_first >= 0) runs->emplace_back(run_first, run_end);
}

// The odd columns of a coarse-to-fine grid whose even columns are done.
void refine_odd_columns(const paired_map &map, const quantised_weights &weights, double refine_from,
                        const scan_choice &choice, std::vector<int32_t> &accumulator, window_sum_grid *grid) {
    std::vector<uint8_t> near;
    std::vector<row_run> runs;
    const int64_t least = least_sum_reaching(refine_from);
    for (int32_t x = 1; x < grid->columns; x += 2) {
        odd_column_runs(*grid, x, least, choice.unit(), near, &runs);
        int32_t *out = grid->sums.data() + static_cast<std::ptrdiff_t>(x) * grid->rows;
        for (const row_run &run : runs) column_sums(map, weights, x, run.first, run.second, choice, accumulator, out);
    }
}

}  // namespace

window_sum_grid window_sums_coarse_to_fine(const paired_map &map, const quantised_weights &weights, double refine_from,
                                           sums_path path) {
    window_sum_grid grid;
    if (!size_grid(map, weights, &grid, kSkippedSum)) return grid;  // what an odd column is not computed
    const scan_choice choice = choose_loop(map, weights, path, grid.rows);
    std::vector<int32_t> accumulator = column_accumulator(grid);
    for (int32_t x = 0; x < grid.columns; x += 2) {
        column_sums(map, weights, x, 0, grid.rows, choice, accumulator,
                    grid.sums.data() + static_cast<std::ptrdiff_t>(x) * grid.rows);
    }
    refine_odd_columns(map, weights, refine_from, choice, accumulator, &grid);
    return grid;
}

namespace {

// Whether two classifiers take windows of one shape (then one scan serves
// both).
bool same_window(const quantised_weights &a, const quantised_weights &b) {
    return a.channels == b.channels && a.window_columns == b.window_columns && a.window_rows == b.window_rows;
}

// Classifiers scanned together at most: what the loops keep in registers
// (six times four blocks of sums of the 32 AVX-512 registers, four times two
// of the 16 AVX2 ones; see kVnniClassBlocks and kAvx2ClassBlocks).
constexpr int32_t kClassesPerVnniScan = 6;
constexpr int32_t kClassesPerAvx2Scan = 4;

// column_sums for `count` classifiers of one window shape: the loop that
// shares each window's loads among classifiers where there is one, else
// each classifier's own. accumulator_data[k] is classifier k's column of
// blocks; `scratch` (at least count columns) serves the other loops.
void column_class_sums(const paired_map &map, const quantised_weights *const *weights, int32_t count, int32_t x,
                       int32_t first, int32_t end, const scan_choice &choice,
                       std::vector<std::vector<int32_t>> &scratch, int32_t *const *accumulator_data,
                       int32_t *const *outs) {
#if defined(OSTREL_WINDOW_SUMS_AVX2)
    if (choice.vnni || choice.avx2) {
        const int32_t unit = choice.unit();
        const int32_t start = first / unit * unit;
        const int32_t units = (end - start + unit - 1) / unit;
        const int32_t per_scan = choice.vnni ? kClassesPerVnniScan : kClassesPerAvx2Scan;
        for (int32_t k = 0; k < count; k += per_scan) {
            const int32_t chunk = std::min(per_scan, count - k);
            const quantised_weights *const *w = weights + k;
            int32_t *const *a = accumulator_data + k;
            if (choice.vnni) {
                switch (chunk) {
                    case 6: column_class_sums_vnni<6>(map, w, x, start, units, a); break;
                    case 5: column_class_sums_vnni<5>(map, w, x, start, units, a); break;
                    case 4: column_class_sums_vnni<4>(map, w, x, start, units, a); break;
                    case 3: column_class_sums_vnni<3>(map, w, x, start, units, a); break;
                    case 2: column_class_sums_vnni<2>(map, w, x, start, units, a); break;
                    default: column_sums_vnni(map, *w[0], x, start, units, a[0]); break;
                }
            } else {
                switch (chunk) {
                    case 4: column_class_sums_avx2<4>(map, w, x, start, units, a); break;
                    case 3: column_class_sums_avx2<3>(map, w, x, start, units, a); break;
                    case 2: column_class_sums_avx2<2>(map, w, x, start, units, a); break;
                    default: column_sums_avx2(map, *w[0], x, start, units, a[0]); break;
                }
            }
        }
        for (int32_t k = 0; k < count; ++k) {
            std::copy(accumulator_data[k] + (first - start), accumulator_data[k] + (end - start), outs[k] + first);
        }
        return;
    }
#else
    (void)accumulator_data;
#endif
    for (int32_t k = 0; k < count; ++k) {
        column_sums(map, *weights[k], x, first, end, choice, scratch[static_cast<size_t>(k)], outs[k]);
    }
}

}  // namespace

void window_sums_classes(const paired_map &map, const std::vector<const quantised_weights *> &weights,
                         const std::vector<double> &refine_from, sums_path path, std::vector<window_sum_grid> *grids) {
    const size_t count = weights.size();
    grids->resize(count);
    if (count == 0) return;
    // -infinity: every window (every position reaches it).
    const auto whole = [&](size_t k) {
        return refine_from.empty() || refine_from[k] == -std::numeric_limits<double>::infinity();
    };
    bool shared = true;
    for (size_t k = 1; k < count; ++k) shared = shared && same_window(*weights[0], *weights[k]);
    if (!shared) {
        for (size_t k = 0; k < count; ++k) {
            (*grids)[k] = whole(k) ? window_sums(map, *weights[k], path)
                                   : window_sums_coarse_to_fine(map, *weights[k], refine_from[k], path);
        }
        return;
    }
    for (size_t k = 0; k < count; ++k) {
        window_sum_grid &grid = (*grids)[k];
        if (!size_grid_unfilled(map, *weights[k], &grid)) {
            for (window_sum_grid &g : *grids) g = window_sum_grid{};  // one shape: no window fits for any
            return;
        }
    }
    const int32_t columns = (*grids)[0].columns;
    const int32_t rows = (*grids)[0].rows;
    const scan_choice choice = choose_loop(map, *weights[0], path, rows);
    std::vector<std::vector<int32_t>> accumulators(count, column_accumulator((*grids)[0]));
    std::vector<int32_t *> accumulator_data(count);
    for (size_t k = 0; k < count; ++k) accumulator_data[k] = accumulators[k].data();
    // Even columns: every classifier; odd ones: those that take every
    // window, together, then each coarse-to-fine one in its own runs.
    std::vector<const quantised_weights *> members;
    std::vector<int32_t *> member_accumulators;
    std::vector<int32_t *> outs;
    for (int32_t x = 0; x < columns; ++x) {
        members.clear();
        member_accumulators.clear();
        outs.clear();
        for (size_t k = 0; k < count; ++k) {
            if (x % 2 == 1 && !whole(k)) continue;
            members.push_back(weights[k]);
            member_accumulators.push_back(accumulator_data[k]);
            outs.push_back((*grids)[k].sums.data() + static_cast<std::ptrdiff_t>(x) * rows);
        }
        if (members.empty()) continue;
        column_class_sums(map, members.data(), static_cast<int32_t>(members.size()), x, 0, rows, choice, accumulators,
                          member_accumulators.data(), outs.data());
    }
    // The coarse-to-fine classifiers' odd columns: each one's own runs, the
    // union of them scanned together into a column of scratch, whence each
    // classifier takes its runs' sums.
    std::vector<size_t> refined;
    std::vector<int64_t> least;
    for (size_t k = 0; k < count; ++k) {
        if (whole(k)) continue;
        refined.push_back(k);
        least.push_back(least_sum_reaching(refine_from[k]));
        window_sum_grid &grid = (*grids)[k];
        for (int32_t x = 1; x < columns; x += 2) {  // what an odd column is not computed
            std::fill_n(grid.sums.begin() + static_cast<std::ptrdiff_t>(x) * rows, rows, kSkippedSum);
        }
    }
    std::vector<std::vector<row_run>> runs(refined.size());
    std::vector<std::vector<int32_t>> scratch_columns(refined.size(), std::vector<int32_t>(static_cast<size_t>(rows)));
    std::vector<row_run> all_runs;
    std::vector<uint8_t> near;
    for (int32_t x = 1; x < columns; x += 2) {
        all_runs.clear();
        for (size_t i = 0; i < refined.size(); ++i) {
            odd_column_runs((*grids)[refined[i]], x, least[i], choice.unit(), near, &runs[i]);
            all_runs.insert(all_runs.end(), runs[i].begin(), runs[i].end());
        }
        std::sort(all_runs.begin(), all_runs.end());
        for (size_t r = 0; r < all_runs.size();) {
            // Runs that overlap, or lie less than a loop's unit apart, are
            // scanned as one.
            const int32_t first = all_runs[r].first;
            int32_t end = all_runs[r].second;
            for (++r; r < all_runs.size() && all_runs[r].first <= end + choice.unit(); ++r) {
                end = std::max(end, all_runs[r].second);
            }
            members.clear();
            member_accumulators.clear();
            outs.clear();
            for (size_t i = 0; i < refined.size(); ++i) {
                const bool meets = std::any_of(runs[i].begin(), runs[i].end(), [&](const row_run &own) {
                    return own.first < end && own.second > first;
                });
                if (!meets) continue;
                members.push_back(weights[refined[i]]);
                member_accumulators.push_back(accumulator_data[refined[i]]);
                outs.push_back(scratch_columns[i].data());
            }
            column_class_sums(map, members.data(), static_cast<int32_t>(members.size()), x, first, end, choice,
                              accumulators, member_accumulators.data(), outs.data());
        }
        for (size_t i = 0; i < refined.size(); ++i) {
            int32_t *out = (*grids)[refined[i]].sums.data() + static_cast<std::ptrdiff_t>(x) * rows;
            for (const row_run &own : runs[i]) {
                std::copy(scratch_columns[i].begin() + own.first, scratch_columns[i].begin() + own.second,
                          out + own.first);
            }
        }
    }
}

int64_t least_sum_reaching(double value) {
    if (std::isnan(value) || value > 2147483647.0) return INT64_C(2147483648);
    if (value <= -2147483648.0) return INT32_MIN;
    return static_cast<int64_t>(std::ceil(value));  // exact: |value| < 2^31
}

bool sums_path_available(sums_path path) {
    switch (path) {
        case sums_path::portable:
        case sums_path::fastest: return true;
        case sums_path::sse2:
#if defined(OSTREL_SSE2)
            return true;
#else
            return false;
#endif
        case sums_path::avx2:
#if defined(OSTREL_WINDOW_SUMS_AVX2)
            return cpu_has_avx2();
#else
            return false;
#endif
        case sums_path::avx512_vnni:
#if defined(OSTREL_WINDOW_SUMS_AVX2)
            return cpu_has_avx512_vnni();
#else
            return false;
#endif
    }
    return false;
}

std::vector<sums_path> available_sums_paths() {
    std::vector<sums_path> out;
    for (const sums_path p :
         {sums_path::portable, sums_path::sse2, sums_path::avx2, sums_path::avx512_vnni, sums_path::fastest}) {
        if (sums_path_available(p)) out.push_back(p);
    }
    return out;
}

window_sum_grid window_sums_reference(const feature_map &map, const quantised_weights &weights) {
    window_sum_grid grid;
    if (map.channels != weights.channels || weights.window_columns < 1 || weights.window_rows < 1 ||
        map.columns < weights.window_columns || map.rows < weights.window_rows) {
        return grid;
    }
    grid.columns = map.columns - weights.window_columns + 1;
    grid.rows = map.rows - weights.window_rows + 1;
    grid.sums.assign(static_cast<size_t>(grid.columns) * grid.rows, 0);
    for (int32_t x = 0; x < grid.columns; ++x) {
        for (int32_t y = 0; y < grid.rows; ++y) {
            int64_t sum = 0;
            const int16_t *w = weights.plain.data();
            for (int32_t c = 0; c < map.channels; ++c) {
                for (int32_t r = 0; r < weights.window_columns; ++r) {
                    for (int32_t k = 0; k < weights.window_rows; ++k) sum += map.at(c, x + r, y + k) * *w++;
                }
            }
            grid.sums[static_cast<size_t>(x) * grid.rows + y] = static_cast<int32_t>(sum);
        }
    }
    return grid;
}

}  // namespace ostrel
