// Timing of the channel-feature kernels next to OpenCV's BGR -> Lab
// conversion of the same picture, the yardstick the channel work is held
// to: everything after the Lab conversion of a picture (resample to the
// scale-0 record, gradient, histogram, byte conversions) should cost at
// most half of that conversion. OpenCV spreads the conversion over its
// threads (the *_OneThread variants pin it to one), so times are wall-clock.
#include <cstdint>
#include <random>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "acf/acf_helper.h"

namespace {

using ostrel::chn_image32;
using ostrel::chn_image8;
namespace kernels = ostrel::acf_helper;

constexpr float kColourFactor = 1.0f;
constexpr float kGradientFactor = 0.005667f;

cv::Mat random_bgr(int rows, int cols) {
    cv::Mat picture(rows, cols, CV_8UC3);
    cv::randu(picture, cv::Scalar::all(0), cv::Scalar::all(256));
    return picture;
}

// Random bytes with some smooth structure, so that gradients spread over
// all orientations and magnitudes rather than saturating.
chn_image8 textured_record(int32_t width, int32_t height) {
    chn_image8 image(3, width, height);
    std::mt19937 rng(42);
    std::uniform_int_distribution<int> noise(-20, 20);
    for (int32_t c = 0; c < 3; ++c) {
        for (int32_t y = 0; y < height; ++y) {
            for (int32_t x = 0; x < width; ++x) {
                const int v = ((x * (3 + c)) ^ (y * 5)) % 200 + 28 + noise(rng);
                image.at(c, y, x) = static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
            }
        }
    }
    return image;
}

void cvt_color_lab(benchmark::State &state, int rows, int cols, int threads) {
    const int saved_threads = cv::getNumThreads();
    if (threads > 0) {
        cv::setNumThreads(threads);
    }
    const cv::Mat bgr = random_bgr(rows, cols);
    cv::Mat lab;
    for (auto _ : state) {
        cv::cvtColor(bgr, lab, cv::COLOR_BGR2Lab);
        benchmark::DoNotOptimize(lab.data);
    }
    cv::setNumThreads(saved_threads);
}

void BM_CvtColorBgr2Lab_1920x1080(benchmark::State &state) { cvt_color_lab(state, 1080, 1920, 0); }
void BM_CvtColorBgr2Lab_1920x1080_OneThread(benchmark::State &state) { cvt_color_lab(state, 1080, 1920, 1); }
void BM_CvtColorBgr2Lab_640x480(benchmark::State &state) { cvt_color_lab(state, 480, 640, 0); }
void BM_CvtColorBgr2Lab_640x480_OneThread(benchmark::State &state) { cvt_color_lab(state, 480, 640, 1); }

// Pictures are loaded column by column: a 1920 x 1080 picture is the record
// 1080 wide (picture rows) and 1920 high (picture columns).
void image_resample(benchmark::State &state, int32_t width, int32_t height) {
    const chn_image8 record = textured_record(width, height);
    for (auto _ : state) {
        chn_image8 out = kernels::image_resample_fix(record, 136, 242, kColourFactor);
        benchmark::DoNotOptimize(out.data.data());
    }
}

void BM_ImageResampleFix_1080x1920_to_136x242(benchmark::State &state) { image_resample(state, 1080, 1920); }
void BM_ImageResampleFix_480x640_to_136x242(benchmark::State &state) { image_resample(state, 480, 640); }

void BM_GradientMagOrient_136x242(benchmark::State &state) {
    const chn_image8 record = textured_record(136, 242);
    chn_image32 mag(1, 136, 242);
    chn_image32 orient(1, 136, 242);
    for (auto _ : state) {
        kernels::gradient_mag_orient(record, mag, orient);
        benchmark::DoNotOptimize(mag.data.data());
        benchmark::DoNotOptimize(orient.data.data());
    }
}

void BM_GradientMagHistogram_136x242(benchmark::State &state) {
    const chn_image8 record = textured_record(136, 242);
    chn_image32 mag(1, 136, 242);
    chn_image32 orient(1, 136, 242);
    kernels::gradient_mag_orient(record, mag, orient);
    for (auto _ : state) {
        chn_image32 hist = kernels::gradient_mag_histogram(mag, orient, 2, 6);
        benchmark::DoNotOptimize(hist.data.data());
    }
}

void BM_GradientMagOrientAndHistogram_136x242(benchmark::State &state) {
    const chn_image8 record = textured_record(136, 242);
    chn_image32 mag(1, 136, 242);
    chn_image32 orient(1, 136, 242);
    for (auto _ : state) {
        kernels::gradient_mag_orient(record, mag, orient);
        chn_image32 hist = kernels::gradient_mag_histogram(mag, orient, 2, 6);
        benchmark::DoNotOptimize(hist.data.data());
    }
}

// The kernel work of one picture's scale-0 channels after its Lab
// conversion: resample to 136 x 242, the colour planes widened to 32 bits
// and halved, gradient, histogram, magnitude halved, histogram converted.
void channel_work(benchmark::State &state, int32_t width, int32_t height) {
    const chn_image8 record = textured_record(width, height);
    for (auto _ : state) {
        const chn_image8 scaled = kernels::image_resample_fix(record, 136, 242, kColourFactor);
        const int32_t fw = scaled.width / 2;
        const int32_t fh = scaled.height / 2;

        chn_image32 colour(scaled.channels, scaled.width, scaled.height);
        for (size_t i = 0; i < scaled.data.size(); ++i) {
            colour.data[i] = scaled.data[i];
        }
        chn_image8 colour_bytes = kernels::feature_resample_fix(colour, fw, fh, kColourFactor);

        chn_image32 mag(1, scaled.width, scaled.height);
        chn_image32 orient(1, scaled.width, scaled.height);
        kernels::gradient_mag_orient(scaled, mag, orient);
        chn_image8 mag_bytes = kernels::feature_resample_fix(mag, fw, fh, kGradientFactor);

        const chn_image32 hist = kernels::gradient_mag_histogram(mag, orient, 2, 6);
        chn_image8 hist_bytes = kernels::convert_norm_byte_fix(hist, hist.width, hist.height, kGradientFactor);

        benchmark::DoNotOptimize(colour_bytes.data.data());
        benchmark::DoNotOptimize(mag_bytes.data.data());
        benchmark::DoNotOptimize(hist_bytes.data.data());
    }
}

void BM_ChannelWork_1080x1920(benchmark::State &state) { channel_work(state, 1080, 1920); }
void BM_ChannelWork_480x640(benchmark::State &state) { channel_work(state, 480, 640); }

}  // namespace

BENCHMARK(BM_CvtColorBgr2Lab_1920x1080)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CvtColorBgr2Lab_1920x1080_OneThread)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CvtColorBgr2Lab_640x480)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CvtColorBgr2Lab_640x480_OneThread)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ImageResampleFix_1080x1920_to_136x242)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ImageResampleFix_480x640_to_136x242)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_GradientMagOrient_136x242)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_GradientMagHistogram_136x242)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_GradientMagOrientAndHistogram_136x242)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ChannelWork_1080x1920)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ChannelWork_480x640)->Unit(benchmark::kMicrosecond)->UseRealTime();
