// Pictures as phones write them: the pixels as the sensor saw them and an
// EXIF orientation tag that tells viewers how to turn them upright. Made
// here from any picture, so that no such file needs to be shipped.
#pragma once

#include <cstdint>
#include <string>

#include <opencv2/core.hpp>

namespace ostrel_test {

// A TIFF structure (as EXIF holds it) whose first directory has one entry,
// the orientation tag (0x0112, SHORT) with the given value; big-endian
// ("MM") or little-endian ("II").
std::string exif_orientation_tiff(int orientation, bool big_endian = true);

// JPEG bytes with an APP1 "Exif" segment holding the orientation, right
// after the start-of-image marker.
std::string jpeg_with_orientation(const cv::Mat &stored, int orientation, bool big_endian = true);

// PNG bytes with an eXIf chunk holding the orientation, right after IHDR.
std::string png_with_orientation(const cv::Mat &stored, int orientation);

// The stored pixels that a viewer turns into upright for this orientation
// (the inverse of what the orientation asks a viewer to do).
cv::Mat stored_for_orientation(const cv::Mat &upright, int orientation);

}  // namespace ostrel_test
