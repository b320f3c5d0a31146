// Colour labelling of detections from the Lab pixels inside each box.
#pragma once

#include <cstdint>
#include <vector>

#include "ostrel_alg.h"

namespace ostrel {

// Colour classes: 0, 1, 2 achromatic (dark, middle, light); 3..8 chromatic;
// 9 in color_second means no second colour.
inline constexpr int32_t kNoSecondColor = 9;

// Class of one OpenCV 8-bit Lab pixel.
int32_t classify_lab_pixel(uint8_t L, uint8_t a, uint8_t b);

// Three Lab planes of a picture, `width` bytes per row, `height` rows.
struct lab_planes_view {
    int32_t width = 0;
    int32_t height = 0;
    const uint8_t *L = nullptr;
    const uint8_t *a = nullptr;
    const uint8_t *b = nullptr;
};

// Sets color_main and color_second of every box with label 1. Returns 1 when
// the planes are missing, else 0.
int32_t labelColors(const lab_planes_view &lab, int32_t image_width, int32_t image_height,
                    std::vector<ostrel_alg_box> &boxes);

}  // namespace ostrel
