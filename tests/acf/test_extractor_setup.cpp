// The feature extractor's set-up: init_pyramid, set_extractor_defaults,
// create_extractor_blocks and setTrainingWindow, and the engine's
// initFeatExtractor that runs them.
#include <cstdint>

#include <gtest/gtest.h>

#include "acf/ostrel_acf.h"
#include "engine/ostrel_alg.h"

using ostrel::ostrel_acf;

// init_pyramid lays out the pyramid of the 480 x 270 working size: one
// scale of factor 0.504, image 136 x 242 in record terms; the two window
// shifts are -1.0 and -0.25; ready is set and the result is 0.
TEST(InitPyramid, WorkingSizeScaleAndShifts) {
    ostrel_acf acf;
    EXPECT_EQ(acf.init_pyramid(), 0);
    EXPECT_EQ(acf.working_width, 480);
    EXPECT_EQ(acf.working_height, 270);
    EXPECT_EQ(acf.ready, 1);
    ASSERT_EQ(acf.n_scales, 1);
    EXPECT_NEAR(acf.scales[0], 0.504f, 1e-6f);
    EXPECT_EQ(acf.scales[0], acf.pyramid.scales[0]);
    EXPECT_EQ(acf.scales[1], 0.0f);
    EXPECT_EQ(acf.pyramid.image_width[0], 136);
    EXPECT_EQ(acf.pyramid.image_height[0], 242);
    EXPECT_EQ(acf.shift_x, -1.0f);
    EXPECT_EQ(acf.shift_y, -0.25f);
}

// init_pyramid creates the four blocks; the channel options start zero
// until the defaults are written.
TEST(InitPyramid, CreatesTheFourBlocks) {
    ostrel_acf acf;
    acf.init_pyramid();
    ASSERT_TRUE(acf.run_opts && acf.params && acf.trees && acf.chn_options);
    EXPECT_EQ(acf.chn_options->color_option, 0);
    EXPECT_EQ(acf.chn_options->n_added, 0);
    EXPECT_EQ(acf.params->n_per_oct, 8);
    EXPECT_EQ(acf.run_opts->run_threshold, -3000);
    EXPECT_EQ(acf.trees->fids[0], 741);
}

// The pyramid flag: init_pyramid hands the scale computation the flag's
// earlier value (0 on a new extractor); the defaults set it to 1.
TEST(InitPyramid, PassesTheEarlierPyramidFlag) {
    ostrel_acf acf;
    acf.init_pyramid();
    EXPECT_EQ(acf.pyramid.pyramid_flag, 0);
    acf.set_extractor_defaults();
    EXPECT_EQ(acf.pyramid_flag, 1);
    acf.init_pyramid();
    EXPECT_EQ(acf.pyramid.pyramid_flag, 1);
}

// Blocks that exist are kept as they are.
TEST(CreateExtractorBlocks, KeepsExistingBlocks) {
    ostrel_acf acf;
    acf.create_extractor_blocks();
    acf.params->n_approx = 3;
    acf.chn_options->color_option = 5;
    ostrel::pyramid_params *params = acf.params.get();
    acf.create_extractor_blocks();
    EXPECT_EQ(acf.params.get(), params);
    EXPECT_EQ(acf.params->n_approx, 3);
    EXPECT_EQ(acf.chn_options->color_option, 5);
}

// The defaults: colour switch 1, run threshold -3000, every detector
// parameter rewritten, tree tables copied again; result 0.
TEST(SetExtractorDefaults, RewritesEveryDefault) {
    ostrel_acf acf;
    acf.init_pyramid();
    acf.run_opts->run_threshold = 5;
    acf.params->pad_x = 1;
    acf.params->chns.shrink = 4;
    acf.params->model_h_copy = 1.0f;
    acf.trees->hs[0] = 99;
    EXPECT_EQ(acf.set_extractor_defaults(), 0);
    EXPECT_EQ(acf.chn_options->color_option, 1);
    EXPECT_EQ(acf.run_opts->run_threshold, -3000);
    EXPECT_EQ(acf.params->pad_x, 8);
    EXPECT_EQ(acf.params->chns.shrink, 2);
    EXPECT_EQ(acf.params->model_h_copy, 20.5f);
    EXPECT_EQ(acf.trees->hs[0], 50);
    EXPECT_EQ(acf.pyramid_flag, 1);
}

// setTrainingWindow: per scale sx = map columns / input width and sy = map
// rows / input height (121 x 68 cells at scale 0), window sizes truncated.
TEST(SetTrainingWindow, WindowSizeAtEveryScale) {
    ostrel_acf acf;
    acf.init_pyramid();
    acf.set_extractor_defaults();
    EXPECT_EQ(acf.sized, 0);
    acf.setTrainingWindow(50, 30, 640, 480);
    EXPECT_EQ(acf.sized, 1);
    EXPECT_EQ(acf.window.width, 50);
    EXPECT_EQ(acf.window.height, 30);
    EXPECT_EQ(acf.window.input_width, 640);
    EXPECT_EQ(acf.window.input_height, 480);
    EXPECT_EQ(acf.window.sx[0], 121.0f / 640.0f);
    EXPECT_EQ(acf.window.sy[0], 68.0f / 480.0f);
    EXPECT_EQ(acf.window.scaled_width[0], 9);   // 50 * 0.189 = 9.45
    EXPECT_EQ(acf.window.scaled_height[0], 4);  // 30 * 0.1417 = 4.25
}

// A picture size of 0 does not crash; the factors are 0.
TEST(SetTrainingWindow, ZeroInputSizeGivesZeroFactors) {
    ostrel_acf acf;
    acf.init_pyramid();
    acf.setTrainingWindow(50, 30, 0, 0);
    EXPECT_EQ(acf.sized, 1);
    EXPECT_EQ(acf.window.sx[0], 0.0f);
    EXPECT_EQ(acf.window.scaled_width[0], 0);
}

// The engine's set-up: pyramid, defaults and the three extractor
// parameters 500000, 1 and (unknown, set to) 0.
TEST(InitFeatExtractor, SetsUpTheExtractor) {
    ostrel_alg engine;
    EXPECT_EQ(engine.initFeatExtractor(), 0);
    ASSERT_TRUE(engine.feat_extractor);
    const ostrel_acf &acf = *engine.feat_extractor;
    EXPECT_EQ(acf.unnamed_params[0], 500000);
    EXPECT_EQ(acf.unnamed_params[1], 1);
    EXPECT_EQ(acf.unnamed_params[2], 0);
    EXPECT_EQ(acf.ready, 1);
    EXPECT_EQ(acf.pyramid_flag, 1);
    EXPECT_EQ(acf.chn_options->color_option, 1);
    EXPECT_EQ(acf.n_scales, 1);
}

// The engine's training size reaches the extractor's training window.
TEST(InitFeatExtractor, TrainingSizeReachesTheWindow) {
    ostrel_alg engine;
    ASSERT_EQ(engine.initFeatExtractor(), 0);
    engine.setTrainingSize(50, 30, 640, 480);
    EXPECT_EQ(engine.feat_extractor->sized, 1);
    EXPECT_EQ(engine.feat_extractor->window.scaled_width[0], 9);
}
