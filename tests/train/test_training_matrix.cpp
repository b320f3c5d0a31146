// Training samples laid out as matrix rows and labels, the flat lists the
// SVM and the outlier step read, and the lines for odd sets.
#include "train/training_matrix.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "acf/ostrel_acf.h"
#include "acf/sample_test_maps.h"
#include "support/stdout_capture.h"

namespace {

using ostrel::training_sample;
using ostrel_test::capture_stdout;
using ostrel_test::make_box;
using ostrel_test::make_position_map;

const std::string kNoAcfFeatureLine = "[Debug] No Acf feature ! \n";

training_sample sample_with(std::vector<float> features, int32_t label) {
    training_sample s;
    s.features = std::move(features);
    s.label = label;
    return s;
}

std::vector<float> row_of(const cv::Mat &m, int r) {
    return std::vector<float>(m.ptr<float>(r), m.ptr<float>(r) + m.cols);
}

// One positive 30 x 20 box far from the edges and ten random negatives:
// 23 rows (box, its 12 variants, the 10 negatives), labels 1 x13, -1 x10.
TEST(SetTrainingMat, PositiveBoxTwelveVariantsTenNegativesGiveTwentyThreeRows) {
    const ostrel::feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    acf.setRandomSeed(31);
    std::vector<training_sample> groups;
    acf.collectTrainingSamples(groups, &map, {make_box(30, 30, 30, 20, 1)}, false, 100, 80);
    ASSERT_EQ(groups.size(), 11u);

    cv::Mat samples;
    cv::Mat labels;
    std::string log;
    bool ok = false;
    log = capture_stdout([&] { ok = ostrel::set_training_mat(groups, &samples, &labels); });
    EXPECT_TRUE(ok);
    EXPECT_EQ(log, "");
    ASSERT_EQ(samples.rows, 23);
    ASSERT_EQ(samples.cols, 3 * 30 * 20);
    EXPECT_EQ(samples.type(), CV_32F);
    ASSERT_EQ(labels.rows, 23);
    ASSERT_EQ(labels.cols, 1);
    EXPECT_EQ(labels.type(), CV_32S);

    EXPECT_EQ(row_of(samples, 0), groups[0].features);
    for (int v = 0; v < 12; ++v) EXPECT_EQ(row_of(samples, 1 + v), groups[0].variants[v].features);
    for (int n = 0; n < 10; ++n) EXPECT_EQ(row_of(samples, 13 + n), groups[1 + n].features);
    for (int r = 0; r < 13; ++r) EXPECT_EQ(labels.at<int32_t>(r, 0), 1) << "row " << r;
    for (int r = 13; r < 23; ++r) EXPECT_EQ(labels.at<int32_t>(r, 0), -1) << "row " << r;

    // The outlier step sees the same 23 records, 13 of them positive.
    uint32_t positives = 0;
    EXPECT_EQ(ostrel::flatten_outlier_candidates(groups, &positives).size(), 23u);
    EXPECT_EQ(positives, 13u);
}

// A user-marked negative box with its variants: every row -1 in the matrix;
// only the box itself is an outlier candidate.
TEST(SetTrainingMat, MarkedNegativeBoxAndVariantsAreAllNegativeRows) {
    const ostrel::feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> groups;
    acf.collectTrainingSamples(groups, &map, {make_box(30, 30, 30, 20, -1)}, true, 100, 80);
    ASSERT_EQ(groups.size(), 1u);
    ASSERT_EQ(groups[0].variants.size(), 12u);

    cv::Mat samples;
    cv::Mat labels;
    ASSERT_TRUE(ostrel::set_training_mat(groups, &samples, &labels));
    ASSERT_EQ(labels.rows, 13);
    for (int r = 0; r < 13; ++r) EXPECT_EQ(labels.at<int32_t>(r, 0), -1);

    uint32_t positives = 99;
    const auto candidates = ostrel::flatten_outlier_candidates(groups, &positives);
    ASSERT_EQ(candidates.size(), 1u);
    EXPECT_EQ(candidates[0], &groups[0]);
    EXPECT_EQ(positives, 0u);
}

// A box labelled 0 (and a random negative's -2) becomes a -1 row.
TEST(SetTrainingMat, EveryLabelOtherThanOneIsMinusOne) {
    std::vector<training_sample> groups;
    groups.push_back(sample_with({1, 2}, 0));
    groups.push_back(sample_with({3, 4}, -2));
    groups.push_back(sample_with({5, 6}, 1));
    groups.push_back(sample_with({7, 8}, 2));
    groups.push_back(sample_with({9, 10}, -1));
    cv::Mat samples;
    cv::Mat labels;
    ASSERT_TRUE(ostrel::set_training_mat(groups, &samples, &labels));
    ASSERT_EQ(labels.rows, 5);
    EXPECT_EQ(labels.at<int32_t>(0, 0), -1);
    EXPECT_EQ(labels.at<int32_t>(1, 0), -1);
    EXPECT_EQ(labels.at<int32_t>(2, 0), 1);
    EXPECT_EQ(labels.at<int32_t>(3, 0), -1);
    EXPECT_EQ(labels.at<int32_t>(4, 0), -1);
    EXPECT_EQ(row_of(samples, 3), (std::vector<float>{7, 8}));
}

// A box labelled 0 cut from a map: its row is -1, its variants too.
TEST(SetTrainingMat, BoxLabelledZeroGivesNegativeRows) {
    const ostrel::feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> groups;
    acf.collectTrainingSamples(groups, &map, {make_box(30, 30, 30, 20, 0)}, true, 100, 80);
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_EQ(groups[0].label, 0);
    cv::Mat samples;
    cv::Mat labels;
    ASSERT_TRUE(ostrel::set_training_mat(groups, &samples, &labels));
    ASSERT_EQ(labels.rows, 13);
    for (int r = 0; r < 13; ++r) EXPECT_EQ(labels.at<int32_t>(r, 0), -1);
}

// An empty set: the line and false.
TEST(SetTrainingMat, EmptySetLogsNoAcfFeature) {
    cv::Mat samples;
    cv::Mat labels;
    bool ok = true;
    const std::string log =
        capture_stdout([&] { ok = ostrel::set_training_mat(std::vector<training_sample>{}, &samples, &labels); });
    EXPECT_FALSE(ok);
    EXPECT_EQ(log, kNoAcfFeatureLine);
}

// The outputs are replaced, not added to or written through.
TEST(SetTrainingMat, ReplacesWhatTheOutputsHeld) {
    cv::Mat samples = cv::Mat::ones(4, 7, CV_32F);
    cv::Mat labels = cv::Mat::ones(4, 1, CV_32S);
    const cv::Mat old_samples = samples;
    std::vector<training_sample> groups;
    groups.push_back(sample_with({1, 2, 3}, 1));
    ASSERT_TRUE(ostrel::set_training_mat(groups, &samples, &labels));
    EXPECT_EQ(samples.rows, 1);
    EXPECT_EQ(samples.cols, 3);
    EXPECT_EQ(labels.rows, 1);
    EXPECT_EQ(old_samples.at<float>(0, 0), 1.0f);
    EXPECT_EQ(old_samples.rows, 4);
}

// A row shorter than the first is copied and padded with zeros; a longer one
// is cut; each mismatch is reported.
TEST(LayOutTrainingRows, ShorterRowPaddedLongerRowCutWithDebugLines) {
    const training_sample first = sample_with({1, 2, 3, 4}, 1);
    const training_sample shorter = sample_with({5, 6}, -1);
    const training_sample longer = sample_with({7, 8, 9, 10, 11}, 1);
    const training_sample same = sample_with({12, 13, 14, 15}, -2);
    cv::Mat samples;
    cv::Mat labels;
    const std::string log = capture_stdout([&] {
        ostrel::lay_out_training_rows({&first, &shorter, &longer, &same}, &samples, &labels);
    });
    EXPECT_EQ(log,
              "[Debug] training sample 1 has 2 features, expected 4\n"
              "[Debug] training sample 2 has 5 features, expected 4\n");
    ASSERT_EQ(samples.rows, 4);
    ASSERT_EQ(samples.cols, 4);
    EXPECT_EQ(row_of(samples, 0), (std::vector<float>{1, 2, 3, 4}));
    EXPECT_EQ(row_of(samples, 1), (std::vector<float>{5, 6, 0, 0}));
    EXPECT_EQ(row_of(samples, 2), (std::vector<float>{7, 8, 9, 10}));
    EXPECT_EQ(row_of(samples, 3), (std::vector<float>{12, 13, 14, 15}));
    EXPECT_EQ(labels.at<int32_t>(0, 0), 1);
    EXPECT_EQ(labels.at<int32_t>(1, 0), -1);
    EXPECT_EQ(labels.at<int32_t>(2, 0), 1);
    EXPECT_EQ(labels.at<int32_t>(3, 0), -1);
}

// The same padding through set_training_mat: a short variant.
TEST(SetTrainingMat, ShortVariantPaddedWithZeros) {
    std::vector<training_sample> groups;
    groups.push_back(sample_with({1, 2, 3}, 1));
    groups[0].variants.push_back(sample_with({4}, 1));
    cv::Mat samples;
    cv::Mat labels;
    bool ok = false;
    const std::string log = capture_stdout([&] { ok = ostrel::set_training_mat(groups, &samples, &labels); });
    EXPECT_TRUE(ok);
    EXPECT_EQ(log, "[Debug] training sample 1 has 1 features, expected 3\n");
    EXPECT_EQ(row_of(samples, 1), (std::vector<float>{4, 0, 0}));
}

TEST(LayOutTrainingRows, NoRowsGiveEmptyMatrices) {
    cv::Mat samples = cv::Mat::ones(2, 2, CV_32F);
    cv::Mat labels = cv::Mat::ones(2, 1, CV_32S);
    ostrel::lay_out_training_rows({}, &samples, &labels);
    EXPECT_EQ(samples.rows, 0);
    EXPECT_EQ(labels.rows, 0);
}

// Every record, then all of its variants, whatever their labels.
TEST(FlattenAllSamples, RecordThenAllItsVariants) {
    std::vector<training_sample> groups;
    groups.push_back(sample_with({1}, -1));
    groups[0].variants.push_back(sample_with({2}, -1));
    groups[0].variants.push_back(sample_with({3}, -1));
    groups.push_back(sample_with({4}, 1));
    groups[1].variants.push_back(sample_with({5}, 1));
    groups[1].variants.push_back(sample_with({6}, -1));
    groups.push_back(sample_with({7}, -2));
    const auto rows = ostrel::flatten_all_samples(groups);
    const std::vector<const training_sample *> expected{&groups[0], &groups[0].variants[0], &groups[0].variants[1],
                                                        &groups[1], &groups[1].variants[0], &groups[1].variants[1],
                                                        &groups[2]};
    EXPECT_EQ(rows, expected);
}

// Every record; after a positive one, its positive variants only; the
// variants of other records stay out. The count is of label-1 rows.
TEST(FlattenOutlierCandidates, PositiveRecordsBringTheirPositiveVariants) {
    std::vector<training_sample> groups;
    groups.push_back(sample_with({1}, -1));
    groups[0].variants.push_back(sample_with({2}, -1));
    groups.push_back(sample_with({3}, 1));
    groups[1].variants.push_back(sample_with({4}, 1));
    groups[1].variants.push_back(sample_with({5}, -1));
    groups[1].variants.push_back(sample_with({6}, 1));
    groups.push_back(sample_with({7}, 0));
    groups[2].variants.push_back(sample_with({8}, 1));
    groups.push_back(sample_with({9}, -2));
    uint32_t positives = 0;
    const auto rows = ostrel::flatten_outlier_candidates(groups, &positives);
    const std::vector<const training_sample *> expected{
        &groups[0], &groups[1], &groups[1].variants[0], &groups[1].variants[2], &groups[2], &groups[3]};
    EXPECT_EQ(rows, expected);
    EXPECT_EQ(positives, 3u);
    // The count may be left out.
    EXPECT_EQ(ostrel::flatten_outlier_candidates(groups, nullptr).size(), 6u);
}

// A positive and a marked negative box: the candidate list holds the
// positive, its 12 variants and the negative box alone.
TEST(FlattenOutlierCandidates, MixedBoxesFromAMap) {
    const ostrel::feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> groups;
    acf.collectTrainingSamples(groups, &map, {make_box(30, 30, 30, 20, 1), make_box(10, 10, 30, 20, -1)}, true, 100,
                               80);
    ASSERT_EQ(groups.size(), 2u);
    uint32_t positives = 0;
    const auto rows = ostrel::flatten_outlier_candidates(groups, &positives);
    ASSERT_EQ(rows.size(), 14u);
    EXPECT_EQ(positives, 13u);
    EXPECT_EQ(rows.back(), &groups[1]);

    cv::Mat samples;
    cv::Mat labels;
    ostrel::lay_out_training_rows(rows, &samples, &labels);
    EXPECT_EQ(samples.rows, 14);
    EXPECT_EQ(labels.at<int32_t>(13, 0), -1);
    EXPECT_EQ(cv::countNonZero(labels == 1), 13);
}

}  // namespace
