// The pictures and marked boxes `ostrel train` learns from, and the rule
// that gives every box of several pictures the one window the detector
// learns.
//
// The library learns one window: the first box's size, mapped to the cells
// of the feature map. Every picture is resampled to one working resolution,
// so on a picture of another size the same window covers another number of
// pixels; scaled_window() gives that number, so that a box on any picture
// becomes a window of the same cells.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "boxes/box_geometry.h"
#include "labels/label_set.h"

namespace ostrel_tool {

struct TrainingPicture {
    std::string picture_path;
    std::string boxes_source;  // the box file or annotation, or "--box"
    std::vector<Rect> boxes;   // as read, in picture pixels
};

// Pairs the pictures with their box files in order: picture k with box file
// k (class_name selects the objects of a Pascal VOC file). Reads and checks
// every box file; throws an input error for a missing, malformed or empty one.
std::vector<TrainingPicture> pair_pictures_with_box_files(const std::vector<std::string> &pictures,
                                                          const std::vector<std::string> &box_files,
                                                          const std::string &class_name);

// Every annotated picture of a Pascal VOC folder (see read_voc_folder) that
// holds at least one object of the class, in annotation-name order; at most
// limit of them (0: all). without_class counts the pictures passed over.
struct VocTrainingSet {
    std::vector<TrainingPicture> pictures;
    int without_class = 0;
};
VocTrainingSet training_pictures_from_voc(const std::string &dir, const std::string &class_name, int limit);

// Every picture of a label set (any format) that holds boxes of the class
// (crowd regions left out: a box of many objects is no window of one), in
// the set's order; at most limit of them (0: all). Throws an input error
// when a picture is missing or no picture holds the class.
VocTrainingSet training_pictures_from_labels(const LabelSet &set, const ClassGroup &group, int limit);

// The window in pixels on a picture of picture_size when the detector learnt
// window on a picture of first_size: scaled with the picture, then nudged by
// whole pixels until it covers exactly as many feature cells (map_columns x
// map_rows cells cover the whole picture) as the learnt window does.
Size scaled_window(Size window, Size first_size, Size picture_size, uint32_t map_columns, uint32_t map_rows);

// Gives every box whose size is not size that size, placed as
// --median-size places boxes (centred, an edge-cut box keeps its inner
// side). Returns how many boxes changed.
int fit_boxes_to(std::vector<Rect> &boxes, Size size, int picture_width, int picture_height);

}  // namespace ostrel_tool
