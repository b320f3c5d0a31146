// From a trained OpenCV SVM to the fixed-point model record.
#pragma once

#include <cstdint>

#include <opencv2/ml.hpp>

#include "train/svm_model.h"

namespace ostrel {

// trunc(value * 100000.0f) with a single-precision product, toward zero.
int32_t to_fixed_point(float value);

// The sizes the model was trained for, copied into the record.
struct svm_model_sizes {
    int32_t trained_width = 0;
    int32_t trained_height = 0;
    int32_t input_width = 0;
    int32_t input_height = 0;
    int32_t acf_scale_idx = 0;
};

// Fills `model` from a trained linear C-SVC: class 0, the sizes, the
// compressed weight vector and the decision function's rho in fixed point.
void extractSvmModel(svm_model &model, const cv::ml::SVM &svm, const svm_model_sizes &sizes);

}  // namespace ostrel
