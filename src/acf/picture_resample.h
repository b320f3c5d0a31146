// picture_resample: loads picture planes column by column and resamples
// them in one go.
//
// The result is the same bytes as acf_helper::image_resample_fix applied to
// the planes' column-by-column record (width = picture rows, height =
// picture columns), without building that full-size record: the picture
// is read in strips of picture rows, each strip transposed into a small
// tile, and the record resampler's vertical pass runs on the tiles. This is
// the road of every host picture to the scale-0 image; transposing the
// whole picture first would cost more than the rest of the features.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "acf/chn_image.h"

namespace ostrel {

// Buffers kept from one call to the next.
struct picture_resample_scratch {
    std::vector<uint8_t> tile;  // one transposed strip
    chn_image8 middle;          // the vertical pass's rows, at target height
};

// Writes into `dst` (dst_width * dst_height bytes, record terms) the
// resampling with factor r of the record whose element (y, x) is picture
// pixel (row x, column y) of `plane` (rows x columns, row stride
// `stride`). False, with nothing written, when a size is below 1 or too
// long for the resampler (callers then take the full-size record).
bool resample_picture_plane(const uint8_t *plane, size_t stride, int32_t rows, int32_t columns, int32_t dst_width,
                            int32_t dst_height, float r, uint8_t *dst, picture_resample_scratch &scratch);

// All planes of a picture (planes of equal size) into one record of
// dst_width x dst_height; an empty record where resample_picture_plane
// would answer false.
chn_image8 resample_picture_planes(const uint8_t *const *planes, const size_t *strides, int32_t n_planes, int32_t rows,
                                   int32_t columns, int32_t dst_width, int32_t dst_height, float r,
                                   picture_resample_scratch &scratch);

}  // namespace ostrel
