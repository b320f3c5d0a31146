// From a trained OpenCV SVM to the fixed-point model record.
#include "train/svm_training.h"

#include <cmath>
#include <limits>
#include <vector>

namespace ostrel {

int32_t to_fixed_point(float value) {
    // The product is taken in single precision and truncated toward zero.
    // A weight beyond the int32 range (|w| > 21474.8) or NaN has no fixed-point
    // value; it saturates (NaN gives 0) instead of being undefined.
    const float scaled = value * kSvmFixedPointScale;
    if (std::isnan(scaled)) {
        return 0;
    }
    if (scaled >= 2147483648.0f) {
        return std::numeric_limits<int32_t>::max();
    }
    if (scaled < -2147483648.0f) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(std::trunc(scaled));
}

void extractSvmModel(svm_model &model, const cv::ml::SVM &svm, const svm_model_sizes &sizes) {
    model.class_idx = 0;
    model.trained_width = sizes.trained_width;
    model.trained_height = sizes.trained_height;
    model.input_width = sizes.input_width;
    model.input_height = sizes.input_height;
    model.trained_acf_scale_idx = sizes.acf_scale_idx;

    // A linear C-SVC keeps a single compressed support vector: the weights.
    const cv::Mat support_vectors = svm.getSupportVectors();
    cv::Mat values;
    support_vectors.convertTo(values, CV_32F);
    if (!values.isContinuous()) {
        values = values.clone();
    }
    const int32_t count = static_cast<int32_t>(values.total());
    model.support_vector_size = count;
    std::vector<float> copied(values.ptr<float>(), values.ptr<float>() + count);

    model.vector.reset();
    model.vector = std::make_unique<int32_t[]>(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
        model.vector[i] = to_fixed_point(copied[static_cast<size_t>(i)]);
    }

    cv::Mat alpha;
    cv::Mat support_vector_index;
    const double rho = svm.getDecisionFunction(0, alpha, support_vector_index);
    model.bias = to_fixed_point(static_cast<float>(rho));
}

}  // namespace ostrel
