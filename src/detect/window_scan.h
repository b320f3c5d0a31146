// Window scan and scoring: a window of the trained object size slides over
// the feature map; each position is scored with the fixed-point linear
// classifier and turned into a confidence percentage.
#pragma once

#include <cstdint>
#include <vector>

#include "ostrel_alg.h"
#include "acf/feature_map.h"

namespace ostrel {

// The engine fields that the window size update reads and writes.
struct window_size_state {
    int32_t train_width = 0;  // object window in picture pixels
    int32_t train_height = 0;
    int32_t scaled_width = 0;  // window in cells; both 0: derived anew on every run
    int32_t scaled_height = 0;
    int32_t input_width = 0;  // picture size the sizes above belong to
    int32_t input_height = 0;
};

// What one run scans with.
struct scan_geometry {
    int32_t window_columns = 0;  // ww, window width in cells
    int32_t window_rows = 0;     // wh, window height in cells
    int32_t stride = 2;          // cells between positions (4 for large objects)
    float sx = 0.0f;             // map columns per picture column
    float sy = 0.0f;             // map rows per picture row
};

// A trained side (trained_side pixels of a picture side of input_side
// pixels) rescaled to a picture side of picture_side pixels, in single
// precision and truncated, as the window size update does it.
int32_t rescale_trained_side(int32_t picture_side, int32_t trained_side, int32_t input_side);

// Brings the window size in step with a picture of image_width x
// image_height (rescaling and storing the sizes when the picture size
// changed), and derives stride, scale factors and the window in cells.
scan_geometry update_window_size(window_size_state &state, const feature_map &map, int32_t image_width,
                                 int32_t image_height);

// Copies the window with top-left cell (x, y) in the window feature order
// (channel, then window column, then window row) into out (D values).
void copy_window_features(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows,
                          int32_t *out);

// The integer dot product of the window's bytes and the weights in the window
// feature order, accumulated in 32 bits with wrap-around.
int32_t window_dot_product(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows,
                           const int32_t *weights);

// Confidence percentage of a window from its dot product and the bias, by
// the fast exponential (0..100, truncated).
int32_t window_confidence(int32_t dot_product, int32_t bias);

struct scan_settings {
    const int32_t *weights = nullptr;  // window_columns * window_rows * channels values
    int32_t bias = 0;
    int32_t confidence_threshold = 0;  // percent a window needs
    bool collect_below = false;        // keep windows below the threshold (detector set up)
    int32_t image_width = 0;           // picture size, for box mapping and clamping
    int32_t image_height = 0;
    int32_t box_width = 0;  // size of every reported box (train_width, train_height)
    int32_t box_height = 0;
};

struct scan_result {
    std::vector<ostrel_alg_box> accepted;  // label 1, in scan order
    std::vector<ostrel_alg_box> below;     // label -1, in scan order
};

// Scores every window position (strict bounds) and sorts the windows into
// the accepted and below-confidence lists.
void scan_windows(const feature_map &map, const scan_geometry &geometry, const scan_settings &settings,
                  scan_result *out);

}  // namespace ostrel
