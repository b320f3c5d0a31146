// Precision, recall, F1 and average precision against labelled boxes.
#include <gtest/gtest.h>

#include "evaluation/metrics.h"

using namespace ostrel_tool;

TEST(MatchDetections, EachLabelledBoxIsFoundOnce) {
    // Two detections on the same object: the higher score is the true positive.
    const std::vector<ScoredBox> d{{{0, 0, 10, 10}, 0.6f}, {{1, 0, 10, 10}, 0.9f}, {{50, 50, 10, 10}, 0.7f}};
    const std::vector<LabelledBox> l{{{0, 0, 10, 10}, false}, {{100, 100, 10, 10}, false}};
    const PictureMatch m = match_detections(d, l, 0.5);
    EXPECT_EQ(m.objects, 2);
    EXPECT_EQ(m.detections, 3);
    EXPECT_EQ(m.true_positives, 1);
    EXPECT_EQ(m.false_positives, 2);
    ASSERT_EQ(m.ranked.size(), 3u);
    EXPECT_FLOAT_EQ(m.ranked[0].first, 0.9f);
    EXPECT_TRUE(m.ranked[0].second);
    EXPECT_FALSE(m.ranked[1].second);
    EXPECT_EQ(m.found, (std::vector<bool>{true, false}));
}

TEST(MatchDetections, OverlapBelowTheThresholdDoesNotCount) {
    // IoU of a half-shifted box is 1/3.
    const std::vector<ScoredBox> d{{{5, 0, 10, 10}, 0.9f}};
    const std::vector<LabelledBox> l{{{0, 0, 10, 10}, false}};
    EXPECT_EQ(match_detections(d, l, 0.5).true_positives, 0);
    EXPECT_EQ(match_detections(d, l, 0.3).true_positives, 1);
}

TEST(MatchDetections, DifficultBoxesCountNeitherWay) {
    const std::vector<ScoredBox> d{{{0, 0, 10, 10}, 0.9f}};
    const std::vector<LabelledBox> l{{{0, 0, 10, 10}, true}};
    const PictureMatch m = match_detections(d, l, 0.5);
    EXPECT_EQ(m.objects, 0);
    EXPECT_EQ(m.detections, 0);
    EXPECT_EQ(m.false_positives, 0);
}

TEST(AveragePrecision, WorkedExample) {
    // Ranked TP, FP, TP with 3 objects: precision 1, 1/2, 2/3 at recall 1/3, 1/3, 2/3.
    // Made monotone: 1, 2/3, 2/3. AP = 1/3 * 1 + 0 + 1/3 * 2/3 = 5/9.
    EXPECT_NEAR(average_precision({{0.9f, true}, {0.8f, false}, {0.7f, true}}, 3), 5.0 / 9.0, 1e-12);
}

TEST(AveragePrecision, OrdersByScoreAndKeepsTiesInOrder) {
    EXPECT_NEAR(average_precision({{0.7f, true}, {0.8f, false}, {0.9f, true}}, 2), 0.5 + 0.5 * 2.0 / 3.0, 1e-12);
    // Equal scores keep their order: FP before TP gives precision 1/2 at the only recall step.
    EXPECT_NEAR(average_precision({{0.5f, false}, {0.5f, true}}, 1), 0.5, 1e-12);
}

TEST(AveragePrecision, PerfectAndEmpty) {
    EXPECT_DOUBLE_EQ(average_precision({{0.9f, true}, {0.8f, true}}, 2), 1.0);
    EXPECT_DOUBLE_EQ(average_precision({}, 2), 0.0);
    EXPECT_DOUBLE_EQ(average_precision({{0.9f, true}}, 0), 0.0);
}

TEST(Summarise, PoolsPictures) {
    PictureMatch a;
    a.objects = 4;
    a.detections = 3;
    a.true_positives = 2;
    a.false_positives = 1;
    a.ranked = {{0.9f, true}, {0.8f, true}, {0.7f, false}};
    PictureMatch b;
    b.objects = 2;
    b.detections = 1;
    b.true_positives = 1;
    b.ranked = {{0.85f, true}};
    const QualitySummary s = summarise({a, b});
    EXPECT_EQ(s.pictures, 2);
    EXPECT_EQ(s.objects, 6);
    EXPECT_EQ(s.detections, 4);
    EXPECT_EQ(s.true_positives, 3);
    EXPECT_EQ(s.false_positives, 1);
    EXPECT_EQ(s.false_negatives, 3);
    EXPECT_DOUBLE_EQ(s.precision, 0.75);
    EXPECT_DOUBLE_EQ(s.recall, 0.5);
    EXPECT_DOUBLE_EQ(s.f1, 0.6);
    // Ranked 0.9 T, 0.85 T, 0.8 T, 0.7 F over 6 objects: 3 steps of 1/6 at precision 1.
    EXPECT_DOUBLE_EQ(s.average_precision, 0.5);
}

TEST(Summarise, NothingDetectedGivesZeros) {
    PictureMatch a;
    a.objects = 3;
    const QualitySummary s = summarise({a});
    EXPECT_EQ(s.precision, 0.0);
    EXPECT_EQ(s.recall, 0.0);
    EXPECT_EQ(s.f1, 0.0);
    EXPECT_EQ(s.average_precision, 0.0);
    EXPECT_EQ(s.false_negatives, 3);
}
