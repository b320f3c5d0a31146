// Training samples cut out of a feature map: crop order, jittered variants,
// the per-picture dispatcher and the random negatives.
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "acf/ostrel_acf.h"
#include "acf/sample_test_maps.h"
#include "support/stdout_capture.h"

namespace {

using ostrel::feature_map;
using ostrel::training_sample;
using ostrel::window_rect;
using ostrel_test::capture_stdout;
using ostrel_test::make_box;
using ostrel_test::make_position_map;

const std::string kWrongPointerLine = "[ostrel_acf::addRandomNegative] Fail:: wrong pointer! (ostrel_acf line:709)\n";
const std::string kGaveUpLine =
    "[ostrel_acf::addRandomNegative] Fail:: gave up after 1000000 rejected draws, 0 of 10 negatives found\n";

// Crop written out the long way: channel, then window column, then row.
std::vector<float> expected_crop(const feature_map &map, const window_rect &w) {
    std::vector<float> out;
    for (int32_t c = 0; c < map.channels; ++c)
        for (int32_t i = 0; i < w.width; ++i)
            for (int32_t j = 0; j < w.height; ++j) out.push_back(static_cast<float>(map.at(c, w.x + i, w.y + j)));
    return out;
}

std::vector<window_rect> rects_of(const std::vector<training_sample> &variants) {
    std::vector<window_rect> rects;
    for (const auto &v : variants) rects.push_back(v.rect);
    return rects;
}

std::vector<const training_sample *> random_negatives_of(const std::vector<training_sample> &samples) {
    std::vector<const training_sample *> negatives;
    for (const auto &s : samples)
        if (s.label == ostrel::kRandomNegativeLabel) negatives.push_back(&s);
    return negatives;
}

void expect_zero_rect(const window_rect &r) { EXPECT_EQ(r, window_rect{}); }

// --- cropChannelWindow ------------------------------------------------------

// Every cell of a 2-channel, 3-column, 2-row map holds its own storage
// index, so each expected value below names the cell it must come from.
TEST(CropChannelWindow, OrderIsChannelThenColumnThenRowCellByCell) {
    feature_map map;
    map.channels = 2;
    map.columns = 3;
    map.rows = 2;
    for (uint8_t v = 0; v < 12; ++v) map.data.push_back(v);

    const window_rect right_square{1, 0, 2, 2};
    // c0: (1,0) (1,1) (2,0) (2,1); c1: the same cells of plane 1.
    EXPECT_EQ(ostrel::cropChannelWindow(&map, &right_square), (std::vector<float>{2, 3, 4, 5, 8, 9, 10, 11}));

    const window_rect bottom_strip{0, 1, 3, 1};
    // Row 1 of columns 0, 1, 2, plane 0 then plane 1.
    EXPECT_EQ(ostrel::cropChannelWindow(&map, &bottom_strip), (std::vector<float>{1, 3, 5, 7, 9, 11}));

    const window_rect one_cell{2, 0, 1, 1};
    EXPECT_EQ(ostrel::cropChannelWindow(&map, &one_cell), (std::vector<float>{4, 10}));
}

// A non-symmetric map: crop of a window matches the cells one by one, and a
// transposed reading would not.
TEST(CropChannelWindow, MatchesMapCellsOnNonSymmetricMap) {
    const feature_map map = make_position_map(17, 11);
    const window_rect w{3, 2, 5, 4};
    const std::vector<float> crop = ostrel::cropChannelWindow(&map, &w);
    ASSERT_EQ(crop.size(), 3u * 5u * 4u);
    size_t k = 0;
    for (int32_t c = 0; c < 3; ++c)
        for (int32_t i = 0; i < 5; ++i)
            for (int32_t j = 0; j < 4; ++j, ++k) {
                SCOPED_TRACE(testing::Message() << "c=" << c << " i=" << i << " j=" << j);
                EXPECT_EQ(crop[k], static_cast<float>(map.data[map.index(c, 3 + i, 2 + j)]));
            }
    // Channel 0 holds the column, channel 1 the row.
    EXPECT_EQ(crop[0], 3.0f);
    EXPECT_EQ(crop[4], 4.0f);   // second window column
    EXPECT_EQ(crop[1], 3.0f);   // same column, next row
    EXPECT_EQ(crop[20], 2.0f);  // channel 1, first cell: row 2
    EXPECT_EQ(crop[21], 3.0f);  // channel 1, next row
}

// Values are copied without scaling.
TEST(CropChannelWindow, BytesBecomeFloatsUnscaled) {
    feature_map map;
    map.channels = 1;
    map.columns = 2;
    map.rows = 1;
    map.data = {255, 0};
    const window_rect w{0, 0, 2, 1};
    EXPECT_EQ(ostrel::cropChannelWindow(&map, &w), (std::vector<float>{255.0f, 0.0f}));
}

TEST(CropChannelWindow, MissingInputGivesEmpty) {
    const feature_map map = make_position_map(10, 10);
    const window_rect w{0, 0, 2, 2};
    EXPECT_TRUE(ostrel::cropChannelWindow(nullptr, &w).empty());
    EXPECT_TRUE(ostrel::cropChannelWindow(&map, nullptr).empty());
}

// A window reaching past the map (or a map shorter than its extents) gives
// an empty crop instead of a read outside the buffer.
TEST(CropChannelWindow, WindowOutsideMapGivesEmptyInsteadOfReadingPastIt) {
    feature_map map = make_position_map(10, 8);
    const window_rect past_right{5, 0, 6, 2};
    const window_rect past_bottom{0, 7, 2, 2};
    const window_rect left_of_map{-1, 0, 2, 2};
    const window_rect upside_down{2, 2, -2, 2};
    EXPECT_TRUE(ostrel::cropChannelWindow(&map, &past_right).empty());
    EXPECT_TRUE(ostrel::cropChannelWindow(&map, &past_bottom).empty());
    EXPECT_TRUE(ostrel::cropChannelWindow(&map, &left_of_map).empty());
    EXPECT_TRUE(ostrel::cropChannelWindow(&map, &upside_down).empty());
    const window_rect whole{0, 0, 10, 8};
    EXPECT_EQ(ostrel::cropChannelWindow(&map, &whole).size(), 3u * 10u * 8u);
    map.data.resize(map.data.size() - 1);
    EXPECT_TRUE(ostrel::cropChannelWindow(&map, &whole).empty());
}

// --- addJitteredSamples -----------------------------------------------------

// 30 x 20 far from the edges: kx 3, ky 2, twelve variants, dx outer.
TEST(AddJitteredSamples, BoxFarFromEdgesGetsTwelveVariantsDxOuter) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{30, 30, 30, 20};
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);

    std::vector<window_rect> expected;
    for (int32_t dx : {-3, -1, 1, 3})
        for (int32_t dy : {-2, 0, 2}) expected.push_back(window_rect{30 + dx, 30 + dy, 30, 20});
    EXPECT_EQ(rects_of(parent.variants), expected);
    ASSERT_EQ(parent.variants.size(), 12u);
    for (const auto &v : parent.variants) {
        EXPECT_EQ(v.label, 1);
        EXPECT_EQ(v.features, expected_crop(map, v.rect));
        EXPECT_TRUE(v.variants.empty());
        EXPECT_TRUE(v.aux_values.empty());
    }
}

// The variants carry the label they are given.
TEST(AddJitteredSamples, VariantsCarryTheGivenLabel) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{30, 30, 30, 20};
    training_sample parent;
    parent.label = 7;
    ostrel::addJitteredSamples(&map, &box, -1, 0.1f, &parent);
    ASSERT_EQ(parent.variants.size(), 12u);
    for (const auto &v : parent.variants) EXPECT_EQ(v.label, -1);
    EXPECT_EQ(parent.label, 7);
}

// Right edge exactly on the map's right edge: every dx >= 0 is rejected.
TEST(AddJitteredSamples, RightEdgeOnMapEdgeRejectsNonNegativeDx) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{70, 30, 30, 20};  // 70 + 30 = 100 columns
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);
    std::vector<window_rect> expected;
    for (int32_t dx : {-3, -1})
        for (int32_t dy : {-2, 0, 2}) expected.push_back(window_rect{70 + dx, 30 + dy, 30, 20});
    EXPECT_EQ(rects_of(parent.variants), expected);
}

// Bottom edge on the map's bottom edge: every dy >= 0 is rejected.
TEST(AddJitteredSamples, BottomEdgeOnMapEdgeRejectsNonNegativeDy) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{30, 60, 30, 20};  // 60 + 20 = 80 rows
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);
    std::vector<window_rect> expected;
    for (int32_t dx : {-3, -1, 1, 3}) expected.push_back(window_rect{30 + dx, 58, 30, 20});
    EXPECT_EQ(rects_of(parent.variants), expected);
}

// One cell short of the right edge: x + dx + width < columns keeps dx = -3,
// -1 only as well, since dx = 1 makes it touch.
TEST(AddJitteredSamples, TouchingRightEdgeAfterShiftIsRejected) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{69, 30, 30, 20};  // 69 + 30 + 1 = 100
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);
    ASSERT_EQ(parent.variants.size(), 6u);
    EXPECT_EQ(parent.variants.back().rect, (window_rect{68, 32, 30, 20}));
}

// At the left edge, shifts that go below column 0 are dropped; column 0
// itself is allowed.
TEST(AddJitteredSamples, LeftAndTopEdgeKeepNonNegativePositions) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{0, 2, 30, 20};
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);
    std::vector<window_rect> expected;
    for (int32_t dx : {1, 3})
        for (int32_t dy : {-2, 0, 2}) expected.push_back(window_rect{dx, 2 + dy, 30, 20});
    EXPECT_EQ(rects_of(parent.variants), expected);
}

// Narrower than 10 cells: kx = 0, only offset 0 on that axis.
TEST(AddJitteredSamples, NarrowBoxOnlyOffsetZeroAcross) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{30, 30, 9, 20};
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);
    EXPECT_EQ(rects_of(parent.variants), (std::vector<window_rect>{{30, 28, 9, 20}, {30, 30, 9, 20}, {30, 32, 9, 20}}));
    // The unshifted copy is among them here.
    EXPECT_EQ(parent.variants[1].features, expected_crop(map, box));
}

// Lower than 10 cells too: a single variant, the box itself.
TEST(AddJitteredSamples, SmallBoxSingleUnshiftedVariant) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{30, 30, 9, 9};
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);
    EXPECT_EQ(rects_of(parent.variants), (std::vector<window_rect>{box}));
}

// Odd reach (width 10 -> kx 1): offsets -1 and 1, never 0.
TEST(AddJitteredSamples, OddReachSkipsOffsetZero) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{30, 30, 10, 9};
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);
    EXPECT_EQ(rects_of(parent.variants), (std::vector<window_rect>{{29, 30, 10, 9}, {31, 30, 10, 9}}));
}

// The reach is trunc(size * shift) in single precision, for other shifts too.
TEST(AddJitteredSamples, ReachTruncatesTheScaledSize) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{40, 40, 19, 19};  // 19 * 0.25 = 4.75 -> 4
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.25f, &parent);
    ASSERT_EQ(parent.variants.size(), 25u);
    EXPECT_EQ(parent.variants.front().rect, (window_rect{36, 36, 19, 19}));
    EXPECT_EQ(parent.variants[1].rect, (window_rect{36, 38, 19, 19}));
    EXPECT_EQ(parent.variants.back().rect, (window_rect{44, 44, 19, 19}));
}

TEST(AddJitteredSamples, MissingInputDoesNothing) {
    const feature_map map = make_position_map(100, 80);
    const window_rect box{30, 30, 30, 20};
    training_sample parent;
    ostrel::addJitteredSamples(nullptr, &box, 1, 0.1f, &parent);
    ostrel::addJitteredSamples(&map, nullptr, 1, 0.1f, &parent);
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, nullptr);
    EXPECT_TRUE(parent.variants.empty());
}

// A window as large as the map has no variant strictly inside it.
TEST(AddJitteredSamples, WindowAsLargeAsMapHasNoVariant) {
    const feature_map map = make_position_map(40, 30);
    const window_rect box{0, 0, 40, 30};
    training_sample parent;
    ostrel::addJitteredSamples(&map, &box, 1, 0.1f, &parent);
    EXPECT_TRUE(parent.variants.empty());
    const window_rect absurd{0, 0, 2000000000, 2000000000};
    ostrel::addJitteredSamples(&map, &absurd, 1, 0.1f, &parent);
    EXPECT_TRUE(parent.variants.empty());
}

// --- collectTrainingSamples -------------------------------------------------

// A positive box: its sample keeps a zero rect and label 1, its crop, and
// the twelve label-1 variants; no log line.
TEST(CollectTrainingSamples, PositiveBoxSampleAndVariants) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    const std::string log =
        capture_stdout([&] { acf.collectTrainingSamples(out, &map, {make_box(30, 30, 30, 20, 1)}, true, 100, 80); });
    EXPECT_EQ(log, "");
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].label, 1);
    expect_zero_rect(out[0].rect);
    EXPECT_EQ(out[0].features, expected_crop(map, {30, 30, 30, 20}));
    ASSERT_EQ(out[0].variants.size(), 12u);
    for (const auto &v : out[0].variants) EXPECT_EQ(v.label, 1);
    EXPECT_EQ(out[0].variants.front().rect, (window_rect{27, 28, 30, 20}));
    EXPECT_TRUE(out[0].aux_values.empty());
    // The engine's copy and the extractor's own list agree.
    ASSERT_EQ(acf.samples.size(), 1u);
    EXPECT_EQ(acf.samples[0].features, out[0].features);
}

// Boxes are in picture pixels: scaled by columns / width and rows / height
// in single precision, each product truncated.
TEST(CollectTrainingSamples, BoxesScaleToMapCellsByTruncation) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    // sx = 100 / 200 = 0.5, sy = 80 / 160 = 0.5: (61, 63, 61, 41) -> (30, 31, 30, 20).
    acf.collectTrainingSamples(out, &map, {make_box(61, 63, 61, 41, 1)}, true, 200, 160);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].features, expected_crop(map, {30, 31, 30, 20}));
    ASSERT_EQ(out[0].variants.size(), 12u);
    EXPECT_EQ(out[0].variants.front().rect, (window_rect{27, 29, 30, 20}));

    // sx = sy = 0.33333334f: 90 * sx and 30 * sy round to 30 and 10, 45 * sx to 15.
    acf.collectTrainingSamples(out, &map, {make_box(90, 30, 45, 30, 1)}, true, 300, 240);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].features, expected_crop(map, {30, 10, 15, 10}));
}

// Several boxes: samples in box order, each with its own variants.
TEST(CollectTrainingSamples, SamplesFollowBoxOrder) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    acf.collectTrainingSamples(out, &map,
                               {make_box(10, 10, 20, 20, -1), make_box(50, 40, 30, 20, 1), make_box(5, 50, 9, 9, 1)},
                               true, 100, 80);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].label, -1);
    EXPECT_EQ(out[0].features, expected_crop(map, {10, 10, 20, 20}));
    EXPECT_EQ(out[0].variants.size(), 9u);  // kx 2, ky 2: {-2,0,2} x {-2,0,2}
    EXPECT_EQ(out[1].label, 1);
    EXPECT_EQ(out[1].features, expected_crop(map, {50, 40, 30, 20}));
    EXPECT_EQ(out[1].variants.size(), 12u);
    EXPECT_EQ(out[2].variants.size(), 1u);
}

// A box labelled 0 keeps its label, its variants become -1, and it does not
// keep random negatives away: the draws are those of the positive alone.
TEST(CollectTrainingSamples, BoxLabelledZeroKeepsLabelVariantsNegativeNotAnObstacle) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    acf.setRandomSeed(12345);
    std::vector<training_sample> out;
    // The label-0 box covers most of the map; the positive sits in a corner.
    acf.collectTrainingSamples(out, &map, {make_box(0, 0, 10, 10, 1), make_box(10, 0, 85, 75, 0)}, false, 100, 80);
    ASSERT_EQ(out.size(), 12u);
    EXPECT_EQ(out[1].label, 0);
    ASSERT_FALSE(out[1].variants.empty());
    for (const auto &v : out[1].variants) EXPECT_EQ(v.label, -1);

    const auto expected = ostrel_test::reference_random_negatives(12345, 100, 80, {{0, 0, 10, 10}});
    const auto negatives = random_negatives_of(out);
    ASSERT_EQ(negatives.size(), 10u);
    const window_rect zero_box{10, 0, 85, 75};
    bool one_inside_zero_box = false;
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(negatives[i]->features, expected_crop(map, expected[i]));
        one_inside_zero_box = one_inside_zero_box || ostrel_test::reference_overlap(expected[i], zero_box) > 0.0f;
    }
    // Almost the whole map is inside the label-0 box, so some negative lies in it.
    EXPECT_TRUE(one_inside_zero_box);
}

// Only negative boxes and random negatives enabled: the failure line, no
// random negatives, the box samples and their variants still returned.
TEST(CollectTrainingSamples, OnlyNegativeBoxesLogWrongPointerAndKeepBoxes) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    const std::string log = capture_stdout([&] {
        acf.collectTrainingSamples(out, &map, {make_box(30, 30, 30, 20, -1), make_box(5, 5, 20, 20, 0)}, false, 100,
                                   80);
    });
    EXPECT_EQ(log, kWrongPointerLine);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].label, -1);
    EXPECT_EQ(out[0].variants.size(), 12u);
    EXPECT_EQ(out[1].label, 0);
    EXPECT_FALSE(out[1].variants.empty());
    EXPECT_TRUE(random_negatives_of(out).empty());
}

// No boxes at all with random negatives enabled: the same line, nothing made.
TEST(CollectTrainingSamples, NoBoxesLogWrongPointer) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    const std::string log = capture_stdout([&] { acf.collectTrainingSamples(out, &map, {}, false, 100, 80); });
    EXPECT_EQ(log, kWrongPointerLine);
    EXPECT_TRUE(out.empty());
}

// The skip flag: no random negatives and no line.
TEST(CollectTrainingSamples, SkipFlagDrawsNoNegatives) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    const std::string log =
        capture_stdout([&] { acf.collectTrainingSamples(out, &map, {make_box(30, 30, 30, 20, 1)}, true, 100, 80); });
    EXPECT_EQ(log, "");
    EXPECT_EQ(out.size(), 1u);
}

// Clock-seeded draws: exactly ten negatives of the FIRST positive's size,
// inside the map (edges may be touched), none overlapping any positive by
// more than 0.3, each the crop of its window. Repeated to see several draws.
TEST(CollectTrainingSamples, TenRandomNegativesOfFirstPositiveSizeInsideAndApart) {
    const feature_map map = make_position_map(120, 90);
    const std::vector<window_rect> positives{{20, 20, 24, 16}, {70, 40, 30, 30}};
    ostrel::ostrel_acf acf;
    for (int round = 0; round < 5; ++round) {
        std::vector<training_sample> out;
        acf.collectTrainingSamples(out, &map, {make_box(20, 20, 24, 16, 1), make_box(70, 40, 30, 30, 1)}, false, 120,
                                   90);
        ASSERT_EQ(out.size(), 12u);
        const auto negatives = random_negatives_of(out);
        ASSERT_EQ(negatives.size(), 10u);
        for (size_t i = 0; i < 10; ++i) {
            EXPECT_EQ(out[2 + i].label, -2);
            const training_sample &n = *negatives[i];
            expect_zero_rect(n.rect);
            EXPECT_TRUE(n.variants.empty());
            ASSERT_EQ(n.features.size(), 3u * 24u * 16u);
            const window_rect w = ostrel_test::window_of_position_crop(n.features, 24, 16);
            EXPECT_GE(w.x, 0);
            EXPECT_GE(w.y, 0);
            EXPECT_LE(w.x + w.width, 120);
            EXPECT_LE(w.y + w.height, 90);
            EXPECT_EQ(n.features, expected_crop(map, w));
            for (const auto &p : positives) EXPECT_LE(ostrel_test::reference_overlap(w, p), 0.3f);
        }
    }
}

// Seeded draws are repeatable and are exactly what srand(seed) followed by
// rand() (column, then row) accepts.
TEST(CollectTrainingSamples, SeededDrawsAreReproducibleAndFollowRand) {
    const feature_map map = make_position_map(100, 80);
    const std::vector<ostrel_alg_box> boxes{make_box(30, 30, 30, 20, 1)};
    std::vector<training_sample> first;
    std::vector<training_sample> second;
    {
        ostrel::ostrel_acf acf;
        acf.setRandomSeed(2024);
        acf.collectTrainingSamples(first, &map, boxes, false, 100, 80);
        // The same object reseeds on every call.
        acf.collectTrainingSamples(second, &map, boxes, false, 100, 80);
    }
    ASSERT_EQ(first.size(), 11u);
    ASSERT_EQ(second.size(), 11u);
    const auto expected = ostrel_test::reference_random_negatives(2024, 100, 80, {{30, 30, 30, 20}});
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(first[1 + i].label, -2);
        EXPECT_EQ(first[1 + i].features, second[1 + i].features);
        EXPECT_EQ(first[1 + i].features, expected_crop(map, expected[i]));
    }

    // Another seed draws other windows.
    ostrel::ostrel_acf other;
    other.setRandomSeed(2025);
    std::vector<training_sample> third;
    other.collectTrainingSamples(third, &map, boxes, false, 100, 80);
    ASSERT_EQ(third.size(), 11u);
    bool any_differs = false;
    for (size_t i = 1; i < 11; ++i) any_differs = any_differs || third[i].features != first[i].features;
    EXPECT_TRUE(any_differs);
}

// Random negatives may touch the right and bottom edges: on a 16 x 10 map
// with a 10 x 10 positive in the corner the only window overlapping it by
// 0.3 or less is (6, 0), which touches both.
TEST(CollectTrainingSamples, RandomNegativesMayTouchRightAndBottomEdge) {
    const feature_map map = make_position_map(16, 10);
    ostrel::ostrel_acf acf;
    acf.setRandomSeed(7);
    std::vector<training_sample> out;
    acf.collectTrainingSamples(out, &map, {make_box(0, 0, 10, 10, 1)}, false, 16, 10);
    const auto negatives = random_negatives_of(out);
    ASSERT_EQ(negatives.size(), 10u);
    for (const training_sample *n : negatives) {
        EXPECT_EQ(ostrel_test::window_of_position_crop(n->features, 10, 10), (window_rect{6, 0, 10, 10}));
        EXPECT_EQ(n->features, expected_crop(map, {6, 0, 10, 10}));
    }
}

// A positive as large as the map leaves no room: the draws give up with one
// line after a million rejections, keeping the box sample.
TEST(CollectTrainingSamples, PositiveAsLargeAsMapGivesUp) {
    const feature_map map = make_position_map(40, 30);
    ostrel::ostrel_acf acf;
    acf.setRandomSeed(1);
    std::vector<training_sample> out;
    const std::string log =
        capture_stdout([&] { acf.collectTrainingSamples(out, &map, {make_box(0, 0, 40, 30, 1)}, false, 40, 30); });
    EXPECT_EQ(log, kGaveUpLine);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].label, 1);
    EXPECT_EQ(out[0].features, expected_crop(map, {0, 0, 40, 30}));
    EXPECT_TRUE(out[0].variants.empty());
}

// An empty or missing map: an empty result and no message; earlier samples
// are gone.
TEST(CollectTrainingSamples, EmptyMapGivesEmptyResultSilently) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    acf.collectTrainingSamples(out, &map, {make_box(30, 30, 30, 20, 1)}, true, 100, 80);
    ASSERT_EQ(acf.samples.size(), 1u);

    const feature_map empty;
    const std::string log = capture_stdout([&] {
        acf.collectTrainingSamples(out, &empty, {make_box(30, 30, 30, 20, 1)}, false, 100, 80);
        EXPECT_TRUE(out.empty());
        EXPECT_TRUE(acf.samples.empty());
        out.resize(3);
        acf.collectTrainingSamples(out, nullptr, {make_box(30, 30, 30, 20, 1)}, false, 100, 80);
        EXPECT_TRUE(out.empty());
    });
    EXPECT_EQ(log, "");
}

// Every call starts from an empty list.
TEST(CollectTrainingSamples, EachCallStartsAfresh) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    acf.collectTrainingSamples(out, &map, {make_box(30, 30, 30, 20, 1), make_box(0, 0, 10, 10, -1)}, true, 100, 80);
    ASSERT_EQ(out.size(), 2u);
    acf.collectTrainingSamples(out, &map, {make_box(0, 0, 10, 10, -1)}, true, 100, 80);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].label, -1);
    EXPECT_EQ(acf.samples.size(), 1u);
}

// Boxes whose window leaves the map are skipped with a line; the others are
// cut as usual, and a skipped positive still keeps negatives off the part of
// it that lies inside the map.
TEST(CollectTrainingSamples, BoxOutsideMapIsSkippedButStillKeepsNegativesAway) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    acf.setRandomSeed(99);
    std::vector<training_sample> out;
    const std::string log = capture_stdout([&] {
        acf.collectTrainingSamples(out, &map,
                                   {make_box(5, 5, 10, 10, 1), make_box(60, 20, 50, 50, 1),
                                    make_box(-3, 40, 20, 20, -1), make_box(200, 200, 10, 10, 1),
                                    make_box(20, 60, 0, 5, 1)},
                                   false, 100, 80);
    });
    EXPECT_EQ(log,
              "[Debug] box 1 (60, 20, 50 x 50) lies outside the 100 x 80 feature map: skipped\n"
              "[Debug] box 2 (-3, 40, 20 x 20) lies outside the 100 x 80 feature map: skipped\n"
              "[Debug] box 3 (200, 200, 10 x 10) lies outside the 100 x 80 feature map: skipped\n"
              "[Debug] box 4 (20, 60, 0 x 5) lies outside the 100 x 80 feature map: skipped\n");
    ASSERT_EQ(out.size(), 11u);
    EXPECT_EQ(out[0].features, expected_crop(map, {5, 5, 10, 10}));
    // The visible part of box 1, columns 60..99 and rows 20..69, is an obstacle.
    const auto expected = ostrel_test::reference_random_negatives(99, 100, 80, {{5, 5, 10, 10}, {60, 20, 40, 50}});
    for (size_t i = 0; i < 10; ++i) EXPECT_EQ(out[1 + i].features, expected_crop(map, expected[i]));
}

// A box reaching the map's right and bottom edges exactly is inside.
TEST(CollectTrainingSamples, BoxOnMapEdgeIsKept) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    const std::string log =
        capture_stdout([&] { acf.collectTrainingSamples(out, &map, {make_box(70, 60, 30, 20, 1)}, true, 100, 80); });
    EXPECT_EQ(log, "");
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].features, expected_crop(map, {70, 60, 30, 20}));
    EXPECT_EQ(rects_of(out[0].variants), (std::vector<window_rect>{{67, 58, 30, 20}, {69, 58, 30, 20}}));
}

// A picture size that cannot scale the boxes: no samples, a line.
TEST(CollectTrainingSamples, UnusablePictureSizeGivesNoSamples) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out(2);
    const std::string log =
        capture_stdout([&] { acf.collectTrainingSamples(out, &map, {make_box(30, 30, 30, 20, 1)}, false, 0, 80); });
    EXPECT_EQ(log, "[Debug] picture size 0 x 80 cannot scale boxes to the feature map: no samples\n");
    EXPECT_TRUE(out.empty());
}

// A map whose buffer is shorter than its extents is refused with a line.
TEST(CollectTrainingSamples, TruncatedMapGivesNoSamples) {
    feature_map map = make_position_map(100, 80);
    map.data.resize(100);
    ostrel::ostrel_acf acf;
    std::vector<training_sample> out;
    const std::string log =
        capture_stdout([&] { acf.collectTrainingSamples(out, &map, {make_box(30, 30, 30, 20, 1)}, false, 100, 80); });
    EXPECT_EQ(log, "[Debug] feature map of 3 channels, 100 x 80 cells holds only 100 bytes: no samples\n");
    EXPECT_TRUE(out.empty());
}

// --- addRandomNegative ------------------------------------------------------

TEST(AddRandomNegative, MissingMapOrNoPositiveLogsWrongPointer) {
    const feature_map map = make_position_map(100, 80);
    const feature_map empty;
    ostrel::ostrel_acf acf;
    EXPECT_EQ(capture_stdout([&] { acf.addRandomNegative(nullptr, {{0, 0, 10, 10}}); }), kWrongPointerLine);
    EXPECT_EQ(capture_stdout([&] { acf.addRandomNegative(&empty, {{0, 0, 10, 10}}); }), kWrongPointerLine);
    EXPECT_EQ(capture_stdout([&] { acf.addRandomNegative(&map, {}); }), kWrongPointerLine);
    // A first window without cells cannot give a negative either.
    EXPECT_EQ(capture_stdout([&] { acf.addRandomNegative(&map, {{0, 0, 0, 10}}); }), kWrongPointerLine);
    EXPECT_TRUE(acf.samples.empty());
}

// Appends to what samples already holds.
TEST(AddRandomNegative, AppendsTenToExistingSamples) {
    const feature_map map = make_position_map(100, 80);
    ostrel::ostrel_acf acf;
    acf.setRandomSeed(5);
    acf.samples.resize(2);
    acf.addRandomNegative(&map, {{40, 30, 12, 8}});
    ASSERT_EQ(acf.samples.size(), 12u);
    const auto expected = ostrel_test::reference_random_negatives(5, 100, 80, {{40, 30, 12, 8}});
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(acf.samples[2 + i].label, -2);
        EXPECT_EQ(acf.samples[2 + i].features, expected_crop(map, expected[i]));
    }
}

}  // namespace
