// COCO's detection evaluation for boxes, as the COCO evaluation defines it
// (its published evaluation code, cocoeval):
//   - per picture and class, detections by falling score (ties keep their
//     order), at most 100 a picture;
//   - labels marked ignore (crowd regions, and here also difficult boxes)
//     sorted last; for each IoU threshold t of .50:.05:.95 every detection
//     takes the unmatched label it overlaps most with IoU >= min(t, 1 - 1e-10),
//     preferring a label that is not ignored: once matched to one, it stops
//     at the first ignored label; a crowd label may be matched again and its
//     overlap is the intersection over the detection's own area;
//   - a detection matched to an ignored label, or unmatched and with an area
//     outside the range (all areas: 0 .. 1e10), is ignored; a label whose
//     area (COCO's "area" when given, else w x h) lies outside it is ignored;
//   - over all pictures (in order of picture id), detections by falling
//     score (stable), cumulative TP and FP; precision tp / (tp + fp + eps)
//     made monotone from the right; sampled at the 101 recall points
//     0, .01, ..., 1 (the first point whose recall reaches each; 0 beyond
//     the last);
//   - AP of a class: the mean of those 10 x 101 precisions; a class without
//     a label that is not ignored has none; mAP: the mean over the classes
//     that have one. AP50 uses t = .50 alone, AP75 t = .75.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace ostrel_tool {

struct CocoBox {
    double x = 0, y = 0, w = 0, h = 0;
    double score = 0;            // detections
    bool crowd = false;          // labels: iscrowd
    bool ignore = false;         // labels: don't care (crowd regions are ignored too)
    std::optional<double> area;  // labels: COCO's own area
};

// One picture's labels and detections of one class.
struct CocoPicture {
    int64_t id = 0;
    std::vector<CocoBox> labels;
    std::vector<CocoBox> detections;  // in the detector's order
};

struct CocoFigures {
    bool has_objects = false;  // false: no label that counts; the APs are then undefined (reported as -1)
    double ap = -1.0;          // AP@[.50:.95]
    double ap50 = -1.0;
    double ap75 = -1.0;
};

// The figures of one class over its pictures (any order; taken by id).
CocoFigures coco_evaluate(std::vector<CocoPicture> pictures);

// COCO's IoU thresholds, .50:.05:.95, and recall points, 0:.01:1, computed
// as COCO computes them (numpy's linspace), so that comparisons agree to
// the last bit.
const std::vector<double> &coco_iou_thresholds();
const std::vector<double> &coco_recall_points();
constexpr int kCocoMaxDetections = 100;

}  // namespace ostrel_tool
