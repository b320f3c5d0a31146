// Annotated pictures: colours per label, captions, boxes at the edges.
#include <gtest/gtest.h>

#include "render/drawing.h"

using namespace ostrel_tool;

namespace {
cv::Vec3b as_pixel(const cv::Scalar &s) {
    return {static_cast<uint8_t>(s[0]), static_cast<uint8_t>(s[1]), static_cast<uint8_t>(s[2])};
}
}  // namespace

TEST(Drawing, DetectionsAreGreenAndBelowThresholdBoxesAmber) {
    cv::Mat canvas(200, 200, CV_8UC3, cv::Scalar(0, 0, 0));
    ostrel_alg_box detection{50, 60, 40, 30, 0.87f, 1, 3, 9};
    ostrel_alg_box below{120, 120, 40, 40, 0.4f, -1, 0, 0};
    draw_detections(canvas, {below, detection});
    EXPECT_EQ(canvas.at<cv::Vec3b>(60 + 15, 50), as_pixel(detection_colour()));  // left edge
    EXPECT_EQ(canvas.at<cv::Vec3b>(140, 120), as_pixel(below_threshold_colour()));
    EXPECT_EQ(canvas.at<cv::Vec3b>(75, 70), cv::Vec3b(0, 0, 0));  // inside stays untouched
    // The caption band sits above the detection, in its colour.
    EXPECT_EQ(canvas.at<cv::Vec3b>(60 - 2, 51), as_pixel(detection_colour()));
}

TEST(Drawing, CaptionGoesInsideWhenThereIsNoRoomAbove) {
    cv::Mat canvas(100, 100, CV_8UC3, cv::Scalar(0, 0, 0));
    draw_box(canvas, {10, 0, 50, 50}, detection_colour(), 1, "0.50");
    EXPECT_EQ(canvas.at<cv::Vec3b>(3, 11), as_pixel(detection_colour()));
}

TEST(Drawing, BoxesReachingOutOfThePictureDoNotFail) {
    cv::Mat canvas(50, 50, CV_8UC3, cv::Scalar(0, 0, 0));
    draw_box(canvas, {-20, -20, 100, 100}, marked_colour(), 2, "1.00");
    draw_box(canvas, {45, 45, 100, 100}, marked_colour(), 2, "1.00");
    draw_box(canvas, {10, 10, 0, 5}, marked_colour(), 2, "x");  // no area: nothing drawn
    draw_marked_boxes(canvas, {{5, 5, 10, 10}});
    EXPECT_EQ(canvas.at<cv::Vec3b>(10, 5), as_pixel(marked_colour()));
}

TEST(Drawing, ScoreTextHasTwoDecimals) {
    EXPECT_EQ(score_text(0.87f), "0.87");
    EXPECT_EQ(score_text(1.0f), "1.00");
    EXPECT_EQ(score_text(-1.0f), "-1.00");
}
