// Training samples laid out as the SVM's float matrix and label column.
#include "train/training_matrix.h"

#include <algorithm>
#include <cstring>

#include "common/log.h"

namespace ostrel {

namespace {

constexpr const char *kNoAcfFeatureLine = "[Debug] No Acf feature ! \n";

const std::vector<float> &features_of(const training_sample *row) {
    static const std::vector<float> kNoFeatures;
    return row != nullptr ? row->features : kNoFeatures;
}

}  // namespace

void lay_out_training_rows(const std::vector<const training_sample *> &rows, cv::Mat *samples, cv::Mat *labels) {
    const size_t columns = rows.empty() ? 0 : features_of(rows.front()).size();
    cv::Mat sample_mat(static_cast<int>(rows.size()), static_cast<int>(columns), CV_32F);
    cv::Mat label_mat(static_cast<int>(rows.size()), 1, CV_32S);

    for (size_t r = 0; r < rows.size(); ++r) {
        const std::vector<float> &features = features_of(rows[r]);
        if (features.size() != columns) {
            log("[Debug] training sample %zu has %zu features, expected %zu\n", r, features.size(), columns);
        }
        // Samples of one set share a length when all boxes map to one window
        // size; a row that does not is cut to the matrix or padded with zeros
        // rather than read past its own end.
        const size_t copied = std::min(features.size(), columns);
        if (columns > 0) {
            float *row = sample_mat.ptr<float>(static_cast<int>(r));
            if (copied > 0) std::memcpy(row, features.data(), copied * sizeof(float));
            std::fill(row + copied, row + columns, 0.0f);
        }
        const bool positive = rows[r] != nullptr && rows[r]->label == kPositiveLabel;
        label_mat.at<int32_t>(static_cast<int>(r), 0) = positive ? 1 : -1;
    }

    if (samples != nullptr) *samples = sample_mat;
    if (labels != nullptr) *labels = label_mat;
}

std::vector<const training_sample *> flatten_all_samples(const std::vector<training_sample> &groups) {
    std::vector<const training_sample *> rows;
    for (const training_sample &group : groups) {
        rows.push_back(&group);
        for (const training_sample &variant : group.variants) rows.push_back(&variant);
    }
    return rows;
}

std::vector<const training_sample *> flatten_outlier_candidates(const std::vector<training_sample> &groups,
                                                                uint32_t *positives) {
    std::vector<const training_sample *> rows;
    uint32_t positive_rows = 0;
    for (const training_sample &group : groups) {
        rows.push_back(&group);
        // Only a positive box brings its variants along, and only the
        // positive ones: the filter learns what the object looks like.
        if (group.label != kPositiveLabel) continue;
        ++positive_rows;
        for (const training_sample &variant : group.variants) {
            if (variant.label != kPositiveLabel) continue;
            rows.push_back(&variant);
            ++positive_rows;
        }
    }
    if (positives != nullptr) *positives = positive_rows;
    return rows;
}

bool set_training_mat(const std::vector<training_sample> &groups, cv::Mat *samples, cv::Mat *labels) {
    if (groups.empty()) {
        log("%s", kNoAcfFeatureLine);
        return false;
    }
    cv::Mat sample_mat;
    cv::Mat label_mat;
    lay_out_training_rows(flatten_all_samples(groups), &sample_mat, &label_mat);
    // Fresh matrices replace whatever the outputs held.
    if (samples != nullptr) *samples = sample_mat;
    if (labels != nullptr) *labels = label_mat;
    return true;
}

}  // namespace ostrel
