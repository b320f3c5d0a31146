// Small images for the channel-feature tests.
#pragma once

#include <cstdint>

#include "acf/chn_image.h"

namespace acf_test {

// Every pixel of every plane holds `value`.
inline ostrel::chn_image8 flat_image(int32_t channels, int32_t width, int32_t height, uint8_t value) {
    ostrel::chn_image8 image(channels, width, height);
    for (uint8_t &v : image.data) {
        v = value;
    }
    return image;
}

// A deterministic, non-symmetric pattern: each plane, row and column gets
// different values.
inline ostrel::chn_image8 pattern_image(int32_t channels, int32_t width, int32_t height) {
    ostrel::chn_image8 image(channels, width, height);
    uint32_t state = 12345u;
    for (int32_t c = 0; c < channels; ++c) {
        for (int32_t y = 0; y < height; ++y) {
            for (int32_t x = 0; x < width; ++x) {
                state = state * 1103515245u + 12345u;
                const uint32_t noise = (state >> 16) & 31u;
                image.at(c, y, x) = static_cast<uint8_t>((x * 7 + y * 3 + c * 50 + noise) & 0xFF);
            }
        }
    }
    return image;
}

}  // namespace acf_test
