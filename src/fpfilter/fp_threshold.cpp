// Choosing the false-positive filter's distance threshold.
#include "fpfilter/fp_threshold.h"

#include <algorithm>
#include <optional>

#include "common/log.h"

namespace ostrel {

namespace {

constexpr const char *kFilterNotValidLine = "PCA is not valid in getBestFPThreshold \n";

// Candidates 4.0, 4.5, ... 14.0, tried smallest first.
constexpr int kCandidateCount = 21;
constexpr float kFirstCandidate = 4.0f;
constexpr float kCandidateStep = 0.5f;
constexpr float kInitialBestScore = -100.0f;
constexpr float kInitialBestThreshold = 14.0f;
// Only the recall of the positives counts: negatives do not move the
// threshold.
constexpr float kRecallWeight = 1.0f;

constexpr int32_t kRejected = -1;
constexpr int32_t kAccepted = 1;

// Every sample in the order the engine holds them: each group's own sample,
// then its variants.
std::vector<const training_sample *> samples_in_order(const std::vector<training_sample> &groups) {
    std::vector<const training_sample *> out;
    for (const training_sample &group : groups) {
        out.push_back(&group);
        for (const training_sample &variant : group.variants) {
            out.push_back(&variant);
        }
    }
    return out;
}

}  // namespace

float scoreFpThreshold(std::vector<int32_t> &truth, std::vector<int32_t> &pred, float weight) {
    int32_t tp = 0;
    int32_t fp = 0;
    int32_t fn = 0;
    const size_t count = std::min(truth.size(), pred.size());
    for (size_t i = 0; i < count; ++i) {
        const bool is_positive = truth[i] == 1;
        const bool accepted = pred[i] == 1;
        if (is_positive && accepted) {
            ++tp;
        } else if (!is_positive && accepted) {
            ++fp;
        } else if (is_positive && !accepted) {
            ++fn;
        }
    }
    truth.clear();
    pred.clear();
    const float precision = (tp + fp) == 0 ? 0.0f : static_cast<float>(tp) / static_cast<float>(tp + fp);
    const float recall = (tp + fn) == 0 ? 0.0f : static_cast<float>(tp) / static_cast<float>(tp + fn);
    return (1.0f - weight) * precision + weight * recall;
}

void getBestFPThreshold(pca_fp_filter &filter, const std::vector<training_sample> &samples) {
    if (!filter.pca_filter_ready) {
        log(kFilterNotValidLine);
        return;
    }
    const std::vector<const training_sample *> ordered = samples_in_order(samples);

    // One distance per sample. A sample that cannot be projected (its length
    // does not fit the filter) has none and counts as rejected at every
    // threshold, so the lists stay aligned with the samples.
    std::vector<std::optional<float>> distances;
    std::vector<int32_t> labels;
    distances.reserve(ordered.size());
    labels.reserve(ordered.size());
    for (const training_sample *sample : ordered) {
        // A view of the sample's own floats (pca_project does not write it).
        const cv::Mat row = sample->features.empty() ? cv::Mat(1, 0, CV_32F)
                                                     : cv::Mat(1, static_cast<int>(sample->features.size()), CV_32F,
                                                               const_cast<float *>(sample->features.data()));
        distances.push_back(fp_distance(filter, row));
        labels.push_back(sample->label);
    }

    float best_score = kInitialBestScore;
    float best_threshold = kInitialBestThreshold;
    std::vector<int32_t> truth;
    std::vector<int32_t> pred;
    for (int c = 0; c < kCandidateCount; ++c) {
        const float threshold = kFirstCandidate + kCandidateStep * static_cast<float>(c);
        for (size_t i = 0; i < distances.size(); ++i) {
            truth.push_back(labels[i]);
            const bool rejected = !distances[i].has_value() || *distances[i] >= threshold;
            pred.push_back(rejected ? kRejected : kAccepted);
        }
        const float score = scoreFpThreshold(truth, pred, kRecallWeight);
        if (score > best_score) {
            best_score = score;
            best_threshold = threshold;
        }
    }
    filter.fp_threshold = best_threshold;
}

}  // namespace ostrel
