// The last picture that detection computed features for.
//
// PROCESS-WIDE: every engine of the process shares this one record. Two
// engines detecting on pictures with the same key share one feature
// computation, and detection calls on different engines must not overlap.
// Keeping the last picture here lets a host re-run detection on the same
// picture (a new sensitivity, the auto-training passes) without computing
// its features again.
#pragma once

#include <cstdint>

#include "acf/picture_features.h"

namespace ostrel {

struct last_picture {
    bool valid = false;      // features hold the picture of image_key
    int64_t image_key = 0;
    picture_features features;

    bool holds(int64_t key) const { return valid && image_key == key; }
    void forget() {
        valid = false;
        features = picture_features{};
    }
};

// The one shared record.
last_picture &shared_last_picture();

}  // namespace ostrel
