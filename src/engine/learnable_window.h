// learnable_window: whether detector set-up can learn a window from the
// boxes of a new picture, decided before the set-up changes anything.
//
// The detector learns the window of the first marked box: its size in
// feature cells is what detection slides over every picture, so a model can
// only detect when that window covers at least one cell, fits the map, and
// has exactly as many features as the model has weights. The weights take
// the length of the first training sample: one the engine already holds
// (from an earlier picture), or else the first box of this picture that
// lies inside the map.
#pragma once

#include <cstdint>
#include <vector>

#include "ostrel_alg.h"
#include "acf/training_sample.h"

namespace ostrel {

class ostrel_acf;

// The scale-0 feature map every picture gives (the working resolution), in
// picture terms.
struct map_extent {
    int32_t channels = 0;
    int32_t columns = 0;
    int32_t rows = 0;
};

// The extent of the extractor's scale-0 map, known from its set-up before
// any picture is computed.
map_extent scale0_map_extent(const ostrel_acf &extractor);

// What the rule reads of an engine: the extractor's scale-0 map and the
// length of the first training sample it holds (0 when it holds none).
struct learning_state {
    map_extent map;
    size_t held_sample_features = 0;
};
learning_state learning_state_of(const ostrel_acf &extractor, const std::vector<training_sample> &held_samples);

enum class window_verdict {
    learnable,
    box_without_size,     // the first box is not at least 1 x 1 pixels
    window_without_cell,  // its window covers no whole cell
    window_beyond_map,    // its window is larger than the map
    other_sample_length,  // the model's weights would come from samples of another window
    weights_unstorable,   // a model of this window cannot be stored (check_storable_window only)
};

struct window_check {
    window_verdict verdict = window_verdict::learnable;
    window_rect window;           // the first box's window (valid from window_without_cell on)
    int64_t window_features = 0;  // channels * window width * window height
    int64_t sample_features = 0;  // length of the first training sample; 0 when none is known
};

// Checks the boxes of a new picture of picture_width x picture_height
// pixels. held_sample_features is the length of the first training sample
// the engine already holds, 0 when it holds none. boxes is not empty.
window_check check_learnable_window(const std::vector<ostrel_alg_box> &boxes, int32_t picture_width,
                                    int32_t picture_height, const map_extent &map, size_t held_sample_features);

// The check above, and then whether a model file can hold the window's
// weights (OSTREL_ALG_MIN_WINDOW_WEIGHTS..OSTREL_ALG_MAX_WINDOW_WEIGHTS).
// Set-up trains such a window and only the export refuses it; a host asking
// before it marks a box (ostrel_alg_checkBox) learns of both at once.
window_check check_storable_window(const std::vector<ostrel_alg_box> &boxes, int32_t picture_width,
                                   int32_t picture_height, const map_extent &map, size_t held_sample_features);

// Notes why a box a host asks about cannot be learnt (code
// OSTREL_ALG_ERR_BOX_NOT_LEARNABLE), with a "[Debug]" line that says what
// to do instead (a larger or smaller box, the size of the samples held).
void fail_unlearnable_box(const window_check &check, const ostrel_alg_box &box, int32_t picture_width,
                          int32_t picture_height, const map_extent &map, const char *operation);

// Logs the "[Debug]" line that says why the window cannot be learnt.
void log_window_check(const window_check &check, const ostrel_alg_box &first, int32_t picture_width,
                      int32_t picture_height, const map_extent &map, const char *operation);

}  // namespace ostrel
