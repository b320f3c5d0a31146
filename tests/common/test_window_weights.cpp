// The window sizes of the public header as the library's units see them:
// the constants and the message text are the header's macros, so a message
// states the bound that its check applies.
#include "common/window_weights.h"

#include <string>

#include <gtest/gtest.h>

#include "accurate/accurate_geometry.h"
#include "accurate/window_shape.h"

TEST(WindowWeights, TheConstantsAreTheHeadersBounds) {
    EXPECT_EQ(ostrel::kMinWindowWeights, OSTREL_ALG_MIN_WINDOW_WEIGHTS);
    EXPECT_EQ(ostrel::kMaxWindowWeights, OSTREL_ALG_MAX_WINDOW_WEIGHTS);
    EXPECT_LT(ostrel::kMinWindowWeights, ostrel::kMaxWindowWeights);
}

TEST(WindowWeights, TheMessageTextSpellsTheSameNumbers) {
    EXPECT_EQ(std::string(OSTREL_MIN_WINDOW_WEIGHTS_TEXT), std::to_string(ostrel::kMinWindowWeights));
    EXPECT_EQ(std::string(OSTREL_MAX_WINDOW_WEIGHTS_TEXT), std::to_string(ostrel::kMaxWindowWeights));
    EXPECT_EQ(std::string(OSTREL_WINDOW_WEIGHTS_RANGE_TEXT),
              std::to_string(ostrel::kMinWindowWeights) + ".." + std::to_string(ostrel::kMaxWindowWeights));
}

// The refusals that name a bound name the header's.
TEST(WindowWeights, RefusalsNameTheBounds) {
    const std::string min = std::to_string(ostrel::kMinWindowWeights);
    const std::string max = std::to_string(ostrel::kMaxWindowWeights);
    const std::string too_small = ostrel::geometry_status_text(ostrel::geometry_status::object_too_small);
    const std::string too_large = ostrel::geometry_status_text(ostrel::geometry_status::window_too_large);
    EXPECT_NE(too_small.find(min + " weights"), std::string::npos) << too_small;
    EXPECT_NE(too_large.find(max + " weights"), std::string::npos) << too_large;
    EXPECT_NE(std::string(ostrel::shape_status_text(ostrel::shape_status::window_too_large)).find(max + " weights"),
              std::string::npos);
}
