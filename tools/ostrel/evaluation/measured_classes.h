// The classes `ostrel eval` measures when the detections come with several
// classes: a model of several classes, or a detections file whose boxes
// name several classes (what `detect` writes for such a model). Both follow
// one rule, so that a file of a model's detections is measured as the
// model itself is.
#pragma once

#include <string>
#include <vector>

#include "labels/label_set.h"

namespace ostrel_tool {

// Each --class value its own class (a,b merges names into one); without
// --class, every class named, in named's order. A --class that holds none
// of the named classes is refused with a usage error naming them:
// "<owner> has no class 'x' (its classes: a, b)".
std::vector<ClassGroup> measured_classes(const std::vector<std::string> &asked, const std::vector<std::string> &named,
                                         const std::string &owner);

// The classes a detections file names, in the order of the labels'
// classes (the order `train --all-classes` gives a model's classes), then
// the names the labels lack, in the file's order.
std::vector<std::string> in_label_order(const std::vector<std::string> &named,
                                        const std::vector<std::string> &label_classes);

}  // namespace ostrel_tool
