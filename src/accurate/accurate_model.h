// accurate_model: what an accurate model is besides its weights - the
// settings it was made and is searched with, and per class the window, the
// taught sizes and the score calibration. The weights and the bias stay in
// the engine's svm_model record (fixed point x 10^7), as for every model.
#pragma once

#include <cstdint>
#include <string>

#include "accurate/accurate_settings.h"
#include "accurate/size_range.h"
#include "accurate/window_shape.h"
#include "model/accurate_model_file.h"

namespace ostrel {

// Accurate models keep their weights and bias in fixed point with this
// factor, 100 times finer than the classic 100000: the profile's weights
// per feature byte are small, and truncating them at 1e-5 would lose most
// of their digits.
inline constexpr double kAccurateWeightScale = 10000000.0;

// A value as a model file keeps it (single precision): the engine keeps
// the taught sizes so, and an exported and imported model searches exactly
// the same sizes. The store through a volatile float is what rounds it (the
// compiler may otherwise keep a double through a cast to float and back).
inline double single_precision(double value) {
    volatile float rounded = static_cast<float>(value);
    return rounded;
}

// How a margin becomes a confidence: logistic(slope * (margin - offset)),
// so that the offset gets 50% (the default sensitivity's threshold).
struct score_calibration {
    float offset = 0.5f;
    float slope = 1.0f;
};

struct accurate_class_model {
    std::string name;  // the class's name; may be empty
    window_shape shape;
    height_range taught;  // heights of the marked objects, picture pixels
    score_calibration calibration;
};

// The recorded part of a settings record, and a settings record with the
// recorded values put in (the others as `base` has them).
accurate_model_settings recorded_settings(const accurate_settings &settings);
accurate_settings with_recorded(const accurate_settings &base, const accurate_model_settings &recorded);

}  // namespace ostrel
