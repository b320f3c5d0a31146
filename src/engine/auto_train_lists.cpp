#include "engine/auto_train_lists.h"

#include "common/box_geometry.h"

namespace ostrel {

namespace {

constexpr size_t kMaxLowConfidencePerPass = 10;

bool matches_marked_box(const std::vector<ostrel_alg_box> &marked, const ostrel_alg_box &detection, float min_overlap) {
    for (const ostrel_alg_box &box : marked) {
        if (box.label == 1 && box_overlap(box, detection) >= min_overlap) {
            return true;
        }
    }
    return false;
}

}  // namespace

void collectFalsePositives(const std::vector<ostrel_alg_box> &marked, const std::vector<ostrel_alg_box> &detections,
                           std::vector<ostrel_alg_box> &out, float min_overlap) {
    for (const ostrel_alg_box &detection : detections) {
        if (detection.label != 1 || matches_marked_box(marked, detection, min_overlap)) {
            continue;
        }
        ostrel_alg_box negative = detection;
        negative.label = -1;
        out.push_back(negative);
    }
}

void collectLowConfidence(const std::vector<ostrel_alg_box> &marked, const std::vector<ostrel_alg_box> &detections,
                          std::vector<ostrel_alg_box> &out, float min_overlap) {
    size_t added = 0;
    for (const ostrel_alg_box &detection : detections) {
        if (added == kMaxLowConfidencePerPass) {
            return;
        }
        if (detection.label != -1 || matches_marked_box(marked, detection, min_overlap)) {
            continue;
        }
        out.push_back(detection);
        ++added;
    }
}

}  // namespace ostrel
