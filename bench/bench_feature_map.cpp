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
//   BM_LoadAndResampleOnePass/<w>/<h>  three Lab planes to the scale-0 image
//                                      in one pass (the road taken)
//   BM_LoadThenResampleRecord/<w>/<h>  the same through the full-size
//                                      column-by-column record
#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "acf/acf_helper.h"
#include "acf/chn_image.h"
#include "acf/ostrel_acf.h"
#include "acf/picture_features.h"
#include "acf/picture_resample.h"
#include "acf/plane_transpose.h"

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

struct lab_planes {
    cv::Mat planes[3];
    const uint8_t *data[3] = {};
    size_t strides[3] = {};
};

lab_planes lab_planes_of(const cv::Mat &bgr) {
    lab_planes out;
    cv::Mat lab;
    cv::cvtColor(bgr, lab, cv::COLOR_BGR2Lab);
    cv::split(lab, out.planes);
    for (int c = 0; c < 3; ++c) {
        out.data[c] = out.planes[c].data;
        out.strides[c] = out.planes[c].step[0];
    }
    return out;
}

// Scale-0 image size of every picture (record terms).
constexpr int32_t kScaleZeroWidth = 136;
constexpr int32_t kScaleZeroHeight = 242;

void BM_LoadAndResampleOnePass(benchmark::State &state) {
    const cv::Mat bgr = picture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const lab_planes lab = lab_planes_of(bgr);
    ostrel::picture_resample_scratch scratch;
    for (auto _ : state) {
        ostrel::chn_image8 scaled = ostrel::resample_picture_planes(lab.data, lab.strides, 3, bgr.rows, bgr.cols,
                                                                    kScaleZeroWidth, kScaleZeroHeight, 1.0f, scratch);
        benchmark::DoNotOptimize(scaled.data.data());
    }
}

void BM_LoadThenResampleRecord(benchmark::State &state) {
    const cv::Mat bgr = picture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const lab_planes lab = lab_planes_of(bgr);
    for (auto _ : state) {
        ostrel::chn_image8 record(3, bgr.rows, bgr.cols);
        for (int c = 0; c < 3; ++c) {
            ostrel::transpose_plane(lab.data[c], lab.strides[c], bgr.rows, bgr.cols, record.plane(c));
        }
        ostrel::chn_image8 scaled =
            ostrel::acf_helper::image_resample_fix(record, kScaleZeroWidth, kScaleZeroHeight, 1.0f);
        benchmark::DoNotOptimize(scaled.data.data());
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
BENCHMARK(BM_LoadAndResampleOnePass)->Apply(picture_sizes);
BENCHMARK(BM_LoadThenResampleRecord)->Apply(picture_sizes);
