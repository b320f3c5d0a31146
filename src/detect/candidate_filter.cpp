#include "detect/candidate_filter.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "common/box_geometry.h"

namespace ostrel {

namespace {

constexpr size_t kMaxSuppressed = 64;                      // boxes leaving the suppression
constexpr size_t kMaxDetections = kMaxReportedDetections;  // detections leaving the stage
constexpr size_t kMaxBelowExamined = 17;                   // below-confidence boxes looked at
constexpr float kAcceptedOverlap = 0.05f;
constexpr float kBelowOverlap = 0.001f;

// Sort key: a NaN score would break the ordering that std::sort relies on,
// so it counts as the lowest score.
float score_key(const ostrel_alg_box &box) {
    return std::isnan(box.score) ? -std::numeric_limits<float>::infinity() : box.score;
}

// Highest score first. Unstable: boxes with equal scores come in no
// defined order.
void sort_by_score(std::vector<ostrel_alg_box> &boxes) {
    std::sort(boxes.begin(), boxes.end(),
              [](const ostrel_alg_box &a, const ostrel_alg_box &b) { return score_key(a) > score_key(b); });
}

// Closed rectangles: spans [left, left + width] overlap on both axes, a
// shared edge or corner included.
bool boxes_touch(const ostrel_alg_box &a, const ostrel_alg_box &b) {
    const int64_t a_right = static_cast<int64_t>(a.x) + a.width;
    const int64_t b_right = static_cast<int64_t>(b.x) + b.width;
    const int64_t a_bottom = static_cast<int64_t>(a.y) + a.height;
    const int64_t b_bottom = static_cast<int64_t>(b.y) + b.height;
    return a.x <= b_right && b.x <= a_right && a.y <= b_bottom && b.y <= a_bottom;
}

bool touches_any(const ostrel_alg_box &box, const std::vector<ostrel_alg_box> &others) {
    return std::any_of(others.begin(), others.end(),
                       [&box](const ostrel_alg_box &other) { return boxes_touch(box, other); });
}

}  // namespace

std::vector<ostrel_alg_box> suppressOverlaps(std::vector<ostrel_alg_box> &boxes, float min_score, float min_overlap) {
    std::vector<ostrel_alg_box> kept;
    if (boxes.empty()) {
        return kept;
    }
    sort_by_score(boxes);
    for (size_t i = 0; i < boxes.size(); ++i) {
        if (boxes[i].score < min_score) {
            continue;
        }
        for (size_t j = i + 1; j < boxes.size(); ++j) {
            if (boxes[j].score >= min_score && box_overlap(boxes[i], boxes[j]) >= min_overlap) {
                boxes[j].score = -1.0f;
            }
        }
        kept.push_back(boxes[i]);
        if (kept.size() == kMaxSuppressed) {
            break;
        }
    }
    return kept;
}

int32_t filterCandidates(std::vector<ostrel_alg_box> &accepted, std::vector<ostrel_alg_box> &below,
                         const filter_settings &settings, const fp_distance_fn &distance,
                         std::vector<ostrel_alg_box> &out) {
    const float threshold = static_cast<float>(settings.confidence_threshold) / 100.0f;

    // Any noticeable overlap suppresses the weaker window.
    std::vector<ostrel_alg_box> detections = suppressOverlaps(accepted, threshold, kAcceptedOverlap);

    // The false-positive filter removes the boxes it rejects from the list
    // and stops once it has kept 32; the boxes it did not reach are dropped.
    // Without a distance function there is nothing to filter with, which
    // counts as a filter that is not ready.
    if (settings.apply_fp_filter && distance && !detections.empty()) {
        std::vector<ostrel_alg_box> passed;
        for (const ostrel_alg_box &box : detections) {
            const std::optional<float> d = distance(box);
            if (!d) {
                // A window that cannot be projected fails the whole run.
                out.clear();
                return 1;
            }
            if (*d >= settings.fp_threshold) {
                continue;
            }
            passed.push_back(box);
            if (passed.size() == kMaxDetections) {
                break;
            }
        }
        detections.swap(passed);
    }

    // The first 32 boxes of what is left. When the filter did not run that
    // is the head of the suppressed list; when it ran, the list holds only
    // the boxes it kept, so a filter that rejected every box leaves no
    // detection at all rather than falling back to the unfiltered list.
    out.clear();
    out.insert(out.end(), detections.begin(),
               detections.begin() + static_cast<std::ptrdiff_t>(std::min(detections.size(), kMaxDetections)));

    if (settings.detector_set) {
        std::vector<ostrel_alg_box> candidates = suppressOverlaps(below, 0.0f, kBelowOverlap);
        sort_by_score(candidates);
        const size_t examined = std::min(candidates.size(), kMaxBelowExamined);
        for (size_t i = 0; i < examined; ++i) {
            const ostrel_alg_box &box = candidates[i];
            // A below-confidence box must stay clear of every box that came
            // out of the filter step, including (when the filter did not
            // run) suppressed-list boxes beyond the 32 that are reported.
            if (!(box.score > threshold) && !touches_any(box, detections)) {
                out.push_back(box);
            }
        }
    }
    return 0;
}

}  // namespace ostrel
