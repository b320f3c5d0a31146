// Candidate filtering: greedy overlap suppression, the false-positive
// filter pass, the 32-detection cap and the below-confidence list.
#include "detect/candidate_filter.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

namespace {

using ostrel::filter_settings;

ostrel_alg_box make_box(int32_t x, int32_t y, int32_t width, int32_t height, float score, int32_t label = 1) {
    ostrel_alg_box box{};
    box.x = x;
    box.y = y;
    box.width = width;
    box.height = height;
    box.score = score;
    box.label = label;
    return box;
}

// count disjoint 10 x 10 boxes on a row, 20 pixels apart, with distinct
// scores rising from `lowest` in steps of 0.001 (shuffled order).
std::vector<ostrel_alg_box> disjoint_boxes(int count, float lowest, int32_t top = 0, int32_t label = 1) {
    std::vector<ostrel_alg_box> boxes;
    for (int i = 0; i < count; ++i) {
        boxes.push_back(make_box(i * 20, top, 10, 10, lowest + 0.001f * static_cast<float>(i), label));
    }
    std::reverse(boxes.begin(), boxes.begin() + count / 2);
    return boxes;
}

bool descending_scores(const std::vector<ostrel_alg_box> &boxes) {
    for (size_t i = 1; i < boxes.size(); ++i) {
        if (boxes[i - 1].score < boxes[i].score) {
            return false;
        }
    }
    return true;
}

// A distance function that records the boxes it was asked about.
struct recording_distance {
    std::vector<ostrel_alg_box> *asked;
    std::function<std::optional<float>(const ostrel_alg_box &)> answer;
    std::optional<float> operator()(const ostrel_alg_box &box) const {
        asked->push_back(box);
        return answer(box);
    }
};

int count_label(const std::vector<ostrel_alg_box> &boxes, int32_t label) {
    return static_cast<int>(
        std::count_if(boxes.begin(), boxes.end(), [label](const ostrel_alg_box &box) { return box.label == label; }));
}

}  // namespace

// ---------------------------------------------------------------------------
// suppressOverlaps

TEST(SuppressOverlaps, EmptyInputGivesEmptyResult) {
    std::vector<ostrel_alg_box> boxes;
    EXPECT_TRUE(ostrel::suppressOverlaps(boxes, 0.0f, 0.05f).empty());
}

// The strongest box wins; a weaker overlapping box gets score -1.0 in the
// (re-sorted) input and is skipped; disjoint boxes stay.
TEST(SuppressOverlaps, WeakerOverlappingBoxIsSuppressed) {
    std::vector<ostrel_alg_box> boxes{make_box(100, 0, 10, 10, 0.7f), make_box(5, 0, 10, 10, 0.8f),
                                      make_box(0, 0, 10, 10, 0.9f)};
    const std::vector<ostrel_alg_box> kept = ostrel::suppressOverlaps(boxes, 0.5f, 0.05f);
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0].score, 0.9f);
    EXPECT_EQ(kept[0].x, 0);
    EXPECT_EQ(kept[1].score, 0.7f);
    EXPECT_EQ(kept[1].x, 100);
    // Input sorted by score, the suppressed box marked.
    ASSERT_EQ(boxes.size(), 3u);
    EXPECT_EQ(boxes[0].x, 0);
    EXPECT_EQ(boxes[1].x, 5);
    EXPECT_EQ(boxes[1].score, -1.0f);
    EXPECT_EQ(boxes[2].x, 100);
}

// An overlap of exactly 0.05 (10 / 200) suppresses the weaker box; 10 / 210
// does not.
TEST(SuppressOverlaps, OverlapOfExactlyFivePercentSuppresses) {
    std::vector<ostrel_alg_box> boxes{make_box(0, 0, 10, 10, 0.9f), make_box(0, 9, 10, 11, 0.8f)};
    EXPECT_EQ(ostrel::suppressOverlaps(boxes, 0.5f, 0.05f).size(), 1u);
    EXPECT_EQ(boxes[1].score, -1.0f);

    std::vector<ostrel_alg_box> apart{make_box(0, 0, 10, 10, 0.9f), make_box(0, 9, 10, 12, 0.8f)};
    EXPECT_EQ(ostrel::suppressOverlaps(apart, 0.5f, 0.05f).size(), 2u);
    EXPECT_EQ(apart[1].score, 0.8f);
}

// Boxes below min_score are neither kept nor suppressed, and do not
// suppress others; a box exactly at min_score counts.
TEST(SuppressOverlaps, MinScoreBound) {
    std::vector<ostrel_alg_box> boxes{make_box(0, 0, 10, 10, 0.4f), make_box(2, 0, 10, 10, 0.5f),
                                      make_box(4, 0, 10, 10, 0.3f)};
    const std::vector<ostrel_alg_box> kept = ostrel::suppressOverlaps(boxes, 0.5f, 0.05f);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].x, 2);
    EXPECT_EQ(boxes[1].score, 0.4f);
    EXPECT_EQ(boxes[2].score, 0.3f);
}

// Suppression is greedy: a box suppressed by a stronger one cannot suppress
// a third box in its turn.
TEST(SuppressOverlaps, SuppressedBoxDoesNotSuppress) {
    // A overlaps B, B overlaps C, A and C are disjoint.
    std::vector<ostrel_alg_box> boxes{make_box(0, 0, 10, 10, 0.9f), make_box(8, 0, 10, 10, 0.8f),
                                      make_box(16, 0, 10, 10, 0.7f)};
    const std::vector<ostrel_alg_box> kept = ostrel::suppressOverlaps(boxes, 0.0f, 0.05f);
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0].x, 0);
    EXPECT_EQ(kept[1].x, 16);
}

// At most 64 boxes come out, the highest scores, in descending order.
TEST(SuppressOverlaps, AtMostSixtyFourBoxes) {
    std::vector<ostrel_alg_box> boxes = disjoint_boxes(100, 0.1f);
    const std::vector<ostrel_alg_box> kept = ostrel::suppressOverlaps(boxes, 0.0f, 0.05f);
    ASSERT_EQ(kept.size(), 64u);
    EXPECT_TRUE(descending_scores(kept));
    EXPECT_EQ(kept.front().score, 0.1f + 0.001f * 99.0f);
    EXPECT_EQ(kept.back().score, 0.1f + 0.001f * 36.0f);
}

// The 64th box still suppresses the boxes after it before the walk stops.
TEST(SuppressOverlaps, SixtyFourthBoxSuppressesBeforeStopping) {
    std::vector<ostrel_alg_box> boxes = disjoint_boxes(64, 0.5f);
    // Overlaps the weakest of the 64 (x = 0, score 0.5) and is weaker still.
    boxes.push_back(make_box(1, 1, 10, 10, 0.2f));
    ostrel::suppressOverlaps(boxes, 0.0f, 0.05f);
    EXPECT_EQ(boxes.back().score, -1.0f);
}

// ---------------------------------------------------------------------------
// filterCandidates

// Without the filter: suppression with threshold/100 and 0.05, then the 32
// highest boxes; the distance function is never called.
TEST(FilterCandidates, FilterNotEnabledPassesUpToThirtyTwo) {
    std::vector<ostrel_alg_box> asked;
    recording_distance distance{&asked, [](const ostrel_alg_box &) { return std::optional<float>(100.0f); }};
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(40, 0.6f);
    accepted.push_back(make_box(3, 3, 10, 10, 0.55f));  // overlaps x = 0 (0.6): suppressed
    std::vector<ostrel_alg_box> below;
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.apply_fp_filter = false;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, distance, out), 0);
    EXPECT_TRUE(asked.empty());
    ASSERT_EQ(out.size(), 32u);
    EXPECT_TRUE(descending_scores(out));
    EXPECT_EQ(out.front().score, 0.6f + 0.001f * 39.0f);
    EXPECT_EQ(out.back().score, 0.6f + 0.001f * 8.0f);
    EXPECT_EQ(count_label(out, 1), 32);
}

// Fewer than 32 boxes all go out.
TEST(FilterCandidates, FewBoxesAllGoOut) {
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(5, 0.6f);
    std::vector<ostrel_alg_box> below;
    filter_settings settings;
    settings.confidence_threshold = 50;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, nullptr, out), 0);
    EXPECT_EQ(out.size(), 5u);
}

// The accepted list is suppressed with confidence_threshold / 100 as the
// least score.
TEST(FilterCandidates, AcceptedBelowThresholdScoreIsSkipped) {
    std::vector<ostrel_alg_box> accepted{make_box(0, 0, 10, 10, 0.59f), make_box(50, 0, 10, 10, 0.6f)};
    std::vector<ostrel_alg_box> below;
    filter_settings settings;
    settings.confidence_threshold = 60;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, nullptr, out), 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].x, 50);
}

// A filter that rejects every box leaves no detection, not the unfiltered
// list.
TEST(FilterCandidates, FilterRejectingEveryBoxGivesNoDetections) {
    std::vector<ostrel_alg_box> asked;
    recording_distance distance{&asked, [](const ostrel_alg_box &) { return std::optional<float>(40.0f); }};
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(10, 0.6f);
    std::vector<ostrel_alg_box> below{make_box(0, 100, 10, 10, 0.3f, -1)};
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.apply_fp_filter = true;
    settings.detector_set = true;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, distance, out), 0);
    EXPECT_EQ(asked.size(), 10u);
    EXPECT_EQ(count_label(out, 1), 0);
    ASSERT_EQ(out.size(), 1u);  // the below-confidence box
    EXPECT_EQ(out[0].label, -1);
}

// A distance equal to fp_threshold rejects; just below keeps. The filter
// sees the boxes in score order, and the kept ones keep that order.
TEST(FilterCandidates, DistanceEqualToThresholdRejects) {
    std::vector<ostrel_alg_box> asked;
    recording_distance distance{&asked, [](const ostrel_alg_box &box) {
                                    return std::optional<float>(box.x == 20 ? 15.0f : 14.999999f);
                                }};
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(3, 0.6f);
    std::vector<ostrel_alg_box> below;
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.apply_fp_filter = true;
    settings.fp_threshold = 15.0f;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, distance, out), 0);
    ASSERT_EQ(asked.size(), 3u);
    EXPECT_EQ(asked[0].x, 40);
    EXPECT_EQ(asked[1].x, 20);
    EXPECT_EQ(asked[2].x, 0);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].x, 40);
    EXPECT_EQ(out[1].x, 0);
}

// A window that cannot be projected fails the stage: status 1, out empty
// even after earlier boxes passed.
TEST(FilterCandidates, UnprojectableWindowFails) {
    std::vector<ostrel_alg_box> asked;
    recording_distance distance{&asked, [&asked](const ostrel_alg_box &) {
                                    return asked.size() < 3 ? std::optional<float>(1.0f) : std::nullopt;
                                }};
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(10, 0.6f);
    std::vector<ostrel_alg_box> below = disjoint_boxes(3, 0.1f, 100, -1);
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.apply_fp_filter = true;
    settings.detector_set = true;
    std::vector<ostrel_alg_box> out{make_box(1, 1, 1, 1, 0.5f)};
    EXPECT_EQ(ostrel::filterCandidates(accepted, below, settings, distance, out), 1);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(asked.size(), 3u);
}

// The filter stops after keeping 32 boxes; the rest are not examined.
TEST(FilterCandidates, FilterStopsAfterThirtyTwoKept) {
    std::vector<ostrel_alg_box> asked;
    // Rejects the five strongest, keeps the others.
    recording_distance distance{&asked, [&asked](const ostrel_alg_box &) {
                                    return std::optional<float>(asked.size() <= 5 ? 20.0f : 1.0f);
                                }};
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(60, 0.6f);
    std::vector<ostrel_alg_box> below;
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.apply_fp_filter = true;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, distance, out), 0);
    EXPECT_EQ(asked.size(), 37u);
    ASSERT_EQ(out.size(), 32u);
    EXPECT_EQ(out.front().score, 0.6f + 0.001f * 54.0f);
    EXPECT_EQ(out.back().score, 0.6f + 0.001f * 23.0f);
}

// A ready filter with an empty suppressed list is not called.
TEST(FilterCandidates, EmptyListIsNotFiltered) {
    std::vector<ostrel_alg_box> asked;
    recording_distance distance{&asked, [](const ostrel_alg_box &) { return std::optional<float>(); }};
    std::vector<ostrel_alg_box> accepted;
    std::vector<ostrel_alg_box> below;
    filter_settings settings;
    settings.apply_fp_filter = true;
    std::vector<ostrel_alg_box> out;
    EXPECT_EQ(ostrel::filterCandidates(accepted, below, settings, distance, out), 0);
    EXPECT_TRUE(asked.empty());
    EXPECT_TRUE(out.empty());
}

// With detector_set clear the below list is ignored even when filled.
TEST(FilterCandidates, BelowListIgnoredWithoutDetector) {
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(2, 0.6f);
    std::vector<ostrel_alg_box> below = disjoint_boxes(5, 0.1f, 100, -1);
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.detector_set = false;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, nullptr, out), 0);
    EXPECT_EQ(out.size(), 2u);
    EXPECT_EQ(count_label(out, -1), 0);
}

// Below-confidence boxes follow the detections, strongest first, after
// their own suppression (min score 0, overlap 0.001).
TEST(FilterCandidates, BelowBoxesFollowDetections) {
    std::vector<ostrel_alg_box> accepted{make_box(0, 0, 10, 10, 0.7f)};
    std::vector<ostrel_alg_box> below{make_box(100, 100, 10, 10, 0.2f, -1), make_box(200, 100, 10, 10, 0.4f, -1),
                                      // one shared pixel with the 0.4 box: overlap 1/199 > 0.001
                                      make_box(209, 109, 10, 10, 0.3f, -1), make_box(300, 100, 10, 10, 0.0f, -1)};
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.detector_set = true;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, nullptr, out), 0);
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[0].label, 1);
    EXPECT_EQ(out[1].x, 200);
    EXPECT_EQ(out[2].x, 100);
    EXPECT_EQ(out[3].x, 300);
    EXPECT_EQ(out[3].score, 0.0f);
    for (size_t i = 1; i < out.size(); ++i) {
        EXPECT_EQ(out[i].label, -1);
    }
}

// A below box touching a detection only at an edge or a corner is not
// added (closed rectangles); one a pixel apart is. (The below boxes share
// no area with each other, so their own suppression keeps them all.)
TEST(FilterCandidates, BelowBoxTouchingAtEdgeIsNotAdded) {
    std::vector<ostrel_alg_box> accepted{make_box(100, 100, 10, 10, 0.7f)};
    std::vector<ostrel_alg_box> below{
        make_box(110, 100, 10, 10, 0.40f, -1),  // shares the right edge
        make_box(100, 90, 10, 10, 0.39f, -1),   // shares the top edge
        make_box(90, 110, 10, 10, 0.38f, -1),   // shares the bottom-left corner
        make_box(89, 100, 10, 10, 0.37f, -1),   // one pixel left of the left edge
        make_box(100, 111, 10, 10, 0.36f, -1),  // one pixel below the bottom edge
    };
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.detector_set = true;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, nullptr, out), 0);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[1].x, 89);
    EXPECT_EQ(out[2].y, 111);
}

// Only the first 17 below boxes are examined; one that touches a detection
// uses up its place.
TEST(FilterCandidates, SeventeenBelowBoxesExamined) {
    std::vector<ostrel_alg_box> accepted;
    std::vector<ostrel_alg_box> below = disjoint_boxes(30, 0.1f, 100, -1);
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.detector_set = true;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, nullptr, out), 0);
    ASSERT_EQ(out.size(), 17u);
    EXPECT_TRUE(descending_scores(out));
    EXPECT_EQ(out.back().score, 0.1f + 0.001f * 13.0f);

    // A detection touching the strongest below box (x = 580).
    std::vector<ostrel_alg_box> detected{make_box(585, 105, 10, 10, 0.9f)};
    std::vector<ostrel_alg_box> below_again = disjoint_boxes(30, 0.1f, 100, -1);
    out.clear();
    ASSERT_EQ(ostrel::filterCandidates(detected, below_again, settings, nullptr, out), 0);
    EXPECT_EQ(out.size(), 1u + 16u);
}

// A below box scoring above confidence_threshold / 100 is not added.
TEST(FilterCandidates, BelowBoxAboveThresholdIsNotAdded) {
    std::vector<ostrel_alg_box> accepted;
    std::vector<ostrel_alg_box> below{make_box(0, 0, 10, 10, 0.51f, -1), make_box(50, 0, 10, 10, 0.5f, -1)};
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.detector_set = true;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, nullptr, out), 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].x, 50);
}

// The touching test uses the whole list that left the filter step: without
// the filter that is every suppressed box, also those past the 32 reported.
TEST(FilterCandidates, TouchingTestsEverySuppressedBox) {
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(40, 0.6f);       // weakest at x = 0
    std::vector<ostrel_alg_box> below{make_box(0, 10, 10, 10, 0.3f, -1)};  // touches it at an edge
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.detector_set = true;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, nullptr, out), 0);
    EXPECT_EQ(out.size(), 32u);
    EXPECT_EQ(count_label(out, -1), 0);
}

// With the filter run, a below box touching only a rejected detection is
// added.
TEST(FilterCandidates, TouchingIgnoresRejectedDetections) {
    std::vector<ostrel_alg_box> asked;
    recording_distance distance{&asked, [](const ostrel_alg_box &box) {
                                    return std::optional<float>(box.x == 0 ? 30.0f : 1.0f);
                                }};
    std::vector<ostrel_alg_box> accepted = disjoint_boxes(3, 0.6f);
    std::vector<ostrel_alg_box> below{make_box(0, 10, 10, 10, 0.3f, -1)};
    filter_settings settings;
    settings.confidence_threshold = 50;
    settings.detector_set = true;
    settings.apply_fp_filter = true;
    std::vector<ostrel_alg_box> out;
    ASSERT_EQ(ostrel::filterCandidates(accepted, below, settings, distance, out), 0);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[2].label, -1);
}
