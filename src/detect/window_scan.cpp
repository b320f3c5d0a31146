#include "detect/window_scan.h"

#include "detect/window_scan_reference.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "common/sse2.h"

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

// The map's extents describe its buffer: no negative extent, and at least
// channels * columns * rows bytes.
bool map_extents_valid(const feature_map &map) {
    if (map.channels < 0 || map.columns < 0 || map.rows < 0) {
        return false;
    }
    const uint64_t plane = static_cast<uint64_t>(map.columns) * static_cast<uint64_t>(map.rows);  // < 2^62
    if (map.channels > 0 && plane > map.data.size() / static_cast<uint64_t>(map.channels)) {
        return false;
    }
    return true;
}

// The byte that a plain pointer walk over the map would read for the cell
// (c, column, row): columns of a plane, and planes, follow each other, so a
// row past the bottom of a column reads the top of the next column. Cells
// whose offset falls outside the buffer (or a map whose extents do not fit
// its buffer) read as 0 instead of outside memory.
uint8_t byte_at_offset(const feature_map &map, int64_t c, int64_t column, int64_t row) {
    if (!map_extents_valid(map)) {
        return 0;
    }
    // With valid extents c * columns * rows is below the buffer size, and
    // column (below 2^32) times rows stays far inside 64 bits.
    const int64_t offset = c * map.columns * map.rows + column * map.rows + row;
    if (offset < 0 || static_cast<uint64_t>(offset) >= map.data.size()) {
        return 0;
    }
    return map.data[static_cast<size_t>(offset)];
}

bool window_inside_map(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows) {
    return x >= 0 && y >= 0 && window_columns >= 0 && window_rows >= 0 &&
           static_cast<int64_t>(x) + window_columns <= map.columns &&
           static_cast<int64_t>(y) + window_rows <= map.rows && map_extents_valid(map);
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

int32_t rescale_trained_side(int32_t picture_side, int32_t trained_side, int32_t input_side) {
    return truncate_to_int32(static_cast<float>(picture_side) * static_cast<float>(trained_side) /
                             static_cast<float>(input_side));
}

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
        state.train_width = rescale_trained_side(image_width, state.train_width, state.input_width);
        state.train_height = rescale_trained_side(image_height, state.train_height, state.input_height);
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
                *out++ = inside ? map.at(c, x + r, y + k)
                                : byte_at_offset(map, c, static_cast<int64_t>(x) + r, static_cast<int64_t>(y) + k);
            }
        }
    }
}

int32_t window_dot_product(const feature_map &map, int32_t x, int32_t y, int32_t window_columns, int32_t window_rows,
                           const int32_t *weights) {
    if (weights == nullptr || window_columns <= 0 || window_rows <= 0) {
        return 0;
    }
    const bool inside = window_inside_map(map, x, y, window_columns, window_rows);
    // The sum wraps around in 32 bits; unsigned arithmetic makes that defined.
    uint32_t sum = 0;
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t r = 0; r < window_columns; ++r) {
            for (int32_t k = 0; k < window_rows; ++k) {
                const uint8_t cell =
                    inside ? map.at(c, x + r, y + k)
                           : byte_at_offset(map, c, static_cast<int64_t>(x) + r, static_cast<int64_t>(y) + k);
                sum += static_cast<uint32_t>(cell) * static_cast<uint32_t>(*weights++);
            }
        }
    }
    return static_cast<int32_t>(sum);
}

namespace {

// Integer parts of the exponent for which the fast 2^v below is a float of
// the same sign and magnitude: the quadratic lies in [1, 2), its biased
// exponent is 127, and adding i keeps it a normal number for i in
// [-126, 127].
constexpr int32_t kLowestFastExponent = -126;
constexpr int32_t kHighestFastExponent = 127;

// Fast 2^v: the integer part goes straight into the exponent bits of a
// quadratic approximation of 2^f on [0, 1). Outside the exponents above,
// the bit pattern would wrap into the sign and exponent fields (a negative
// or NaN "power", and a score outside 0..100); there the power is what it
// tends to, 0 below and infinity above, which is also what the logistic
// gives at the ends of the range the bits do cover. The margins of a
// trained model stay far inside it (|v| < 127 means a classifier margin
// below 88).
float fast_exp2(float v) {
    const float floor_v = std::floor(v);
    const int32_t i = truncate_to_int32(floor_v);
    if (i < kLowestFastExponent) {
        return 0.0f;
    }
    if (i > kHighestFastExponent) {
        return std::numeric_limits<float>::infinity();
    }
    const float f = v - floor_v;
    const float p = (0.33718944f * f + 0.6576363f) * f + 1.0017247f;
    uint32_t bits = 0;
    std::memcpy(&bits, &p, sizeof bits);
    bits += static_cast<uint32_t>(i) << 23;
    float e = 0.0f;
    std::memcpy(&e, &bits, sizeof e);
    return e;
}

}  // namespace

int32_t window_confidence(int32_t dot_product, int32_t bias) {
    // The margin is an int difference and wraps around in 32 bits like the
    // dot product it comes from (the classifier's fixed-point values never
    // get near the limit; only garbage does).
    const int32_t margin = wrap_sub(dot_product, bias);
    const float v = static_cast<float>(margin) / -100000.0f * 1.442695f;
    const float e = fast_exp2(v);
    // The logistic in double, rounded to float, then multiplied by the double
    // 100.0: the product is a double, and it is exact (24 by 7 significant
    // bits), so the score is the float probability truncated to the percent
    // without a second rounding that could lift 0.29f (28.999999...) to 29.
    const float probability = static_cast<float>(1.0 - 1.0 / (static_cast<double>(e) + 1.0));
    return truncate_to_int32(static_cast<double>(probability) * 100.0);
}

namespace {

// Scan input that no trained model produces (no weights, a negative window,
// a stride that would not advance, a map without channels or shorter than
// its extents) scans
// nothing rather than reading outside the map or looping forever. A map no
// wider than the window has no position at all; one no taller than the
// window has none either (the row loop would never start; the test only
// says so).
bool scan_has_positions(const feature_map &map, const scan_geometry &geometry, const scan_settings &settings) {
    if (static_cast<int64_t>(map.columns) - geometry.window_columns < 1 ||
        static_cast<int64_t>(map.rows) - geometry.window_rows < 1) {
        return false;
    }
    return settings.weights != nullptr && geometry.window_columns >= 0 && geometry.window_rows >= 0 &&
           geometry.stride >= 1 && map.channels >= 1 && map_extents_valid(map);
}

// Scores one window from its dot product and files it: at or above the
// threshold as a detection moved inside the picture, below it (when asked
// for) as it is.
class window_sink {
public:
    window_sink(const scan_geometry &geometry, const scan_settings &settings, scan_result *out)
        : geometry_(geometry), settings_(settings), out_(out) {}

    void operator()(int32_t x, int32_t y, int32_t dot_product) const {
        const int32_t score = window_confidence(dot_product, settings_.bias);
        if (score >= settings_.confidence_threshold) {
            ostrel_alg_box box = window_box(x, y, geometry_, settings_, score, 1);
            clamp_into_picture(box, settings_.image_width, settings_.image_height);
            out_->accepted.push_back(box);
        } else if (settings_.collect_below) {
            out_->below.push_back(window_box(x, y, geometry_, settings_, score, -1));
        }
    }

private:
    const scan_geometry &geometry_;
    const scan_settings &settings_;
    scan_result *out_;
};

// Window positions: columns outer, rows inner, both strictly below the last
// possible position.
template <typename Visit>
void for_each_position(const feature_map &map, const scan_geometry &geometry, Visit &&visit) {
    const int64_t column_bound = static_cast<int64_t>(map.columns) - geometry.window_columns;
    const int64_t row_bound = static_cast<int64_t>(map.rows) - geometry.window_rows;
    for (int64_t x = 0; x < column_bound; x += geometry.stride) {
        for (int64_t y = 0; y < row_bound; y += geometry.stride) {
            visit(static_cast<int32_t>(x), static_cast<int32_t>(y));
        }
    }
}

#if OSTREL_SSE2

// The dot products of all windows of one map column at once, four windows
// to a vector, with the SSE2 multiply-add of 16-bit pairs.
//
// Bytes are widened to 16 bits; each weight w is split into 16-bit halves,
// w = lo + 65536 * hi with lo = (int16)w, so that byte * w = byte * lo +
// 65536 * byte * hi modulo 2^32. Window rows are taken two at a time: the
// 32-bit lane j of a vector loaded at column offset y0 + k holds the pair of
// rows (y0 + 2j + k, y0 + 2j + k + 1), which are rows k and k + 1 of the
// window at y0 + 2j; one multiply-add with the broadcast weight pair
// (w[k], w[k + 1]) adds both products for four windows two rows apart. An
// odd last row is paired with a weight 0. All sums wrap around modulo 2^32
// like the plain dot product, so the order of summation does not matter and
// the result is the same bit for bit.
//
// Windows two rows apart cover every even stride; other strides take the
// plain path.
class paired_row_scanner {
public:
    static bool applicable(const scan_geometry &geometry) { return geometry.stride % 2 == 0; }

    paired_row_scanner(const feature_map &map, const scan_geometry &geometry, const int32_t *weights)
        : map_(map), geometry_(geometry) {
        const int32_t ww = geometry.window_columns;
        const int32_t wh = geometry.window_rows;
        pairs_per_run_ = (static_cast<size_t>(wh) + 1) / 2;
        runs_ = static_cast<size_t>(map.channels) * static_cast<size_t>(ww);

        // Widened map. Loads for windows past the last position may run up
        // to 8 values beyond the end of the last column: zero padding.
        cells_.assign(map.data.size() + kPadding, 0);
        for (size_t i = 0; i < map.data.size(); ++i) {
            cells_[i] = map.data[i];
        }

        run_offsets_.resize(runs_);
        low_pairs_.resize(runs_ * pairs_per_run_);
        high_pairs_.resize(runs_ * pairs_per_run_);
        for (int32_t c = 0; c < map.channels; ++c) {
            for (int32_t r = 0; r < ww; ++r) {
                const size_t run = static_cast<size_t>(c) * ww + r;
                run_offsets_[run] = map.index(c, r, 0);
                const int32_t *w = weights + run * static_cast<size_t>(wh);
                for (size_t p = 0; p < pairs_per_run_; ++p) {
                    const int32_t k = static_cast<int32_t>(2 * p);
                    const int32_t first = w[k];
                    const int32_t second = k + 1 < wh ? w[k + 1] : 0;
                    low_pairs_[run * pairs_per_run_ + p] = pack(low_half(first), low_half(second));
                    high_pairs_[run * pairs_per_run_ + p] = pack(high_half(first), high_half(second));
                    has_high_halves_ |= high_half(first) != 0 || high_half(second) != 0;
                }
            }
        }
    }

    template <typename Sink>
    void scan(Sink &&sink) const {
        const int64_t column_bound = static_cast<int64_t>(map_.columns) - geometry_.window_columns;
        const int64_t row_bound = static_cast<int64_t>(map_.rows) - geometry_.window_rows;
        for (int64_t x = 0; x < column_bound; x += geometry_.stride) {
            const int16_t *const column = cells_.data() + map_.index(0, static_cast<int32_t>(x), 0);
            for (int64_t y0 = 0; y0 < row_bound; y0 += 8) {
                uint32_t sums[4];
                window_sums(column + y0, sums);
                for (int64_t j = 0; j < 4; ++j) {
                    const int64_t y = y0 + 2 * j;
                    if (y < row_bound && y % geometry_.stride == 0) {
                        sink(static_cast<int32_t>(x), static_cast<int32_t>(y), static_cast<int32_t>(sums[j]));
                    }
                }
            }
        }
    }

private:
    static constexpr size_t kPadding = 16;

    static int16_t low_half(int32_t w) { return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(w))); }
    // Only (hi mod 2^16) matters modulo 2^32, so the half is taken from the
    // unsigned difference.
    static int16_t high_half(int32_t w) {
        const uint32_t rest = static_cast<uint32_t>(w) - static_cast<uint32_t>(static_cast<int32_t>(low_half(w)));
        return static_cast<int16_t>(static_cast<uint16_t>(rest >> 16));
    }
    static int32_t pack(int16_t first, int16_t second) {
        const uint32_t bits = static_cast<uint32_t>(static_cast<uint16_t>(first)) |
                              (static_cast<uint32_t>(static_cast<uint16_t>(second)) << 16);
        return static_cast<int32_t>(bits);
    }

    // Sums of the four windows whose top rows are at column[0], [2], [4], [6].
    void window_sums(const int16_t *column, uint32_t sums[4]) const {
        __m128i low = _mm_setzero_si128();
        __m128i high = _mm_setzero_si128();
        const int32_t *low_pair = low_pairs_.data();
        const int32_t *high_pair = high_pairs_.data();
        for (size_t run = 0; run < runs_; ++run) {
            const int16_t *const rows = column + run_offsets_[run];
            for (size_t p = 0; p < pairs_per_run_; ++p, ++low_pair, ++high_pair) {
                const __m128i cells = _mm_loadu_si128(reinterpret_cast<const __m128i *>(rows + 2 * p));
                low = _mm_add_epi32(low, _mm_madd_epi16(cells, _mm_set1_epi32(*low_pair)));
                if (has_high_halves_) {
                    high = _mm_add_epi32(high, _mm_madd_epi16(cells, _mm_set1_epi32(*high_pair)));
                }
            }
        }
        uint32_t low_sums[4];
        uint32_t high_sums[4];
        _mm_storeu_si128(reinterpret_cast<__m128i *>(low_sums), low);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(high_sums), high);
        for (int j = 0; j < 4; ++j) {
            sums[j] = low_sums[j] + (high_sums[j] << 16);
        }
    }

    const feature_map &map_;
    const scan_geometry &geometry_;
    size_t runs_ = 0;
    size_t pairs_per_run_ = 0;
    bool has_high_halves_ = false;
    std::vector<int16_t> cells_;
    std::vector<size_t> run_offsets_;
    std::vector<int32_t> low_pairs_;
    std::vector<int32_t> high_pairs_;
};

#endif  // OSTREL_SSE2

// Plain path: the window column of one channel is a contiguous run of wh
// bytes, and so are its weights; run offsets are the same for every window.
void scan_runs(const feature_map &map, const scan_geometry &geometry, const int32_t *weights, const window_sink &sink) {
    const int32_t ww = geometry.window_columns;
    const int32_t wh = geometry.window_rows;
    const size_t runs = static_cast<size_t>(map.channels) * static_cast<size_t>(ww);
    std::vector<size_t> run_offsets(runs);
    for (int32_t c = 0; c < map.channels; ++c) {
        for (int32_t r = 0; r < ww; ++r) {
            run_offsets[static_cast<size_t>(c) * ww + r] = map.index(c, r, 0);
        }
    }
    const uint8_t *const data = map.data.data();
    for_each_position(map, geometry, [&](int32_t x, int32_t y) {
        const size_t window = map.index(0, x, y);
        uint32_t sum = 0;  // wraps around modulo 2^32
        const int32_t *w = weights;
        for (size_t run = 0; run < runs; ++run, w += wh) {
            const uint8_t *const cells = data + window + run_offsets[run];
            for (int32_t k = 0; k < wh; ++k) {
                sum += static_cast<uint32_t>(cells[k]) * static_cast<uint32_t>(w[k]);
            }
        }
        sink(x, y, static_cast<int32_t>(sum));
    });
}

}  // namespace

void scan_windows(const feature_map &map, const scan_geometry &geometry, const scan_settings &settings,
                  scan_result *out) {
    if (out == nullptr || !scan_has_positions(map, geometry, settings)) {
        return;
    }
    const window_sink sink(geometry, settings, out);
#if OSTREL_SSE2
    if (paired_row_scanner::applicable(geometry)) {
        const paired_row_scanner scanner(map, geometry, settings.weights);
        scanner.scan(sink);
        return;
    }
#endif
    scan_runs(map, geometry, settings.weights, sink);
}

void scan_windows_reference(const feature_map &map, const scan_geometry &geometry, const scan_settings &settings,
                            scan_result *out) {
    if (out == nullptr || !scan_has_positions(map, geometry, settings)) {
        return;
    }
    const window_sink sink(geometry, settings, out);
    for_each_position(map, geometry, [&](int32_t x, int32_t y) {
        sink(x, y, window_dot_product(map, x, y, geometry.window_columns, geometry.window_rows, settings.weights));
    });
}

}  // namespace ostrel
