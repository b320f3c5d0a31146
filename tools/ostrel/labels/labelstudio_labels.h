// Label Studio JSON export: a list of tasks, each with "data" (the
// picture's address under "image", or the one text field there) and
// "annotations" (older exports: "completions") and "predictions", each
// with a "result" list. Rectangles ("rectanglelabels", or "rectangle" with
// its "labels" result of the same id) give x, y, width and height in
// percent of the picture, whose size is original_width/original_height
// (else read from the picture). A rotated rectangle (turned about its
// top-left corner) is taken as the upright box around it. The first
// annotation not cancelled is read; a task without one gives its first
// prediction, with scores. The JSON-MIN export (a list of {"image",
// "label": [...]}) is read too.
//
// Pictures: Label Studio addresses ("/data/upload/3/1a2b3c4d-cell.jpg",
// "/data/local-files/?d=dir/cell.jpg", "http://host/dir/cell.jpg") are
// looked for as the path after "?d=", else the file name (also without
// the 8-character prefix uploads get), relative to the JSON's folder or an
// images/ folder beside it.
//
// The writer writes tasks ready to import: annotations, or (predictions)
// pre-annotations with a model_version and each box's score, for the
// labelling configuration <Image name="image" value="$image"/>
// <RectangleLabels name="label" toName="image">.
#pragma once

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "labels/label_set.h"
#include "labels/label_writing.h"

namespace ostrel_tool {

// Finds a task's picture (sets picture_path, and width/height when the
// task does not give them); name holds the task's address.
using LabelStudioPictures = std::function<void(LabelledPicture &picture)>;

// Reads the text; pictures are looked up with lookup when given. A task with
// rectangles whose picture size is neither in the file nor found is refused.
LabelSet parse_labelstudio(const std::string &text, const std::string &source,
                           const LabelStudioPictures *lookup = nullptr);
LabelSet read_labelstudio_labels(const std::string &path);
std::string write_labelstudio(const LabelSet &set, const LabelWriteOptions &options);

bool looks_like_labelstudio(const nlohmann::json &json);

}  // namespace ostrel_tool
