// The set-up's check of the first box's window, on the 121 x 68 cell map of
// ten channels that every picture gives: which boxes make a window the
// detector can learn, and when the samples it joins have another length.
#include "engine/learnable_window.h"

#include <climits>
#include <vector>

#include <gtest/gtest.h>

#include "acf/ostrel_acf.h"
#include "support/stdout_capture.h"

using ostrel::window_verdict;

namespace {

const ostrel::map_extent kMap{10, 121, 68};

ostrel_alg_box box(int32_t x, int32_t y, int32_t w, int32_t h, int32_t label = 1) {
    return ostrel_alg_box{x, y, w, h, 0.0f, label, 0, 0};
}

ostrel::window_check check(const std::vector<ostrel_alg_box> &boxes, size_t held = 0) {
    return ostrel::check_learnable_window(boxes, 640, 480, kMap, held);
}

}  // namespace

// The extractor's own map: what every feature map of a picture measures.
TEST(LearnableWindow, ExtractorMapExtent) {
    ostrel::ostrel_acf extractor;
    ASSERT_EQ(extractor.init_pyramid(), 0);
    const ostrel::map_extent map = ostrel::scale0_map_extent(extractor);
    EXPECT_EQ(map.channels, kMap.channels);
    EXPECT_EQ(map.columns, kMap.columns);
    EXPECT_EQ(map.rows, kMap.rows);
}

// 96 x 99 pixels of 640 x 480 are 18 x 14 cells: 2520 features.
TEST(LearnableWindow, AUsualBoxIsLearnable) {
    const ostrel::window_check c = check({box(100, 100, 96, 99)});
    EXPECT_EQ(c.verdict, window_verdict::learnable);
    EXPECT_EQ(c.window.width, 18);
    EXPECT_EQ(c.window.height, 14);
    EXPECT_EQ(c.window_features, 2520);
    EXPECT_EQ(c.sample_features, 2520);
}

TEST(LearnableWindow, BoxesWithoutAWindow) {
    EXPECT_EQ(check({box(0, 0, 0, 0)}).verdict, window_verdict::box_without_size);
    EXPECT_EQ(check({box(0, 0, -96, 99)}).verdict, window_verdict::box_without_size);
    EXPECT_EQ(check({box(0, 0, 96, INT_MIN)}).verdict, window_verdict::box_without_size);
    EXPECT_EQ(check({box(0, 0, 5, 99)}).verdict, window_verdict::window_without_cell);   // 0.95 cells
    EXPECT_EQ(check({box(0, 0, 6, 8)}).verdict, window_verdict::learnable);              // 1 x 1 cell
    EXPECT_EQ(check({box(0, 0, 640, 480)}).verdict, window_verdict::learnable);          // the whole map
    EXPECT_EQ(check({box(0, 0, 641, 480)}).verdict, window_verdict::learnable);          // still 121 cells
    EXPECT_EQ(check({box(0, 0, 646, 480)}).verdict, window_verdict::window_beyond_map);  // 122 cells
    EXPECT_EQ(check({box(0, 0, 96, 488)}).verdict, window_verdict::window_beyond_map);
    EXPECT_EQ(check({box(0, 0, INT_MAX, INT_MAX)}).verdict, window_verdict::window_beyond_map);
}

// The model's weights come from the first sample: one the engine holds, or
// the first box of the picture that lies inside the map, whatever its label.
TEST(LearnableWindow, TheSamplesItJoins) {
    EXPECT_EQ(check({box(100, 100, 96, 99)}, 2520).verdict, window_verdict::learnable);
    const ostrel::window_check held = check({box(100, 100, 92, 97)}, 2520);
    EXPECT_EQ(held.verdict, window_verdict::other_sample_length);
    EXPECT_EQ(held.window_features, 2210);
    EXPECT_EQ(held.sample_features, 2520);

    const ostrel::window_check outside_first = check({box(5000, 5000, 60, 60), box(100, 100, 96, 99)});
    EXPECT_EQ(outside_first.verdict, window_verdict::other_sample_length);
    EXPECT_EQ(outside_first.sample_features, 2520);
    EXPECT_EQ(check({box(-50, 0, 96, 99), box(100, 100, 96, 99)}).verdict, window_verdict::learnable);
    EXPECT_EQ(check({box(5000, 5000, 60, 60), box(100, 100, 60, 60, -1)}).verdict, window_verdict::learnable);
    // Later boxes of other sizes do not matter once the first makes a sample.
    EXPECT_EQ(check({box(100, 100, 96, 99), box(0, 0, 30, 30)}).verdict, window_verdict::learnable);
    // No box makes a sample: nothing to compare with (set-up then fails for
    // want of samples).
    const ostrel::window_check none = check({box(5000, 5000, 96, 99), box(-10, 600, 96, 99)});
    EXPECT_EQ(none.verdict, window_verdict::learnable);
    EXPECT_EQ(none.sample_features, 0);
}

TEST(LearnableWindow, DebugLines) {
    const ostrel_alg_box first = box(0, 0, 3, 3);
    std::string log = ostrel_test::capture_stdout(
        [&] { ostrel::log_window_check(check({first}), first, 640, 480, kMap, "ostrel_alg::op"); });
    EXPECT_EQ(log,
              "[Debug] ostrel_alg::op: the first box, 3 x 3 pixels of a 640 x 480 picture, covers 0 x 0 feature "
              "cells: too small to learn\n");
    const ostrel_alg_box none = box(0, 0, 0, 7);
    log = ostrel_test::capture_stdout(
        [&] { ostrel::log_window_check(check({none}), none, 640, 480, kMap, "ostrel_alg::op"); });
    EXPECT_EQ(log, "[Debug] ostrel_alg::op: the first box is 0 x 7 pixels: no window can be learnt from it\n");
    const ostrel_alg_box huge = box(0, 0, 700, 20);
    log = ostrel_test::capture_stdout(
        [&] { ostrel::log_window_check(check({huge}), huge, 640, 480, kMap, "ostrel_alg::op"); });
    EXPECT_EQ(log,
              "[Debug] ostrel_alg::op: the first box, 700 x 20 pixels of a 640 x 480 picture, is larger than the "
              "picture's 121 x 68 feature cells: too large to learn\n");
    const ostrel_alg_box other = box(0, 0, 92, 97);
    log = ostrel_test::capture_stdout(
        [&] { ostrel::log_window_check(check({other}, 2520), other, 640, 480, kMap, "ostrel_alg::op"); });
    EXPECT_EQ(log,
              "[Debug] ostrel_alg::op: the first box's window of 17 x 13 cells has 2210 features, but the "
              "training samples it would join have 2520: a model learns one window, so mark every box at one "
              "size\n");
    log = ostrel_test::capture_stdout(
        [&] { ostrel::log_window_check(check({box(1, 1, 96, 99)}), first, 640, 480, kMap, "ostrel_alg::op"); });
    EXPECT_EQ(log, "");
}

// What a host asks before marking a box: the set-up's rule, and then the
// weights a model file holds (201..5999), which set-up leaves to the export.
TEST(LearnableWindow, StorableWindowsAreThoseAModelFileHolds) {
    auto storable = [](int32_t w, int32_t h, size_t held = 0) {
        return ostrel::check_storable_window({box(0, 0, w, h)}, 640, 480, kMap, held).verdict;
    };
    EXPECT_EQ(storable(96, 99), window_verdict::learnable);
    // 1 x 1 cell: 10 values, learnt by set-up but held by no model file.
    EXPECT_EQ(check({box(0, 0, 6, 8)}).verdict, window_verdict::learnable);
    EXPECT_EQ(storable(6, 8), window_verdict::weights_unstorable);
    // 5 x 4 cells = 200 values, 6 x 4 = 240.
    EXPECT_EQ(storable(27, 29), window_verdict::weights_unstorable);
    EXPECT_EQ(storable(32, 29), window_verdict::learnable);
    // The whole map: 121 x 68 x 10 values.
    EXPECT_EQ(storable(640, 480), window_verdict::weights_unstorable);
    // The set-up's own verdicts come first.
    EXPECT_EQ(storable(5, 99), window_verdict::window_without_cell);
    EXPECT_EQ(storable(646, 480), window_verdict::window_beyond_map);
    EXPECT_EQ(storable(96, 99, 2000), window_verdict::other_sample_length);
}

TEST(LearnableWindow, TheHostsSentenceSaysWhichWayToGo) {
    auto sentence = [](int32_t w, int32_t h) {
        const ostrel_alg_box b = box(0, 0, w, h);
        const ostrel::window_check c = ostrel::check_storable_window({b}, 640, 480, kMap, 0);
        return ostrel_test::capture_stdout([&] { ostrel::fail_unlearnable_box(c, b, 640, 480, kMap, "op"); });
    };
    EXPECT_EQ(sentence(6, 8),
              "[Debug] op: a 6 x 8 box on this 640 x 480 picture gives the detector a window of 1 x 1 "
              "feature cells (10 values); a model holds 201 to 5999 values: use a larger box\n");
    EXPECT_EQ(sentence(640, 480),
              "[Debug] op: a 640 x 480 box on this 640 x 480 picture gives the detector a window "
              "of 121 x 68 feature cells (82280 values); a model holds 201 to 5999 values: use a "
              "smaller box\n");
    EXPECT_EQ(sentence(646, 480),
              "[Debug] op: a 646 x 480 box on this 640 x 480 picture gives the detector a window "
              "larger than the picture's 121 x 68 feature cells; a model holds 201 to 5999 values: "
              "use a smaller box\n");
    EXPECT_EQ(sentence(96, 99), "");
}
