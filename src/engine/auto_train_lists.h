// The two list operations of auto-training: which detections on the
// training picture become new negatives.
#pragma once

#include <vector>

#include "ostrel_alg.h"

namespace ostrel {

// Detections labelled 1 that match no marked box labelled 1 (overlap at
// least min_overlap), copied with label -1. No limit on the count.
void collectFalsePositives(const std::vector<ostrel_alg_box> &marked, const std::vector<ostrel_alg_box> &detections,
                           std::vector<ostrel_alg_box> &out, float min_overlap);

// Detections labelled -1 that match no marked box labelled 1, copied as they
// are; stops after 10.
void collectLowConfidence(const std::vector<ostrel_alg_box> &marked, const std::vector<ostrel_alg_box> &detections,
                          std::vector<ostrel_alg_box> &out, float min_overlap);

}  // namespace ostrel
