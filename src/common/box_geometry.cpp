#include "common/box_geometry.h"

#include <algorithm>

namespace ostrel {

namespace {

// Box arithmetic is 32-bit and wraps, as plain int arithmetic on the target
// does; going through uint32_t keeps absurd boxes from being undefined.
int32_t wrap_add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t wrap_sub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

int32_t wrap_mul(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

}  // namespace

float box_overlap(int32_t ax, int32_t ay, int32_t aw, int32_t ah, int32_t bx, int32_t by, int32_t bw, int32_t bh) {
    const int32_t left = std::max(ax, bx);
    const int32_t top = std::max(ay, by);
    const int32_t right = std::min(wrap_add(ax, aw), wrap_add(bx, bw));
    const int32_t bottom = std::min(wrap_add(ay, ah), wrap_add(by, bh));
    if (right <= left || bottom <= top) {
        return 0.0f;
    }
    const int32_t intersection = wrap_mul(wrap_sub(right, left), wrap_sub(bottom, top));
    const int32_t area_sum = wrap_add(wrap_mul(aw, ah), wrap_mul(bw, bh));
    const float i = static_cast<float>(intersection);
    return i / (static_cast<float>(area_sum) - i);
}

}  // namespace ostrel
