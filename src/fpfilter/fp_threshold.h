// Choosing the false-positive filter's distance threshold from the engine's
// own labelled samples.
#pragma once

#include <cstdint>
#include <vector>

#include "acf/training_sample.h"
#include "fpfilter/pca_fp_filter.h"

namespace ostrel {

// (1 - weight) * precision + weight * recall of pred against truth (1 =
// positive); both lists are emptied.
float scoreFpThreshold(std::vector<int32_t> &truth, std::vector<int32_t> &pred, float weight);

// Tries the thresholds 4.0, 4.5, ... 14.0 on every sample (each group's own
// sample, then its variants) and stores in filter.fp_threshold the smallest
// one with the best recall of the positives. Logs and keeps the threshold
// when the filter is not ready.
void getBestFPThreshold(pca_fp_filter &filter, const std::vector<training_sample> &samples);

}  // namespace ostrel
