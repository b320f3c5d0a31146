// The accurate profile's costs next to the classic profile's, through the
// public interface, one thread: set-up on the shipped blood picture with its
// 19 marked cells, detection on a new 640 x 480 picture; and the most
// expensive case the default settings allow on a 640 x 480 picture: small
// objects (19 x 40 pixels, a chess pawn's size), whose working picture is
// the largest the pixel budget gives (366 x 274).
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
std::vector<ostrel_alg_box> cell_boxes() {
    const int centres[][2] = {{131, 385}, {116, 286}, {267, 411}, {460, 398}, {597, 405}, {518, 446}, {44, 385},
                              {49, 443},  {201, 124}, {57, 123},  {586, 89},  {593, 245}, {434, 61},  {217, 225},
                              {317, 42},  {286, 132}, {126, 189}, {538, 180}, {416, 132}};
    std::vector<ostrel_alg_box> boxes;
    for (const auto &c : centres) boxes.push_back(ostrel_alg_box{c[0] - 48, c[1] - 49, 96, 99, 0.0f, 1, 0, 0});
    return boxes;
}

// Sixteen dark upright ellipses of 19 x 40 pixels on a blood picture.
cv::Mat small_object_picture(std::vector<ostrel_alg_box> *boxes) {
    cv::Mat picture = cv::imread(kDataDir + "/bccd/images/BloodImage_00002.jpg", cv::IMREAD_COLOR);
    for (int i = 0; i < 16; ++i) {
        const ostrel_alg_box b{30 + 36 * i, 60 + 200 * (i % 2), 19, 40, 0.0f, 1, 0, 0};
        cv::ellipse(picture, cv::Point(b.x + 9, b.y + 20), cv::Size(8, 18), 0, 0, 360, cv::Scalar(40, 30, 30),
                    cv::FILLED);
        boxes->push_back(b);
    }
    return picture;
}

ostrel_alg *train(int32_t profile, const cv::Mat &picture, const std::vector<ostrel_alg_box> &boxes, int64_t key) {
    ostrel_alg *e = nullptr;
    ostrel_alg_create(&e);
    ostrel_alg_setOption(e, OSTREL_ALG_OPTION_PROFILE, profile);
    ostrel_alg_setRandomSeed(e, 1);
    const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, key, 0, 0};
    if (ostrel_alg_setDetector_ptr(e, &image, boxes.data(), static_cast<int32_t>(boxes.size())) != 0) {
        std::fprintf(stderr, "training failed\n");
    }
    return e;
}

// state.range(0): the profile; range(1): 0 blood cells, 1 small objects.
void BM_SetUp(benchmark::State &state) {
    cv::setNumThreads(1);
    std::vector<ostrel_alg_box> boxes;
    const cv::Mat picture = state.range(1) == 0
                                ? cv::imread(kDataDir + "/bccd/images/BloodImage_00000.jpg", cv::IMREAD_COLOR)
                                : small_object_picture(&boxes);
    if (state.range(1) == 0) boxes = cell_boxes();
    int64_t key = 100;
    for (auto _ : state) {
        ostrel_alg *engine = train(static_cast<int32_t>(state.range(0)), picture, boxes, ++key);
        state.PauseTiming();
        ostrel_alg_destroy(engine);
        state.ResumeTiming();
    }
}

void BM_Detect640x480(benchmark::State &state) {
    cv::setNumThreads(1);
    std::vector<ostrel_alg_box> boxes;
    const cv::Mat training = state.range(1) == 0
                                 ? cv::imread(kDataDir + "/bccd/images/BloodImage_00000.jpg", cv::IMREAD_COLOR)
                                 : small_object_picture(&boxes);
    if (state.range(1) == 0) boxes = cell_boxes();
    ostrel_alg *engine = train(static_cast<int32_t>(state.range(0)), training, boxes, 1);
    const cv::Mat picture = cv::imread(kDataDir + "/bccd/images/BloodImage_00001.jpg", cv::IMREAD_COLOR);
    int64_t key = 1000;
    uint32_t count = 0;
    for (auto _ : state) {
        const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, ++key, 0, 0};
        ostrel_alg_box *found = nullptr;
        if (ostrel_alg_runDetector_ptr(engine, &image, &found, &count) != 0) {
            state.SkipWithError("detection failed");
            break;
        }
        benchmark::DoNotOptimize(found);
    }
    state.counters["boxes"] = count;
    ostrel_alg_destroy(engine);
}

}  // namespace

// Args: profile (0 classic, 1 accurate), objects (0 blood cells, 1 small objects).
BENCHMARK(BM_SetUp)->Args({0, 0})->Args({1, 0})->Args({1, 1})->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Detect640x480)->Args({0, 0})->Args({1, 0})->Args({1, 1})->Unit(benchmark::kMillisecond);
