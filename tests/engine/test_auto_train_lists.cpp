// Which detections auto-training turns into negatives.
#include "engine/auto_train_lists.h"

#include <gtest/gtest.h>

namespace {

ostrel_alg_box box(int32_t x, int32_t y, int32_t w, int32_t h, int32_t label, float score = 0.5f) {
    return ostrel_alg_box{x, y, w, h, score, label, 0, 0};
}

}  // namespace

// A detection overlapping a marked box by 0.3 or more is a match; the rest
// become negatives (label -1), in list order, without limit.
TEST(CollectFalsePositives, UnmatchedDetectionsBecomeNegatives) {
    const std::vector<ostrel_alg_box> marked = {box(0, 0, 10, 10, 1)};
    std::vector<ostrel_alg_box> detections = {box(0, 0, 10, 10, 1, 0.9f), box(50, 50, 10, 10, 1, 0.8f),
                                              box(5, 0, 10, 10, 1, 0.7f), box(80, 80, 10, 10, 1, 0.6f)};
    // (5,0,10,10) against (0,0,10,10): I = 50, U = 150, overlap 0.333 -> a match.
    std::vector<ostrel_alg_box> out;
    ostrel::collectFalsePositives(marked, detections, out, 0.3f);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].x, 50);
    EXPECT_EQ(out[0].label, -1);
    EXPECT_FLOAT_EQ(out[0].score, 0.8f);
    EXPECT_EQ(out[1].x, 80);
    EXPECT_EQ(out[1].label, -1);
}

// Only detections labelled 1 are looked at, and only marked boxes labelled 1 match.
TEST(CollectFalsePositives, LabelsOtherThanOneAreIgnored) {
    const std::vector<ostrel_alg_box> marked = {box(0, 0, 10, 10, -1)};
    const std::vector<ostrel_alg_box> detections = {box(0, 0, 10, 10, 1), box(0, 0, 10, 10, -1), box(0, 0, 10, 10, 0)};
    std::vector<ostrel_alg_box> out;
    ostrel::collectFalsePositives(marked, detections, out, 0.3f);
    ASSERT_EQ(out.size(), 1u);  // the negative marked box does not match
    EXPECT_EQ(out[0].label, -1);
}

// An overlap just below the threshold is no match.
TEST(CollectFalsePositives, OverlapBelowThresholdIsNoMatch) {
    const std::vector<ostrel_alg_box> marked = {box(0, 0, 10, 10, 1)};
    // (6,0,10,10): I = 40, U = 160, overlap 0.25.
    const std::vector<ostrel_alg_box> detections = {box(6, 0, 10, 10, 1)};
    std::vector<ostrel_alg_box> out;
    ostrel::collectFalsePositives(marked, detections, out, 0.3f);
    EXPECT_EQ(out.size(), 1u);
}

// Below-confidence detections (label -1) that match nothing are copied
// unchanged, at most 10.
TEST(CollectLowConfidence, CopiesAtMostTenUnmatched) {
    const std::vector<ostrel_alg_box> marked = {box(0, 0, 10, 10, 1)};
    std::vector<ostrel_alg_box> detections;
    detections.push_back(box(0, 0, 10, 10, -1, 0.2f));   // matches the marked box
    detections.push_back(box(200, 0, 10, 10, 1, 0.9f));  // label 1: not this list's business
    detections.push_back(box(300, 0, 10, 10, 2, 0.1f));  // any label other than -1 is skipped
    for (int i = 0; i < 12; ++i) {
        detections.push_back(box(20 + 20 * i, 100, 10, 10, -1, 0.01f * i));
    }
    std::vector<ostrel_alg_box> out;
    ostrel::collectLowConfidence(marked, detections, out, 0.3f);
    ASSERT_EQ(out.size(), 10u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(out[i].x, 20 + 20 * i);
        EXPECT_EQ(out[i].label, -1);
        EXPECT_FLOAT_EQ(out[i].score, 0.01f * i);
    }
}
