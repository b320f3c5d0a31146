// From a trained OpenCV SVM to the fixed-point record: truncation toward
// zero, the weight vector and the bias.
#include "train/svm_training.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

using ostrel::svm_model;

// trunc(value * 100000.0f), single-precision product, toward zero.
TEST(FixedPoint, TruncatesTowardZero) {
    EXPECT_EQ(ostrel::to_fixed_point(-0.0000099f), 0);
    EXPECT_EQ(ostrel::to_fixed_point(0.0000199f), 1);
    EXPECT_EQ(ostrel::to_fixed_point(-0.0000199f), -1);
    EXPECT_EQ(ostrel::to_fixed_point(0.0f), 0);
    EXPECT_EQ(ostrel::to_fixed_point(1.5f), 150000);
    EXPECT_EQ(ostrel::to_fixed_point(-2.345678f), -234567);
    // The product is a float: 0.3f * 100000.0f is 30000.0006 -> 30000, and
    // 0.00001f * 100000.0f rounds to exactly 1.
    EXPECT_EQ(ostrel::to_fixed_point(0.3f), 30000);
    EXPECT_EQ(ostrel::to_fixed_point(0.00001f), static_cast<int32_t>(0.00001f * 100000.0f));
}

// Values beyond the int32 range saturate instead of being undefined.
TEST(FixedPoint, SaturatesOutOfRange) {
    EXPECT_EQ(ostrel::to_fixed_point(30000.0f), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(ostrel::to_fixed_point(-30000.0f), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(ostrel::to_fixed_point(std::numeric_limits<float>::infinity()), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(ostrel::to_fixed_point(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(ostrel::to_fixed_point(21474.8f), 2147480064);
}

namespace {

// A linear C-SVC trained on two well-separated clusters in 3 dimensions.
cv::Ptr<cv::ml::SVM> trained_svm() {
    cv::Mat samples(40, 3, CV_32F);
    cv::Mat labels(40, 1, CV_32S);
    cv::RNG rng(5);
    for (int i = 0; i < 40; ++i) {
        const bool positive = i % 2 == 0;
        const float centre = positive ? 2.0f : -2.0f;
        samples.at<float>(i, 0) = centre + static_cast<float>(rng.uniform(-0.5, 0.5));
        samples.at<float>(i, 1) = 0.5f * centre + static_cast<float>(rng.uniform(-0.5, 0.5));
        samples.at<float>(i, 2) = static_cast<float>(rng.uniform(-0.5, 0.5));
        labels.at<int32_t>(i) = positive ? 1 : -1;
    }
    cv::Ptr<cv::ml::SVM> svm = cv::ml::SVM::create();
    svm->setKernel(cv::ml::SVM::LINEAR);
    svm->setType(cv::ml::SVM::C_SVC);
    EXPECT_TRUE(svm->train(samples, cv::ml::ROW_SAMPLE, labels));
    return svm;
}

}  // namespace

// The record takes class 0, the sizes, the compressed weight vector in
// fixed point and the decision function's rho in fixed point.
TEST(ExtractSvmModel, WeightsAndBiasFromATrainedSvm) {
    const cv::Ptr<cv::ml::SVM> svm = trained_svm();
    const cv::Mat sv = svm->getSupportVectors();
    ASSERT_EQ(sv.rows, 1);  // a linear machine keeps one compressed vector
    ASSERT_EQ(sv.type(), CV_32F);
    cv::Mat alpha, index;
    const double rho = svm->getDecisionFunction(0, alpha, index);

    svm_model m;
    m.class_idx = 9;
    m.support_vector_size = 2;
    m.vector = std::make_unique<int32_t[]>(2);
    ostrel::extractSvmModel(m, *svm, {40, 32, 640, 480, 3});

    EXPECT_EQ(m.class_idx, 0);
    EXPECT_EQ(m.trained_width, 40);
    EXPECT_EQ(m.trained_height, 32);
    EXPECT_EQ(m.input_width, 640);
    EXPECT_EQ(m.input_height, 480);
    EXPECT_EQ(m.trained_acf_scale_idx, 3);
    ASSERT_EQ(m.support_vector_size, sv.rows * sv.cols);
    ASSERT_TRUE(m.trained());
    for (int i = 0; i < sv.cols; ++i) {
        const float w = sv.at<float>(0, i);
        EXPECT_EQ(m.vector[i], static_cast<int32_t>(std::trunc(w * 100000.0f))) << i;
    }
    EXPECT_EQ(m.bias, static_cast<int32_t>(std::trunc(static_cast<float>(rho) * 100000.0f)));
    // The clusters lie along x: the first weight dominates and is not zero.
    EXPECT_NE(m.vector[0], 0);

    // The fixed-point decision w.x - rho has the sign of the machine's raw
    // decision value.
    const cv::Mat probe = (cv::Mat_<float>(2, 3) << 2.0f, 1.0f, 0.0f, -2.0f, -1.0f, 0.0f);
    for (int r = 0; r < 2; ++r) {
        int64_t dot = 0;
        for (int i = 0; i < 3; ++i) {
            dot += static_cast<int64_t>(m.vector[i]) * static_cast<int64_t>(probe.at<float>(r, i));
        }
        const float raw = svm->predict(probe.row(r), cv::noArray(), cv::ml::StatModel::RAW_OUTPUT);
        EXPECT_EQ(dot - m.bias > 0, raw > 0.0f) << r;
        EXPECT_NEAR(static_cast<double>(dot - m.bias), static_cast<double>(raw) * 100000.0, 20.0) << r;
    }
}
