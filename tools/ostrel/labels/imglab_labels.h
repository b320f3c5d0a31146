// dlib's imglab XML: <dataset><images><image file="..." [width height]>
// with <box top left width height [ignore difficult truncated occluded]>
// and an optional <label> child (boxes without one take the class name
// "object"). Boxes are whole pixels, left/top and size. ignore="1" (dlib's
// don't-care box) and difficult="1" both mark the box difficult; the
// writer writes a difficult box as ignore="1", as dlib's training reads it.
// Files are written as imglab writes them (ISO-8859-1 declared, read as
// such); pictures are named relative to the XML's folder.
#pragma once

#include <string>

#include "labels/label_set.h"
#include "labels/label_writing.h"

namespace ostrel_tool {

// The class of a box without a <label>.
constexpr const char *kUnlabelledClass = "object";

LabelSet parse_imglab(const std::string &text, const std::string &source);
LabelSet read_imglab_labels(const std::string &path);
std::string write_imglab(const LabelSet &set, const LabelWriteOptions &options);

}  // namespace ostrel_tool
