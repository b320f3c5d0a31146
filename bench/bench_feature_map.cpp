// The scale-0 feature map of a picture next to OpenCV's Lab conversion of
// the same picture, which the map computation includes. Single-threaded
// OpenCV is the yardstick; the Lab conversion with OpenCV's default threads
// is reported too.
//
//   BM_LabConversion/<w>/<h>           cv::cvtColor(COLOR_BGR2Lab), 1 thread
//   BM_LabConversionDefaultThreads     the same with OpenCV's default threads
//   BM_FeatureMap/<w>/<h>              compute_picture_features: Lab,
//                                      split, column-by-column load,
//                                      pyramid, scale-0 map (1 thread)
//   BM_FeatureMapAfterLab/<w>/<h>      the part after the Lab conversion
#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "acf/ostrel_acf.h"
#include "acf/picture_features.h"

namespace {

// A natural picture resized to the wanted size (falls back to noise).
cv::Mat picture(int width, int height) {
    cv::Mat source = cv::imread(std::string(OSTREL_DATA_DIR) + "/bccd/images/BloodImage_00000.jpg", cv::IMREAD_COLOR);
    if (source.empty()) {
        source = cv::Mat(480, 640, CV_8UC3);
        cv::randu(source, 0, 256);
    }
    cv::Mat resized;
    cv::resize(source, resized, cv::Size(width, height), 0, 0, cv::INTER_LINEAR);
    return resized;
}

class single_thread {
public:
    single_thread() : before_(cv::getNumThreads()) { cv::setNumThreads(1); }
    ~single_thread() { cv::setNumThreads(before_); }

private:
    int before_;
};

void BM_LabConversion(benchmark::State &state) {
    const cv::Mat bgr = picture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    single_thread one;
    cv::Mat lab;
    for (auto _ : state) {
        cv::cvtColor(bgr, lab, cv::COLOR_BGR2Lab);
        benchmark::DoNotOptimize(lab.data);
    }
}

void BM_LabConversionDefaultThreads(benchmark::State &state) {
    const cv::Mat bgr = picture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    cv::Mat lab;
    state.counters["threads"] = cv::getNumThreads();
    for (auto _ : state) {
        cv::cvtColor(bgr, lab, cv::COLOR_BGR2Lab);
        benchmark::DoNotOptimize(lab.data);
    }
}

void BM_FeatureMap(benchmark::State &state) {
    const cv::Mat bgr = picture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    single_thread one;
    ostrel::ostrel_acf extractor;
    extractor.init_pyramid();
    extractor.set_extractor_defaults();
    ostrel::picture_features features;
    for (auto _ : state) {
        ostrel::compute_picture_features(extractor, bgr, &features);
        benchmark::DoNotOptimize(features.map.data.data());
    }
}

// What compute_picture_features does once the Lab picture exists.
void BM_FeatureMapAfterLab(benchmark::State &state) {
    const cv::Mat bgr = picture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    single_thread one;
    ostrel::ostrel_acf extractor;
    extractor.init_pyramid();
    extractor.set_extractor_defaults();
    cv::Mat lab;
    cv::cvtColor(bgr, lab, cv::COLOR_BGR2Lab);
    ostrel::picture_features features;
    for (auto _ : state) {
        ostrel::compute_lab_features(extractor, lab, &features);
        benchmark::DoNotOptimize(features.map.data.data());
    }
}

void picture_sizes(benchmark::internal::Benchmark *b) {
    b->Args({640, 480})->Args({1920, 1080})->Unit(benchmark::kMillisecond);
}

}  // namespace

BENCHMARK(BM_LabConversion)->Apply(picture_sizes);
BENCHMARK(BM_LabConversionDefaultThreads)->Apply(picture_sizes);
BENCHMARK(BM_FeatureMap)->Apply(picture_sizes);
BENCHMARK(BM_FeatureMapAfterLab)->Apply(picture_sizes);
