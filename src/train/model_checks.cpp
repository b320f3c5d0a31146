// Value checks of the model records (true = the record is wrong).
#include "train/model_checks.h"

#include "common/log.h"
#include "common/window_weights.h"
#include "common/failure.h"

namespace ostrel {

namespace {

constexpr const char *kSvmValuesWrongFormat =
    "[SVM model values wrong] class_idx : %d, trained_width : %d, trained_height : %d, input_width : %d, "
    "input_height : %d, trained_acf_scale_idx : %d, support_vector_size : %d\n";
// Deliberately without a line end: hosts match this text as it stands.
constexpr const char *kSvmVectorMissing = "[SVM model values wrong] vector is nullptr !!!!!";

constexpr const char *kPcaSizesWrongFormat =
    "[PCA fp filtering values wrong] mean.rows : %d, mean.cols : %d, eigenvectors.rows : %d, eigenvectors.cols : "
    "%d, reduce_mean.rows : %d, reduce_mean.cols : %d, reduce_inv_covar.rows : %d, reduce_inv_covar.cols : %d\n";

// Feature length accepted in a filter, inclusive: the window's weights, and
// one more at the top, as filters have always been accepted.
constexpr int kMinFeatureLength = ostrel::kMinWindowWeights;
constexpr int kMaxFeatureLength = ostrel::kMaxWindowWeights + 1;
constexpr int kMaxComponents = 14;

bool in_range(int value, int low, int high) { return value >= low && value <= high; }

bool has_no_elements(const cv::Mat &m) { return m.data == nullptr || m.total() == 0; }

}  // namespace

bool checkSvmModel(const svm_model &model) {
    const bool sizes_ok = model.class_idx >= 0 && model.trained_width > 0 && model.trained_height > 0 &&
                          model.input_width > 0 && model.input_height > 0 && model.trained_acf_scale_idx >= 0 &&
                          in_range(model.support_vector_size, ostrel::kMinWindowWeights, ostrel::kMaxWindowWeights);
    if (!sizes_ok) {
        log_failure(kSvmValuesWrongFormat, model.class_idx, model.trained_width, model.trained_height,
                    model.input_width, model.input_height, model.trained_acf_scale_idx, model.support_vector_size);
        return true;
    }
    if (!model.vector) {
        log_failure("%s", kSvmVectorMissing);
        return true;
    }
    return false;  // the bias is not checked
}

bool checkPcaFilter(const pca_fp_filter &filter) {
    if (!filter.pca_filter_ready) {
        return false;  // a model without a filter is valid
    }
    const struct {
        const cv::Mat &matrix;
        const char *message;
    } required[] = {
        {filter.mean, "[PCA fp filtering values wrong] mean is empty!\n"},
        {filter.eigenvectors, "[PCA fp filtering values wrong] eigenvectors is empty!\n"},
        {filter.reduce_mean, "[PCA fp filtering values wrong] reduce_mean is empty!\n"},
        {filter.reduce_inv_covar, "[PCA fp filtering values wrong] reduce_inv_covar is empty!\n"},
    };
    for (const auto &entry : required) {
        if (has_no_elements(entry.matrix)) {
            log_failure("%s", entry.message);
            return true;
        }
    }

    const cv::Mat &mean = filter.mean;
    const cv::Mat &eigenvectors = filter.eigenvectors;
    const cv::Mat &reduce_mean = filter.reduce_mean;
    const cv::Mat &inv_covar = filter.reduce_inv_covar;
    const bool sizes_ok = mean.rows == 1 && in_range(mean.cols, kMinFeatureLength, kMaxFeatureLength) &&
                          in_range(eigenvectors.rows, 1, kMaxComponents) &&
                          in_range(eigenvectors.cols, kMinFeatureLength, kMaxFeatureLength) &&
                          reduce_mean.rows == mean.rows && in_range(reduce_mean.cols, 1, kMaxComponents) &&
                          in_range(inv_covar.rows, 1, kMaxComponents) && in_range(inv_covar.cols, 1, kMaxComponents);
    if (!sizes_ok) {
        log_failure(kPcaSizesWrongFormat, mean.rows, mean.cols, eigenvectors.rows, eigenvectors.cols, reduce_mean.rows,
                    reduce_mean.cols, inv_covar.rows, inv_covar.cols);
        return true;
    }
    return false;
}

}  // namespace ostrel
