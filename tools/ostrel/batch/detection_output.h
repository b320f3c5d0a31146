// detect --format: the detections of a run written as labels of another
// tool. The batch detection hands each picture's detection here (its
// DetectionReport: boxes, unrounded scores, classes, picture size), which
// is turned into the neutral label record and written:
//   jsonl        the --json lines, each box with "class" appended when
//                --class was given (a model with named classes gives each
//                box its own); on standard output, or --out FILE;
//   coco         a COCO results file [{image_id, category_id, bbox, score}]
//                (ids from --image-ids COCO_FILE, else 1, 2, ... in input
//                order and the classes numbered from 1);
//   labelstudio  tasks with predictions (model_version, scores), ready to
//                import as pre-annotations;
//   cvat, imglab one XML file for the run;
//   voc, yolo    a file per picture in --out DIR (yolo with classes.txt).
// Whole-run files are written when the run ends (also after an interrupt,
// with the pictures done), atomically; per-picture files as the results
// come. No output replaces the model, an input or a list of the run, and
// the tool's output rules hold (no folder, device or FIFO is written over).
// Scores: the jsonl lines are the --json lines (two decimals); every other
// format gets the library's score whole (exact_score), written to the
// format's own precision.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "batch/detection_report.h"
#include "labels/label_set.h"

namespace ostrel_tool {

struct DetectionOutputOptions {
    std::string format;                // jsonl, or a label format name
    std::string out;                   // file or folder; empty: standard output
    std::vector<std::string> classes;  // the model's classes, in order (its names, else --class, else "object")
    bool class_given = false;          // --class was given: jsonl lines carry it
    std::string model;                 // for Label Studio's model_version
    std::string image_ids;             // COCO file giving image and category ids
    std::vector<std::string> inputs;   // the run's inputs, lists and model: never written over
};

class DetectionOutput {
public:
    // Checks the options and the output target before any work; throws
    // usage and output errors.
    explicit DetectionOutput(DetectionOutputOptions options);
    ~DetectionOutput();

    // One picture's or video frame's detection, in input order.
    void take(const DetectionReport &report);

    // Writes the whole-run output and returns the run's exit code from the
    // batch's: 4 when an output could not be written, 3 when video frames
    // were passed over (formats of pictures only).
    int finish(int batch_code);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace ostrel_tool
