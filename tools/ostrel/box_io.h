// Boxes on the command line and in files, and detections as JSON.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "box_geometry.h"
#include "ostrel_alg.h"

namespace ostrel_tool {

// Parses "x,y,w,h": four integers (spaces around them allowed), w and h at
// least 1. Throws a usage error quoting the text otherwise.
Rect parse_box_argument(const std::string &text);

// Parses a JSON box list. Accepted forms:
//   [{"x":10,"y":20,"w":30,"h":40}, ...]      (also "width"/"height")
//   [[10,20,30,40], ...]
//   {"boxes": <one of the above>}           (so `detect --json` lines work)
// Throws an input error naming source for anything else.
std::vector<Rect> parse_box_list_json(const std::string &text, const std::string &source);

// Reads a box file: JSON as above, or a Pascal VOC annotation (then
// class_name selects the objects and must not be empty).
std::vector<Rect> read_box_file(const std::string &path, const std::string &class_name);

// Scores travel in steps of 0.01; this gives the two-decimal value as a
// double so that JSON shows 0.87 rather than 0.8700000047683716.
double rounded_score(float score);

// One detection: x, y, w, h, score, label, color_main, color_second and the
// two colour names.
nlohmann::ordered_json box_to_json(const ostrel_alg_box &box);
nlohmann::ordered_json boxes_to_json(const std::vector<ostrel_alg_box> &boxes);

}  // namespace ostrel_tool
