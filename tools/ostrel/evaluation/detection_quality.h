// How well detections agree with labels, per class and over all classes:
// what `ostrel eval` prints and `ostrel.evaluate` returns (the Python
// package computes the same figures the same way, to the last bit).
//
// A picture brings its labels, the detections (the boxes at or above the
// detector's threshold) and the ranked boxes: every box the detector
// returns at its most sensitive setting, below-threshold boxes included
// (`ostrel eval` detects a second time at sensitivity 100 for them: the
// library suppresses overlapping boxes of equal score in no fixed order, so
// the two runs place a few equal-score detections differently, and each
// figure takes one run whole). Per class (a group of label names, see
// ClassGroup):
//   - matching at the IoU threshold (default 0.5), per picture, boxes by
//     falling score (ties keep the detector's order): a box takes the label
//     it overlaps most (IoU); at or above the threshold it is a true
//     positive if that label is still free, a false positive if it was
//     taken, and neither if the label is difficult; below the threshold it
//     is neither when it lies inside a crowd region (its intersection with
//     the region over its own area reaches the threshold), else a false
//     positive. Difficult labels and crowd regions are not objects.
//   - precision, recall and F1 count the detections (the detector's
//     threshold); AP is the all-point average precision (the area under
//     the precision/recall curve made monotone) of the ranked boxes,
//     matched the same way and ranked by score over all pictures;
//   - COCO's AP@[.50:.95], AP50 and AP75 (coco_evaluation) of the ranked
//     boxes, difficult labels treated as COCO treats ignored ones.
// Over all classes: the counts summed (and precision, recall, F1 from
// them), the APs averaged over the classes that have objects.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "labels/label_set.h"

namespace ostrel_tool {

struct EvaluatedPicture {
    std::string name;
    int64_t id = 0;  // COCO's picture order
    std::vector<LabelBox> labels;
    // Boxes with class_name and score, each list in the detector's order.
    std::vector<LabelBox> detections;
    std::vector<LabelBox> ranked;
};

struct QualityFigures {
    std::string name;  // the class ("a,b" for merged names), or "all"
    int objects = 0;
    int detections = 0;
    int true_positives = 0;
    int false_positives = 0;
    int false_negatives = 0;
    int ranked = 0;  // boxes the APs ranked that count (not on a difficult label or a crowd region)
    double precision = 0.0;
    double recall = 0.0;
    double f1 = 0.0;
    double ap = 0.0;        // all-point AP at the IoU threshold, over every box
    double coco_ap = -1.0;  // AP@[.50:.95]; -1 without objects
    double coco_ap50 = -1.0;
    double coco_ap75 = -1.0;
    // The precision/recall curve of the ranked boxes (recall, precision),
    // and where the detector's threshold puts it.
    std::vector<std::pair<double, double>> curve;
    double threshold_recall = 0.0;
    double threshold_precision = 0.0;
};

struct PictureQuality {
    std::string name;
    int objects = 0;
    int detections = 0;
    int true_positives = 0;
    int false_positives = 0;
};

struct QualityReport {
    double iou = 0.5;
    std::vector<QualityFigures> classes;
    QualityFigures overall;
    std::vector<PictureQuality> pictures;  // summed over the classes
};

// IoU of two boxes on the continuous axis; 0 without overlap.
double box_iou(const LabelBox &a, const LabelBox &b);

QualityReport evaluate_detections(const std::vector<EvaluatedPicture> &pictures, const std::vector<ClassGroup> &classes,
                                  double iou);

// The all-point average precision of boxes ranked by score (stable),
// each a true positive or not, against objects.
double all_point_average_precision(std::vector<std::pair<double, bool>> ranked, int objects);

}  // namespace ostrel_tool
