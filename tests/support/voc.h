// Reading the Pascal VOC annotations shipped in data/bccd for tests.
#pragma once

#include <string>
#include <vector>

#include "ostrel_alg.h"

namespace ostrel_test {

struct voc_object {
    std::string name;
    int xmin = 0, ymin = 0, xmax = 0, ymax = 0;
};

// Every <object> of a VOC file, in file order.
std::vector<voc_object> read_voc(const std::string &path);

// Boxes of one size (the median annotated width and height of `name`),
// centred on each annotation of `name`, labelled 1.
std::vector<ostrel_alg_box> median_size_boxes(const std::vector<voc_object> &objects, const std::string &name);

// The annotations of `name` as boxes.
std::vector<ostrel_alg_box> annotation_boxes(const std::vector<voc_object> &objects, const std::string &name);

}  // namespace ostrel_test
