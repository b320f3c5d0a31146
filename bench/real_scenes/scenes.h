// The pictures of the real-scene timings (bench/bench_real_scenes.cpp,
// bench/real_scenes_timing.sh): built from the shipped blood pictures, so
// that the benchmark needs nothing beyond data/.
//
//   street_training_canvas(): 1920 x 1080, twenty red cells of
//       BloodImage_00000 at 1.5, 1 and 0.5 times their size (48 to 148
//       pixels across) on the OpenCV sample pictures; street_boxes(): the
//       twenty, marked at their own sizes (7 large, 7 medium, 6 small).
//   street_canvas(1): 1920 x 1080, blood pictures at 1.5, 1 and 0.5 times
//       their size side by side (the test).
//   cell_boxes(): the 19 cells of BloodImage_00000 at its own size.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "ostrel_alg.h"

namespace real_scenes {

// The blood pictures data/ ships, in order (it has no BloodImage_00007).
inline int shipped_blood_picture(int i) {
    static const int shipped[] = {0, 1, 2, 3, 4, 5, 6, 8};
    return shipped[i % 8];
}

inline std::string picture_path(const std::string &data_dir, int index) {
    char name[64];
    std::snprintf(name, sizeof name, "/bccd/images/BloodImage_%05d.jpg", index);
    return data_dir + name;
}

// The marked red cells of BloodImage_00000 (centres), one median size.
inline std::vector<ostrel_alg_box> cell_boxes() {
    const int centres[][2] = {{131, 385}, {116, 286}, {267, 411}, {460, 398}, {597, 405}, {518, 446}, {44, 385},
                              {49, 443},  {201, 124}, {57, 123},  {586, 89},  {593, 245}, {434, 61},  {217, 225},
                              {317, 42},  {286, 132}, {126, 189}, {538, 180}, {416, 132}};
    std::vector<ostrel_alg_box> boxes;
    for (const auto &c : centres) boxes.push_back(ostrel_alg_box{c[0] - 48, c[1] - 49, 96, 99, 0.0f, 1, 0, 0});
    return boxes;
}

struct tile {
    int picture;  // offset from the first picture of the canvas
    double scale;
    int x, y;  // top-left on the canvas
};

// Tiles of 1.5 (960 x 720), 1 (640 x 480) and 0.5 (320 x 240) times a
// 640 x 480 picture, filling 1920 x 1080 (the bottom row is cut).
inline std::vector<tile> street_layout() {
    return {{0, 1.5, 0, 0},      {0, 1.0, 960, 0},  {0, 0.5, 960, 480}, {1, 0.5, 1280, 480},
            {2, 0.5, 1600, 480}, {3, 1.0, 1600, 0}, {4, 0.5, 960, 720}, {5, 0.5, 1280, 720},
            {6, 0.5, 1600, 720}, {7, 1.0, 0, 720},  {1, 1.0, 640, 720}, {2, 1.0, 1280, 960}};
}

// The test canvas: blood pictures of three sizes in every tile, from the
// first-th shipped blood picture on.
inline cv::Mat street_canvas(const std::string &data_dir, int first) {
    cv::Mat canvas(1080, 1920, CV_8UC3, cv::Scalar(210, 200, 220));
    for (const tile &t : street_layout()) {
        const cv::Mat picture =
            cv::imread(picture_path(data_dir, shipped_blood_picture(first + t.picture)), cv::IMREAD_COLOR);
        if (picture.empty()) continue;
        cv::Mat scaled;
        cv::resize(picture, scaled, cv::Size(), t.scale, t.scale, cv::INTER_AREA);
        const cv::Rect place = cv::Rect(t.x, t.y, scaled.cols, scaled.rows) & cv::Rect(0, 0, canvas.cols, canvas.rows);
        scaled(cv::Rect(0, 0, place.width, place.height)).copyTo(canvas(place));
    }
    return canvas;
}

// Where the twenty training cells go: cell i of BloodImage_00000 at scale
// 1.5 (cells 0..6), 1 (7..13) or 0.5 (14..19), in a row per scale.
inline std::vector<ostrel_alg_box> street_boxes() {
    const std::vector<ostrel_alg_box> cells = cell_boxes();
    std::vector<ostrel_alg_box> boxes;
    const double scales[] = {1.5, 1.0, 0.5};
    const int rows_y[] = {60, 420, 700};
    for (int i = 0; i < 20; ++i) {
        const int group = i < 7 ? 0 : i < 14 ? 1 : 2;
        const int in_group = i - (group == 0 ? 0 : group == 1 ? 7 : 14);
        const ostrel_alg_box &c = cells[static_cast<size_t>(i % 19)];
        const int w = static_cast<int>(c.width * scales[group]);
        const int h = static_cast<int>(c.height * scales[group]);
        boxes.push_back(ostrel_alg_box{80 + in_group * 260, rows_y[group], w, h, 0.0f, 1, 0, 0});
    }
    return boxes;
}

// The training canvas: the OpenCV sample pictures as background (nothing
// on them looks like a blood cell) and the twenty cells of street_boxes()
// pasted on it, each cut from BloodImage_00000 at its box and scaled; so
// every object on the picture is marked.
inline cv::Mat street_training_canvas(const std::string &data_dir) {
    cv::Mat canvas(1080, 1920, CV_8UC3);
    const char *backgrounds[] = {"/samples/fruits.jpg", "/samples/baboon.jpg", "/samples/smarties.png"};
    for (int i = 0; i < 3; ++i) {
        const cv::Mat picture = cv::imread(data_dir + backgrounds[i], cv::IMREAD_COLOR);
        if (picture.empty()) continue;
        cv::Mat scaled;
        cv::resize(picture, scaled, cv::Size(640, 1080), 0, 0, cv::INTER_AREA);
        scaled.copyTo(canvas(cv::Rect(640 * i, 0, 640, 1080)));
    }
    const cv::Mat cells_picture = cv::imread(picture_path(data_dir, 0), cv::IMREAD_COLOR);
    const std::vector<ostrel_alg_box> cells = cell_boxes();
    const std::vector<ostrel_alg_box> boxes = street_boxes();
    for (size_t i = 0; i < boxes.size() && !cells_picture.empty(); ++i) {
        const ostrel_alg_box &c = cells[i % cells.size()];
        const cv::Rect from =
            cv::Rect(c.x, c.y, c.width, c.height) & cv::Rect(0, 0, cells_picture.cols, cells_picture.rows);
        cv::Mat patch;
        cv::resize(cells_picture(from), patch, cv::Size(boxes[i].width, boxes[i].height), 0, 0, cv::INTER_AREA);
        patch.copyTo(canvas(cv::Rect(boxes[i].x, boxes[i].y, boxes[i].width, boxes[i].height)));
    }
    return canvas;
}

}  // namespace real_scenes
