// Threshold selection: the recall metric and the choice among 4.0 .. 14.0.
#include "fpfilter/fp_threshold.h"

#include <gtest/gtest.h>

#include "support/stdout_capture.h"

using ostrel::pca_fp_filter;
using ostrel::training_sample;
using ostrel_test::capture_stdout;

namespace {

// A ready filter over D = 3 whose distance is |x0|: the projection keeps
// coordinate 0, the reduced mean is 0 and the inverse covariance 1.
pca_fp_filter distance_is_first_coordinate() {
    pca_fp_filter f;
    f.mean = cv::Mat::zeros(1, 3, CV_32F);
    f.eigenvectors = (cv::Mat_<float>(1, 3) << 1.0f, 0.0f, 0.0f);
    f.reduce_mean = cv::Mat::zeros(1, 1, CV_32F);
    f.reduce_inv_covar = cv::Mat::ones(1, 1, CV_32F);
    f.pca_filter_ready = 1;
    f.fp_threshold = 15.0f;
    return f;
}

training_sample sample_at(float distance, int32_t label) {
    training_sample s;
    s.features = {distance, 0.5f, -2.0f};
    s.label = label;
    return s;
}

}  // namespace

// tp, fp and fn over the positions; weight 1 gives the recall, weight 0 the
// precision, anything between a mixture; both lists are emptied.
TEST(ScoreFpThreshold, RecallPrecisionAndWeight) {
    const std::vector<int32_t> truth = {1, 1, 1, -1, -2, 1};
    const std::vector<int32_t> pred = {1, 1, -1, 1, -1, -1};
    // tp 2, fp 1, fn 2: precision 2/3, recall 1/2.
    std::vector<int32_t> t = truth, p = pred;
    EXPECT_EQ(ostrel::scoreFpThreshold(t, p, 1.0f), 0.5f);
    EXPECT_TRUE(t.empty());
    EXPECT_TRUE(p.empty());
    t = truth, p = pred;
    EXPECT_EQ(ostrel::scoreFpThreshold(t, p, 0.0f), 2.0f / 3.0f);
    t = truth, p = pred;
    EXPECT_EQ(ostrel::scoreFpThreshold(t, p, 0.25f), 0.75f * (2.0f / 3.0f) + 0.25f * 0.5f);
}

// Empty denominators give 0, not a division by zero.
TEST(ScoreFpThreshold, NoPositivesScoreZero) {
    std::vector<int32_t> t = {-1, -1}, p = {-1, -1};
    EXPECT_EQ(ostrel::scoreFpThreshold(t, p, 1.0f), 0.0f);
    std::vector<int32_t> none_t, none_p;
    EXPECT_EQ(ostrel::scoreFpThreshold(none_t, none_p, 0.0f), 0.0f);
}

// A filter that is not ready: one line, the threshold stays.
TEST(BestFpThreshold, NotReadyKeepsTheThreshold) {
    pca_fp_filter f = distance_is_first_coordinate();
    f.pca_filter_ready = 0;
    f.fp_threshold = 9.25f;
    const std::vector<training_sample> samples = {sample_at(1.0f, 1)};
    const std::string out = capture_stdout([&] { ostrel::getBestFPThreshold(f, samples); });
    EXPECT_EQ(out, "PCA is not valid in getBestFPThreshold \n");
    EXPECT_EQ(f.fp_threshold, 9.25f);
}

// With no positive every score is 0; the first candidate beats -100.
TEST(BestFpThreshold, NoPositiveChoosesFour) {
    pca_fp_filter f = distance_is_first_coordinate();
    const std::vector<training_sample> samples = {sample_at(1.0f, -1), sample_at(20.0f, -2)};
    const std::string out = capture_stdout([&] { ostrel::getBestFPThreshold(f, samples); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(f.fp_threshold, 4.0f);

    pca_fp_filter empty = distance_is_first_coordinate();
    ostrel::getBestFPThreshold(empty, {});
    EXPECT_EQ(empty.fp_threshold, 4.0f);
}

// Every positive below 4: full recall already at 4.0.
TEST(BestFpThreshold, AllPositivesCloseChooseFour) {
    pca_fp_filter f = distance_is_first_coordinate();
    const std::vector<training_sample> samples = {sample_at(0.5f, 1), sample_at(-3.9f, 1), sample_at(3.0f, 1)};
    ostrel::getBestFPThreshold(f, samples);
    EXPECT_EQ(f.fp_threshold, 4.0f);
}

// A positive at distance exactly T is rejected at T: with positives at 1
// and 6, full recall is first reached at 6.5, not 6.0.
TEST(BestFpThreshold, DistanceExactlyAtTheThresholdIsRejected) {
    pca_fp_filter f = distance_is_first_coordinate();
    const std::vector<training_sample> samples = {sample_at(1.0f, 1), sample_at(6.0f, 1)};
    ostrel::getBestFPThreshold(f, samples);
    EXPECT_EQ(f.fp_threshold, 6.5f);
}

// Negatives do not move the threshold, wherever they lie.
TEST(BestFpThreshold, NegativesDoNotInfluenceTheChoice) {
    pca_fp_filter f = distance_is_first_coordinate();
    const std::vector<training_sample> samples = {sample_at(1.0f, 1), sample_at(8.2f, 1), sample_at(2.0f, -1),
                                                  sample_at(5.0f, -2), sample_at(9.0f, -1)};
    ostrel::getBestFPThreshold(f, samples);
    EXPECT_EQ(f.fp_threshold, 8.5f);
}

// Positives beyond the last candidate: recall 0 everywhere, 4.0 wins; the
// 14.0 starting value is only kept when nothing beats -100.
TEST(BestFpThreshold, AllPositivesFarChooseFour) {
    pca_fp_filter f = distance_is_first_coordinate();
    ostrel::getBestFPThreshold(f, {sample_at(14.0f, 1), sample_at(30.0f, 1)});
    EXPECT_EQ(f.fp_threshold, 4.0f);
    // Positives at 13.2 and 13.9: half the recall at 13.5, all of it at 14.0.
    ostrel::getBestFPThreshold(f, {sample_at(13.9f, 1), sample_at(13.2f, 1)});
    EXPECT_EQ(f.fp_threshold, 14.0f);
}

// The variants nested in a group are samples too, after their group.
TEST(BestFpThreshold, NestedVariantsAreCounted) {
    pca_fp_filter f = distance_is_first_coordinate();
    training_sample group = sample_at(1.0f, 1);
    group.variants.push_back(sample_at(2.0f, 1));
    group.variants.push_back(sample_at(10.0f, 1));
    ostrel::getBestFPThreshold(f, {group});
    EXPECT_EQ(f.fp_threshold, 10.5f);
}

// A sample that cannot be projected (wrong length) gets no distance and
// counts as rejected at every candidate: it logs its size error once and
// does not change the choice.
TEST(BestFpThreshold, UnprojectableSampleCountsAsRejected) {
    pca_fp_filter f = distance_is_first_coordinate();
    training_sample short_sample;
    short_sample.features = {1.0f, 2.0f};
    short_sample.label = 1;
    const std::vector<training_sample> samples = {sample_at(7.0f, 1), short_sample};
    const std::string out = capture_stdout([&] { ostrel::getBestFPThreshold(f, samples); });
    EXPECT_EQ(out, "[ostrel_alg::pca_project:3236] Size Error(1 1 2 3)\n");
    EXPECT_EQ(f.fp_threshold, 7.5f);
}
