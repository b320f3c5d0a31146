// The accurate search: suppression keeps the strongest of overlapping boxes
// (the earlier on a tie) and stops at its limit; margins become confidences
// by the logistic curve; boxes are cut to the picture; colour classes come
// from the Lab planes of the marked size; the search finds what the weights
// describe.
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "accurate/accurate_detect.h"
#include "accurate/scale_set.h"

namespace {

ostrel::margin_box candidate(int x, int y, float margin) {
    ostrel::margin_box m;
    m.box = ostrel_alg_box{x, y, 10, 10, 0.0f, 0, 0, 0};
    m.margin = margin;
    return m;
}

TEST(AccurateDetect, SuppressionKeepsTheStrongestOfOverlappingBoxes) {
    const std::vector<ostrel::margin_box> kept = ostrel::suppress_by_margin(
        {candidate(0, 0, 0.5f), candidate(2, 0, 0.9f), candidate(30, 0, 0.1f), candidate(31, 0, 0.1f)}, 0.3f, 10);
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0].box.x, 2);
    EXPECT_EQ(kept[1].box.x, 30);  // equal margins: the earlier one
}

TEST(AccurateDetect, SuppressionLeavesBoxesBelowTheOverlapAndStopsAtItsLimit) {
    // IoU of boxes 5 apart: 50 / 150 = 0.33.
    EXPECT_EQ(ostrel::suppress_by_margin({candidate(0, 0, 1.0f), candidate(5, 0, 0.5f)}, 0.34f, 10).size(), 2u);
    EXPECT_EQ(ostrel::suppress_by_margin({candidate(0, 0, 1.0f), candidate(5, 0, 0.5f)}, 0.33f, 10).size(), 1u);
    std::vector<ostrel::margin_box> many;
    for (int i = 0; i < 50; ++i) many.push_back(candidate(20 * i, 0, static_cast<float>(i)));
    const std::vector<ostrel::margin_box> kept = ostrel::suppress_by_margin(many, 0.3f, 7);
    ASSERT_EQ(kept.size(), 7u);
    EXPECT_EQ(kept[0].margin, 49.0f);
}

TEST(AccurateDetect, MarginsBecomeConfidences) {
    EXPECT_FLOAT_EQ(ostrel::margin_confidence(0.0f), 0.5f);
    EXPECT_NEAR(ostrel::margin_confidence(2.0f), 0.8808f, 1e-4);
    EXPECT_NEAR(ostrel::margin_confidence(-2.0f), 0.1192f, 1e-4);
    EXPECT_GE(ostrel::margin_confidence(-1e9f), 0.0f);
    EXPECT_LE(ostrel::margin_confidence(1e9f), 1.0f);
}

TEST(AccurateDetect, BoxesAreCutToThePicture) {
    const ostrel_alg_box cut = ostrel::clip_to_picture(ostrel_alg_box{-5, 90, 20, 20, 0.5f, 1, 0, 0}, 100, 100);
    EXPECT_EQ(cut.x, 0);
    EXPECT_EQ(cut.y, 90);
    EXPECT_EQ(cut.width, 15);
    EXPECT_EQ(cut.height, 10);
    EXPECT_EQ(cut.score, 0.5f);
    const ostrel_alg_box outside = ostrel::clip_to_picture(ostrel_alg_box{500, 500, 5, 5, 0.0f, 1, 0, 0}, 100, 100);
    EXPECT_EQ(outside.x, 99);
    EXPECT_EQ(outside.width, 1);
}

TEST(AccurateDetect, TheSearchFindsWhatTheWeightsDescribe) {
    // Weights that pick out a bright L plane: the brightest window wins.
    cv::Mat bgr(120, 160, CV_8UC3, cv::Scalar::all(20));
    cv::rectangle(bgr, cv::Rect(100, 40, 20, 20), cv::Scalar::all(255), cv::FILLED);
    ostrel::accurate_geometry g;
    g.working_width = 160;
    g.working_height = 120;
    g.scale_x = g.scale_y = 1.0f;
    g.window_columns = 10;
    g.window_rows = 10;
    ostrel::pyramid_request r;
    r.base_columns = 160;
    r.base_rows = 120;
    r.size_factors = {1.0};
    ostrel::picture_resample_scratch scratch;
    const ostrel::accurate_pyramid p = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), r, scratch);
    std::vector<double> weights(static_cast<size_t>(g.window_features()), 0.0);
    for (int i = 0; i < 100; ++i) weights[static_cast<size_t>(i)] = 0.001;  // plane 0 (L)
    const ostrel::quantised_weights q = ostrel::quantise_weights(weights.data(), 10, 10, 10);
    ostrel::accurate_search search;
    search.weights = &q;
    search.bias = -10.0;
    search.box_width = 20;
    search.box_height = 20;
    const std::vector<ostrel::margin_box> found =
        ostrel::suppress_by_margin(ostrel::search_pyramid(p, g, search, -100.0f), 0.3f, 5);
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(found[0].box.x, 100);
    EXPECT_EQ(found[0].box.y, 40);
    // L of white is 255, or 254 after the resampler's rounding.
    EXPECT_NEAR(found[0].margin, 100 * 255 * 0.001 - 10.0, 0.15);
}

TEST(AccurateDetect, ColourClassesComeFromTheMarkedSize) {
    cv::Mat bgr(100, 100, CV_8UC3, cv::Scalar::all(255));
    cv::rectangle(bgr, cv::Rect(0, 0, 50, 100), cv::Scalar(0, 0, 0), cv::FILLED);
    ostrel::pyramid_request r;
    r.base_columns = 50;
    r.base_rows = 50;
    r.size_factors = {1.0};
    ostrel::picture_resample_scratch scratch;
    const ostrel::accurate_pyramid p = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), r, scratch);
    std::vector<ostrel_alg_box> boxes = {ostrel_alg_box{2, 10, 40, 80, 1.0f, 1, 0, 0},
                                         ostrel_alg_box{60, 10, 38, 80, 1.0f, 1, 0, 0}};
    ostrel::label_colours(p, boxes);
    EXPECT_EQ(boxes[0].color_main, 0);  // dark
    EXPECT_EQ(boxes[1].color_main, 2);  // light
}

}  // namespace
