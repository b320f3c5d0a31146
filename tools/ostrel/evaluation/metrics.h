// Detection quality against labelled boxes: precision, recall, F1 and
// average precision, the way Pascal VOC scores a detector.
//
// Within one picture the detections are taken by falling score (equal scores
// keep their order); each is matched to the labelled box it overlaps most.
// With an overlap (intersection over union) of at least the threshold it is
// a true positive if that box is still unmatched and a false positive if it
// was matched already; boxes marked difficult neither count as objects nor
// make a detection that matches them count either way. A detection that
// overlaps nothing enough is a false positive.
#pragma once

#include <vector>

#include "boxes/box_geometry.h"

namespace ostrel_tool {

struct ScoredBox {
    Rect box;
    float score = 0.0f;
};

struct LabelledBox {
    Rect box;
    bool difficult = false;
};

struct PictureMatch {
    int objects = 0;     // labelled boxes that count (not difficult)
    int detections = 0;  // detections that count (not matched to a difficult box)
    int true_positives = 0;
    int false_positives = 0;
    // Per counted detection: its score and whether it was a true positive,
    // in the order the matching took them (falling score).
    std::vector<std::pair<float, bool>> ranked;
    // Per labelled box: whether a detection matched it.
    std::vector<bool> found;
};

PictureMatch match_detections(const std::vector<ScoredBox> &detections, const std::vector<LabelledBox> &labelled,
                              double iou_threshold);

struct QualitySummary {
    int pictures = 0;
    int objects = 0;
    int detections = 0;
    int true_positives = 0;
    int false_positives = 0;
    int false_negatives = 0;
    double precision = 0.0;  // 0 when there is no detection
    double recall = 0.0;     // 0 when there is no object
    double f1 = 0.0;         // 0 when precision + recall is 0
    double average_precision = 0.0;
};

QualitySummary summarise(const std::vector<PictureMatch> &pictures);

// Area under the precision/recall curve with the precision made monotone
// (every point takes the best precision at its recall or beyond), summed
// over the recall steps: the all-point average precision of VOC 2010 and
// later. ranked holds every counted detection of every picture; they are
// ordered by falling score, equal scores keeping their given order.
double average_precision(std::vector<std::pair<float, bool>> ranked, int objects);

}  // namespace ostrel_tool
