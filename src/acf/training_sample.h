// training_sample: one training sample cut out of a feature map.
#pragma once

#include <cstdint>
#include <vector>

namespace ostrel {

// A window in feature-map cells (picture terms: x counts map columns, y map rows).
struct window_rect {
    int32_t x = 0;
    int32_t y = 0;
    int32_t width = 0;
    int32_t height = 0;
};

inline bool operator==(const window_rect &a, const window_rect &b) {
    return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
}

// Labels a sample can carry.
inline constexpr int32_t kPositiveLabel = 1;
inline constexpr int32_t kNegativeLabel = -1;
inline constexpr int32_t kRandomNegativeLabel = -2;

struct training_sample {
    // Feature bytes of the window as floats, ordered channel, then window
    // column, then window row (the window feature order).
    std::vector<float> features;
    // The window of a jittered variant; all zero for a box sample and for a
    // random negative.
    window_rect rect;
    // 1 positive, -1 negative (user-marked or a variant of one), -2 random
    // negative; any other value a box carried is kept as it stands.
    int32_t label = 0;
    // Jittered variants of a box sample; empty for variants and random
    // negatives.
    std::vector<training_sample> variants;
    // Created empty; nothing in training fills or reads it.
    std::vector<float> aux_values;
};

}  // namespace ostrel
