// Where a marked box lies on the feature map: the scaling to cells and the
// inside test that the sample cutter and set-up's window check share.
#include "acf/box_window.h"

#include <climits>

#include <gtest/gtest.h>

TEST(BoxWindow, ScalingTruncatesAndRefusesWhatNoInt32Holds) {
    int32_t cells = -7;
    EXPECT_TRUE(ostrel::scale_to_cells(96, 121.0f / 640.0f, &cells));
    EXPECT_EQ(cells, 18);
    EXPECT_TRUE(ostrel::scale_to_cells(-96, 121.0f / 640.0f, &cells));
    EXPECT_EQ(cells, -18);
    EXPECT_FALSE(ostrel::scale_to_cells(INT_MAX, 2.0f, &cells));
    EXPECT_FALSE(ostrel::scale_to_cells(5, std::numeric_limits<float>::infinity(), &cells));
}

TEST(BoxWindow, InsideTheMap) {
    EXPECT_TRUE(ostrel::window_inside_cells(ostrel::window_rect{0, 0, 121, 68}, 121, 68));
    EXPECT_FALSE(ostrel::window_inside_cells(ostrel::window_rect{1, 0, 121, 68}, 121, 68));
    EXPECT_FALSE(ostrel::window_inside_cells(ostrel::window_rect{0, 0, 0, 5}, 121, 68));
    EXPECT_FALSE(ostrel::window_inside_cells(ostrel::window_rect{-1, 0, 5, 5}, 121, 68));
    EXPECT_FALSE(ostrel::window_inside_cells(ostrel::window_rect{INT_MAX, 0, INT_MAX, 5}, 121, 68));
}

TEST(BoxWindow, BoxToWindow) {
    ostrel::window_rect window;
    const ostrel_alg_box box{83, 336, 96, 99, 0.0f, 1, 0, 0};
    ASSERT_TRUE(ostrel::box_to_window(box, 121.0f / 640.0f, 68.0f / 480.0f, &window));
    EXPECT_EQ(window, (ostrel::window_rect{15, 47, 18, 14}));
    const ostrel_alg_box huge{0, 0, INT_MAX, 10, 0.0f, 1, 0, 0};
    EXPECT_FALSE(ostrel::box_to_window(huge, 4.0f, 4.0f, &window));
}
