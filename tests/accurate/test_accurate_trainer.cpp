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
#include "accurate/ring_scene.h"

namespace {

using ostrel_test::ring_scene;
using ostrel_test::scene;

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
