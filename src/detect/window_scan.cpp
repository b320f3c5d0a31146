#include "detect/window_scan.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace ostrel {

namespace {

// Floating-point to int conversion as the target's truncating conversion
// does it: toward zero, and the "integer indefinite" value INT32_MIN for NaN
// and for values out of range (a zero-sized picture gives infinite scale
// factors, a garbage exponent an infinite score). A plain cast would be
// undefined for those.
int32_t truncate_to_int32(double value) {
    if (!(value > -2147483649.0 && value < 2147483648.0)) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(value);
}

int32_t wrap_add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t wrap_sub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// The byte that a plain pointer walk over the map would read for the cell
// (c, column, row): columns of a plane, and planes, follow each other, so a
// row past the bottom of a column reads the top of the next column. Cells
// whose offset falls outside the buffer read as 0 instead of outside memory.
uint8_t byte_at_offset(const feature_map &map, int32_t c, int32_t column, int32_t row) {
    const int64_t offset = static_cast<int64_t>(c) * map.columns * map.rows + static_cast<int64_t>(column) * map.rows +
                           static_cast<int64_t>(row);
    if (offset < 0 || static_cast<uint64_t>(offset) >= map.data.size()) {
        return 0;
    }
    return map.data[static_cast<size_t>(offset)];
}

bool window_inside_map(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows) {
    return x >= 0 && y >= 0 && window_columns >= 0 && window_rows >= 0 &&
           static_cast<int64_t>(x) + window_columns <= map.columns &&
           static_cast<int64_t>(y) + window_rows <= map.rows && map.channels >= 0 &&
           map.data.size() >= static_cast<size_t>(map.channels) * map.plane_size();
}

// Box with the window's picture position; colours are filled in later.
ostrel_alg_box window_box(int32_t x, int32_t y, const scan_geometry &geometry, const scan_settings &settings,
                          int32_t score, int32_t label) {
    ostrel_alg_box box{};
    box.x = truncate_to_int32((static_cast<double>(x) + 0.5) / static_cast<double>(geometry.sx));
    box.y = truncate_to_int32((static_cast<double>(y) + 0.5) / static_cast<double>(geometry.sy));
    box.width = settings.box_width;
    box.height = settings.box_height;
    box.score = static_cast<float>(score) / 100.0f;
    box.label = label;
    return box;
}

// A detection must end one pixel inside the picture: the amount by which
// left + 1 + width passes the picture width moves the box left (same for
// the top). 32-bit arithmetic with wrap-around, as in the box records.
void clamp_into_picture(ostrel_alg_box &box, int32_t image_width, int32_t image_height) {
    const int32_t excess_x = wrap_sub(wrap_add(wrap_add(box.x, 1), box.width), image_width);
    if (excess_x > 0) {
        box.x = wrap_sub(box.x, excess_x);
    }
    const int32_t excess_y = wrap_sub(wrap_add(wrap_add(box.y, 1), box.height), image_height);
    if (excess_y > 0) {
        box.y = wrap_sub(box.y, excess_y);
    }
}

}  // namespace

scan_geometry update_window_size(window_size_state &state, const feature_map &map, int32_t image_width,
                                 int32_t image_height) {
    const float map_columns = static_cast<float>(map.columns);
    const float map_rows = static_cast<float>(map.rows);
    const float width = static_cast<float>(image_width);
    const float height = static_cast<float>(image_height);

    if (image_width != state.input_width || image_height != state.input_height) {
        // The window in cells follows from the new map and the old sizes;
        // the window in pixels is rescaled to the new picture. Both are kept,
        // so later runs on pictures of this size reuse them.
        const float input_width = static_cast<float>(state.input_width);
        const float input_height = static_cast<float>(state.input_height);
        const float train_width = static_cast<float>(state.train_width);
        const float train_height = static_cast<float>(state.train_height);
        state.scaled_width = truncate_to_int32(map_columns / input_width * train_width);
        state.scaled_height = truncate_to_int32(map_rows / input_height * train_height);
        state.train_width = truncate_to_int32(width * train_width / input_width);
        state.train_height = truncate_to_int32(height * train_height / input_height);
        state.input_width = image_width;
        state.input_height = image_height;
    }

    scan_geometry geometry;
    // Large objects are scanned more coarsely. Comparing the single-precision
    // ratio with 0.16f gives the same answer as with the double 0.16, since
    // no float lies between the two.
    const bool large_object = static_cast<float>(state.train_width) / width > 0.16f &&
                              static_cast<float>(state.train_height) / height > 0.25f;
    geometry.stride = large_object ? 4 : 2;
    geometry.sx = map_columns / width;
    geometry.sy = map_rows / height;
    geometry.window_columns = state.scaled_width;
    geometry.window_rows = state.scaled_height;
    if (state.scaled_width == 0 && state.scaled_height == 0) {
        // Derived for this run only; the stored sizes stay 0.
        geometry.window_columns = truncate_to_int32(static_cast<float>(state.train_width) * geometry.sx);
        geometry.window_rows = truncate_to_int32(static_cast<float>(state.train_height) * geometry.sy);
    }
    return geometry;
}

void copy_window_features(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows,
                          int32_t *out) {
    if (out == nullptr || window_columns <= 0 || window_rows <= 0) {
        return;
    }
    const bool inside = window_inside_map(map, x, y, window_columns, window_rows);
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t r = 0; r < window_columns; ++r) {
            for (int32_t k = 0; k < window_rows; ++k) {
                *out++ = inside ? map.at(c, x + r, y + k) : byte_at_offset(map, c, x + r, y + k);
            }
        }
    }
}

int32_t window_dot_product(const feature_map &map, int32_t x, int32_t y, int32_t window_columns,
                           int32_t window_rows, const int32_t *weights) {
    if (weights == nullptr || window_columns <= 0 || window_rows <= 0) {
        return 0;
    }
    const bool inside = window_inside_map(map, x, y, window_columns, window_rows);
    // The sum wraps around in 32 bits; unsigned arithmetic makes that defined.
    uint32_t sum = 0;
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t r = 0; r < window_columns; ++r) {
            for (int32_t k = 0; k < window_rows; ++k) {
                const uint8_t cell = inside ? map.at(c, x + r, y + k) : byte_at_offset(map, c, x + r, y + k);
                sum += static_cast<uint32_t>(cell) * static_cast<uint32_t>(*weights++);
            }
        }
    }
    return static_cast<int32_t>(sum);
}

int32_t window_confidence(int32_t dot_product, int32_t bias) {
    // The margin is an int difference and wraps around in 32 bits like the
    // dot product it comes from (the classifier's fixed-point values never
    // get near the limit; only garbage does).
    const int32_t margin = wrap_sub(dot_product, bias);
    const float v = static_cast<float>(margin) / -100000.0f * 1.442695f;
    // Fast 2^v: the integer part goes straight into the exponent bits of a
    // quadratic approximation of 2^f on [0, 1). The shift and add are done
    // on the unsigned bit pattern, so negative and huge exponents wrap
    // instead of being undefined.
    const float floor_v = std::floor(v);
    const int32_t i = truncate_to_int32(floor_v);
    const float f = v - floor_v;
    const float p = (0.33718944f * f + 0.6576363f) * f + 1.0017247f;
    uint32_t bits = 0;
    std::memcpy(&bits, &p, sizeof bits);
    bits += static_cast<uint32_t>(i) << 23;
    float e = 0.0f;
    std::memcpy(&e, &bits, sizeof e);
    // The logistic in double, rounded to float, then multiplied by the double
    // 100.0: the product is a double, and it is exact (24 by 7 significant
    // bits), so the score is the float probability truncated to the percent
    // without a second rounding that could lift 0.29f (28.999999...) to 29.
    const float probability = static_cast<float>(1.0 - 1.0 / (static_cast<double>(e) + 1.0));
    return truncate_to_int32(static_cast<double>(probability) * 100.0);
}

void scan_windows(const feature_map &map, const scan_geometry &geometry, const scan_settings &settings,
                  scan_result *out) {
    if (out == nullptr) {
        return;
    }
    const int32_t W = map.columns;
    const int32_t H = map.rows;
    const int32_t ww = geometry.window_columns;
    const int32_t wh = geometry.window_rows;
    const int32_t s = geometry.stride;
    // No position when the map is no wider than the window. A map no taller
    // than the window has none either: the row loop below never starts, the
    // explicit test only says so.
    if (static_cast<int64_t>(W) - ww < 1 || static_cast<int64_t>(H) - wh < 1) {
        return;
    }
    // Input that no trained model produces scans nothing rather than reading
    // outside the map or looping forever.
    if (settings.weights == nullptr || ww < 0 || wh < 0 || s < 1 || map.channels < 0 ||
        map.data.size() < static_cast<size_t>(map.channels) * map.plane_size()) {
        return;
    }

    // One window column of one channel is contiguous in the map (planes are
    // stored column by column), and so are its weights: the dot product is
    // channels * ww runs of wh bytes. The run offsets relative to the window
    // position are the same for every window.
    const size_t runs = static_cast<size_t>(map.channels) * static_cast<size_t>(ww);
    std::vector<size_t> run_offsets(runs);
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t r = 0; r < ww; ++r) {
            run_offsets[static_cast<size_t>(c) * ww + r] = map.index(c, r, 0);
        }
    }
    const uint8_t *const data = map.data.data();
    const int32_t *const weights = settings.weights;

    for (int64_t x = 0; x < static_cast<int64_t>(W) - ww; x += s) {
        for (int64_t y = 0; y < static_cast<int64_t>(H) - wh; y += s) {
            const size_t window = map.index(0, static_cast<int32_t>(x), static_cast<int32_t>(y));
            // Summation order is free: the sum wraps around modulo 2^32.
            uint32_t sum = 0;
            const int32_t *w = weights;
            for (size_t run = 0; run < runs; ++run, w += wh) {
                const uint8_t *const cells = data + window + run_offsets[run];
                for (int32_t k = 0; k < wh; ++k) {
                    sum += static_cast<uint32_t>(cells[k]) * static_cast<uint32_t>(w[k]);
                }
            }
            const int32_t score = window_confidence(static_cast<int32_t>(sum), settings.bias);
            if (score >= settings.confidence_threshold) {
                ostrel_alg_box box =
                    window_box(static_cast<int32_t>(x), static_cast<int32_t>(y), geometry, settings, score, 1);
                clamp_into_picture(box, settings.image_width, settings.image_height);
                out->accepted.push_back(box);
            } else if (settings.collect_below) {
                out->below.push_back(
                    window_box(static_cast<int32_t>(x), static_cast<int32_t>(y), geometry, settings, score, -1));
            }
        }
    }
}

}  // namespace ostrel
