// Box geometry shared by detection, auto-training and sample generation.
#pragma once

#include <cstdint>

#include "ostrel_alg.h"

namespace ostrel {

// Intersection over union of two integer rectangles in single precision:
// I / ((float)(area A + area B) - I), areas as width * height in integers;
// an empty intersection gives 0.
float box_overlap(int32_t ax, int32_t ay, int32_t aw, int32_t ah, int32_t bx, int32_t by, int32_t bw, int32_t bh);

inline float box_overlap(const ostrel_alg_box &a, const ostrel_alg_box &b) {
    return box_overlap(a.x, a.y, a.width, a.height, b.x, b.y, b.width, b.height);
}

}  // namespace ostrel
