// The accurate profile on real scenes, through the public interface, one
// thread (bench/real_scenes_timing.sh runs it next to dlib and prints the
// ratios):
//   - BM_Lab: OpenCV's BGR to Lab conversion of the picture (the yardstick
//     every other figure is divided by: it scales with the machine);
//   - BM_Detect1920x1080Range5: detection on a 1920 x 1080 picture over a
//     5x range of object sizes (40 to 200 pixels, options 6 and 7);
//   - BM_Detect640x480: detection on a 640 x 480 picture over the default
//     range (the taught sizes and their margin), for blood cells (about
//     100 pixels) and for small objects (19 x 40, a chess pawn's size);
//   - BM_Train20: training on the 1920 x 1080 picture with 20 objects of
//     three sizes.
// The pictures are made from data/ (bench/real_scenes/scenes.h).
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "ostrel_alg.h"
#include "real_scenes/scenes.h"

namespace {

const std::string kDataDir = OSTREL_DATA_DIR;

// Sixteen dark upright ellipses of 19 x 40 pixels on a blood picture.
cv::Mat small_object_picture(int index, std::vector<ostrel_alg_box> *boxes) {
    cv::Mat picture = cv::imread(real_scenes::picture_path(kDataDir, index), cv::IMREAD_COLOR);
    for (int i = 0; i < 16; ++i) {
        const ostrel_alg_box b{30 + 36 * i, 60 + 200 * (i % 2), 19, 40, 0.0f, 1, 0, 0};
        cv::ellipse(picture, cv::Point(b.x + 9, b.y + 20), cv::Size(8, 18), 0, 0, 360, cv::Scalar(40, 30, 30),
                    cv::FILLED);
        boxes->push_back(b);
    }
    return picture;
}

ostrel_alg *accurate_engine() {
    ostrel_alg *e = nullptr;
    ostrel_alg_create(&e);
    ostrel_alg_setOption(e, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE);
    ostrel_alg_setRandomSeed(e, 1);
    return e;
}

bool train(ostrel_alg *e, const cv::Mat &picture, const std::vector<ostrel_alg_box> &boxes, int64_t key) {
    const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, key, 0, 0};
    return ostrel_alg_setDetector_ptr(e, &image, boxes.data(), static_cast<int32_t>(boxes.size())) == 0;
}

// One scene: a trained engine and the picture it searches.
struct scene {
    ostrel_alg *engine = nullptr;
    cv::Mat picture;
};

// range(0): 0 the 1920 x 1080 street over 40..200 pixels, 1 blood cells on
// 640 x 480, 2 small objects on 640 x 480.
scene make_scene(int64_t which) {
    scene s;
    s.engine = accurate_engine();
    if (which == 0) {
        if (!train(s.engine, real_scenes::street_training_canvas(kDataDir), real_scenes::street_boxes(), 1)) {
            std::fprintf(stderr, "training failed\n");
        }
        ostrel_alg_setOption(s.engine, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, 40);
        ostrel_alg_setOption(s.engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 200);
        s.picture = real_scenes::street_canvas(kDataDir, 1);
    } else if (which == 1) {
        if (!train(s.engine, cv::imread(real_scenes::picture_path(kDataDir, 0)), real_scenes::cell_boxes(), 1)) {
            std::fprintf(stderr, "training failed\n");
        }
        s.picture = cv::imread(real_scenes::picture_path(kDataDir, 1));
    } else {
        std::vector<ostrel_alg_box> boxes, unused;
        if (!train(s.engine, small_object_picture(2, &boxes), boxes, 1)) {
            std::fprintf(stderr, "training failed\n");
        }
        s.picture = small_object_picture(3, &unused);
    }
    return s;
}

void BM_Lab(benchmark::State &state) {
    cv::setNumThreads(1);
    const cv::Mat picture = state.range(0) == 0 ? real_scenes::street_canvas(kDataDir, 1)
                                                : cv::imread(real_scenes::picture_path(kDataDir, 1));
    cv::Mat lab;
    for (auto _ : state) {
        cv::cvtColor(picture, lab, cv::COLOR_BGR2Lab);
        benchmark::DoNotOptimize(lab.data);
    }
}

void detect(benchmark::State &state, int64_t which) {
    cv::setNumThreads(1);
    scene s = make_scene(which);
    int64_t key = 1000;
    uint32_t count = 0;
    for (auto _ : state) {
        // A new key every time: the picture's features are computed afresh.
        const ostrel_alg_image image{s.picture.cols, s.picture.rows, 3, s.picture.data, ++key, 0, 0};
        ostrel_alg_box *found = nullptr;
        if (ostrel_alg_runDetector_ptr(s.engine, &image, &found, &count) != 0) {
            state.SkipWithError("detection failed");
            break;
        }
        benchmark::DoNotOptimize(found);
    }
    state.counters["boxes"] = count;
    ostrel_alg_destroy(s.engine);
}

void BM_Detect1920x1080Range5(benchmark::State &state) { detect(state, 0); }
void BM_Detect640x480(benchmark::State &state) { detect(state, state.range(0)); }

void BM_Train20(benchmark::State &state) {
    cv::setNumThreads(1);
    const cv::Mat picture = real_scenes::street_training_canvas(kDataDir);
    const std::vector<ostrel_alg_box> boxes = real_scenes::street_boxes();
    int64_t key = 100;
    for (auto _ : state) {
        ostrel_alg *engine = accurate_engine();
        if (!train(engine, picture, boxes, ++key)) state.SkipWithError("training failed");
        state.PauseTiming();
        ostrel_alg_destroy(engine);
        state.ResumeTiming();
    }
}

}  // namespace

// Args of BM_Lab: 0 the 1920 x 1080 picture, 1 a 640 x 480 one.
BENCHMARK(BM_Lab)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Detect1920x1080Range5)->Unit(benchmark::kMillisecond);
// Args: 1 blood cells, 2 small objects.
BENCHMARK(BM_Detect640x480)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Train20)->Unit(benchmark::kMillisecond)->Iterations(3);
