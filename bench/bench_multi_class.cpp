// Detection with several classes in one model against one model per class,
// one thread, through the public interface (bench/multi_class_chess.sh
// trains the models with the ostrel tool and prints the ratios):
//   - BM_MultiClassOnePass: one engine holding every class of
//     $OSTREL_BENCH_CLASSES_DIR/all.model, one detection pass per picture;
//   - BM_MultiClassSeparate: one engine per class (the files
//     $OSTREL_BENCH_CLASSES_DIR/class-*.model, each trained exactly as its
//     class in all.model), every engine run on the picture;
//   - BM_MultiClassOneOfThem: the first of those one-class engines alone.
// The picture is $OSTREL_BENCH_CLASSES_PICTURE. Every iteration gives the
// picture a new key, so that each pass computes its channels afresh.
// Without the variables the three benchmarks are skipped.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"

namespace {

struct multi_class_fixture {
    bool ready = false;
    std::string why;
    cv::Mat picture;
    ostrel_alg *all = nullptr;
    std::vector<ostrel_alg *> separate;
};

ostrel_alg *imported(const std::string &path) {
    ostrel_alg *engine = nullptr;
    if (ostrel_alg_create(&engine) != 0) return nullptr;
    if (ostrel_alg_importModel_ptr(engine, path.c_str()) != 0) {
        ostrel_alg_destroy(engine);
        return nullptr;
    }
    return engine;
}

multi_class_fixture &fixture() {
    static multi_class_fixture f = [] {
        multi_class_fixture g;
        const char *dir = std::getenv("OSTREL_BENCH_CLASSES_DIR");
        const char *picture = std::getenv("OSTREL_BENCH_CLASSES_PICTURE");
        if (dir == nullptr || picture == nullptr) {
            g.why = "set OSTREL_BENCH_CLASSES_DIR and OSTREL_BENCH_CLASSES_PICTURE (bench/multi_class_chess.sh)";
            return g;
        }
        g.picture = cv::imread(picture, cv::IMREAD_COLOR);
        g.all = imported(std::string(dir) + "/all.model");
        std::vector<std::string> files;
        for (const auto &entry : std::filesystem::directory_iterator(dir)) {
            const std::string name = entry.path().filename().string();
            if (name.rfind("class-", 0) == 0) files.push_back(entry.path().string());
        }
        std::sort(files.begin(), files.end());
        for (const std::string &file : files) {
            if (ostrel_alg *engine = imported(file)) g.separate.push_back(engine);
        }
        g.ready = !g.picture.empty() && g.all != nullptr && !g.separate.empty();
        if (!g.ready) g.why = "the picture or the models could not be read";
        return g;
    }();
    return f;
}

int64_t next_key() {
    static int64_t key = 1;
    return key++;
}

size_t run(ostrel_alg *engine, const cv::Mat &picture) {
    ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, next_key(), 0, 0};
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count);
    return count;
}

void BM_MultiClassOnePass(benchmark::State &state) {
    multi_class_fixture &f = fixture();
    if (!f.ready) {
        state.SkipWithError(f.why.c_str());
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(run(f.all, f.picture));
}
BENCHMARK(BM_MultiClassOnePass)->Unit(benchmark::kMillisecond);

void BM_MultiClassSeparate(benchmark::State &state) {
    multi_class_fixture &f = fixture();
    if (!f.ready) {
        state.SkipWithError(f.why.c_str());
        return;
    }
    for (auto _ : state) {
        for (ostrel_alg *engine : f.separate) benchmark::DoNotOptimize(run(engine, f.picture));
    }
    state.counters["engines"] = static_cast<double>(f.separate.size());
}
BENCHMARK(BM_MultiClassSeparate)->Unit(benchmark::kMillisecond);

void BM_MultiClassOneOfThem(benchmark::State &state) {
    multi_class_fixture &f = fixture();
    if (!f.ready) {
        state.SkipWithError(f.why.c_str());
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(run(f.separate.front(), f.picture));
}
BENCHMARK(BM_MultiClassOneOfThem)->Unit(benchmark::kMillisecond);

}  // namespace
