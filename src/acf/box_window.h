// box_window: where a marked box of a picture lies on the picture's feature
// map. The sample cutter cuts its samples with these windows, and detector
// set-up checks with the same functions, before it changes anything, which
// window each box will give.
#pragma once

#include <cstdint>

#include "ostrel_alg.h"
#include "acf/training_sample.h"

namespace ostrel {

// trunc(value * scale) in single precision; false when the product is not a
// number or does not fit an int32 (such a window cannot lie in any map).
bool scale_to_cells(int32_t value, float scale, int32_t *cells);

// The window covers at least one cell and lies wholly inside a map of
// columns x rows cells.
bool window_inside_cells(const window_rect &window, int32_t columns, int32_t rows);

// The box's window: each of x, y, width and height scaled by the map's cells
// per picture pixel (sx across, sy down); false when one does not scale.
bool box_to_window(const ostrel_alg_box &box, float sx, float sy, window_rect *window);

}  // namespace ostrel
