// picture_resample: loads a picture plane column by column and resamples it
// in one go.
//
// The result is the same bytes as acf_helper::image_resample_fix applied to
// the plane's column-by-column record (width = picture rows, height =
// picture columns), without building that full-size record: the picture
// is read in strips of picture rows, each strip transposed into a small
// tile, and the record's two passes run on the tiles. This is the road of
// every host picture to the scale-0 image, and the full-size record would
// cost more than the rest of the feature computation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "acf/chn_image.h"

namespace ostrel {

// Scratch buffers kept between calls.
struct picture_resample_scratch {
    std::vector<uint8_t> tile;
    std::vector<int32_t> column_sums;  // record rows' vertical-pass results
};

// Writes into `dst` (dst_width * dst_height bytes, record terms) the
// resampling with factor r of the record whose element (y, x) is picture
// pixel (row x, column y) of `plane` (rows x columns, row stride
// `stride`). Sizes as image_resample_fix takes them: all must be at least 1
// (otherwise nothing is written and false is returned).
bool resample_picture_plane(const uint8_t *plane, size_t stride, int32_t rows, int32_t columns, int32_t dst_width,
                            int32_t dst_height, float r, uint8_t *dst, picture_resample_scratch &scratch);

// All planes of a picture (planes of equal size) into one record of
// dst_width x dst_height.
chn_image8 resample_picture_planes(const uint8_t *const *planes, const size_t *strides, int32_t n_planes,
                                   int32_t rows, int32_t columns, int32_t dst_width, int32_t dst_height, float r,
                                   picture_resample_scratch &scratch);

}  // namespace ostrel
