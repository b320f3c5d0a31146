// size_range: the object sizes, in picture pixels, that the accurate
// profile learns and searches, and the levels that cover them.
//
// Sizes are heights (window_shape.h). Training records the range of the
// marked objects' heights (the taught range). Detection searches that range
// widened by a margin on each side - settings.search_margin_percent to the
// power settings.size_steps (1.5 times by default) - or the range the host
// sets in pixels (options 6 and 7). The same object size is searched on a
// picture of any size: a level is the picture resampled so that objects of
// one height fill the window, so a model trained on 416 x 416 pictures
// finds a 19 x 40 pawn as well on a 1920 x 1080 frame.
//
// Levels are settings.levels_per_octave per doubling of the height, from
// the smallest height of the range up to the first at or above the
// largest. Every search is bounded (settings):
//   - at most max_levels levels;
//   - the finest level's working picture at most max_level_pixels pixels,
//     and no object enlarged more than max_object_upscale_percent;
//   - at most max_search_windows window positions over all levels.
// A range whose smallest height would break a bound is cut at the bound
// when the margin makes it (automatic range), and refused when the taught
// range or the host's range itself would break it. Levels whose objects
// would be more than twice the picture's width or height (so that less
// than half of one could show) are left out.
#pragma once

#include <cstdint>
#include <vector>

#include "ostrel_alg.h"
#include "accurate/accurate_settings.h"
#include "accurate/scale_set.h"
#include "accurate/window_shape.h"

namespace ostrel {

struct height_range {
    double min = 0.0;
    double max = 0.0;
    bool valid() const { return min > 0.0 && max >= min; }
};

// The smallest and largest height of the objects (label 1) among the boxes;
// invalid when there is none.
height_range taught_range(const std::vector<ostrel_alg_box> &boxes, const window_shape &shape);
// The range that covers both (either may be invalid).
height_range cover(const height_range &a, const height_range &b);

struct searched_range {
    height_range range;
    bool min_from_host = false;  // option 6 set
    bool max_from_host = false;  // option 7 set
};

// The heights detection searches: the host's heights where set, the taught
// range widened by the margin elsewhere.
searched_range search_range(const height_range &taught, const accurate_settings &settings);

enum class plan_status {
    ok,
    no_range,         // the range is empty or not valid
    too_many_levels,  // the range spans more than max_levels levels
    too_small,        // its smallest objects would have to be enlarged beyond the limit
    too_large,        // its smallest objects would need a level beyond the pixel or window bounds
    nothing_fits,     // every level's objects would be more than twice the picture's size
};

struct level_plan {
    // Working size of the finest level (the smallest objects), and each
    // level's factor: level k is that size divided by factors[k] and
    // searches objects of heights[k] pixels. Finest first.
    int32_t base_columns = 0;
    int32_t base_rows = 0;
    std::vector<double> factors;
    std::vector<double> heights;
    // How the levels' working sides go exactly halfway between two even
    // sides (scaled_working_side): down. The level factors were once
    // std::pow(step, k), and glibc's lay a hair above each octave (2 + 2^-51
    // at the sixth step of six), which rounded such sides down; exact
    // factors with this rule lay out the levels as before, so a class finds
    // what it found. The shared grid of several classes rounds them up (its
    // factors came from std::exp and lay on the octaves).
    halfway ties = halfway::down;
    // The range actually searched (the automatic range may be cut at a
    // bound) and the window positions of all levels.
    height_range range;
    int64_t windows = 0;
    // For the log line of a refusal: the smallest height that a level
    // within the bounds can search on this picture.
    double smallest_searchable = 0.0;
};

// Plans the levels of a picture of picture_columns x picture_rows for the
// searched range. `taught` is the range the automatic margin widened (its
// own smallest height must fit the bounds). pad_columns and pad_rows are
// the cells every level's map gets on each side.
plan_status plan_levels(int32_t picture_columns, int32_t picture_rows, const searched_range &searched,
                        const height_range &taught, const window_shape &shape, const accurate_settings &settings,
                        int32_t pad_columns, int32_t pad_rows, level_plan *out);

// A short description of a status, for log lines.
const char *plan_status_text(plan_status status);

}  // namespace ostrel
