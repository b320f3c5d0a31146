#include "accurate/cell_resample.h"

#include <algorithm>
#include <vector>

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
            const uint32_t w = k == last ? kWeightOne - given
                                         : static_cast<uint32_t>(((hi - lo) * kWeightOne + source / 2) / source);
            taps.weights.push_back(w);
            given += w;
        }
    }
    return taps;
}

}  // namespace

feature_map shrink_cells(const feature_map &source, int32_t columns, int32_t rows) {
    feature_map out;
    if (source.empty() || columns < 1 || rows < 1 || columns > source.columns || rows > source.rows) {
        return out;
    }
    out.channels = source.channels;
    out.columns = columns;
    out.rows = rows;
    out.data.assign(static_cast<size_t>(out.channels) * out.plane_size(), 0);
    const axis_taps down = taps_for(source.rows, rows);        // along a column (contiguous)
    const axis_taps across = taps_for(source.columns, columns);
    // First pass: every source column shrunk down its rows, kept with
    // kMiddleBits of fraction.
    std::vector<uint16_t> middle(static_cast<size_t>(source.columns) * rows);
    for (int32_t c = 0; c < source.channels; ++c) {
        for (int32_t x = 0; x < source.columns; ++x) {
            const uint8_t *in = source.data.data() + source.index(c, x, 0);
            uint16_t *m = middle.data() + static_cast<size_t>(x) * rows;
            for (int32_t j = 0; j < rows; ++j) {
                const uint32_t *w = down.weights.data() + down.offset[static_cast<size_t>(j)];
                const uint8_t *p = in + down.first[static_cast<size_t>(j)];
                uint32_t sum = 0;
                for (int32_t k = 0; k < down.count[static_cast<size_t>(j)]; ++k) sum += w[k] * p[k];
                m[j] = static_cast<uint16_t>((sum + (1u << (kWeightBits - kMiddleBits - 1))) >>
                                             (kWeightBits - kMiddleBits));
            }
        }
        // Second pass: across the columns.
        uint8_t *plane = out.data.data() + out.index(c, 0, 0);
        std::vector<uint32_t> sums(static_cast<size_t>(rows));
        for (int32_t i = 0; i < columns; ++i) {
            std::fill(sums.begin(), sums.end(), 0u);
            const uint32_t *w = across.weights.data() + across.offset[static_cast<size_t>(i)];
            for (int32_t k = 0; k < across.count[static_cast<size_t>(i)]; ++k) {
                const uint16_t *m = middle.data() + static_cast<size_t>(across.first[static_cast<size_t>(i)] + k) * rows;
                for (int32_t j = 0; j < rows; ++j) sums[static_cast<size_t>(j)] += w[k] * m[j];
            }
            uint8_t *column = plane + static_cast<size_t>(i) * rows;
            for (int32_t j = 0; j < rows; ++j) {
                const uint32_t v = (sums[static_cast<size_t>(j)] + (1u << (kWeightBits + kMiddleBits - 1))) >>
                                   (kWeightBits + kMiddleBits);
                column[j] = static_cast<uint8_t>(std::min<uint32_t>(v, 255));
            }
        }
    }
    return out;
}

}  // namespace ostrel
