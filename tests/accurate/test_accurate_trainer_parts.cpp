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
#include "accurate/ring_scene.h"

namespace {

using ostrel_test::ring_scene;
using ostrel_test::scene;

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
    const ostrel::accurate_training_result t =
        ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1, {}, &state);
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
    const ostrel::accurate_training_result t =
        ostrel::train_accurate(s.pictures, s.geometry, s.settings, 1, {}, &state);
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
