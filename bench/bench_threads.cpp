// Detection throughput with engines on several threads: each benchmark
// thread has its own engine, loaded from one model file, and detects on the
// shipped blood pictures with a fresh key every time (the full path: Lab
// conversion, features, scan, filter, colours). items_per_second is the
// pictures per second of all threads together; compare Threads:1 with
// Threads:2. OpenCV's own thread pool is turned off (cv::setNumThreads(1))
// so that one engine uses one core and the figures show what the library's
// engines do side by side.
#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"

namespace {

const std::string kDataDir = OSTREL_DATA_DIR;
constexpr int kShippedPictures[] = {0, 1, 2, 3, 4, 5, 6, 8};

std::string picture_path(int number) {
    char name[64];
    std::snprintf(name, sizeof name, "/bccd/images/BloodImage_%05d.jpg", number);
    return kDataDir + name;
}

const std::vector<cv::Mat> &blood_pictures() {
    static const std::vector<cv::Mat> pictures = [] {
        std::vector<cv::Mat> loaded;
        for (int number : kShippedPictures) loaded.push_back(cv::imread(picture_path(number), cv::IMREAD_COLOR));
        return loaded;
    }();
    return pictures;
}

// A model trained (seeded) on the first blood picture's red cells, written
// once to a temporary file that every thread's engine imports.
const std::string &model_file() {
    static const std::string path = [] {
        const int centres[][2] = {{131, 385}, {116, 286}, {267, 411}, {460, 398}, {597, 405}, {518, 446}, {44, 385},
                                  {49, 443},  {201, 124}, {57, 123},  {586, 89},  {593, 245}, {434, 61},  {217, 225},
                                  {317, 42},  {286, 132}, {126, 189}, {538, 180}, {416, 132}};
        std::vector<ostrel_alg_box> boxes;
        for (const auto &c : centres) boxes.push_back(ostrel_alg_box{c[0] - 48, c[1] - 49, 96, 99, 0.0f, 1, 0, 0});
        const cv::Mat &training = blood_pictures().front();
        const ostrel_alg_image image{training.cols, training.rows, 3, training.data, 1, 0, 0};
        ostrel_alg *engine = nullptr;
        ostrel_alg_create(&engine);
        ostrel_alg_setRandomSeed(engine, 1);
        std::string file = "/tmp/ostrel_bench_threads.model";
        if (ostrel_alg_setDetector_ptr(engine, &image, boxes.data(), static_cast<int32_t>(boxes.size())) != 0 ||
            ostrel_alg_exportModel_ptr(engine, file.c_str()) != 0) {
            file.clear();
        }
        ostrel_alg_destroy(engine);
        return file;
    }();
    return path;
}

void quiet(const char *, void *) {}

std::atomic<int64_t> g_next_key{1000};

void BM_DetectionThroughput(benchmark::State &state) {
    if (state.thread_index() == 0) {
        cv::setNumThreads(1);
        ostrel_alg_setLogHandler(&quiet, nullptr);
    }
    const std::vector<cv::Mat> &pictures = blood_pictures();
    const std::string &model = model_file();
    ostrel_alg *engine = nullptr;
    if (model.empty() || ostrel_alg_create(&engine) != 0 || ostrel_alg_importModel_ptr(engine, model.c_str()) != 0) {
        state.SkipWithError("no model");
        return;
    }
    ostrel_alg_setSensitivity(engine, 80);
    size_t next = static_cast<size_t>(state.thread_index());
    int64_t found = 0;
    for (auto _ : state) {
        const cv::Mat &picture = pictures[next++ % pictures.size()];
        const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, g_next_key++, 0, 0};
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        if (ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count) != 0) {
            state.SkipWithError("detection failed");
            break;
        }
        found += count;
        benchmark::DoNotOptimize(boxes);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["boxes_per_picture"] =
        benchmark::Counter(static_cast<double>(found) / static_cast<double>(std::max<int64_t>(1, state.iterations())),
                           benchmark::Counter::kAvgThreads);
    ostrel_alg_destroy(engine);
}
BENCHMARK(BM_DetectionThroughput)->Threads(1)->Threads(2)->UseRealTime()->MinTime(3.0);

}  // namespace
