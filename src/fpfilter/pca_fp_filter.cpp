// The false-positive filter: building it from the training rows, projecting
// windows onto its subspace and measuring their distance to the positives.
#include "fpfilter/pca_fp_filter.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "common/log.h"

namespace ostrel {

namespace {

constexpr const char *kPcaProjectName = "ostrel_alg::pca_project";
constexpr const char *kSizeErrorFormat = "[%s:%d] Size Error(%d %d %d %d)\n";
constexpr int kPcaProjectLine = 3236;

// A training matrix this tall is not analysed: the earlier filter stays.
constexpr int kMaxFilterRows = 1000;
// Components kept by the analysis once there are more rows than this.
constexpr int kMaxComponents = 14;

void log_size_error(const cv::Mat &sample, const cv::Mat &mean) {
    log(kSizeErrorFormat, kPcaProjectName, kPcaProjectLine, sample.rows, mean.rows, sample.cols, mean.cols);
}

// Sets or clears the flags from the trace of the inverse covariance. The
// bounds are 5 * min_trace and min_trace, both in single precision as the
// caller passes min_trace; the trace itself is a double.
void apply_trace_test(pca_fp_filter &filter, double trace, float min_trace) {
    const float ready_bound = 5 * min_trace;
    if (static_cast<double>(ready_bound) >= trace) {
        filter.pca_filter_ready = 1;
        if (static_cast<double>(min_trace) > trace) {
            filter.pca_filter_frozen = 1;
        }
    } else {
        filter.pca_filter_ready = 0;
    }
}

}  // namespace

int32_t computePcaFpFilter(pca_fp_filter &filter, const cv::Mat &data, const cv::Mat &positives, float min_trace) {
    if (filter.pca_filter_frozen || data.rows >= kMaxFilterRows) {
        return 0;
    }
    try {
        // maxComponents 0 keeps every component the data has.
        const int max_components = data.rows <= kMaxComponents ? 0 : kMaxComponents;
        filter.pca = cv::PCA(data, cv::Mat(), cv::PCA::DATA_AS_ROW, max_components);

        const cv::Mat projected = filter.pca.project(positives);
        cv::Mat covar;
        cv::calcCovarMatrix(projected, covar, filter.reduce_mean, cv::COVAR_NORMAL | cv::COVAR_ROWS, CV_32F);
        // The divisor is the number of components, not of samples: the
        // threshold candidates were calibrated against this scale. With one
        // component it is 0 and the trace test below fails on its own.
        covar = covar / (covar.rows - 1);
        cv::invert(covar, filter.reduce_inv_covar, cv::DECOMP_SVD);

        const cv::Mat absolute = cv::abs(filter.reduce_inv_covar);
        const double trace = cv::trace(absolute)[0];
        apply_trace_test(filter, trace, min_trace);
    } catch (const cv::Exception &) {
        // No positives or no rows to analyse: no usable filter from this
        // build, nothing escapes to the training step.
        filter.pca_filter_ready = 0;
    }
    return 0;
}

int32_t buildFpFilterFromTrainingMat(pca_fp_filter &filter, const cv::Mat &samples, const cv::Mat &labels,
                                     uint32_t positive_sample_count, uint32_t new_positive_count) {
    (void)new_positive_count;  // the later positives are only left out
    if (samples.empty()) {
        return computePcaFpFilter(filter, cv::Mat(), cv::Mat(), 0.005f);
    }
    cv::Mat rows;
    if (samples.type() == CV_32F) {
        rows = samples;
    } else {
        samples.convertTo(rows, CV_32F);
    }
    cv::Mat label_values;
    if (!labels.empty()) {
        const cv::Mat continuous = labels.isContinuous() ? labels : labels.clone();
        continuous.reshape(1, static_cast<int>(continuous.total())).convertTo(label_values, CV_32S);
    }

    // The row sets are sized by what the walk selects. With counts that agree
    // with the labels (the only case training produces) that is exactly
    // R - new_positive_count and positive_sample_count rows; with counts that
    // do not, no row is written out of bounds and no row is left unset.
    const int total_rows = rows.rows;
    const int labelled_rows = std::min(total_rows, label_values.rows);
    std::vector<int> all_indices;
    std::vector<int> positive_indices;
    all_indices.reserve(static_cast<size_t>(total_rows));
    uint32_t positives_seen = 0;
    for (int i = 0; i < labelled_rows; ++i) {
        if (label_values.at<int32_t>(i) == 1) {
            ++positives_seen;
            if (positives_seen <= positive_sample_count) {
                all_indices.push_back(i);
                positive_indices.push_back(i);
            }
        } else {
            all_indices.push_back(i);
        }
    }

    const int columns = rows.cols;
    cv::Mat all_rows(static_cast<int>(all_indices.size()), columns, CV_32F);
    cv::Mat pos_rows(static_cast<int>(positive_indices.size()), columns, CV_32F);
    const size_t row_bytes = static_cast<size_t>(columns) * sizeof(float);
    for (size_t k = 0; k < all_indices.size(); ++k) {
        std::memcpy(all_rows.ptr<float>(static_cast<int>(k)), rows.ptr<float>(all_indices[k]), row_bytes);
    }
    for (size_t k = 0; k < positive_indices.size(); ++k) {
        std::memcpy(pos_rows.ptr<float>(static_cast<int>(k)), rows.ptr<float>(positive_indices[k]), row_bytes);
    }
    return computePcaFpFilter(filter, all_rows, pos_rows, 0.005f);
}

cv::Mat pca_project(const pca_fp_filter &filter, const cv::Mat &sample) {
    const cv::Mat &mean = filter.mean;
    const cv::Mat &eigenvectors = filter.eigenvectors;
    // An empty mean cannot be divided by: the same size error as a sample
    // that does not fit.
    if (mean.rows < 1 || mean.cols < 1 || sample.rows / mean.rows < 1 || sample.cols / mean.cols < 1) {
        log_size_error(sample, mean);
        return cv::Mat();
    }
    const cv::Mat repeated = cv::repeat(mean, sample.rows / mean.rows, sample.cols / mean.cols);

    // The centred sample must also fit the eigenvectors; a sample that is a
    // whole multiple of the mean's width repeats the mean but still cannot
    // be multiplied, and gets the same size error.
    const bool one_row_mean = mean.rows == 1;
    const int needed = one_row_mean ? repeated.cols : repeated.rows;
    if (eigenvectors.empty() || eigenvectors.cols != needed || eigenvectors.type() != mean.type() ||
        mean.channels() != 1) {
        log_size_error(sample, mean);
        return cv::Mat();
    }

    cv::Mat centred;
    if (sample.depth() == mean.depth() && sample.size() == repeated.size() && sample.channels() == 1) {
        cv::subtract(sample, repeated, centred);
    } else {
        cv::Mat converted;
        sample.convertTo(converted, mean.depth(), 1, 0);
        if (converted.size() != repeated.size() || converted.channels() != 1) {
            log_size_error(sample, mean);
            return cv::Mat();
        }
        cv::subtract(converted, repeated, centred);
    }

    cv::Mat result;
    if (one_row_mean) {
        cv::gemm(centred, eigenvectors, 1, cv::Mat(), 0, result, cv::GEMM_2_T);
    } else {
        cv::gemm(eigenvectors, centred, 1, cv::Mat(), 0, result, 0);
    }
    return result;
}

void publishPcaFilter(pca_fp_filter &filter) {
    if (filter.pca_filter_ready) {
        filter.mean = filter.pca.mean.clone();
        filter.eigenvectors = filter.pca.eigenvectors.clone();
    }
}

std::optional<float> fp_distance(const pca_fp_filter &filter, const cv::Mat &sample) {
    const cv::Mat projected = pca_project(filter, sample);
    if (projected.empty()) {
        return std::nullopt;
    }
    // A filter read from a file may carry a reduce_mean or inverse
    // covariance that does not match its eigenvectors; such a window cannot
    // be measured either.
    const int k = projected.cols;
    if (projected.rows != 1 || filter.reduce_mean.rows != 1 || filter.reduce_mean.cols != k ||
        filter.reduce_mean.type() != projected.type() || filter.reduce_inv_covar.rows != k ||
        filter.reduce_inv_covar.cols != k || filter.reduce_inv_covar.type() != projected.type()) {
        return std::nullopt;
    }
    return static_cast<float>(cv::Mahalanobis(projected, filter.reduce_mean, filter.reduce_inv_covar));
}

bool filter_fits_window(const pca_fp_filter &filter, int32_t features) {
    const int k = filter.eigenvectors.rows;
    return features >= 1 && k >= 1 && filter.mean.rows == 1 && filter.mean.cols == features &&
           filter.eigenvectors.cols == features && filter.reduce_mean.rows == 1 && filter.reduce_mean.cols == k &&
           filter.reduce_inv_covar.rows == k && filter.reduce_inv_covar.cols == k && filter.mean.type() == CV_32F &&
           filter.eigenvectors.type() == CV_32F && filter.reduce_mean.type() == CV_32F &&
           filter.reduce_inv_covar.type() == CV_32F;
}

}  // namespace ostrel
