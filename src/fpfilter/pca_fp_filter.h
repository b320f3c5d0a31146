// pca_fp_filter: the false-positive filter record.
//
// A window that the linear classifier accepted is projected onto a small
// principal-component subspace learnt from the positive training samples;
// its Mahalanobis distance to the positives there decides whether it is a
// false positive.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

namespace ostrel {

inline constexpr float kDefaultFpThreshold = 15.0f;

struct pca_fp_filter {
    cv::PCA pca;                // working result of the last analysis; only the builder writes it
    cv::Mat mean;               // 1 x D float: published copy of pca.mean, used for projection
    cv::Mat eigenvectors;       // K x D float: published copy of pca.eigenvectors
    cv::Mat reduce_mean;        // 1 x K float: mean of the projected positives
    cv::Mat reduce_inv_covar;   // K x K float: pseudo-inverse of their covariance
    uint8_t pca_filter_ready = 0;   // the last build produced a usable filter (or one was imported)
    uint8_t pca_filter_frozen = 0;  // good enough never to be rebuilt
    uint8_t fp_filter_enabled = 0;  // detection applies the filter
    float fp_threshold = kDefaultFpThreshold;  // distance at or above which a window is rejected
};

}  // namespace ostrel
