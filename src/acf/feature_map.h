// feature_map: the scale-0 channel feature map that detection and training
// read, in picture terms.
//
// `columns` cells across the picture, `rows` cells down it, `channels`
// planes of bytes. Each plane is stored column by column: the cell of
// channel c at map column x, map row y lies at c*columns*rows + x*rows + y.
// (This is the chn_image of the channel routines with width = rows and
// height = columns.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ostrel {

struct feature_map {
    int32_t channels = 0;
    int32_t columns = 0;
    int32_t rows = 0;
    std::vector<uint8_t> data;

    bool empty() const { return data.empty(); }
    size_t plane_size() const { return static_cast<size_t>(columns) * static_cast<size_t>(rows); }
    size_t index(int32_t c, int32_t x, int32_t y) const {
        return static_cast<size_t>(c) * plane_size() + static_cast<size_t>(x) * rows + static_cast<size_t>(y);
    }
    uint8_t at(int32_t c, int32_t x, int32_t y) const { return data[index(c, x, y)]; }
};

}  // namespace ostrel
