// The value checks of the model records: bounds, messages and their order.
#include "train/model_checks.h"

#include <gtest/gtest.h>

#include "support/stdout_capture.h"

using ostrel::pca_fp_filter;
using ostrel::svm_model;
using ostrel_test::capture_stdout;

namespace {

svm_model good_model(int32_t size = 300) {
    svm_model m;
    m.class_idx = 0;
    m.trained_width = 40;
    m.trained_height = 32;
    m.input_width = 640;
    m.input_height = 480;
    m.trained_acf_scale_idx = 2;
    m.support_vector_size = size;
    m.bias = -123456;
    m.vector = std::make_unique<int32_t[]>(static_cast<size_t>(size));
    return m;
}

pca_fp_filter good_filter(int d = 300, int k = 3) {
    pca_fp_filter f;
    f.mean = cv::Mat::zeros(1, d, CV_32F);
    f.eigenvectors = cv::Mat::zeros(k, d, CV_32F);
    f.reduce_mean = cv::Mat::zeros(1, k, CV_32F);
    f.reduce_inv_covar = cv::Mat::eye(k, k, CV_32F);
    f.pca_filter_ready = 1;
    return f;
}

std::string svm_values_line(const svm_model &m) {
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  "[SVM model values wrong] class_idx : %d, trained_width : %d, trained_height : %d, input_width : "
                  "%d, input_height : %d, trained_acf_scale_idx : %d, support_vector_size : %d\n",
                  m.class_idx, m.trained_width, m.trained_height, m.input_width, m.input_height,
                  m.trained_acf_scale_idx, m.support_vector_size);
    return buf;
}

std::string pca_sizes_line(const pca_fp_filter &f) {
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  "[PCA fp filtering values wrong] mean.rows : %d, mean.cols : %d, eigenvectors.rows : %d, "
                  "eigenvectors.cols : %d, reduce_mean.rows : %d, reduce_mean.cols : %d, reduce_inv_covar.rows : "
                  "%d, reduce_inv_covar.cols : %d\n",
                  f.mean.rows, f.mean.cols, f.eigenvectors.rows, f.eigenvectors.cols, f.reduce_mean.rows,
                  f.reduce_mean.cols, f.reduce_inv_covar.rows, f.reduce_inv_covar.cols);
    return buf;
}

}  // namespace

// A sound record passes silently, whatever its bias.
TEST(CheckSvmModel, SoundRecordPasses) {
    svm_model m = good_model();
    bool wrong = true;
    EXPECT_EQ(capture_stdout([&] { wrong = ostrel::checkSvmModel(m); }), "");
    EXPECT_FALSE(wrong);
    m.bias = -2147483647 - 1;
    EXPECT_FALSE(ostrel::checkSvmModel(m));
}

// 200 and 6000 weights are wrong; 201 and 5999 are the accepted bounds.
TEST(CheckSvmModel, SupportVectorSizeBounds) {
    for (int32_t size : {201, 5999}) {
        svm_model m = good_model(size);
        EXPECT_FALSE(ostrel::checkSvmModel(m)) << size;
    }
    for (int32_t size : {200, 6000, 0, -1}) {
        svm_model m = good_model(std::max(size, 0));
        m.support_vector_size = size;
        bool wrong = false;
        const std::string out = capture_stdout([&] { wrong = ostrel::checkSvmModel(m); });
        EXPECT_TRUE(wrong) << size;
        EXPECT_EQ(out, svm_values_line(m));
    }
}

// Each header field has its own bound; a failing one logs all seven values.
TEST(CheckSvmModel, EachFieldIsChecked) {
    const struct {
        const char *name;
        void (*spoil)(svm_model &);
    } cases[] = {
        {"class_idx", [](svm_model &m) { m.class_idx = -1; }},
        {"trained_width", [](svm_model &m) { m.trained_width = 0; }},
        {"trained_height", [](svm_model &m) { m.trained_height = -3; }},
        {"input_width", [](svm_model &m) { m.input_width = 0; }},
        {"input_height", [](svm_model &m) { m.input_height = 0; }},
        {"trained_acf_scale_idx", [](svm_model &m) { m.trained_acf_scale_idx = -1; }},
    };
    for (const auto &c : cases) {
        svm_model m = good_model();
        c.spoil(m);
        bool wrong = false;
        const std::string out = capture_stdout([&] { wrong = ostrel::checkSvmModel(m); });
        EXPECT_TRUE(wrong) << c.name;
        EXPECT_EQ(out, svm_values_line(m)) << c.name;
    }
    svm_model zero_class = good_model();
    zero_class.class_idx = 0;
    zero_class.trained_acf_scale_idx = 0;
    EXPECT_FALSE(ostrel::checkSvmModel(zero_class));
}

// Sizes in bounds but no weights: the nullptr message, without a line end.
TEST(CheckSvmModel, MissingVectorIsWrong) {
    svm_model m = good_model();
    m.vector.reset();
    bool wrong = false;
    const std::string out = capture_stdout([&] { wrong = ostrel::checkSvmModel(m); });
    EXPECT_TRUE(wrong);
    EXPECT_EQ(out, "[SVM model values wrong] vector is nullptr !!!!!");
}

// A size failure logs the values line only, even with no weights either.
TEST(CheckSvmModel, SizeFailureHidesTheMissingVector) {
    svm_model m = good_model();
    m.vector.reset();
    m.support_vector_size = 200;
    const std::string out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkSvmModel(m)); });
    EXPECT_EQ(out, svm_values_line(m));
}

// A filter whose ready flag is clear passes, even with empty matrices.
TEST(CheckPcaFilter, NotReadyPassesWhenEmpty) {
    const pca_fp_filter f;
    bool wrong = true;
    EXPECT_EQ(capture_stdout([&] { wrong = ostrel::checkPcaFilter(f); }), "");
    EXPECT_FALSE(wrong);
}

TEST(CheckPcaFilter, SoundFilterPasses) {
    const pca_fp_filter f = good_filter();
    bool wrong = true;
    EXPECT_EQ(capture_stdout([&] { wrong = ostrel::checkPcaFilter(f); }), "");
    EXPECT_FALSE(wrong);
}

// Empty matrices are reported in field order, the first one only.
TEST(CheckPcaFilter, EmptyMatricesInOrder) {
    pca_fp_filter f;
    f.pca_filter_ready = 1;
    std::string out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, "[PCA fp filtering values wrong] mean is empty!\n");

    f = good_filter();
    f.eigenvectors = cv::Mat();
    f.reduce_inv_covar = cv::Mat();
    out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, "[PCA fp filtering values wrong] eigenvectors is empty!\n");

    f = good_filter();
    f.reduce_mean = cv::Mat(1, 0, CV_32F);  // one row, no elements
    out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, "[PCA fp filtering values wrong] reduce_mean is empty!\n");

    f = good_filter();
    f.reduce_inv_covar = cv::Mat();
    out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, "[PCA fp filtering values wrong] reduce_inv_covar is empty!\n");
}

// Any ready value other than 0 counts as set.
TEST(CheckPcaFilter, AnyNonZeroReadyValueChecks) {
    pca_fp_filter f;
    f.pca_filter_ready = 7;
    const std::string out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, "[PCA fp filtering values wrong] mean is empty!\n");
}

// mean may have 6000 columns (one more than the weight bound); 6001 and 200
// are wrong, 201 is fine.
TEST(CheckPcaFilter, FeatureLengthBounds) {
    for (int d : {201, 6000}) {
        const pca_fp_filter f = good_filter(d);
        EXPECT_FALSE(ostrel::checkPcaFilter(f)) << d;
    }
    for (int d : {200, 6001}) {
        const pca_fp_filter f = good_filter(d);
        bool wrong = false;
        const std::string out = capture_stdout([&] { wrong = ostrel::checkPcaFilter(f); });
        EXPECT_TRUE(wrong) << d;
        EXPECT_EQ(out, pca_sizes_line(f));
    }
}

// 14 components are the most a filter may carry: 15 eigenvector rows, 15
// reduced columns or a 15-wide inverse covariance are wrong.
TEST(CheckPcaFilter, ComponentBounds) {
    EXPECT_FALSE(ostrel::checkPcaFilter(good_filter(300, 14)));
    EXPECT_FALSE(ostrel::checkPcaFilter(good_filter(300, 1)));

    pca_fp_filter f = good_filter(300, 14);
    f.eigenvectors = cv::Mat::zeros(15, 300, CV_32F);
    std::string out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, pca_sizes_line(f));

    f = good_filter();
    f.reduce_mean = cv::Mat::zeros(1, 15, CV_32F);
    out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, pca_sizes_line(f));

    f = good_filter();
    f.reduce_inv_covar = cv::Mat::zeros(3, 15, CV_32F);
    out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, pca_sizes_line(f));

    f = good_filter();
    f.eigenvectors = cv::Mat::zeros(3, 6001, CV_32F);
    out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, pca_sizes_line(f));
}

// mean must be one row, and reduce_mean as many rows as mean.
TEST(CheckPcaFilter, RowCounts) {
    pca_fp_filter f = good_filter();
    f.mean = cv::Mat::zeros(2, 300, CV_32F);
    f.reduce_mean = cv::Mat::zeros(2, 3, CV_32F);
    std::string out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, pca_sizes_line(f));

    f = good_filter();
    f.reduce_mean = cv::Mat::zeros(2, 3, CV_32F);
    out = capture_stdout([&] { EXPECT_TRUE(ostrel::checkPcaFilter(f)); });
    EXPECT_EQ(out, pca_sizes_line(f));
}
