// accurate_geometry: where the accurate profile works - the working size
// of the pictures and the window in feature cells - derived from the marked
// object size and the training picture size alone, so that a model file
// (which records just these four numbers) gives back the same window.
#pragma once

#include <cstdint>

#include "accurate/accurate_channels.h"
#include "accurate/accurate_settings.h"

namespace ostrel {

struct accurate_geometry {
    // The working picture: every picture is resampled to this size to be
    // searched at the marked size (other sizes shrink or enlarge it).
    int32_t working_width = 0;
    int32_t working_height = 0;
    // Working pixels per pixel of the training picture along each axis
    // (equal up to the rounding of the working size to even sides).
    float scale_x = 0.0f;
    float scale_y = 0.0f;
    // The window: the object in cells.
    int32_t window_columns = 0;
    int32_t window_rows = 0;
    // The object inside the window, in cells, centred on it; 0: the whole
    // window. (A window shared by boxes of several shapes has the median
    // shape, which whole cells only approximate.)
    double object_columns = 0.0;
    double object_rows = 0.0;

    double object_columns_or_window() const { return object_columns > 0.0 ? object_columns : window_columns; }
    double object_rows_or_window() const { return object_rows > 0.0 ? object_rows : window_rows; }

    int32_t window_features() const { return window_columns * window_rows * kAccurateChannels; }
};

enum class geometry_status {
    ok,
    bad_size,           // a size is not positive, or absurdly large
    object_too_small,   // fewer cells (or weights) than the minimum at the largest scale
    window_too_large,   // more weights than a model holds
    picture_too_small,  // the working picture cannot hold one window
};

// Derives the geometry for an object of object_width x object_height pixels
// marked on a picture of picture_width x picture_height pixels.
//
// The scale s (working pixels per picture pixel) gives the object about
// settings.object_cells cells: s = 2 * sqrt(object_cells / object area),
// but at most max_upscale_percent / 100, and at most what keeps the working
// picture within max_working_pixels - unless the object would then get
// fewer than min_budget_cells cells, when the working picture grows to give
// it that many, up to hard_working_pixels. The working sides are even, the
// window is the object's size in cells, rounded.
geometry_status derive_accurate_geometry(int32_t object_width, int32_t object_height, int32_t picture_width,
                                         int32_t picture_height, const accurate_settings &settings,
                                         accurate_geometry *out);

// A short description of a status, for log lines.
const char *geometry_status_text(geometry_status status);

}  // namespace ostrel
