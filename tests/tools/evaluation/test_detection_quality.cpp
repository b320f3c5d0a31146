// Pins down the figures `ostrel eval` prints (and `ostrel.evaluate` returns)
// with small cases worked out by hand in the comments: counts, precision,
// recall and F1 at the threshold, the all-point AP and COCO's
// AP@[.50:.95], AP50 and AP75, with a picture without labels, crowd
// regions, difficult boxes, ties in score and more than 100 boxes a picture.
#include <gtest/gtest.h>

#include "evaluation/coco_evaluation.h"
#include "evaluation/detection_quality.h"

namespace ostrel_tool {
namespace {

LabelBox box(double x, double y, double w, double h, double score = -1.0) {
    LabelBox b;
    b.class_name = "cell";
    b.x = x, b.y = y, b.w = w, b.h = h;
    if (score >= 0) {
        b.score = score;
    }
    return b;
}

const std::vector<ClassGroup> kCell = {ClassGroup{{"cell"}}};
constexpr double kExact = 1e-12;  // COCO's precision carries an epsilon of 2.2e-16

// Two pictures. Picture 1 has labels L1 (0,0,10,10) and L2 (20,0,10,10);
// the detector reports D1 = L1 at 0.9 and D2 (1,0,10,10) at 0.8, and below
// its threshold D3 = L2 at 0.3. Picture 2 has no label and a detection D4
// at 0.85.
std::vector<EvaluatedPicture> two_pictures() {
    EvaluatedPicture one;
    one.name = "one.jpg";
    one.id = 1;
    one.labels = {box(0, 0, 10, 10), box(20, 0, 10, 10)};
    one.detections = {box(0, 0, 10, 10, 0.9), box(1, 0, 10, 10, 0.8)};
    one.ranked = {box(0, 0, 10, 10, 0.9), box(1, 0, 10, 10, 0.8), box(20, 0, 10, 10, 0.3)};
    EvaluatedPicture two;
    two.name = "two.jpg";
    two.id = 2;
    two.detections = {box(50, 50, 10, 10, 0.85)};
    two.ranked = two.detections;
    return {one, two};
}

TEST(DetectionQuality, CountsAtTheThresholdAndRanksEveryBox) {
    const QualityReport r = evaluate_detections(two_pictures(), kCell, 0.5);
    const QualityFigures &f = r.classes.at(0);
    // D1 finds L1 (IoU 1). D2 overlaps L1 by 90 / 110 = 0.82, but L1 is taken:
    // a false positive. D4 finds nothing. Objects 2, detections 3, TP 1, FP 2.
    EXPECT_EQ(f.objects, 2);
    EXPECT_EQ(f.detections, 3);
    EXPECT_EQ(f.true_positives, 1);
    EXPECT_EQ(f.false_positives, 2);
    EXPECT_EQ(f.false_negatives, 1);
    EXPECT_DOUBLE_EQ(f.precision, 1.0 / 3.0);
    EXPECT_DOUBLE_EQ(f.recall, 0.5);
    // F1 = 2 (1/3)(1/2) / (1/3 + 1/2) = (1/3) / (5/6) = 0.4.
    EXPECT_DOUBLE_EQ(f.f1, 0.4);
    // Ranked: D1 0.9 TP (P 1, R .5), D4 0.85 FP (P .5), D2 0.8 FP (P 1/3),
    // D3 0.3 TP (P 2/4, R 1). Monotone precision 1, .5, .5, .5; AP = .5 x 1
    // + .5 x .5 = 0.75 (the detections alone would give 0.5).
    EXPECT_EQ(f.ranked, 4);
    EXPECT_DOUBLE_EQ(f.ap, 0.75);
    // COCO: at every IoU threshold the same matches (IoUs are 1 or below .5).
    // Recall .5, .5, .5, 1 with precision (monotone) 1, .5, .5, .5: the
    // recall points 0 .. .50 (51 of them) take 1, .51 .. 1 (50) take .5:
    // AP = (51 + 25) / 101 at each threshold.
    EXPECT_NEAR(f.coco_ap, 76.0 / 101.0, kExact);
    EXPECT_NEAR(f.coco_ap50, 76.0 / 101.0, kExact);
    EXPECT_NEAR(f.coco_ap75, 76.0 / 101.0, kExact);
    // One class: the overall figures are the class's.
    EXPECT_DOUBLE_EQ(r.overall.ap, f.ap);
    EXPECT_DOUBLE_EQ(r.overall.f1, f.f1);
    // Per picture: the picture without labels has its false positive.
    ASSERT_EQ(r.pictures.size(), 2u);
    EXPECT_EQ(r.pictures[1].objects, 0);
    EXPECT_EQ(r.pictures[1].false_positives, 1);
}

TEST(DetectionQuality, CrowdRegionsAreNeitherFoundNorMissed) {
    // A crowd region C (0,0,100,100) and an object O (200,0,10,10). E1
    // (10,10,10,10) at 0.9 lies inside C: IoU with O is 0, and its
    // intersection with C over its own area is 1, so it counts neither way.
    // E2 = O at 0.8 is a TP, E3 (300,300,10,10) at 0.7 a FP.
    EvaluatedPicture p;
    p.id = 1;
    LabelBox crowd = box(0, 0, 100, 100);
    crowd.crowd = true;
    p.labels = {crowd, box(200, 0, 10, 10)};
    p.detections = {box(10, 10, 10, 10, 0.9), box(200, 0, 10, 10, 0.8), box(300, 300, 10, 10, 0.7)};
    p.ranked = p.detections;
    const QualityFigures f = evaluate_detections({p}, kCell, 0.5).classes.at(0);
    // Objects 1 (the crowd is none), detections 2: P .5, R 1, F1 2/3.
    EXPECT_EQ(f.objects, 1);
    EXPECT_EQ(f.detections, 2);
    EXPECT_DOUBLE_EQ(f.precision, 0.5);
    EXPECT_DOUBLE_EQ(f.recall, 1.0);
    EXPECT_DOUBLE_EQ(f.f1, 2.0 / 3.0);
    // Ranked E2 (TP, P 1, R 1), E3 (FP): AP 1.
    EXPECT_DOUBLE_EQ(f.ap, 1.0);
    // COCO: labels sorted O, C (ignored last). E1 matches C (crowd IoU =
    // 100 / 100) and is ignored; E2 matches O and then stops at the ignored
    // C; E3 is a FP. TP 0, 1, 1 and FP 0, 0, 1 give recall 0, 1, 1 and
    // precision 0, 1, .5, monotone 1, 1, .5: every recall point takes 1.
    EXPECT_NEAR(f.coco_ap, 1.0, kExact);
}

TEST(DetectionQuality, DifficultBoxesAreNeitherFoundNorMissed) {
    // D (0,0,10,10) is difficult, O2 (50,0,10,10) is not. F1 = D at 0.9 counts
    // neither way; F2 = O2 at 0.6 is a TP. Objects 1, detections 1: P = R =
    // F1 = AP = 1. COCO: F1 matches the ignored D and is ignored; AP 1.
    EvaluatedPicture p;
    p.id = 1;
    LabelBox difficult = box(0, 0, 10, 10);
    difficult.difficult = true;
    p.labels = {difficult, box(50, 0, 10, 10)};
    p.detections = {box(0, 0, 10, 10, 0.9), box(50, 0, 10, 10, 0.6)};
    p.ranked = p.detections;
    const QualityFigures f = evaluate_detections({p}, kCell, 0.5).classes.at(0);
    EXPECT_EQ(f.objects, 1);
    EXPECT_EQ(f.detections, 1);
    EXPECT_EQ(f.true_positives, 1);
    EXPECT_DOUBLE_EQ(f.f1, 1.0);
    EXPECT_DOUBLE_EQ(f.ap, 1.0);
    EXPECT_NEAR(f.coco_ap, 1.0, kExact);
}

TEST(DetectionQuality, EqualScoresKeepTheDetectorsOrder) {
    // One label A (0,0,10,10); T1 (30,30,10,10) and T2 = A both score 0.5,
    // T1 first. Ranked T1 FP (P 0), T2 TP (P .5, R 1): monotone .5, .5, AP
    // .5 (1 had T2 come first). COCO: recall 0, 1 with precision .5, .5:
    // every point .5.
    EvaluatedPicture p;
    p.id = 1;
    p.labels = {box(0, 0, 10, 10)};
    p.detections = {box(30, 30, 10, 10, 0.5), box(0, 0, 10, 10, 0.5)};
    p.ranked = p.detections;
    const QualityFigures f = evaluate_detections({p}, kCell, 0.5).classes.at(0);
    EXPECT_DOUBLE_EQ(f.ap, 0.5);
    EXPECT_NEAR(f.coco_ap, 0.5, kExact);
    std::swap(p.detections[0], p.detections[1]);
    p.ranked = p.detections;
    EXPECT_DOUBLE_EQ(evaluate_detections({p}, kCell, 0.5).classes.at(0).ap, 1.0);
}

TEST(DetectionQuality, CocoTakesAtMost100BoxesAPicture) {
    // One label; 100 false positives at 0.9, then the true box at 0.5. COCO
    // keeps the 100 best of the picture: no TP, AP 0. The all-point AP ranks
    // all 101: the TP comes at precision 1/101, recall 1: AP 1/101.
    EvaluatedPicture p;
    p.id = 1;
    p.labels = {box(0, 0, 10, 10)};
    for (int i = 0; i < 100; ++i) {
        p.ranked.push_back(box(1000 + 20 * i, 1000, 10, 10, 0.9));
    }
    p.ranked.push_back(box(0, 0, 10, 10, 0.5));
    const QualityFigures f = evaluate_detections({p}, kCell, 0.5).classes.at(0);
    EXPECT_NEAR(f.ap, 1.0 / 101.0, kExact);
    EXPECT_NEAR(f.coco_ap, 0.0, kExact);
    EXPECT_NEAR(f.coco_ap50, 0.0, kExact);
}

TEST(DetectionQuality, CocoAveragesOverTheTenIouThresholds) {
    // Label (0,0,10,10), one detection (0,0,10,7.2): IoU 72 / 100 = 0.72. It
    // matches at .50, .55, .60, .65, .70 (AP 1 each) and not at .75 .. .95
    // (AP 0): AP@[.50:.95] = 5 / 10, AP50 1, AP75 0.
    EvaluatedPicture p;
    p.id = 1;
    p.labels = {box(0, 0, 10, 10)};
    p.detections = {box(0, 0, 10, 7.2, 0.9)};
    p.ranked = p.detections;
    const QualityFigures f = evaluate_detections({p}, kCell, 0.5).classes.at(0);
    EXPECT_NEAR(f.coco_ap, 0.5, kExact);
    EXPECT_NEAR(f.coco_ap50, 1.0, kExact);
    EXPECT_NEAR(f.coco_ap75, 0.0, kExact);
}

TEST(DetectionQuality, AClassWithoutObjectsHasNoCocoAp) {
    EvaluatedPicture p;
    p.id = 1;
    p.detections = {box(0, 0, 10, 10, 0.9)};
    p.ranked = p.detections;
    const QualityFigures f = evaluate_detections({p}, kCell, 0.5).classes.at(0);
    EXPECT_EQ(f.objects, 0);
    EXPECT_EQ(f.coco_ap, -1.0);
    EXPECT_EQ(f.ap, 0.0);
}

TEST(DetectionQuality, MergedClassesCountAsOne) {
    // Labels of "white" and "black" merged into one class; the detections
    // carry the merged name.
    EvaluatedPicture p;
    p.id = 1;
    LabelBox w = box(0, 0, 10, 10), b = box(20, 0, 10, 10), other = box(40, 0, 10, 10);
    w.class_name = "white";
    b.class_name = "black";
    other.class_name = "king";
    p.labels = {w, b, other};
    LabelBox d = box(0, 0, 10, 10, 0.9);
    d.class_name = "white,black";
    p.detections = {d};
    p.ranked = p.detections;
    const QualityFigures f = evaluate_detections({p}, {ClassGroup{{"white", "black"}}}, 0.5).classes.at(0);
    EXPECT_EQ(f.name, "white,black");
    EXPECT_EQ(f.objects, 2);
    EXPECT_EQ(f.true_positives, 1);
}

TEST(CocoEvaluation, ThresholdsAndRecallPointsAreNumpysLinspace) {
    const auto &t = coco_iou_thresholds();
    ASSERT_EQ(t.size(), 10u);
    EXPECT_EQ(t.front(), 0.5);
    EXPECT_EQ(t.back(), 0.95);
    const auto &r = coco_recall_points();
    ASSERT_EQ(r.size(), 101u);
    EXPECT_EQ(r[0], 0.0);
    EXPECT_EQ(r[100], 1.0);
    EXPECT_EQ(r[7], 7 * 0.01);  // linspace's i * step, not 7 / 100
}

}  // namespace
}  // namespace ostrel_tool
