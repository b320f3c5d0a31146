// A shipped BCCD picture with its annotations, as the interface tests load
// it, and the two small helpers they share: the host's image record over
// the pixels, and the overlap (IoU) of two boxes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"
#include "support/test_data.h"
#include "support/voc.h"

namespace ostrel_test {

struct bccd_picture {
    cv::Mat pixels;
    std::vector<voc_object> objects;
};

inline bccd_picture load_bccd(const std::string &stem) {
    bccd_picture p;
    p.pixels = cv::imread(data_path("bccd/images/" + stem + ".jpg"), cv::IMREAD_COLOR);
    p.objects = read_voc(data_path("bccd/annotations/" + stem + ".xml"));
    return p;
}

// An interleaved record over the picture's own pixels (not copied).
inline ostrel_alg_image image_record(const cv::Mat &pixels, int64_t key) {
    return ostrel_alg_image{pixels.cols, pixels.rows, 3, pixels.data, key, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
}

// Intersection over union of two boxes.
inline float overlap(const ostrel_alg_box &a, const ostrel_alg_box &b) {
    const int x0 = std::max(a.x, b.x), y0 = std::max(a.y, b.y);
    const int x1 = std::min(a.x + a.width, b.x + b.width), y1 = std::min(a.y + a.height, b.y + b.height);
    const float inter = (x1 > x0 && y1 > y0) ? static_cast<float>((x1 - x0) * (y1 - y0)) : 0.0f;
    return inter / (static_cast<float>(a.width * a.height + b.width * b.height) - inter);
}

}  // namespace ostrel_test
