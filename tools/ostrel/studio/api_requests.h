// Reading the studio's JSON requests and query values. Every function
// either returns a value of the right type and range or throws ApiError(400)
// with a message that says what was wrong and what was expected.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "box_geometry.h"

namespace ostrel_tool {
namespace studio {

struct TrainRequest {
    std::string picture;
    std::vector<Rect> boxes;
};

// {"picture": NAME, "boxes": [[x, y, w, h], ...]}; a box may also be
// {"x", "y", "w", "h"}. Numbers must be whole and fit 32 bits.
TrainRequest parse_train_request(const std::string &body);

// A whole number 0..100 ("80"); absent (empty) gives fallback.
uint32_t parse_sensitivity(const std::string &text, bool present, uint32_t fallback);

// A sample index: decimal digits only, at most 9. Throws ApiError(404).
size_t parse_sample_index(const std::string &text);

}  // namespace studio
}  // namespace ostrel_tool
