// chn_image: the planar image record of the channel routines.
//
// A count of planes, two extents and an owned buffer. Element (c, y, x) lies
// at c*width*height + y*width + x: `width` is the contiguous axis.
//
// Orientation: the engine loads pictures column by column, so `width` runs
// along the picture's rows and `height` along its columns. In picture terms
// the cell of plane c at picture column x, picture row y is at
// c*width*height + x*width + y. Name variables by picture terms wherever the
// two meet (see feature_map.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ostrel {

template <typename T>
struct chn_image {
    int32_t channels = 0;
    int32_t width = 0;
    int32_t height = 0;
    std::vector<T> data;

    chn_image() = default;
    chn_image(int32_t channels_, int32_t width_, int32_t height_)
        : channels(channels_),
          width(width_),
          height(height_),
          data(static_cast<size_t>(channels_ > 0 ? channels_ : 0) * static_cast<size_t>(width_ > 0 ? width_ : 0) *
               static_cast<size_t>(height_ > 0 ? height_ : 0)) {}

    size_t plane_size() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
    bool empty() const { return data.empty(); }

    T *plane(int32_t c) { return data.data() + static_cast<size_t>(c) * plane_size(); }
    const T *plane(int32_t c) const { return data.data() + static_cast<size_t>(c) * plane_size(); }

    T &at(int32_t c, int32_t y, int32_t x) { return plane(c)[static_cast<size_t>(y) * width + x]; }
    const T &at(int32_t c, int32_t y, int32_t x) const { return plane(c)[static_cast<size_t>(y) * width + x]; }
};

using chn_image8 = chn_image<uint8_t>;
using chn_image32 = chn_image<int32_t>;

}  // namespace ostrel
