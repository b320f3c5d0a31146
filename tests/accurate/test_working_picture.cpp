// Working pictures: resampled to the asked size and turned to Lab, column
// by column; mirrored left to right; maps padded with repeated colour and
// empty gradient planes.
#include <cstdint>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "accurate/working_picture.h"

namespace {

TEST(WorkingPicture, ResamplesAndConvertsToLabColumnByColumn) {
    // Left half black, right half white.
    cv::Mat bgr(60, 80, CV_8UC3, cv::Scalar::all(0));
    bgr(cv::Rect(40, 0, 40, 60)).setTo(cv::Scalar::all(255));
    ostrel::picture_resample_scratch scratch;
    const ostrel::chn_image8 lab = ostrel::working_lab(ostrel::split_bgr(bgr), 40, 30, scratch);
    ASSERT_EQ(lab.channels, 3);
    EXPECT_EQ(lab.width, 30);           // picture rows
    EXPECT_EQ(lab.height, 40);          // picture columns
    EXPECT_EQ(lab.at(0, 0, 0), 0);      // L of picture column 0: black
    EXPECT_GE(lab.at(0, 39, 29), 250);  // L of picture column 39: white (the resampler rounds down)
    EXPECT_EQ(lab.at(1, 39, 29), 128);  // neutral a
    EXPECT_TRUE(ostrel::working_lab(ostrel::split_bgr(bgr), 1, 30, scratch).empty());
    EXPECT_TRUE(ostrel::working_lab(ostrel::split_picture{}, 40, 30, scratch).empty());
}

TEST(WorkingPicture, MirroringTwiceGivesThePictureBack) {
    ostrel::chn_image8 lab(3, 5, 7);
    for (size_t i = 0; i < lab.data.size(); ++i) lab.data[i] = static_cast<uint8_t>(i * 7);
    const ostrel::chn_image8 mirrored = ostrel::mirror_columns(lab);
    EXPECT_EQ(mirrored.at(2, 0, 3), lab.at(2, 6, 3));  // picture column 0 <- column 6
    EXPECT_EQ(ostrel::mirror_columns(mirrored).data, lab.data);
}

TEST(WorkingPicture, PaddingRepeatsColourAndLeavesGradientsEmpty) {
    ostrel::feature_map map;
    map.channels = 4;
    map.columns = 3;
    map.rows = 2;
    map.data.resize(4 * 3 * 2);
    for (size_t i = 0; i < map.data.size(); ++i) map.data[i] = static_cast<uint8_t>(10 + i);
    const ostrel::feature_map padded = ostrel::pad_map(map, 2, 1, 3);
    ASSERT_EQ(padded.columns, 7);
    ASSERT_EQ(padded.rows, 4);
    for (int32_t c = 0; c < 4; ++c) {
        for (int32_t x = 0; x < 3; ++x) {
            for (int32_t y = 0; y < 2; ++y) EXPECT_EQ(padded.at(c, x + 2, y + 1), map.at(c, x, y));
        }
    }
    EXPECT_EQ(padded.at(0, 0, 0), map.at(0, 0, 0));  // corner repeats the nearest cell
    EXPECT_EQ(padded.at(2, 6, 3), map.at(2, 2, 1));
    EXPECT_EQ(padded.at(3, 0, 0), 0);  // a gradient plane: empty border
    EXPECT_EQ(padded.at(3, 3, 3), 0);
    EXPECT_EQ(ostrel::pad_map(map, 0, 0, 3).data, map.data);
}

}  // namespace
