// CVAT for images 1.1: one XML file, <annotations> with <meta> (the task's
// or project's labels) and an <image id name width height> per picture
// holding <box label xtl ytl xbr ybr occluded>. Corners are in pixels on a
// continuous axis. A box's <attribute name="difficult">, "crowd"/"iscrowd"/
// "is_crowd" and "truncated" set those flags; a rotated box (rotation="30")
// is taken as the upright box around it. Polygons, points, tags and other
// shapes are passed over (a note counts them); a CVAT for video file
// (<track>) is refused. Pictures are found by name relative to the XML's
// folder or an images/ folder beside it (CVAT's export with pictures).
#pragma once

#include <string>

#include "labels/label_set.h"
#include "labels/label_writing.h"

namespace ostrel_tool {

LabelSet parse_cvat(const std::string &text, const std::string &source);
LabelSet read_cvat_labels(const std::string &path);
// A detection's score is written as a box attribute "score", declared with
// the labels in <meta>.
std::string write_cvat(const LabelSet &set, const LabelWriteOptions &options);

}  // namespace ostrel_tool
