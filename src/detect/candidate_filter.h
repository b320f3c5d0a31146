// Candidate filtering and merging: greedy overlap suppression, the
// false-positive filter pass and the below-confidence list.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "ostrel_alg.h"

namespace ostrel {

// Detections (label 1) a run reports at most, in either profile.
inline constexpr uint32_t kMaxReportedDetections = 32;
// A marked box counts as found when a detection overlaps it this much.
inline constexpr float kMarkedBoxOverlap = 0.3f;

// Greedy non-maximum suppression. Sorts `boxes` by score (highest first),
// overwrites the score of every box it suppresses with -1.0 and returns the
// kept boxes in order, at most 64.
std::vector<ostrel_alg_box> suppressOverlaps(std::vector<ostrel_alg_box> &boxes, float min_score, float min_overlap);

// The false-positive filter's distance of the window under a box, or no
// value when the window cannot be projected (which fails the stage).
using fp_distance_fn = std::function<std::optional<float>(const ostrel_alg_box &box)>;

struct filter_settings {
    int32_t confidence_threshold = 0;
    bool detector_set = false;     // add the below-confidence boxes
    bool apply_fp_filter = false;  // filter ready and enabled
    float fp_threshold = 15.0f;
};

// Fills `out` with at most 32 detections (label 1) followed by at most 17
// below-confidence boxes (label -1). Returns 0, or 1 when the distance
// function cannot project a window (out is then left empty).
int32_t filterCandidates(std::vector<ostrel_alg_box> &accepted, std::vector<ostrel_alg_box> &below,
                         const filter_settings &settings, const fp_distance_fn &distance,
                         std::vector<ostrel_alg_box> &out);

}  // namespace ostrel
