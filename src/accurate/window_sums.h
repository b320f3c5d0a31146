// window_sums: the accurate profile's window scan in 16-bit integers.
//
// The classifier's weights are brought to 16 bits with one power-of-two
// scale, chosen so that no window sum can leave 32 bits: then every sum is
// exact and the SIMD scan gives the same integers as the plain loop, on any
// machine. The map is laid out once in pairs of vertically neighbouring
// cells, so that one multiply-add instruction takes two window rows at four
// (SSE2) positions at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "acf/feature_map.h"

namespace ostrel {

struct quantised_weights {
    int32_t channels = 0;
    int32_t window_columns = 0;
    int32_t window_rows = 0;
    int32_t tap_pairs = 0;       // (window_rows + 1) / 2
    std::vector<int16_t> pairs;  // per channel, window column, tap pair: (w[k], w[k+1]), 0 past the window
    std::vector<int16_t> plain;  // window feature order, for the reference loop
    double scale = 0.0;          // a weight is about its 16-bit value times scale
};

// Weights in window feature order (channel, window column, window row).
// The scale is the largest power of two (times unit) that keeps every
// 16-bit value and the sum of their magnitudes times 255 in range.
quantised_weights quantise_weights(const double *weights, int32_t channels, int32_t window_columns,
                                   int32_t window_rows);

// An allocator whose elements start uninitialised: a buffer that is written
// whole right away need not be zeroed first.
template <typename T>
struct uninitialised_allocator : std::allocator<T> {
    template <typename U>
    struct rebind {
        using other = uninitialised_allocator<U>;
    };
    uninitialised_allocator() = default;
    template <typename U>
    uninitialised_allocator(const uninitialised_allocator<U> &) {}
    template <typename U>
    void construct(U *p) {
        ::new (static_cast<void *>(p)) U;
    }
    template <typename U, typename... Args>
    void construct(U *p, Args &&...args) {
        ::new (static_cast<void *>(p)) U(std::forward<Args>(args)...);
    }
};

// The map's cells as 16-bit pairs: for channel c, column x, row y the pair
// (cell(c, x, y), cell(c, x, y + 1)), 0 past the last row, and a few zero
// pairs after every column so that a block of positions may run over.
struct paired_map {
    int32_t channels = 0;
    int32_t columns = 0;
    int32_t rows = 0;
    int32_t stride = 0;  // pairs per column
    std::vector<int16_t, uninitialised_allocator<int16_t>> data;
};
paired_map pair_cells(const feature_map &map);

struct window_sum_grid {
    int32_t columns = 0;        // positions across
    int32_t rows = 0;           // positions down
    std::vector<int32_t> sums;  // position (x, y) at x * rows + y
    int32_t at(int32_t x, int32_t y) const { return sums[static_cast<size_t>(x) * rows + y]; }
};

// Which loop computes the sums; all give the same integers. `fastest` takes
// AVX-512 VNNI where the processor has it, else AVX2, else SSE2 (every
// x86-64 processor); a path the processor lacks falls back the same way.
enum class sums_path { fastest, sse2, portable, avx2, avx512_vnni };

// Whether the processor runs a path (portable and sse2 always).
bool sums_path_available(sums_path path);

// Every path the processor runs, `fastest` last: the loops a test compares.
std::vector<sums_path> available_sums_paths();

// The bytes of the window with top-left cell (x, y), in window feature
// order (the layout of the weights). The window must lie inside the map.
void window_bytes(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows,
                  uint8_t *out);

// Sum of byte times 16-bit weight over every window position, one cell
// apart. Empty when no window fits.
window_sum_grid window_sums(const paired_map &map, const quantised_weights &weights,
                            sums_path path = sums_path::fastest);
// A position the coarse-to-fine scan did not compute: below any sum.
inline constexpr int32_t kSkippedSum = INT32_MIN;

// The coarse-to-fine scan: the sums of every even column of positions, and
// of an odd column only in the rows within two of a row where an even
// column beside it reaches `refine_from`; elsewhere kSkippedSum. A window
// one cell from another has nearly its sum, so with refine_from a little
// below the lowest sum that matters the windows that reach it are the same
// as in the whole scan but for rare ones whose every neighbour across lies
// far below. Every computed sum is the whole scan's integer.
window_sum_grid window_sums_coarse_to_fine(const paired_map &map, const quantised_weights &weights, double refine_from,
                                           sums_path path = sums_path::fastest);
// Several classifiers on one map in one scan: (*grids)[k] becomes what
// window_sums_coarse_to_fine(map, *weights[k], refine_from[k], path) gives,
// or window_sums(map, *weights[k], path) where refine_from[k] is -infinity
// or refine_from is empty. Classifiers of one window shape share each
// window's loads (the loop's bound) where the processor's loop allows;
// `grids` keeps its buffers from call to call.
void window_sums_classes(const paired_map &map, const std::vector<const quantised_weights *> &weights,
                         const std::vector<double> &refine_from, sums_path path, std::vector<window_sum_grid> *grids);
// The least integer that reaches value (s >= value exactly when s >= the
// result, for every 32-bit s), so that the sums are compared with a bound
// in integers: INT32_MIN when every sum reaches it, INT32_MAX + 1 when none
// does (a NaN, or a value above INT32_MAX).
int64_t least_sum_reaching(double value);

// The first position y of [y, end) of a grid column whose sum reaches
// least (sum >= least), else end. Most positions lie far below: eight are
// passed over with one test (the compiler compares them in vector
// registers).
inline int32_t next_sum_reaching(const int32_t *column, int32_t y, int32_t end, int32_t least) {
    for (; y + 8 <= end; y += 8) {
        int hit = 0;
        for (int32_t k = 0; k < 8; ++k) hit |= column[y + k] >= least ? 1 : 0;
        if (hit != 0) break;
    }
    for (; y < end; ++y) {
        if (column[y] >= least) return y;
    }
    return end;
}

// The same sums by the plain loop over the map's bytes.
window_sum_grid window_sums_reference(const feature_map &map, const quantised_weights &weights);

}  // namespace ostrel
