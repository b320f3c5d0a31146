// YOLO labels: one text file per picture, a line per box,
// "class cx cy w h" with the centre and size as fractions of the picture's
// width and height (the picture's size is read from its header). Class
// names come from data.yaml / data.yml ("names:"), classes.txt or obj.names,
// found in the labels' folder or the two folders above it; without one the
// class is named by its number ("0", "1", ...).
//
// Folders as the tools lay them out: images/ and labels/ side by side (a
// picture's label file is its path with the last "images" folder replaced by
// "labels" and a .txt extension, as Ultralytics and Roboflow write them,
// train/images + train/labels included), or pictures and .txt files side
// by side (LabelImg, CVAT's YOLO export). A picture without a label file has
// no objects. Lines with a sixth value carry a confidence (detections); a
// line of 1 + 2k values (k >= 3) is a polygon, taken as its bounding box.
//
// data.yaml is YAML; none of the project's libraries reads YAML, so its
// "names" entry is read in the forms the tools write - a flow list
// (names: ['a', "b", c]), a block list (- a) or a block or flow mapping of
// numbers to names (0: a) - and anything else is refused with its line.
#pragma once

#include <string>
#include <vector>

#include "labels/label_set.h"
#include "labels/label_writing.h"

namespace ostrel_tool {

// The class names of a data.yaml text.
std::vector<std::string> parse_yolo_data_yaml(const std::string &text, const std::string &source);
// The class names of a classes.txt or obj.names text: one a line.
std::vector<std::string> parse_yolo_names(const std::string &text, const std::string &source);

// The boxes of one label file of a picture of width x height. names may be
// empty (classes named by number).
std::vector<LabelBox> parse_yolo_label_text(const std::string &text, const std::string &source, int width, int height,
                                            const std::vector<std::string> &names);

// A folder (see above), a data.yaml, or one label file (its picture beside
// it or in the matching images/ folder).
LabelSet read_yolo_labels(const std::string &path);

// One picture's label file; classes gives the numbers (a box of a class not
// in it is an input error). Centres and sizes with 6 decimals, as the tools
// write them; a box with a score gets it as a sixth value.
std::string write_yolo_label_text(const LabelledPicture &picture, const std::vector<std::string> &classes);
// classes.txt: one name a line.
std::string write_yolo_names(const std::vector<std::string> &classes);

}  // namespace ostrel_tool
