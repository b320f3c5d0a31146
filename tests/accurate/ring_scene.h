// A training scene shared by the trainer's tests: a grey noisy picture of
// 320 x 240 with dark rings at five marked 40 x 40 boxes and light squares
// (background that looks a little like them) elsewhere, as one training
// picture with its pyramid of searched sizes and mirror images.
#pragma once

#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "accurate/accurate_trainer.h"
#include "accurate/scale_set.h"

namespace ostrel_test {

struct scene {
    ostrel::accurate_geometry geometry;
    std::vector<ostrel::accurate_training_picture> pictures;
    ostrel::accurate_settings settings;
};

inline scene ring_scene() {
    scene s;
    cv::Mat bgr(240, 320, CV_8UC3);
    cv::RNG rng(3);
    rng.fill(bgr, cv::RNG::UNIFORM, cv::Scalar::all(150), cv::Scalar::all(180));
    std::vector<ostrel_alg_box> boxes;
    for (int i = 0; i < 5; ++i) {
        const ostrel_alg_box b{10 + 60 * i, 20 + 40 * (i % 2), 40, 40, 0.0f, 1, 0, 0};
        boxes.push_back(b);
        cv::circle(bgr, cv::Point(b.x + 20, b.y + 20), 12, cv::Scalar::all(40), 5);
        cv::rectangle(bgr, cv::Rect(20 + 60 * i, 170, 20, 20), cv::Scalar::all(230), 4);
    }
    EXPECT_EQ(ostrel::derive_accurate_geometry(40, 40, 320, 240, s.settings, &s.geometry), ostrel::geometry_status::ok);
    ostrel::pyramid_request r;
    r.base_columns = s.geometry.working_width;
    r.base_rows = s.geometry.working_height;
    r.size_factors = ostrel::search_scales(s.settings);
    r.marked_index = ostrel::marked_scale_index(s.settings);
    r.with_mirror = true;
    r.pad_columns = 5;
    r.pad_rows = 5;
    ostrel::picture_resample_scratch scratch;
    ostrel::accurate_training_picture picture;
    picture.pyramid = ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), r, scratch);
    picture.boxes = boxes;
    picture.marked_width = 40;
    picture.marked_height = 40;
    s.pictures.push_back(std::move(picture));
    return s;
}

}  // namespace ostrel_test
