// Window scan over a feature map of a 242 x 136 picture at half resolution
// (121 x 68 cells, 10 channels) with a 20 x 15 cell window and stride 2.
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "detect/window_scan.h"
#include "detect/window_scan_reference.h"

namespace {

constexpr int32_t kChannels = 10;
constexpr int32_t kColumns = 121;
constexpr int32_t kRows = 68;
constexpr int32_t kWindowColumns = 20;
constexpr int32_t kWindowRows = 15;

struct scan_case {
    ostrel::feature_map map;
    std::vector<int32_t> weights;
    ostrel::scan_geometry geometry;
    ostrel::scan_settings settings;

    explicit scan_case(double weight_spread = 2000.0) {
        std::mt19937 rng(42);
        map.channels = kChannels;
        map.columns = kColumns;
        map.rows = kRows;
        map.data.resize(static_cast<size_t>(kChannels) * kColumns * kRows);
        std::uniform_int_distribution<int> byte(0, 255);
        for (uint8_t &cell : map.data) {
            cell = static_cast<uint8_t>(byte(rng));
        }
        // Fixed-point weights of a trained classifier are a few thousand.
        weights.resize(static_cast<size_t>(kChannels) * kWindowColumns * kWindowRows);
        std::normal_distribution<double> weight(0.0, weight_spread);
        for (int32_t &w : weights) {
            w = static_cast<int32_t>(weight(rng));
        }
        geometry.window_columns = kWindowColumns;
        geometry.window_rows = kWindowRows;
        geometry.stride = 2;
        geometry.sx = 0.5f;
        geometry.sy = 0.5f;
        settings.weights = weights.data();
        settings.bias = 0;
        settings.confidence_threshold = 60;
        settings.collect_below = true;
        settings.image_width = kColumns * 2;
        settings.image_height = kRows * 2;
        settings.box_width = kWindowColumns * 2;
        settings.box_height = kWindowRows * 2;
    }
};

// Fixed-point weights of a few thousand (within 16 bits), or, with the
// argument 1, weights past 16 bits that need the second multiply-add.
void BM_ScanWindows(benchmark::State &state) {
    const scan_case c(state.range(0) == 0 ? 2000.0 : 200000.0);
    int64_t windows = 0;
    for (auto _ : state) {
        ostrel::scan_result result;
        ostrel::scan_windows(c.map, c.geometry, c.settings, &result);
        windows += static_cast<int64_t>(result.accepted.size() + result.below.size());
        benchmark::DoNotOptimize(result);
    }
    state.counters["windows"] = benchmark::Counter(static_cast<double>(windows), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ScanWindows)->Arg(0)->Arg(1);

// The scan with stride 1, which takes the plain run-by-run path.
void BM_ScanWindowsStrideOne(benchmark::State &state) {
    scan_case c;
    c.geometry.stride = 1;
    for (auto _ : state) {
        ostrel::scan_result result;
        ostrel::scan_windows(c.map, c.geometry, c.settings, &result);
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_ScanWindowsStrideOne);

// The reference scan (plain kernels at every position).
void BM_ScanWindowsReference(benchmark::State &state) {
    const scan_case c;
    for (auto _ : state) {
        ostrel::scan_result result;
        ostrel::scan_windows_reference(c.map, c.geometry, c.settings, &result);
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_ScanWindowsReference);

void BM_WindowConfidence(benchmark::State &state) {
    int32_t sum = -500000;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ostrel::window_confidence(sum, 1234));
        sum = sum < 500000 ? sum + 7 : -500000;
    }
}
BENCHMARK(BM_WindowConfidence);

}  // namespace
