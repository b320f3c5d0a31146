// Reading the studio's JSON requests and query values. Every function
// either returns a value of the right type and range or throws ApiError(400)
// with a message that says what was wrong and what was expected.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "boxes/box_geometry.h"

namespace ostrel_tool {
namespace studio {

struct TrainRequest {
    std::string picture;
    std::vector<Rect> boxes;
    std::string class_name;  // "class", "" when absent
};

struct LabelRequestBox {
    std::string class_name;
    bool class_given = false;  // false: the box names no class
    Rect box;
};

struct ClassRequest {
    std::optional<std::string> name;
    std::optional<std::string> color;
};

struct ProfileRequest {
    std::string profile;  // "classic" or "accurate"
    std::string model;    // what to do with a trained detector: "", "retrain" or "forget"
};

struct AcceptRequest {
    std::string picture;      // one picture, or
    bool unlabelled = false;  // every picture without labels
    uint32_t sensitivity = 80;
};

// The most a JSON request may hold, checked before it is parsed so that
// parsing one costs a small, known amount of memory (nlohmann::json keeps
// a few dozen bytes a value; these bounds hold one parse to about a
// megabyte, whatever the bytes). A train request with the most boxes a
// picture may have (256, written as {"x", "y", "w", "h"} objects) is about
// 12 KiB, nests three deep and holds about 1300 values.
constexpr size_t kMaxJsonBytes = 64 * 1024;
constexpr size_t kMaxJsonDepth = 8;
constexpr size_t kMaxJsonValues = 4096;

// Scans a JSON text without parsing it: throws ApiError(413) when it is
// longer than kMaxJsonBytes, ApiError(400) when it nests deeper than
// kMaxJsonDepth or holds more than kMaxJsonValues values (counted from its
// brackets and commas outside strings).
void check_json_shape(const std::string &body);

// {"picture": NAME, "boxes": [[x, y, w, h], ...]}; a box may also be
// {"x", "y", "w", "h"}. Numbers must be whole and fit 32 bits; a number too
// large for the parser is a malformed request like any other (400).
TrainRequest parse_train_request(const std::string &body);

// {"boxes": [{"class", "x", "y", "w", "h"}, ...]}; a box may also be
// [x, y, w, h] (no class). At most max_boxes boxes.
std::vector<LabelRequestBox> parse_labels_request(const std::string &body, size_t max_boxes);

// {"name": NAME, "color": "#rrggbb"}, each optional (POST needs the name).
ClassRequest parse_class_request(const std::string &body);

// {"picture": NAME} (the picture to train from its labels).
std::string parse_picture_request(const std::string &body);

// {"picture": NAME, "sensitivity": N} or {"unlabelled": true, "sensitivity": N}.
AcceptRequest parse_accept_request(const std::string &body);

// {"profile": "accurate" | "classic", "model": "retrain" | "forget"} ("model"
// optional: needed only when the detector is trained).
ProfileRequest parse_profile_request(const std::string &body);

// A whole number 0..100 ("80"); absent (empty) gives fallback.
uint32_t parse_sensitivity(const std::string &text, bool present, uint32_t fallback);

// A sample index: decimal digits only, at most 9. Throws ApiError(404).
size_t parse_sample_index(const std::string &text);

}  // namespace studio
}  // namespace ostrel_tool
