// pca_fp_filter: the false-positive filter record.
//
// A window that the linear classifier accepted is projected onto a small
// principal-component subspace learnt from the positive training samples;
// its Mahalanobis distance to the positives there decides whether it is a
// false positive.
#pragma once

#include <cstdint>
#include <optional>

#include <opencv2/core.hpp>

namespace ostrel {

inline constexpr float kDefaultFpThreshold = 15.0f;

struct pca_fp_filter {
    cv::PCA pca;                               // working result of the last analysis; only the builder writes it
    cv::Mat mean;                              // 1 x D float: published copy of pca.mean, used for projection
    cv::Mat eigenvectors;                      // K x D float: published copy of pca.eigenvectors
    cv::Mat reduce_mean;                       // 1 x K float: mean of the projected positives
    cv::Mat reduce_inv_covar;                  // K x K float: pseudo-inverse of their covariance
    uint8_t pca_filter_ready = 0;              // the last build produced a usable filter (or one was imported)
    uint8_t pca_filter_frozen = 0;             // good enough never to be rebuilt
    uint8_t fp_filter_enabled = 0;             // detection applies the filter
    float fp_threshold = kDefaultFpThreshold;  // distance at or above which a window is rejected
};

}  // namespace ostrel

namespace ostrel {

// Builds the filter from the data rows and the positives (float matrices with
// D columns): principal components of `data` (at most 14), the projected
// positives' mean and pseudo-inverse covariance, and the trace tests against
// min_trace (called with 0.005) that set the ready and frozen flags. Skipped
// when the filter is frozen or `data` has 1000 rows or more. Returns 0.
int32_t computePcaFpFilter(pca_fp_filter &filter, const cv::Mat &data, const cv::Mat &positives, float min_trace);

// Splits a training matrix (one float row per sample) and its labels (int32,
// 1 = positive) into the rows the filter is built from: the first
// positive_sample_count positives, and every non-positive row; later
// positives are left out. Then builds the filter. Returns 0.
int32_t buildFpFilterFromTrainingMat(pca_fp_filter &filter, const cv::Mat &samples, const cv::Mat &labels,
                                     uint32_t positive_sample_count, uint32_t new_positive_count);

// Projects a sample row (any depth) onto the published subspace: 1 x K
// floats, or an empty matrix (after a size-error line) when the sample does
// not fit the filter's mean.
cv::Mat pca_project(const pca_fp_filter &filter, const cv::Mat &sample);

// Replaces `mean` and `eigenvectors` by deep copies of the analysis' own,
// when the filter is ready (done after every training).
void publishPcaFilter(pca_fp_filter &filter);

// Mahalanobis distance of a sample to the positives in the subspace, as a
// float; no value when the projection is empty, or when reduce_mean and
// reduce_inv_covar do not fit it (a filter read from a corrupt file).
std::optional<float> fp_distance(const pca_fp_filter &filter, const cv::Mat &sample);

// The published filter can measure windows of `features` values: a 1 x D
// mean and K x D eigenvectors with D = features and K >= 1, a 1 x K
// projected mean and a K x K inverse covariance, all single precision.
bool filter_fits_window(const pca_fp_filter &filter, int32_t features);

}  // namespace ostrel
