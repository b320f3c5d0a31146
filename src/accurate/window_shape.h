// window_shape: the accurate profile's one window, shared by objects of
// every size.
//
// A person marks each object at its own size. The model learns one
// appearance in one window of cells; each marked object is brought to that
// window by resampling the picture with one scale for both axes, the scale
// at which the object's area equals the window's. The window's shape is the
// median shape of the marked boxes: boxes of other shapes are stretched to
// it in the sense that the window covers the box's area around its centre
// (a box 20% wider than the median is seen with a little less context left
// and right). Boxes whose shapes differ from the median by more than a
// factor (settings.max_aspect_spread_percent) cannot share one window and
// are refused.
//
// Sizes are heights: a box of w x h pixels counts as an object of height
// sqrt(w * h / aspect), the height of a box of the window's shape with the
// same area. For boxes of the median shape that is their own height.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ostrel_alg.h"
#include "accurate/accurate_geometry.h"
#include "accurate/accurate_settings.h"

namespace ostrel {

// The most elongated object shape a window takes (width / height or its
// inverse).
inline constexpr double kMaxObjectAspect = 16.0;

struct window_shape {
    int32_t columns = 0;  // window width in cells
    int32_t rows = 0;     // window height in cells
    float aspect = 0.0f;  // object width / height: the median of the marked boxes

    bool empty() const { return columns < 1 || rows < 1 || !(aspect > 0.0f); }
    int32_t features() const { return columns * rows * kAccurateChannels; }
    // The object of the window: the box of shape `aspect` whose area is the
    // window's, in working pixels (kAccurateShrink per cell).
    double object_height_working() const;
    double object_width_working() const;
    // The same in cells (not whole numbers), centred in the window.
    double object_columns() const;
    double object_rows() const;
    // The geometry record the trainer and the search take: the window and
    // its object; the working size is per level, not recorded here.
    accurate_geometry geometry() const;
};

enum class shape_status {
    ok,
    bad_size,          // a box side is not positive or absurdly large, or no box is an object
    aspect_extreme,    // a box is more than kMaxObjectAspect times wider than high or the reverse
    aspects_differ,    // the boxes' shapes cannot share one window
    window_too_large,  // more weights than a model file holds
};

struct shape_result {
    shape_status status = shape_status::bad_size;
    window_shape shape;
    // Aspects (width / height) of the median and of the box that differs
    // most from it, and that box's index among the boxes given.
    double median_aspect = 0.0;
    double odd_aspect = 0.0;
    size_t odd_box = 0;
};

// The window of objects marked by `boxes` (only label 1 counts): the median
// aspect, and a window of about `cells` cells of that shape (each side at
// least settings.min_object_side_cells).
shape_result derive_window_shape(const std::vector<ostrel_alg_box> &boxes, int32_t cells,
                                 const accurate_settings &settings);

// A window for a known aspect and cell count (what a model file records
// gives back its window).
window_shape window_for_aspect(double aspect, int32_t cells, const accurate_settings &settings);

// Whether a box's shape may share the window (within the spread of the
// settings).
bool aspect_fits(const ostrel_alg_box &box, const window_shape &shape, const accurate_settings &settings);

// The box's size as a height (see above); 0 for an empty box.
double box_height(const ostrel_alg_box &box, const window_shape &shape);
double box_height(double width, double height, const window_shape &shape);

// Working pixels per picture pixel that give an object of `height`
// picture pixels the window's size.
double scale_for_height(double height, const window_shape &shape);

// A short description of a status, for log lines.
const char *shape_status_text(shape_status status);

}  // namespace ostrel
