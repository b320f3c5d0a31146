// Window scan and scoring: window size update, window features, the integer
// dot product, the fast-exponential confidence and the scan itself.
#include "detect/window_scan.h"

#include <cstring>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "detect/window_scan_reference.h"

namespace {

using ostrel::feature_map;
using ostrel::scan_geometry;
using ostrel::scan_result;
using ostrel::scan_settings;
using ostrel::window_size_state;

feature_map make_map(int32_t channels, int32_t columns, int32_t rows, uint8_t fill = 0) {
    feature_map map;
    map.channels = channels;
    map.columns = columns;
    map.rows = rows;
    map.data.assign(static_cast<size_t>(channels) * columns * rows, fill);
    return map;
}

feature_map random_map(std::mt19937 &rng, int32_t channels, int32_t columns, int32_t rows) {
    feature_map map = make_map(channels, columns, rows);
    std::uniform_int_distribution<int> byte(0, 255);
    for (uint8_t &cell : map.data) {
        cell = static_cast<uint8_t>(byte(rng));
    }
    return map;
}

// The confidence formula written out independently: 2^v as ldexp of the
// quadratic 2^f approximation, the logistic in double, the float
// probability times the double 100.0.
int32_t expected_confidence(int64_t margin) {
    const float v = static_cast<float>(margin) / -100000.0f * 1.442695f;
    const float whole = std::floor(v);
    const float f = v - whole;
    const float p = (0.33718944f * f + 0.6576363f) * f + 1.0017247f;
    const float e = std::ldexp(p, static_cast<int>(whole));
    const float probability = static_cast<float>(1.0 - 1.0 / (static_cast<double>(e) + 1.0));
    const double percent = static_cast<double>(probability) * 100.0;
    return static_cast<int32_t>(percent);
}

scan_settings settings_for(const std::vector<int32_t> &weights, int32_t image_width, int32_t image_height,
                           int32_t box_width, int32_t box_height) {
    scan_settings settings;
    settings.weights = weights.data();
    settings.image_width = image_width;
    settings.image_height = image_height;
    settings.box_width = box_width;
    settings.box_height = box_height;
    return settings;
}

bool same_bytes(const std::vector<ostrel_alg_box> &a, const std::vector<ostrel_alg_box> &b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0);
}

scan_geometry geometry_of(int32_t window_columns, int32_t window_rows, int32_t stride, float sx, float sy) {
    scan_geometry geometry;
    geometry.window_columns = window_columns;
    geometry.window_rows = window_rows;
    geometry.stride = stride;
    geometry.sx = sx;
    geometry.sy = sy;
    return geometry;
}

}  // namespace

// ---------------------------------------------------------------------------
// Window size update

// A picture of a new size rescales the window in cells and in pixels and
// makes the new size the reference; a later run on that size reuses them.
TEST(WindowSizeUpdate, NewPictureSizeRescalesAndIsKept) {
    window_size_state state;
    state.train_width = 40;
    state.train_height = 30;
    state.input_width = 200;
    state.input_height = 150;
    const feature_map map = make_map(10, 121, 68);

    const scan_geometry geometry = ostrel::update_window_size(state, map, 242, 136);
    // 121 / 200 * 40 = 24.2, 68 / 150 * 30 = 13.6
    EXPECT_EQ(state.scaled_width, 24);
    EXPECT_EQ(state.scaled_height, 13);
    // 242 * 40 / 200 = 48.4, 136 * 30 / 150 = 27.2
    EXPECT_EQ(state.train_width, 48);
    EXPECT_EQ(state.train_height, 27);
    EXPECT_EQ(state.input_width, 242);
    EXPECT_EQ(state.input_height, 136);
    EXPECT_EQ(geometry.window_columns, 24);
    EXPECT_EQ(geometry.window_rows, 13);
    EXPECT_EQ(geometry.sx, 0.5f);
    EXPECT_EQ(geometry.sy, 0.5f);
    // 48 / 242 > 0.16 but 27 / 136 is not above 0.25.
    EXPECT_EQ(geometry.stride, 2);

    // Same size again, even with another map: nothing is rescaled.
    const window_size_state before = state;
    const feature_map other = make_map(10, 60, 34);
    const scan_geometry again = ostrel::update_window_size(state, other, 242, 136);
    EXPECT_EQ(state.scaled_width, before.scaled_width);
    EXPECT_EQ(state.scaled_height, before.scaled_height);
    EXPECT_EQ(state.train_width, before.train_width);
    EXPECT_EQ(state.train_height, before.train_height);
    EXPECT_EQ(again.window_columns, 24);
    EXPECT_EQ(again.window_rows, 13);
    EXPECT_EQ(again.sx, 60.0f / 242.0f);
    EXPECT_EQ(again.sy, 34.0f / 136.0f);
}

// A change of height alone is a new size too.
TEST(WindowSizeUpdate, HeightChangeAloneRescales) {
    window_size_state state;
    state.train_width = 40;
    state.train_height = 30;
    state.input_width = 200;
    state.input_height = 150;
    const feature_map map = make_map(10, 100, 150);
    ostrel::update_window_size(state, map, 200, 300);
    EXPECT_EQ(state.scaled_width, 20);   // 100 / 200 * 40
    EXPECT_EQ(state.scaled_height, 30);  // 150 / 150 * 30
    EXPECT_EQ(state.train_width, 40);
    EXPECT_EQ(state.train_height, 60);
    EXPECT_EQ(state.input_height, 300);
}

// Stored cell sizes of 0 x 0 are derived from the pixel size for the run
// only; the stored sizes stay 0.
TEST(WindowSizeUpdate, ZeroCellSizesDerivedPerRun) {
    window_size_state state;
    state.train_width = 40;
    state.train_height = 30;
    state.input_width = 200;
    state.input_height = 150;
    const feature_map map = make_map(10, 100, 75);
    const scan_geometry geometry = ostrel::update_window_size(state, map, 200, 150);
    EXPECT_EQ(geometry.window_columns, 20);
    EXPECT_EQ(geometry.window_rows, 15);
    EXPECT_EQ(state.scaled_width, 0);
    EXPECT_EQ(state.scaled_height, 0);

    const feature_map coarser = make_map(10, 50, 30);
    const scan_geometry second = ostrel::update_window_size(state, coarser, 200, 150);
    EXPECT_EQ(second.window_columns, 10);  // 40 * 0.25
    EXPECT_EQ(second.window_rows, 6);      // 30 * 0.2
    EXPECT_EQ(state.scaled_width, 0);
}

// Only both sizes 0 mean "derive": one stored 0 is used as it is.
TEST(WindowSizeUpdate, OneZeroCellSizeIsUsedAsIs) {
    window_size_state state;
    state.train_width = 40;
    state.train_height = 30;
    state.scaled_width = 0;
    state.scaled_height = 7;
    state.input_width = 200;
    state.input_height = 150;
    const feature_map map = make_map(10, 100, 75);
    const scan_geometry geometry = ostrel::update_window_size(state, map, 200, 150);
    EXPECT_EQ(geometry.window_columns, 0);
    EXPECT_EQ(geometry.window_rows, 7);
}

// Window 20% of the picture wide and 30% high: stride 4; 20% x 25%: stride 2
// (the height bound is strict); 16% x 30%: stride 2 (so is the width bound).
TEST(WindowSizeUpdate, StrideFromObjectShare) {
    const feature_map map = make_map(10, 50, 50);
    auto stride_for = [&map](int32_t train_width, int32_t train_height) {
        window_size_state state;
        state.train_width = train_width;
        state.train_height = train_height;
        state.input_width = 100;
        state.input_height = 100;
        return ostrel::update_window_size(state, map, 100, 100).stride;
    };
    EXPECT_EQ(stride_for(20, 30), 4);
    EXPECT_EQ(stride_for(20, 25), 2);
    EXPECT_EQ(stride_for(16, 30), 2);
    EXPECT_EQ(stride_for(17, 26), 4);
    EXPECT_EQ(stride_for(90, 10), 2);
}

// A picture size of 0 must not be undefined: the infinite scale factors
// truncate to the integer-indefinite value.
TEST(WindowSizeUpdate, ZeroSizedPictureIsDefined) {
    window_size_state state;
    state.train_width = 40;
    state.train_height = 30;
    state.input_width = 0;
    state.input_height = 0;
    const feature_map map = make_map(10, 100, 75);
    const scan_geometry geometry = ostrel::update_window_size(state, map, 0, 0);
    EXPECT_EQ(geometry.window_columns, std::numeric_limits<int32_t>::min());
    EXPECT_EQ(geometry.window_rows, std::numeric_limits<int32_t>::min());
    scan_result result;
    std::vector<int32_t> weights(16, 1);
    ostrel::scan_windows(map, geometry, settings_for(weights, 0, 0, 40, 30), &result);
    EXPECT_TRUE(result.accepted.empty());
    EXPECT_TRUE(result.below.empty());
}

// ---------------------------------------------------------------------------
// Window features and dot product

// Element c*ww*wh + r*wh + k is the cell of channel c at column x + r, row
// y + k.
TEST(WindowFeatures, ChannelThenColumnThenRowOrder) {
    feature_map map = make_map(3, 7, 5);
    for (size_t i = 0; i < map.data.size(); ++i) {
        map.data[i] = static_cast<uint8_t>(i);
    }
    const int32_t x = 2;
    const int32_t y = 1;
    const int32_t ww = 4;
    const int32_t wh = 3;
    std::vector<int32_t> features(3 * ww * wh, -1);
    ostrel::copy_window_features(map, x, y, ww, wh, features.data());
    for (int32_t c = 0; c < 3; ++c) {
        for (int32_t r = 0; r < ww; ++r) {
            for (int32_t k = 0; k < wh; ++k) {
                const size_t element = static_cast<size_t>(c * ww * wh + r * wh + k);
                EXPECT_EQ(features[element], c * 35 + (x + r) * 5 + (y + k)) << c << " " << r << " " << k;
            }
        }
    }
}

// Rows past the bottom of a column read on into the next column (the cells
// follow each other in the buffer); offsets past the buffer read 0.
TEST(WindowFeatures, OutsideTheMapFollowsTheBuffer) {
    feature_map map = make_map(1, 3, 4);
    for (size_t i = 0; i < map.data.size(); ++i) {
        map.data[i] = static_cast<uint8_t>(10 + i);
    }
    std::vector<int32_t> features(4, -1);
    ostrel::copy_window_features(map, 1, 2, 2, 2, features.data());
    // (1,2) (1,3) (2,2) (2,3): all inside.
    EXPECT_EQ(features, (std::vector<int32_t>{16, 17, 20, 21}));
    ostrel::copy_window_features(map, 1, 3, 2, 2, features.data());
    // (1,3), (1,4) = offset 8, (2,3) = 11, (2,4) = offset 12 past the end.
    EXPECT_EQ(features, (std::vector<int32_t>{17, 18, 21, 0}));
    ostrel::copy_window_features(map, -1, 0, 1, 2, features.data());
    // offsets -4 and -3: before the buffer.
    EXPECT_EQ(features[0], 0);
    EXPECT_EQ(features[1], 0);

    // Extents that do not fit the buffer: nothing is read.
    feature_map short_map = map;
    short_map.channels = 2;
    std::vector<int32_t> two_channels(8, -1);
    ostrel::copy_window_features(short_map, 0, 0, 2, 2, two_channels.data());
    EXPECT_EQ(two_channels, std::vector<int32_t>(8, 0));
    const std::vector<int32_t> ones(8, 1);
    EXPECT_EQ(ostrel::window_dot_product(short_map, 0, 0, 2, 2, ones.data()), 0);
}

// The dot product pairs the bytes with the weights in the window feature
// order.
TEST(WindowDotProduct, MatchesFeatureOrder) {
    std::mt19937 rng(7);
    const feature_map map = random_map(rng, 4, 9, 8);
    const int32_t ww = 5;
    const int32_t wh = 4;
    std::vector<int32_t> weights(4 * ww * wh);
    std::uniform_int_distribution<int32_t> weight(-50000, 50000);
    for (int32_t &w : weights) {
        w = weight(rng);
    }
    std::vector<int32_t> features(weights.size());
    ostrel::copy_window_features(map, 3, 2, ww, wh, features.data());
    int64_t expected = 0;
    for (size_t i = 0; i < weights.size(); ++i) {
        expected += static_cast<int64_t>(features[i]) * weights[i];
    }
    EXPECT_EQ(ostrel::window_dot_product(map, 3, 2, ww, wh, weights.data()), static_cast<int32_t>(expected));
}

// The 32-bit sum wraps around: 2 * 255 * 2^30 = 2^31 + 2^32*127 gives
// INT32_MIN, and with a third cell it wraps further.
TEST(WindowDotProduct, WrapsAroundInThirtyTwoBits) {
    const feature_map map = make_map(1, 1, 3, 255);
    const std::vector<int32_t> weights{1 << 30, 1 << 30, 1 << 30};
    EXPECT_EQ(ostrel::window_dot_product(map, 0, 0, 1, 2, weights.data()), std::numeric_limits<int32_t>::min());
    // 3 * 255 * 2^30 mod 2^32 = (765 mod 4) * 2^30 = 2^30
    EXPECT_EQ(ostrel::window_dot_product(map, 0, 0, 1, 3, weights.data()), 1 << 30);
    const std::vector<int32_t> max_weights{std::numeric_limits<int32_t>::max(), std::numeric_limits<int32_t>::max()};
    const uint32_t wrapped = 2u * 255u * 2147483647u;
    EXPECT_EQ(ostrel::window_dot_product(map, 0, 0, 1, 2, max_weights.data()), static_cast<int32_t>(wrapped));
}

// ---------------------------------------------------------------------------
// Confidence

// Margin 0: 2^0 comes out as 1.0017247, 1 - 1/2.0017247 = 0.5004 -> 50.
// One unit of margin (100000) is about e^-1 or e^+1: 26 and 73.
TEST(WindowConfidence, WorkedValues) {
    EXPECT_EQ(ostrel::window_confidence(0, 0), 50);
    EXPECT_EQ(ostrel::window_confidence(12345, 12345), 50);
    EXPECT_EQ(ostrel::window_confidence(100000, 0), 26);
    EXPECT_EQ(ostrel::window_confidence(0, 100000), 73);
    EXPECT_EQ(ostrel::window_confidence(200000, 0), 11);
    EXPECT_EQ(ostrel::window_confidence(-200000, 0), 88);
    // Large margins saturate: the probability rounds to the float 1.0 or
    // to a tiny fraction.
    EXPECT_EQ(ostrel::window_confidence(3000000, 0), 0);
    EXPECT_EQ(ostrel::window_confidence(-3000000, 0), 100);
    EXPECT_EQ(ostrel::window_confidence(1000000, 0), 0);
    EXPECT_EQ(ostrel::window_confidence(-1000000, 0), 99);
}

// The fast exponential agrees with an independent ldexp formulation over a
// sweep of margins.
TEST(WindowConfidence, MatchesIndependentFormula) {
    for (int64_t margin = -4000000; margin <= 4000000; margin += 997) {
        ASSERT_EQ(ostrel::window_confidence(static_cast<int32_t>(margin), 0), expected_confidence(margin)) << margin;
    }
    std::mt19937 rng(11);
    std::uniform_int_distribution<int32_t> value(-3000000, 3000000);
    for (int i = 0; i < 20000; ++i) {
        const int32_t sum = value(rng);
        const int32_t bias = value(rng);
        ASSERT_EQ(ostrel::window_confidence(sum, bias), expected_confidence(static_cast<int64_t>(sum) - bias))
            << sum << " " << bias;
    }
}

// The float probability is multiplied by the double 100.0: 0.95f is
// 0.949999988..., so the truncated percent is 94 (a float product would
// round it up to 95 first).
TEST(WindowConfidence, PercentIsTruncatedFromTheFloatProbability) {
    EXPECT_EQ(ostrel::window_confidence(0, 294612), 94);
    EXPECT_EQ(ostrel::window_confidence(0, 231479), 90);
    EXPECT_EQ(ostrel::window_confidence(0, 219883), 89);
}

// sum - bias is an int difference and wraps in 32 bits like the sum: all
// these are the margin INT32_MIN; extreme exponents stay defined.
TEST(WindowConfidence, MarginWrapsInThirtyTwoBits) {
    const int32_t lowest = std::numeric_limits<int32_t>::min();
    const int32_t highest = std::numeric_limits<int32_t>::max();
    const int32_t reference = ostrel::window_confidence(lowest, 0);
    EXPECT_EQ(ostrel::window_confidence(0, lowest), reference);
    EXPECT_EQ(ostrel::window_confidence(highest, -1), reference);
    EXPECT_EQ(ostrel::window_confidence(highest, highest), 50);
    // Same margin through different wrapped operands.
    EXPECT_EQ(ostrel::window_confidence(highest, lowest), ostrel::window_confidence(-1, 0));
}

// ---------------------------------------------------------------------------
// Scan

// A map no wider than the window gives no candidate and no error; neither
// does one no taller than the window.
TEST(ScanWindows, MapNoLargerThanWindowGivesNothing) {
    const std::vector<int32_t> weights(2 * 20 * 15, 0);
    scan_settings settings = settings_for(weights, 40, 40, 40, 30);
    settings.collect_below = true;
    for (int32_t columns : {19, 20}) {
        const feature_map map = make_map(2, columns, 40, 9);
        scan_result result;
        ostrel::scan_windows(map, geometry_of(20, 15, 2, 0.5f, 0.5f), settings, &result);
        EXPECT_TRUE(result.accepted.empty()) << columns;
        EXPECT_TRUE(result.below.empty()) << columns;
    }
    const feature_map flat = make_map(2, 40, 15, 9);
    scan_result result;
    ostrel::scan_windows(flat, geometry_of(20, 15, 2, 0.5f, 0.5f), settings, &result);
    EXPECT_TRUE(result.accepted.empty());
    EXPECT_TRUE(result.below.empty());
}

// The bounds are strict: with W - ww = 4 and stride 2 the columns 0 and 2
// are scanned, not 4; the same for rows. Order: column-major over positions.
TEST(ScanWindows, StrictBoundSkipsTheLastPosition) {
    const feature_map map = make_map(1, 24, 19, 3);
    const std::vector<int32_t> weights(20 * 15, 0);  // margin 0: 50%
    scan_settings settings = settings_for(weights, 48, 38, 40, 30);
    settings.confidence_threshold = 0;
    scan_result result;
    ostrel::scan_windows(map, geometry_of(20, 15, 2, 0.5f, 0.5f), settings, &result);
    ASSERT_EQ(result.accepted.size(), 4u);
    const int32_t expected_left[] = {1, 1, 5, 5};  // (x + 0.5) / 0.5
    const int32_t expected_top[] = {1, 5, 1, 5};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(result.accepted[i].x, expected_left[i]) << i;
        EXPECT_EQ(result.accepted[i].y, expected_top[i]) << i;
    }

    // W - ww = 5: position 4 is below the bound and scanned.
    const feature_map wider = make_map(1, 25, 19, 3);
    scan_result more;
    ostrel::scan_windows(wider, geometry_of(20, 15, 2, 0.5f, 0.5f), settings, &more);
    EXPECT_EQ(more.accepted.size(), 6u);

    // Stride 4 on W - ww = 4: column 0 only.
    scan_result coarse;
    ostrel::scan_windows(map, geometry_of(20, 15, 4, 0.5f, 0.5f), settings, &coarse);
    EXPECT_EQ(coarse.accepted.size(), 1u);
}

// A window scoring exactly the threshold is accepted; one percent more is
// needed for a higher threshold. Box fields: size from the settings, score
// as a fraction, label 1, colours 0.
TEST(ScanWindows, ScoreAtThresholdIsAccepted) {
    const feature_map map = make_map(1, 12, 12, 2);
    const std::vector<int32_t> weights(4 * 4, 1000);  // sum 32000
    scan_settings settings = settings_for(weights, 120, 120, 40, 40);
    settings.bias = 132000;  // margin -100000: 73%
    ASSERT_EQ(ostrel::window_confidence(32000, 132000), 73);
    ASSERT_EQ(expected_confidence(-100000), 73);

    settings.confidence_threshold = 73;
    scan_result result;
    ostrel::scan_windows(map, geometry_of(4, 4, 2, 0.1f, 0.1f), settings, &result);
    ASSERT_EQ(result.accepted.size(), 16u);
    for (const ostrel_alg_box &box : result.accepted) {
        EXPECT_EQ(box.score, 0.73f);
        EXPECT_EQ(box.label, 1);
        EXPECT_EQ(box.width, 40);
        EXPECT_EQ(box.height, 40);
        EXPECT_EQ(box.color_main, 0);
        EXPECT_EQ(box.color_second, 0);
    }

    settings.confidence_threshold = 74;
    scan_result none;
    ostrel::scan_windows(map, geometry_of(4, 4, 2, 0.1f, 0.1f), settings, &none);
    EXPECT_TRUE(none.accepted.empty());
    EXPECT_TRUE(none.below.empty());  // not collected unless asked for
}

// Windows below the threshold are collected only when asked, unclamped,
// with label -1 and their own score.
TEST(ScanWindows, BelowThresholdWindowsWhenCollecting) {
    const feature_map map = make_map(1, 12, 12, 2);
    const std::vector<int32_t> weights(4 * 4, 1000);
    scan_settings settings = settings_for(weights, 100, 100, 40, 40);
    settings.bias = 132000;  // 73%
    settings.confidence_threshold = 74;
    settings.collect_below = true;
    scan_result result;
    ostrel::scan_windows(map, geometry_of(4, 4, 2, 0.1f, 0.1f), settings, &result);
    EXPECT_TRUE(result.accepted.empty());
    ASSERT_EQ(result.below.size(), 16u);
    // Last position (6, 6): 6.5 / 0.1f in double is 64.99999..., so 64; an
    // accepted box would be moved to 59 (64 + 1 + 40 passes 100), a below
    // box stays.
    const ostrel_alg_box &last = result.below.back();
    EXPECT_EQ(last.x, 64);
    EXPECT_EQ(last.y, 64);
    EXPECT_EQ(last.label, -1);
    EXPECT_EQ(last.score, 0.73f);
    EXPECT_EQ(last.width, 40);
}

// A box passing the right (bottom) edge is moved so that it ends one pixel
// inside: left + width = image width - 1. Below boxes are not moved.
TEST(ScanWindows, BoxesAtTheEdgeAreMovedInside) {
    const feature_map map = make_map(1, 50, 40, 1);
    const std::vector<int32_t> weights(10 * 10, 0);
    scan_settings settings = settings_for(weights, 100, 80, 40, 30);
    settings.confidence_threshold = 50;
    scan_result result;
    ostrel::scan_windows(map, geometry_of(10, 10, 2, 0.5f, 0.5f), settings, &result);
    ASSERT_EQ(result.accepted.size(), 20u * 15u);
    bool moved_right = false;
    bool moved_down = false;
    for (const ostrel_alg_box &box : result.accepted) {
        EXPECT_LE(box.x + box.width, 99);
        EXPECT_LE(box.y + box.height, 79);
        moved_right |= box.x + box.width == 99;
        moved_down |= box.y + box.height == 79;
    }
    EXPECT_TRUE(moved_right);
    EXPECT_TRUE(moved_down);
    // Last column x = 38: left 77, 77 + 1 + 40 - 100 = 18 -> left 59.
    const ostrel_alg_box &last = result.accepted.back();
    EXPECT_EQ(last.x, 59);
    EXPECT_EQ(last.x + last.width, 100 - 1);
    // Last row y = 28: top 57, 57 + 1 + 30 - 80 = 8 -> 49.
    EXPECT_EQ(last.y, 49);
    // A box that fits keeps its place: x = 0 -> left 1.
    EXPECT_EQ(result.accepted.front().x, 1);
    EXPECT_EQ(result.accepted.front().y, 1);

    settings.confidence_threshold = 51;
    settings.collect_below = true;
    scan_result below;
    ostrel::scan_windows(map, geometry_of(10, 10, 2, 0.5f, 0.5f), settings, &below);
    ASSERT_EQ(below.below.size(), 20u * 15u);
    EXPECT_EQ(below.below.back().x, 77);
    EXPECT_EQ(below.below.back().y, 57);
}

// The scan's unrolled dot product gives the same windows as the plain
// per-window kernels at every position, on random maps and weights.
TEST(ScanWindows, SameAsPlainKernelsOnRandomMaps) {
    std::mt19937 rng(2024);
    for (int trial = 0; trial < 150; ++trial) {
        std::uniform_int_distribution<int32_t> channels_of(1, 10);
        std::uniform_int_distribution<int32_t> extent(1, 40);
        const int32_t channels = channels_of(rng);
        const int32_t columns = extent(rng);
        const int32_t rows = extent(rng);
        const feature_map map = random_map(rng, channels, columns, rows);
        std::uniform_int_distribution<int32_t> window(1, 12);
        const int32_t ww = window(rng);
        const int32_t wh = window(rng);
        const int32_t strides[] = {2, 4, 1, 3, 6};
        const int32_t stride = strides[trial % 5];
        std::vector<int32_t> weights(static_cast<size_t>(channels) * ww * wh);
        // Weights within 16 bits, beyond them, and wide enough that the sums
        // wrap around.
        const int32_t spans[] = {3000, 20000000, std::numeric_limits<int32_t>::max()};
        const int32_t span = spans[trial % 3];
        std::uniform_int_distribution<int32_t> weight(-span, span);
        for (int32_t &w : weights) {
            w = weight(rng);
        }
        const int32_t image_width = columns * 2 + 1;
        const int32_t image_height = rows * 2 + 3;
        const float sx = static_cast<float>(columns) / static_cast<float>(image_width);
        const float sy = static_cast<float>(rows) / static_cast<float>(image_height);
        scan_settings settings = settings_for(weights, image_width, image_height, ww * 2, wh * 2);
        settings.bias = weight(rng);
        settings.confidence_threshold = 50;
        settings.collect_below = true;
        scan_result result;
        ostrel::scan_windows(map, geometry_of(ww, wh, stride, sx, sy), settings, &result);

        std::vector<ostrel_alg_box> accepted;
        std::vector<ostrel_alg_box> below;
        for (int32_t x = 0; x < columns - ww; x += stride) {
            for (int32_t y = 0; y < rows - wh; y += stride) {
                const int32_t sum = ostrel::window_dot_product(map, x, y, ww, wh, weights.data());
                const int32_t score = ostrel::window_confidence(sum, settings.bias);
                ostrel_alg_box box{};
                box.x = static_cast<int32_t>((x + 0.5) / static_cast<double>(sx));
                box.y = static_cast<int32_t>((y + 0.5) / static_cast<double>(sy));
                box.width = ww * 2;
                box.height = wh * 2;
                box.score = static_cast<float>(score) / 100.0f;
                if (score >= 50) {
                    box.label = 1;
                    if (box.x + 1 + box.width > image_width) {
                        box.x = image_width - 1 - box.width;
                    }
                    if (box.y + 1 + box.height > image_height) {
                        box.y = image_height - 1 - box.height;
                    }
                    accepted.push_back(box);
                } else {
                    box.label = -1;
                    below.push_back(box);
                }
            }
        }
        auto same = [](const std::vector<ostrel_alg_box> &a, const std::vector<ostrel_alg_box> &b) {
            if (a.size() != b.size()) {
                return false;
            }
            for (size_t i = 0; i < a.size(); ++i) {
                if (a[i].x != b[i].x || a[i].y != b[i].y || a[i].width != b[i].width || a[i].height != b[i].height ||
                    a[i].score != b[i].score || a[i].label != b[i].label || a[i].color_main != 0 ||
                    a[i].color_second != 0) {
                    return false;
                }
            }
            return true;
        };
        EXPECT_TRUE(same(result.accepted, accepted)) << "trial " << trial;
        EXPECT_TRUE(same(result.below, below)) << "trial " << trial;
    }
}

// Windows are appended to the lists the caller passes.
TEST(ScanWindows, AppendsToTheGivenLists) {
    const feature_map map = make_map(1, 6, 6, 0);
    const std::vector<int32_t> weights(4, 0);
    scan_settings settings = settings_for(weights, 12, 12, 4, 4);
    scan_result result;
    result.accepted.push_back(ostrel_alg_box{});
    ostrel::scan_windows(map, geometry_of(2, 2, 2, 0.5f, 0.5f), settings, &result);
    EXPECT_EQ(result.accepted.size(), 1u + 4u);
}

// Input that no model produces (no weights, zero stride, a negative window,
// a map shorter than its extents or without channels) scans nothing
// instead of crashing.
TEST(ScanWindows, BadInputScansNothing) {
    const std::vector<int32_t> weights(4, 0);
    scan_settings settings = settings_for(weights, 12, 12, 4, 4);
    settings.collect_below = true;
    feature_map map = make_map(1, 6, 6, 0);
    scan_result result;
    ostrel::scan_windows(map, geometry_of(2, 2, 0, 0.5f, 0.5f), settings, &result);
    ostrel::scan_windows(map, geometry_of(-2, 2, 2, 0.5f, 0.5f), settings, &result);
    map.data.resize(10);
    ostrel::scan_windows(map, geometry_of(2, 2, 2, 0.5f, 0.5f), settings, &result);
    feature_map no_channels;
    no_channels.columns = 1 << 20;
    no_channels.rows = 1 << 20;
    ostrel::scan_windows(no_channels, geometry_of(2, 2, 2, 0.5f, 0.5f), settings, &result);
    settings.weights = nullptr;
    ostrel::scan_windows(make_map(1, 6, 6, 0), geometry_of(2, 2, 2, 0.5f, 0.5f), settings, &result);
    EXPECT_TRUE(result.accepted.empty());
    EXPECT_TRUE(result.below.empty());
}

// The scan gives byte for byte the boxes of the reference scan built on the
// plain kernels, for maps of the realistic size and odd and even windows.
TEST(ScanWindows, SameBytesAsReferenceScan) {
    std::mt19937 rng(99);
    struct shape {
        int32_t columns, rows, ww, wh, stride;
    };
    const shape shapes[] = {{121, 68, 20, 15, 2}, {121, 68, 20, 15, 4}, {121, 68, 21, 16, 2}, {60, 34, 9, 8, 2},
                            {30, 17, 5, 16, 2},   {30, 9, 3, 7, 4},     {121, 68, 20, 15, 1}, {16, 16, 1, 1, 2}};
    size_t accepted = 0;
    size_t below = 0;
    for (const shape &sh : shapes) {
        for (int32_t span : {1000, 40000, 2000000000}) {
            const feature_map map = random_map(rng, 10, sh.columns, sh.rows);
            std::vector<int32_t> weights(static_cast<size_t>(10) * sh.ww * sh.wh);
            std::uniform_int_distribution<int32_t> weight(-span, span);
            for (int32_t &w : weights) {
                w = weight(rng);
            }
            scan_settings settings = settings_for(weights, sh.columns * 2, sh.rows * 2, sh.ww * 2, sh.wh * 2);
            settings.bias = weight(rng);
            settings.confidence_threshold = 40;
            settings.collect_below = true;
            const scan_geometry geometry = geometry_of(sh.ww, sh.wh, sh.stride, 0.5f, 0.5f);
            scan_result fast;
            scan_result reference;
            ostrel::scan_windows(map, geometry, settings, &fast);
            ostrel::scan_windows_reference(map, geometry, settings, &reference);
            const size_t positions = fast.accepted.size() + fast.below.size();
            const size_t expected_positions = static_cast<size_t>((sh.columns - sh.ww + sh.stride - 1) / sh.stride) *
                                              static_cast<size_t>((sh.rows - sh.wh + sh.stride - 1) / sh.stride);
            EXPECT_EQ(positions, expected_positions);
            EXPECT_TRUE(same_bytes(fast.accepted, reference.accepted)) << sh.columns << " " << sh.wh << " " << span;
            EXPECT_TRUE(same_bytes(fast.below, reference.below)) << sh.columns << " " << sh.wh << " " << span;
            accepted += fast.accepted.size();
            below += fast.below.size();
        }
    }
    // Both lists were exercised.
    EXPECT_GT(accepted, 1000u);
    EXPECT_GT(below, 1000u);
}
