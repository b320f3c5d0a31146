// Detections made earlier, read back for scoring against labels:
// `ostrel detect --json` / `--format jsonl` lines ({"file", "boxes": [{x, y,
// w, h, score, label[, class]}]}, pictures matched to the labels' pictures
// by file, else by file name), or a COCO results file ([{image_id,
// category_id, bbox, score}]) answering a COCO labels file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "evaluation/detection_quality.h"
#include "labels/label_set.h"

namespace ostrel_tool {

struct ScoredLabelBox {
    LabelBox box;                 // class_name, x, y, w, h, score
    bool above_threshold = true;  // a detection (label 1), not a box below the threshold (label -1)
    bool class_named = true;      // the file names the box's class
};

struct DetectionFile {
    // Per picture of the labels: the boxes found, or nothing when the file
    // does not mention the picture.
    std::vector<std::optional<std::vector<ScoredLabelBox>>> found;
    int unmatched_lines = 0;  // lines about pictures the labels do not have
    // The classes the boxes of the labels' pictures name (a line's "class",
    // a result's category), in order of first use.
    std::vector<std::string> classes;
    // Where the first box without a class is ("line 2, boxes[0]"); empty
    // when every box names its class.
    std::string first_unnamed;
};

// Boxes without a "class" are left without a name (see name_unnamed_boxes).
// Label -1 boxes are below the threshold; COCO results have no threshold,
// so all of them count as detections. Refuses malformed files with the line
// or key.
DetectionFile read_detection_file(const std::string &path, const LabelSet &labels);

// Gives every box without a class in the file this one.
void name_unnamed_boxes(DetectionFile &file, const std::string &class_name);

// Whether the file's boxes come with several classes (a model of several
// classes made them): two or more classes named.
bool names_several_classes(const DetectionFile &file);

}  // namespace ostrel_tool
