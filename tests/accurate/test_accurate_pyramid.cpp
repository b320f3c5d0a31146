// The pyramid of one picture: a level per searched size, the marked size in
// the middle with its Lab planes, smaller working pictures for larger
// objects, mirror images only when asked, padded maps.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "accurate/accurate_pyramid.h"
#include "accurate/scale_set.h"

namespace {

ostrel::pyramid_request request(bool mirror) {
    ostrel::accurate_settings settings;
    ostrel::pyramid_request r;
    r.base_columns = 100;
    r.base_rows = 80;
    r.size_factors = ostrel::search_scales(settings);
    r.marked_index = ostrel::marked_scale_index(settings);
    r.with_mirror = mirror;
    r.pad_columns = 3;
    r.pad_rows = 2;
    return r;
}

TEST(AccuratePyramid, OneLevelPerSizeWithTheMarkedOneInTheMiddle) {
    cv::Mat bgr(240, 300, CV_8UC3, cv::Scalar(30, 90, 200));
    cv::circle(bgr, cv::Point(150, 120), 40, cv::Scalar::all(250), 5);
    ostrel::picture_resample_scratch scratch;
    const ostrel::accurate_pyramid p = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), request(false), scratch);
    ASSERT_EQ(p.levels.size(), 3u);
    EXPECT_EQ(p.marked_level, 1);
    EXPECT_EQ(p.picture_columns, 300);
    EXPECT_EQ(p.picture_rows, 240);
    EXPECT_EQ(p.lab.width, 80);
    EXPECT_EQ(p.lab.height, 100);
    EXPECT_EQ(p.levels[1].map.columns, 50 + 2 * 3);
    EXPECT_EQ(p.levels[1].map.rows, 40 + 2 * 2);
    EXPECT_FLOAT_EQ(p.levels[1].scale_x, 100.0f / 300.0f);
    // Larger objects: a smaller working picture.
    EXPECT_GT(p.levels[0].map.columns, p.levels[1].map.columns);
    EXPECT_LT(p.levels[2].map.columns, p.levels[1].map.columns);
    for (const ostrel::pyramid_level &level : p.levels) EXPECT_TRUE(level.mirrored.empty());
}

TEST(AccuratePyramid, MirrorImagesWhenAsked) {
    cv::Mat bgr(120, 150, CV_8UC3, cv::Scalar::all(128));
    cv::rectangle(bgr, cv::Rect(10, 10, 30, 30), cv::Scalar::all(0), cv::FILLED);
    ostrel::picture_resample_scratch scratch;
    const ostrel::accurate_pyramid p = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), request(true), scratch);
    ASSERT_FALSE(p.empty());
    for (const ostrel::pyramid_level &level : p.levels) {
        EXPECT_EQ(level.mirrored.columns, level.map.columns);
        EXPECT_NE(level.mirrored.data, level.map.data);
    }
}

// A level whose working side lands exactly halfway between two even sides
// (222 and 150 pixels halved: 55.5 and 37.5 pairs) takes the side the
// request's tie rule says.
TEST(AccuratePyramid, LevelSidesExactlyHalfwayGoAsTheRequestSays) {
    cv::Mat bgr(300, 444, CV_8UC3, cv::Scalar(30, 90, 200));
    cv::circle(bgr, cv::Point(222, 150), 60, cv::Scalar::all(250), 5);
    ostrel::picture_resample_scratch scratch;
    for (ostrel::halfway tie : {ostrel::halfway::down, ostrel::halfway::up}) {
        ostrel::pyramid_request r = request(false);
        r.base_columns = 222;
        r.base_rows = 150;
        r.size_factors = {1.0, ostrel::octave_factor(6, 6)};
        r.marked_index = 0;
        r.ties = tie;
        const ostrel::accurate_pyramid p = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), r, scratch);
        ASSERT_EQ(p.levels.size(), 2u);
        const bool down = tie == ostrel::halfway::down;
        EXPECT_FLOAT_EQ(p.levels[0].scale_x, 222.0f / 444.0f);
        EXPECT_FLOAT_EQ(p.levels[1].scale_x, (down ? 110.0f : 112.0f) / 444.0f);
        EXPECT_FLOAT_EQ(p.levels[1].scale_y, (down ? 74.0f : 76.0f) / 300.0f);
    }
}

}  // namespace
