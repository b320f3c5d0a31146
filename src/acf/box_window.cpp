#include "acf/box_window.h"

#include <cmath>

namespace ostrel {

bool scale_to_cells(int32_t value, float scale, int32_t *cells) {
    const float product = static_cast<float>(value) * scale;
    if (!std::isfinite(product)) return false;
    const float truncated = std::trunc(product);
    // 2^31 is exact in float; the int32 range is [-2^31, 2^31).
    if (truncated < -2147483648.0f || truncated >= 2147483648.0f) return false;
    *cells = static_cast<int32_t>(truncated);
    return true;
}

bool window_inside_cells(const window_rect &w, int32_t columns, int32_t rows) {
    if (w.width < 1 || w.height < 1 || w.x < 0 || w.y < 0) return false;
    return static_cast<int64_t>(w.x) + w.width <= columns && static_cast<int64_t>(w.y) + w.height <= rows;
}

bool box_to_window(const ostrel_alg_box &box, float sx, float sy, window_rect *window) {
    return scale_to_cells(box.x, sx, &window->x) && scale_to_cells(box.y, sy, &window->y) &&
           scale_to_cells(box.width, sx, &window->width) && scale_to_cells(box.height, sy, &window->height);
}

}  // namespace ostrel
