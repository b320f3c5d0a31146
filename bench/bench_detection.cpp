// End-to-end costs through the public interface: a detection run with a new
// picture key (Lab conversion, features, scan, filter) and with the same key
// (scan and filter only), and detector set-up with auto-training, next to
// one OpenCV Lab conversion of the same picture as the yardstick.
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "ostrel_alg.h"

namespace {

const std::string kDataDir = OSTREL_DATA_DIR;

// The marked red blood cells of BloodImage_00000, one median size (96 x 99).
std::vector<ostrel_alg_box> training_boxes() {
    const int centres[][2] = {{131, 385}, {116, 286}, {267, 411}, {460, 398}, {597, 405}, {518, 446}, {44, 385},
                              {49, 443},  {201, 124}, {57, 123},  {586, 89},  {593, 245}, {434, 61},  {217, 225},
                              {317, 42},  {286, 132}, {126, 189}, {538, 180}, {416, 132}};
    std::vector<ostrel_alg_box> boxes;
    for (const auto &c : centres) {
        boxes.push_back(ostrel_alg_box{c[0] - 48, c[1] - 49, 96, 99, 0.0f, 1, 0, 0});
    }
    return boxes;
}

cv::Mat picture_of_size(int width, int height) {
    cv::Mat picture = cv::imread(kDataDir + "/bccd/images/BloodImage_00001.jpg", cv::IMREAD_COLOR);
    if (picture.cols != width || picture.rows != height) {
        cv::resize(picture, picture, cv::Size(width, height), 0, 0, cv::INTER_LINEAR);
    }
    return picture;
}

// One engine trained on the shipped blood picture, shared by the runs.
ostrel_alg *trained_engine() {
    static ostrel_alg *engine = [] {
        ostrel_alg *e = nullptr;
        ostrel_alg_create(&e);
        ostrel_alg_setRandomSeed(e, 1);
        ostrel_alg_setSensitivity(e, 50);
        cv::Mat training = cv::imread(kDataDir + "/bccd/images/BloodImage_00000.jpg", cv::IMREAD_COLOR);
        const ostrel_alg_image image{training.cols, training.rows, 3, training.data, 1, 0, 0};
        const std::vector<ostrel_alg_box> boxes = training_boxes();
        if (ostrel_alg_setDetector_ptr(e, &image, boxes.data(), static_cast<int32_t>(boxes.size())) != 0) {
            std::fprintf(stderr, "training failed\n");
        }
        return e;
    }();
    return engine;
}

void BM_LabConversion(benchmark::State &state) {
    cv::setNumThreads(1);
    const cv::Mat picture = picture_of_size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    cv::Mat lab;
    for (auto _ : state) {
        cv::cvtColor(picture, lab, cv::COLOR_BGR2Lab);
        benchmark::DoNotOptimize(lab.data);
    }
}

void BM_DetectNewPicture(benchmark::State &state) {
    cv::setNumThreads(1);
    ostrel_alg *engine = trained_engine();
    const cv::Mat picture = picture_of_size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    int64_t key = 1000;
    uint32_t count = 0;
    for (auto _ : state) {
        const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, ++key, 0, 0};
        ostrel_alg_box *boxes = nullptr;
        if (ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count) != 0) {
            state.SkipWithError("detection failed");
            break;
        }
        benchmark::DoNotOptimize(boxes);
    }
    state.counters["boxes"] = count;
}

void BM_DetectSamePicture(benchmark::State &state) {
    cv::setNumThreads(1);
    ostrel_alg *engine = trained_engine();
    const cv::Mat picture = picture_of_size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, 999, 0, 0};
    uint32_t count = 0;
    ostrel_alg_box *boxes = nullptr;
    ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count);  // features computed once
    for (auto _ : state) {
        if (ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count) != 0) {
            state.SkipWithError("detection failed");
            break;
        }
        benchmark::DoNotOptimize(boxes);
    }
    state.counters["boxes"] = count;
}

void BM_SetDetector(benchmark::State &state) {
    cv::setNumThreads(1);
    const cv::Mat training = cv::imread(kDataDir + "/bccd/images/BloodImage_00000.jpg", cv::IMREAD_COLOR);
    const std::vector<ostrel_alg_box> boxes = training_boxes();
    int64_t key = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ostrel_alg *engine = nullptr;
        ostrel_alg_create(&engine);
        ostrel_alg_setRandomSeed(engine, 1);
        ostrel_alg_setSensitivity(engine, 50);
        state.ResumeTiming();
        const ostrel_alg_image image{training.cols, training.rows, 3, training.data, ++key, 0, 0};
        const int32_t status =
            ostrel_alg_setDetector_ptr(engine, &image, boxes.data(), static_cast<int32_t>(boxes.size()));
        state.PauseTiming();
        if (status != 0) {
            state.SkipWithError("set-up failed");
        }
        ostrel_alg_destroy(engine);
        state.ResumeTiming();
    }
}

}  // namespace

BENCHMARK(BM_LabConversion)->Args({640, 480})->Args({1920, 1080})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DetectNewPicture)->Args({640, 480})->Args({1920, 1080})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DetectSamePicture)->Args({640, 480})->Args({1920, 1080})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SetDetector)->Unit(benchmark::kMillisecond)->Iterations(5);
