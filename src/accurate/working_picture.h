// working_picture: a host picture at one working size of the accurate
// profile - its Lab planes and its channel feature map.
//
// The picture is resampled first (with the library's fixed-point
// resampler, plane by plane) and converted to Lab at the working size,
// which costs far less than converting the full picture. Planes are kept
// column by column (record terms, see chn_image.h) because the channel
// routines take them so.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

#include "acf/chn_image.h"
#include "acf/feature_map.h"
#include "acf/picture_resample.h"

namespace ostrel {

// The three planes of a BGR picture (rows x columns, CV_8UC3), split once
// so that several working sizes can be made from them.
struct split_picture {
    cv::Mat planes[3];
    int32_t columns() const { return planes[0].cols; }
    int32_t rows() const { return planes[0].rows; }
};
split_picture split_bgr(const cv::Mat &bgr);

// The picture resampled to columns x rows pixels and converted to Lab
// (OpenCV 8-bit): a record of 3 planes, width = rows, height = columns.
// Empty when a size is below 2 or the resampler refuses it.
chn_image8 working_lab(const split_picture &picture, int32_t columns, int32_t rows, picture_resample_scratch &scratch);

// The two steps of working_lab: the picture's BGR planes resampled to
// columns x rows (a record in the same terms), and a BGR record in Lab.
chn_image8 working_bgr(const split_picture &picture, int32_t columns, int32_t rows, picture_resample_scratch &scratch);
chn_image8 lab_of_record(const chn_image8 &bgr);

// A BGR record resampled to a smaller columns x rows (the library's
// resampler, record to record): the next octave of a pyramid from the
// octave before it rather than from the whole picture.
chn_image8 shrink_record(const chn_image8 &bgr, int32_t columns, int32_t rows);

// The same record mirrored left to right (picture columns reversed).
chn_image8 mirror_columns(const chn_image8 &lab);

// The map with pad_columns cells added left and right and pad_rows above and
// below: the first `replicated_planes` planes repeat their nearest edge
// cell, the others are 0 there (no edge runs outside the picture). Lets a
// window reach past the picture's edge, where objects are cut off.
feature_map pad_map(const feature_map &map, int32_t pad_columns, int32_t pad_rows, int32_t replicated_planes);

}  // namespace ostrel
