// accurate_calibration: where the accurate profile puts its 50% confidence.
//
// A classifier's margin on its own training picture says little about new
// pictures: the marked objects were learnt (they score high) and the
// background was mined (it scores low). So the threshold is chosen by
// cross-validation on the training pictures: each picture is cut at the
// middle of its marked objects into an upper and a lower half; a classifier
// trained on one half searches the other, whose objects and background it
// has never seen, and the margin at which these searches give the best F1
// score (objects found at an overlap of 0.5) becomes the calibration.
#pragma once

#include <cstdint>
#include <vector>

#include "accurate/accurate_geometry.h"
#include "accurate/accurate_settings.h"
#include "accurate/accurate_trainer.h"

namespace ostrel {

struct calibration_result {
    bool calibrated = false;  // false: too few objects on one side, margin 0 kept
    float margin = 0.0f;      // the margin that gets 50% confidence
    float best_f1 = 0.0f;     // the F1 score reached there, on the held-out halves
};

calibration_result calibrate_accurate(const std::vector<accurate_training_picture> &pictures,
                                      const accurate_geometry &geometry, const accurate_settings &settings,
                                      uint32_t seed);

// The margin with the best F1 score over a list of (margin, found an
// object) pairs of suppressed detections and the number of objects to
// find: halfway between the last detection taken and the next one (or that
// detection's margin less 0.5 when none follows). Ties keep the higher
// margin.
float best_f1_margin(std::vector<std::pair<float, bool>> detections, size_t objects, float *best_f1);

}  // namespace ostrel
