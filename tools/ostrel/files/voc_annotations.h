// Pascal VOC annotation files (one XML file per picture) and VOC folders.
//
// Only what the tool needs is read: <filename>, <size> and, per <object>,
// <name>, <difficult>, <truncated> and <bndbox>. VOC coordinates are 1-based
// and inclusive (xmin 1 and xmax 640 span a 640-pixel-wide picture), so the
// box is x = xmin - 1, w = xmax - xmin + 1; files that count from 0 only
// shift by one pixel. Fractional coordinates are rounded. The XML is read
// with pugixml, so entities, CDATA, comments, attributes, byte-order marks,
// UTF-16 and declared Latin-1 files are all understood; only direct children
// of <annotation>, <object> and <bndbox> are read, so extra blocks that
// labelling tools add (<attributes>, <part>, ...) do not disturb the reading.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "boxes/box_geometry.h"

namespace ostrel_tool {

struct VocObject {
    std::string name;
    Rect box;
    bool difficult = false;
    bool truncated = false;
    bool occluded = false;
    std::optional<double> score;  // <score> or <confidence>, as detectors' VOC files add
};

struct VocAnnotation {
    std::string filename;  // the <filename> element, may be empty
    std::string path;      // the <path> element (where the labelling tool saw the picture), may be empty
    int width = 0;         // <size>, 0 when absent
    int height = 0;
    std::vector<VocObject> objects;
};

// Parses the text of one annotation file. Throws an input error naming
// source for text that is not a VOC annotation or holds a malformed box.
VocAnnotation parse_voc_annotation(const std::string &xml, const std::string &source);
VocAnnotation read_voc_annotation(const std::string &path);

// True when text looks like XML (its first non-blank character is '<').
bool looks_like_xml(const std::string &text);

// The objects of one class (exact, case-sensitive name).
std::vector<VocObject> objects_of_class(const VocAnnotation &annotation, const std::string &name);
std::vector<Rect> boxes_of_class(const VocAnnotation &annotation, const std::string &name);

// One annotated picture of a VOC folder.
struct VocItem {
    std::string annotation_path;
    std::string picture_path;
    VocAnnotation annotation;
};

// Reads a labelled folder: annotations in DIR/Annotations, DIR/annotations
// or DIR itself; pictures in DIR/JPEGImages, DIR/images or next to the
// annotations. A picture is found by the annotation's <filename>, else by
// the annotation's own name with a picture extension. Items are sorted by
// annotation file name. Throws an input error when the folder is missing,
// holds no annotation, or an annotation has no picture.
// With use_path_element, a picture not found so is looked for last at the
// annotation's <path> (absolute, or relative to the annotation's folder), as
// LabelImg records it.
std::vector<VocItem> read_voc_folder(const std::string &dir, bool use_path_element = false);

}  // namespace ostrel_tool
