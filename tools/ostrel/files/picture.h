// Pictures read from files and handed to the library.
#pragma once

#include <cstdint>
#include <string>

#include <opencv2/core.hpp>

#include "ostrel_alg.h"

namespace ostrel_tool {

struct Picture {
    std::string path;
    cv::Mat pixels;   // 8-bit BGR, continuous
    int64_t key = 0;  // the library's image_key: a new one for every loaded picture

    int width() const { return pixels.cols; }
    int height() const { return pixels.rows; }
    // The library's image record over the pixels (interleaved). Valid while
    // this Picture lives and its pixels are not changed.
    ostrel_alg_image record() const;
};

// Reads a picture in any format OpenCV reads, as 8-bit BGR. Throws an input
// error naming the path when the file is missing, not a regular file, above
// the pixel limit (max_picture_pixels(), from the header before decoding
// where the format allows), a JPEG cut short, or not a readable picture.
Picture load_picture(const std::string &path);

// Wraps pixels that are already in memory (8-bit, 3 channels).
Picture picture_from_pixels(const cv::Mat &bgr, const std::string &name);

// The file name without folders, for tables and output names.
std::string file_name_of(const std::string &path);
// The file name without folders and without its last extension.
std::string stem_of(const std::string &path);

}  // namespace ostrel_tool
