// The trainer with parts of its pictures held out, and a finished training
// trained again without them: held-out objects are not learnt, held-out
// windows are not background, every sample keeps where it came from, and
// the retrained classifier without a held-out part is the training's own
// when nothing is held out.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "accurate/accurate_trainer.h"
#include "accurate/scale_set.h"
#include "accurate/window_sums.h"

namespace {

struct scene {
    ostrel::accurate_geometry geometry;
    std::vector<ostrel::accurate_training_picture> pictures;
    ostrel::accurate_settings settings;
};

// Grey noise with dark rings at the marked boxes and light squares.
scene ring_scene() {
    scene s;
    cv::Mat bgr(240, 320, CV_8UC3);
    cv::RNG rng(3);
    rng.fill(bgr, cv::RNG::UNIFORM, cv::Scalar::all(150), cv::Scalar::all(180));
    std::vector<ostrel_alg_box> boxes;
    for (int i = 0; i < 5; ++i) {
        const ostrel_alg_box b{10 + 60 * i, 20 + 40 * (i % 2), 40, 40, 0.0f, 1, 0, 0};
        boxes.push_back(b);
        cv::circle(bgr, cv::Point(b.x + 20, b.y + 20), 12, cv::Scalar::all(40), 5);
        cv::rectangle(bgr, cv::Rect(20 + 60 * i, 170, 20, 20), cv::Scalar::all(230), 4);
    }
    EXPECT_EQ(ostrel::derive_accurate_geometry(40, 40, 320, 240, s.settings, &s.geometry), ostrel::geometry_status::ok);
    ostrel::pyramid_request r;
    r.base_columns = s.geometry.working_width;
    r.base_rows = s.geometry.working_height;
    r.size_factors = ostrel::search_scales(s.settings);
    r.marked_index = ostrel::marked_scale_index(s.settings);
    r.with_mirror = true;
    r.pad_columns = 5;
    r.pad_rows = 5;
    ostrel::picture_resample_scratch scratch;
    ostrel::accurate_training_picture picture;
    picture.pyramid = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), r, scratch);
    picture.boxes = boxes;
    picture.marked_width = 40;
    picture.marked_height = 40;
    s.pictures.push_back(std::move(picture));
    return s;
}

TEST(AccurateTrainerParts, HeldOutObjectsAreNotLearnt) {
    const scene s = ring_scene();
    ostrel::held_out_part part;
    part.objects = {1, 0, 0, 1, 0};
    const ostrel::accurate_training_result t = ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1, {part});
    ASSERT_TRUE(t.trained);
    EXPECT_EQ(t.positives, 6u);  // three boxes, each mirrored
    // Held out by the columns: the boxes centred in 0..100 (two of them).
    const ostrel::accurate_training_result by_columns =
        ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1, {ostrel::held_out_part{0.0, 100.0, {}}});
    EXPECT_EQ(by_columns.positives, 6u);
}

TEST(AccurateTrainerParts, EverySampleKeepsItsOrigin) {
    const scene s = ring_scene();
    ostrel::accurate_training_state state;
    const ostrel::accurate_training_result t = ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1, {}, &state);
    ASSERT_TRUE(t.trained);
    ASSERT_TRUE(state.svm);
    ASSERT_EQ(state.origins.size(), state.svm->size());
    size_t objects = 0;
    for (size_t i = 0; i < state.origins.size(); ++i) {
        const ostrel::sample_origin &o = state.origins[i];
        EXPECT_EQ(o.object >= 0, state.svm->label(i) > 0);
        objects += o.object >= 0;
        EXPECT_GE(o.centre_x, -40.0);
        EXPECT_LE(o.centre_x, 360.0);
    }
    EXPECT_EQ(objects, 10u);
}

TEST(AccurateTrainerParts, RetrainingWithoutAPartLeavesItsSamplesOut) {
    const scene s = ring_scene();
    ostrel::accurate_training_state state;
    const ostrel::accurate_training_result t = ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1, {}, &state);
    ASSERT_TRUE(t.trained);
    // Nothing held out: the training's own classifier (its dual variables
    // are already optimal).
    const ostrel::accurate_training_result same = ostrel::retrain_without(state, {}, s.settings, 1);
    ASSERT_TRUE(same.trained);
    EXPECT_EQ(same.positives, t.positives);
    EXPECT_EQ(same.negatives, t.negatives);
    double largest = 0.0, difference = 0.0;
    for (size_t i = 0; i < t.weights.size(); ++i) {
        largest = std::max(largest, std::fabs(static_cast<double>(t.weights[i])));
        difference = std::max(difference, std::fabs(static_cast<double>(t.weights[i] - same.weights[i])));
    }
    EXPECT_LT(difference, 0.05 * largest);
    // Without the left half: fewer objects and background.
    ostrel::held_out_part part{0.0, 160.0, {1, 1, 1, 0, 0}};
    const ostrel::accurate_training_result without = ostrel::retrain_without(state, {part}, s.settings, 1);
    ASSERT_TRUE(without.trained);
    EXPECT_EQ(without.positives, 4u);
    EXPECT_LT(without.negatives, t.negatives);
}

}  // namespace
