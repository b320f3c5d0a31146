// A blood picture with its red blood cells marked, for engine tests.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "engine/ostrel_alg.h"
#include "support/test_data.h"
#include "support/voc.h"

namespace engine_test {

struct marked_picture {
    cv::Mat pixels;                     // BGR, interleaved
    std::vector<ostrel_alg_box> boxes;  // every RBC, one median size, label 1
    std::vector<ostrel_alg_box> truth;  // the RBC annotations as they are
};

inline marked_picture bccd_picture(const std::string &stem) {
    marked_picture p;
    p.pixels = cv::imread(ostrel_test::data_path("bccd/images/" + stem + ".jpg"), cv::IMREAD_COLOR);
    const auto objects = ostrel_test::read_voc(ostrel_test::data_path("bccd/annotations/" + stem + ".xml"));
    p.boxes = ostrel_test::median_size_boxes(objects, "RBC");
    p.truth = ostrel_test::annotation_boxes(objects, "RBC");
    return p;
}

inline ostrel_alg_image image_record(const cv::Mat &pixels, int64_t key) {
    return ostrel_alg_image{pixels.cols, pixels.rows, 3, pixels.data, key, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
}

// An initialised engine with a fixed seed and sensitivity 50.
inline std::unique_ptr<ostrel_alg> seeded_engine(uint32_t seed = 7) {
    auto engine = std::make_unique<ostrel_alg>();
    if (engine->init() != 0) {
        return nullptr;
    }
    engine->setRandomSeed(seed);
    engine->setSensitivity(100 - 50);
    return engine;
}

}  // namespace engine_test
