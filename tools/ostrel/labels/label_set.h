// The one neutral record every annotation format is read into and written
// from: pictures, their sizes, and boxes with a class name and flags.
//
// Each format has its own unit (voc_labels, coco_labels, yolo_labels,
// cvat_labels, labelstudio_labels, imglab_labels) with a reader and a
// writer of this record; label_formats chooses the unit. Commands (train
// --labels, eval, detect --format, labels) and the studio work on this
// record only, and the Python package mirrors it (ostrel.labels).
//
// Boxes are in picture pixels on a continuous axis: x is the left edge, x +
// w the right edge, so a box that covers pixel columns 10..19 is x 10, w 10.
// That is COCO's, CVAT's, imglab's and the tool's own convention; VOC's
// inclusive 1-based corners, YOLO's normalised centres and Label Studio's
// percentages are converted by their units.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "boxes/box_geometry.h"

namespace ostrel_tool {

enum class LabelFormat { voc, coco, yolo, cvat, labelstudio, imglab };

// "voc", "coco", "yolo", "cvat", "labelstudio", "imglab".
const char *format_name(LabelFormat format);
// The format of a name as above (case-insensitive; also "pascal", "pascal-voc",
// "label-studio", "dlib"); nothing for an unknown name.
std::optional<LabelFormat> format_of_name(const std::string &name);
// "voc, coco, yolo, cvat, labelstudio, imglab" for messages and --help.
std::string format_names();

struct LabelBox {
    std::string class_name;
    double x = 0.0;
    double y = 0.0;
    double w = 0.0;
    double h = 0.0;
    bool difficult = false;  // don't care: neither found nor missed in evaluation
    bool truncated = false;
    bool occluded = false;
    bool crowd = false;           // a region of many objects (COCO iscrowd): ignored, may match several detections
    std::optional<double> score;  // a prediction's confidence 0..1
    std::optional<double> area;   // COCO's own area of the object, when the file gives it
};

struct LabelledPicture {
    std::string name;          // the picture as the labels name it (file_name, filename, file, ...)
    std::string picture_path;  // where the picture was found; empty when it was not
    std::string source;        // the label file (and entry) this record came from, for messages
    int width = 0;             // 0 when neither the labels nor the picture said
    int height = 0;
    int64_t id = 0;  // the labels' own picture id (COCO, CVAT), else 1, 2, ... in order
    std::vector<LabelBox> boxes;
    // Where the reader looked for the picture, for the message when it is
    // needed and missing.
    std::vector<std::string> looked_in;
};

struct LabelSet {
    LabelFormat format = LabelFormat::voc;
    std::string source;                // the file or folder read
    std::vector<std::string> classes;  // as the labels declare them, in their order; then names only used
    // The format's own number of each class, parallel to classes, where it
    // numbers them (COCO category ids, YOLO class indexes); empty otherwise.
    std::vector<int64_t> class_ids;
    std::vector<LabelledPicture> pictures;
    std::vector<std::string> notes;  // warnings met while reading (one line each)
};

// The class names in classes order, then any name a box uses that is not
// declared, in order of first use.
void add_used_classes(LabelSet &set);

// The box in whole pixels: each edge rounded to the nearest pixel (halves
// away from zero), so that a box read from any format covers the same
// pixels as the tool's own x,y,w,h. At least 1 x 1.
Rect rounded_rect(const LabelBox &box);
LabelBox label_box_of(const Rect &rect, const std::string &class_name);

// Number of boxes in the set, and of a class.
size_t box_count(const LabelSet &set);

// The pictures whose picture file was not found, as one message: "no picture
// for 'a.jpg' (labels 'x.json', looked in: d1, d2)" and how many more.
// Empty when every picture was found.
std::string missing_pictures_message(const LabelSet &set);

// Classes a command works on. Each group is one class of the detector; the
// names within a group are merged into it ("--class a,b"). Today a model
// holds one class, so train and eval merge every group given into one (see
// merged_into_one); the groups keep the names for the several-class models
// to come.
struct ClassGroup {
    std::vector<std::string> names;
    std::string display() const;  // "a,b"
    bool contains(const std::string &name) const;
};
// --class values: each value one group, its comma-separated names merged
// (spaces around names trimmed, empty names refused with a usage error).
std::vector<ClassGroup> class_groups_of(const std::vector<std::string> &values);
// One group holding every name of the groups, in order, without repeats.
ClassGroup merged_into_one(const std::vector<ClassGroup> &groups);

}  // namespace ostrel_tool
