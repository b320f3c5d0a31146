// Host image records over an OpenCV picture, as a host program builds them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "ostrel_alg.h"

namespace ostrel_test {

// A record over a copy of a BGR picture's pixels, interleaved or planar
// (three planes in channel order). `storage` receives the bytes the record
// points into and must outlive it.
inline ostrel_alg_image host_record(const cv::Mat &bgr, bool planar, std::vector<uint8_t> &storage, int64_t key = 1) {
    const size_t plane = static_cast<size_t>(bgr.rows) * static_cast<size_t>(bgr.cols);
    storage.resize(plane * 3);
    if (planar) {
        cv::Mat planes[3];
        cv::split(bgr, planes);
        for (int c = 0; c < 3; ++c) {
            std::copy(planes[c].data, planes[c].data + plane, storage.data() + c * plane);
        }
    } else {
        std::copy(bgr.data, bgr.data + plane * 3, storage.data());
    }
    ostrel_alg_image image{};
    image.width = bgr.cols;
    image.height = bgr.rows;
    image.channels = 3;
    image.data = storage.data();
    image.image_key = key;
    image.format = planar ? OSTREL_ALG_FORMAT_PLANAR : OSTREL_ALG_FORMAT_INTERLEAVED;
    return image;
}

}  // namespace ostrel_test
