#include "accurate/window_margins.h"

#include <algorithm>
#include <cstring>

namespace ostrel {

margin_grid window_margins(const feature_map &map, int32_t window_columns, int32_t window_rows,
                           const float *weights, float bias) {
    margin_grid grid;
    if (map.empty() || window_columns < 1 || window_rows < 1 || map.columns < window_columns ||
        map.rows < window_rows || weights == nullptr) {
        return grid;
    }
    grid.columns = map.columns - window_columns + 1;
    grid.rows = map.rows - window_rows + 1;
    grid.margins.assign(static_cast<size_t>(grid.columns) * grid.rows, bias);

    // Every map column as floats once: the inner loop then runs along a
    // column, one multiply-add per position, which vectorises.
    std::vector<float> cells(map.data.begin(), map.data.end());
    const size_t plane = map.plane_size();
    const int32_t positions = grid.rows;
    for (int32_t x = 0; x < grid.columns; ++x) {
        float *out = grid.margins.data() + static_cast<size_t>(x) * positions;
        const float *w = weights;
        for (int32_t c = 0; c < map.channels; ++c) {
            for (int32_t r = 0; r < window_columns; ++r) {
                const float *column = cells.data() + static_cast<size_t>(c) * plane +
                                      static_cast<size_t>(x + r) * static_cast<size_t>(map.rows);
                for (int32_t k = 0; k < window_rows; ++k) {
                    const float wk = *w++;
                    const float *in = column + k;
                    for (int32_t y = 0; y < positions; ++y) out[y] += wk * in[y];
                }
            }
        }
    }
    return grid;
}

void window_bytes(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows,
                  uint8_t *out) {
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t r = 0; r < window_columns; ++r) {
            const uint8_t *column = map.data.data() + map.index(c, x + r, y);
            std::memcpy(out, column, static_cast<size_t>(window_rows));
            out += window_rows;
        }
    }
}

}  // namespace ostrel
