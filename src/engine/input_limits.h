// Limits of what one call takes, and the checks that refuse input beyond
// them before any work is done: the picture's pixel count (set-up,
// detection, feature map), the number of marked boxes of one set-up, and a
// picture on which the trained box would be smaller than one pixel.
//
// Each refusal logs a "[Debug]" line that says what was wrong, then the
// operation's failure line.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ostrel_alg.h"

namespace ostrel {

inline constexpr int64_t kMaxPicturePixels = OSTREL_ALG_MAX_PICTURE_PIXELS;
inline constexpr int64_t kMaxMarkedBoxes = OSTREL_ALG_MAX_MARKED_BOXES;
// Every size that passes keeps width * height * 3 inside an int32, so no
// byte count of a picture can overflow anywhere.
static_assert(kMaxPicturePixels * 3 < (int64_t{1} << 31), "picture byte counts fit an int32");

// width * height is at most the pixel limit. Sizes below 1 are the image
// check's to refuse; they pass here.
bool picture_within_pixel_limit(int32_t width, int32_t height);

// count boxes are at most the limit of one set-up call.
bool marked_box_count_within_limit(int64_t count);

// The trained box (trained_width x trained_height pixels on a picture of
// input_width x input_height) on a picture of width x height, as detection
// reports it.
struct box_size {
    int32_t width = 0;
    int32_t height = 0;
};
box_size trained_box_on_picture(int32_t width, int32_t height, int32_t trained_width, int32_t trained_height,
                                int32_t input_width, int32_t input_height);

// Each of the following returns true when the input may go on; otherwise it
// logs the two lines (operation is the engine's log name, such as
// "ostrel_alg::runDetector", line the failure line's number) and returns
// false.
bool accept_picture_pixels(const ostrel_alg_image &image, const char *operation, int line);
bool accept_marked_box_count(size_t count, const char *operation, int line);
// The trained box (trained_width x trained_height on a picture of
// input_width x input_height) keeps at least one pixel each way on `image`.
bool accept_trained_box_on_picture(const ostrel_alg_image &image, int32_t trained_width, int32_t trained_height,
                                   int32_t input_width, int32_t input_height, const char *operation, int line);

}  // namespace ostrel
