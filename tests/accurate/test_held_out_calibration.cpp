// Where the default threshold lies, from the training pictures alone: the
// cut that maximises F1 over held-out scores (smoothed, summed over the
// sets), the fallback when nothing was found; held-out strips of a picture
// of rings find the held-out rings.
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "accurate/held_out_calibration.h"
#include "accurate/size_range.h"
#include "accurate/window_shape.h"

namespace {

TEST(HeldOutCalibration, TheCutLiesBetweenObjectsAndFalseAlarms) {
    ostrel::held_out_scores s;
    s.objects = {1.0f, 1.2f, 1.4f, 0.9f, 1.1f};
    s.false_alarms = {-1.0f, -0.8f, -1.2f, -0.9f};
    const float cut = ostrel::best_f1_margin({&s}, 0.1f, -1.5f, 2.0f, 99.0f);
    EXPECT_GT(cut, -0.8f);
    EXPECT_LT(cut, 0.9f);
    // Many strong false alarms push the cut up, among the objects.
    for (int i = 0; i < 20; ++i) s.false_alarms.push_back(1.05f);
    EXPECT_GT(ostrel::best_f1_margin({&s}, 0.1f, -1.5f, 2.0f, 99.0f), 1.0f);
}

TEST(HeldOutCalibration, MissedObjectsCountAndNothingFoundFallsBack) {
    ostrel::held_out_scores none;
    none.objects = {-std::numeric_limits<float>::infinity()};
    none.false_alarms = {0.5f};
    EXPECT_EQ(ostrel::best_f1_margin({&none}, 0.2f, -1.5f, 2.0f, 0.25f), 0.25f);
    ostrel::held_out_scores empty;
    EXPECT_EQ(ostrel::best_f1_margin({&empty}, 0.2f, -1.5f, 2.0f, 0.25f), 0.25f);
}

TEST(HeldOutCalibration, TwoSetsMeetBetweenTheirOwnCuts) {
    ostrel::held_out_scores low, high;
    low.objects = {0.0f, 0.1f, -0.1f};
    low.false_alarms = {-1.0f};
    high.objects = {1.0f, 1.1f, 0.9f};
    high.false_alarms = {0.5f, 0.6f};
    const float a = ostrel::best_f1_margin({&low}, 0.1f, -1.5f, 2.0f, 0.0f);
    const float b = ostrel::best_f1_margin({&high}, 0.1f, -1.5f, 2.0f, 0.0f);
    const float both = ostrel::best_f1_margin({&low, &high}, 0.1f, -1.5f, 2.0f, 0.0f);
    EXPECT_LT(a, b);
    EXPECT_GE(both, a - 1e-6f);
    EXPECT_LE(both, b + 1e-6f);
}

TEST(HeldOutCalibration, HeldOutStripsOfAPictureOfRingsFindTheRings) {
    // Dark rings on noise, eight of them, and light squares as background.
    cv::Mat bgr(240, 480, CV_8UC3);
    cv::RNG rng(5);
    rng.fill(bgr, cv::RNG::UNIFORM, cv::Scalar::all(150), cv::Scalar::all(185));
    std::vector<ostrel_alg_box> boxes;
    for (int i = 0; i < 8; ++i) {
        const ostrel_alg_box b{10 + 58 * i, 20 + 50 * (i % 2), 44, 44, 0.0f, 1, 0, 0};
        boxes.push_back(b);
        cv::circle(bgr, cv::Point(b.x + 22, b.y + 22), 14, cv::Scalar::all(40), 5);
        cv::rectangle(bgr, cv::Rect(20 + 58 * i, 180, 22, 22), cv::Scalar::all(235), 4);
    }
    ostrel::accurate_settings settings;
    settings.levels_per_octave = 4;
    const ostrel::window_shape shape = ostrel::window_for_aspect(1.0, 64, settings);
    const ostrel::height_range taught{44.0, 44.0};
    ostrel::searched_range searched;
    searched.range = ostrel::height_range{36.0, 54.0};
    ostrel::level_plan plan;
    ASSERT_EQ(ostrel::plan_levels(bgr.cols, bgr.rows, searched, taught, shape, settings, 4, 4, &plan),
              ostrel::plan_status::ok);
    ostrel::pyramid_request request;
    request.base_columns = plan.base_columns;
    request.base_rows = plan.base_rows;
    request.size_factors = plan.factors;
    request.marked_index = -1;
    request.with_mirror = true;
    request.pad_columns = request.pad_rows = 4;
    request.exact_every = settings.levels_per_octave;
    ostrel::picture_resample_scratch scratch;
    ostrel::accurate_training_picture picture;
    picture.pyramid = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), request, scratch);
    picture.boxes = boxes;
    picture.finest_height = plan.range.min;
    picture.marked_width = picture.marked_height = static_cast<int32_t>(plan.range.min);
    const std::vector<ostrel::accurate_training_picture> pictures = {picture};
    ostrel::accurate_search search;
    search.box_height = 1.0;
    search.box_width = shape.aspect;
    ostrel::accurate_training_state state;
    ASSERT_TRUE(ostrel::train_accurate(pictures, shape.geometry(), settings, 1, {}, &state).trained);
    for (const ostrel::accurate_training_state *trained :
         {static_cast<const ostrel::accurate_training_state *>(nullptr),
          static_cast<const ostrel::accurate_training_state *>(&state)}) {
        const ostrel::held_out_scores scores =
            ostrel::score_held_out_parts(pictures, shape.geometry(), settings, search, 1, 4, trained);
        ASSERT_EQ(scores.objects.size(), 16u);  // every ring once, and once mirrored
        size_t found = 0;
        for (float m : scores.objects) found += std::isfinite(m) ? 1 : 0;
        EXPECT_GE(found, 12u);
    }
}

}  // namespace
