// Boxes on the command line and in files, and detections as JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "boxes/box_geometry.h"
#include "ostrel_alg.h"

namespace ostrel_tool {

// Marked boxes one picture may have: the library's own limit, checked by
// the tool while it reads them so that a huge list is refused before it is
// built.
constexpr size_t kMaxMarkedBoxes = OSTREL_ALG_MAX_MARKED_BOXES;
// The largest box file read (JSON or Pascal VOC): far more than 1000 boxes
// take in either form, so a larger file is refused before it is read.
constexpr uintmax_t kMaxBoxFileBytes = 1024 * 1024;
// Box values lie within +-kLargestBoxValue, so that x + w never overflows.
constexpr int kLargestBoxValue = 1073741823;

// Throws an input error (or a usage error when usage is set) when count
// boxes are more than one picture takes; source names where they come from.
void require_box_count(size_t count, const std::string &source, bool usage);

// Parses "x,y,w,h": four integers (spaces around them allowed), w and h at
// least 1, each within +-kLargestBoxValue. Throws a usage error quoting the
// text otherwise, saying whether a value is not a number or out of range.
Rect parse_box_argument(const std::string &text);

// Parses a JSON box list. Accepted forms:
//   [{"x":10,"y":20,"w":30,"h":40}, ...]      (also "width"/"height")
//   [[10,20,30,40], ...]
//   {"boxes": <one of the above>}           (so `detect --json` lines work)
// Throws an input error naming source for anything else: not JSON, a number
// out of range (1e400), more than kMaxMarkedBoxes boxes (counted before any
// box is built).
std::vector<Rect> parse_box_list_json(const std::string &text, const std::string &source);

// Reads a box file: JSON as above, or a Pascal VOC annotation (then
// class_name selects the objects and must not be empty). Refuses a folder,
// a device or FIFO, and a file above kMaxBoxFileBytes before reading it.
std::vector<Rect> read_box_file(const std::string &path, const std::string &class_name);

// Scores travel in steps of 0.01; this gives the two-decimal value as a
// double so that JSON shows 0.87 rather than 0.8700000047683716.
double rounded_score(float score);

// A score at the full precision of the library's float, as the shortest
// decimal that reads back as that float (0.8765f gives 0.8765, not
// 0.87649995088577271): what the label formats write, so that a score
// keeps every digit the library gave without digits it did not.
double exact_score(float score);

// One detection: x, y, w, h, score, label, color_main, color_second and the
// two colour names.
nlohmann::ordered_json box_to_json(const ostrel_alg_box &box);
nlohmann::ordered_json boxes_to_json(const std::vector<ostrel_alg_box> &boxes);

}  // namespace ostrel_tool
