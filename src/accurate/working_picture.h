// working_picture: a host picture at one working size of the accurate
// profile - its Lab planes and its channel feature map.
//
// The picture is resampled first (with the library's fixed-point
// resampler, plane by plane) and converted to Lab at the working size,
// which costs far less than converting the full picture. Planes are kept
// column by column (record terms, see chn_image.h) because the channel
// routines take them so; the feature map comes out in picture terms.
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
chn_image8 working_lab(const split_picture &picture, int32_t columns, int32_t rows,
                       picture_resample_scratch &scratch);

// The same record mirrored left to right (picture columns reversed).
chn_image8 mirror_columns(const chn_image8 &lab);

// The ten channel planes of a Lab record at half its size, in picture
// terms (feature_map.h). Empty for an empty record.
feature_map lab_channel_map(const chn_image8 &lab);

}  // namespace ostrel
