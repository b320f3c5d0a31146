// The accurate trainer: the marked objects (and their mirror images) become
// positives, background is mined from every window up to the bounds, the
// trained classifier tells the objects from the background, and the same
// seed repeats the training exactly. Window cells and object boxes map onto
// each other.
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

// A grey noisy picture with dark rings at the marked boxes and light
// squares (background that looks a little like them) elsewhere.
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

double margin_at(const ostrel::accurate_training_result &t, const ostrel::pyramid_level &level,
                 const ostrel::accurate_geometry &g, const ostrel_alg_box &box) {
    int32_t x = 0, y = 0;
    ostrel::box_window_cell(box, level, g, &x, &y);
    std::vector<uint8_t> bytes(static_cast<size_t>(g.window_features()));
    ostrel::window_bytes(level.map, x, y, g.window_columns, g.window_rows, bytes.data());
    double m = t.bias;
    for (size_t i = 0; i < bytes.size(); ++i) m += t.weights[i] * bytes[i];
    return m;
}

TEST(AccurateTrainer, LearnsTheMarkedObjectsAndTheirMirrorImages) {
    const scene s = ring_scene();
    const ostrel::accurate_training_result t = ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1);
    ASSERT_TRUE(t.trained);
    EXPECT_EQ(t.positives, 10u);  // five boxes, each mirrored
    EXPECT_GT(t.negatives, 0u);
    EXPECT_LE(t.negatives, static_cast<uint32_t>(s.settings.max_negatives));
    EXPECT_EQ(t.weights.size(), static_cast<size_t>(s.geometry.window_features()));
    const ostrel::pyramid_level &level = s.pictures[0].pyramid.levels[1];
    for (const ostrel_alg_box &b : s.pictures[0].boxes) EXPECT_GT(margin_at(t, level, s.geometry, b), 0.0);
    EXPECT_LT(margin_at(t, level, s.geometry, ostrel_alg_box{15, 165, 40, 40, 0.0f, 1, 0, 0}), 0.0);  // a light square
}

TEST(AccurateTrainer, TheSameSeedRepeatsTheTraining) {
    const scene s = ring_scene();
    const ostrel::accurate_training_result a = ostrel::train_accurate(s.pictures, s.geometry, s.settings, 9);
    const ostrel::accurate_training_result b = ostrel::train_accurate(s.pictures, s.geometry, s.settings, 9);
    EXPECT_EQ(a.weights, b.weights);
    EXPECT_EQ(a.bias, b.bias);
    EXPECT_EQ(a.negatives, b.negatives);
}

TEST(AccurateTrainer, MiningKeepsToItsBounds) {
    scene s = ring_scene();
    s.settings.initial_negatives = 50;
    s.settings.negatives_per_round = 40;
    s.settings.max_negatives = 150;
    s.settings.mining_rounds = 2;
    const ostrel::accurate_training_result t = ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1);
    ASSERT_TRUE(t.trained);
    EXPECT_LE(t.rounds, 2);
    EXPECT_LE(t.negatives, 50u + 2u * 40u);
}

TEST(AccurateTrainer, NothingToLearnWithoutAnObjectInsideThePicture) {
    scene s = ring_scene();
    for (ostrel_alg_box &b : s.pictures[0].boxes) b.x = 5000;
    EXPECT_FALSE(ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1).trained);
}

TEST(AccurateTrainer, WindowCellsAndObjectBoxesMapOntoEachOther) {
    const scene s = ring_scene();
    const ostrel::pyramid_level &level = s.pictures[0].pyramid.levels[1];
    const ostrel_alg_box box{120, 60, 40, 40, 0.0f, 1, 0, 0};
    int32_t x = 0, y = 0;
    ostrel::box_window_cell(box, level, s.geometry, &x, &y);
    double l, t, w, h;
    ostrel::window_object_box(x, y, level, s.geometry, &l, &t, &w, &h);
    const double cell = 2.0 / level.scale_x;  // picture pixels per cell
    EXPECT_NEAR(l + w / 2.0, box.x + box.width / 2.0, cell);
    EXPECT_NEAR(t + h / 2.0, box.y + box.height / 2.0, cell);
    EXPECT_NEAR(w, box.width, cell);
}

}  // namespace
