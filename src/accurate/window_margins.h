// window_margins: the linear classifier's margin at every window position
// of a feature map, one cell apart.
#pragma once

#include <cstdint>
#include <vector>

#include "acf/feature_map.h"

namespace ostrel {

struct margin_grid {
    int32_t columns = 0;  // positions across (map columns - window columns + 1)
    int32_t rows = 0;     // positions down
    std::vector<float> margins;  // position (x, y) at x * rows + y
    float at(int32_t x, int32_t y) const { return margins[static_cast<size_t>(x) * rows + y]; }
};

// Margins sum(w * byte) + bias of every window of window_columns x
// window_rows cells inside the map; weights in window feature order
// (channel, window column, window row). An empty grid when no window fits.
margin_grid window_margins(const feature_map &map, int32_t window_columns, int32_t window_rows,
                           const float *weights, float bias);

// The bytes of one window in window feature order (the layout of the weights).
void window_bytes(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows,
                  uint8_t *out);

}  // namespace ostrel
