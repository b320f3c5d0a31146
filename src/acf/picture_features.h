// picture_features: from a host picture to the scale-0 feature map that
// detection and training read, and the picture's Lab planes.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

#include "ostrel_alg.h"
#include "acf/feature_map.h"

namespace ostrel {

class ostrel_acf;

// The Lab planes of a picture and its feature map.
struct picture_features {
    // L, a, b planes of the picture (OpenCV 8-bit Lab), picture rows x
    // picture columns each, CV_8UC1, continuous.
    cv::Mat lab_planes[3];
    feature_map map;
};

// Copies the host's pixels into a picture-rows x picture-columns CV_8UC3
// matrix: planar (three planes, in channel order) when `planar`, otherwise
// interleaved. The caller has checked the record (positive sizes, 3
// channels, data present).
cv::Mat load_bgr_picture(const ostrel_alg_image &image, bool planar);

// Converts a BGR picture to Lab (COLOR_BGR2Lab), loads the three planes
// column by column into the extractor's input record, computes the channel
// pyramid and takes the map of scale 0. Returns false, leaving *out
// without a map, when the picture holds no pixels.
bool compute_picture_features(ostrel_acf &extractor, const cv::Mat &bgr, picture_features *out);

// The part of compute_picture_features after the colour conversion: from
// an 8-bit three-channel Lab picture to its planes and feature map.
bool compute_lab_features(ostrel_acf &extractor, const cv::Mat &lab, picture_features *out);

// The same from the host's record (format 3 = planar): the one function that
// detection, training and the diagnostic export use to see a picture.
bool compute_picture_features(ostrel_acf &extractor, const ostrel_alg_image &image, picture_features *out);

}  // namespace ostrel
