#include "engine/model_usability.h"

#include <cmath>
#include <mutex>

#include <opencv2/core.hpp>

#include "cli/tool_output.h"
#include "engine/engine.h"
#include "files/picture.h"

namespace ostrel_tool {

namespace {

// trunc(value * cells / pixels) in single precision, as the library maps a
// box to cells; -1 when it does not fit an int32 (larger than any map).
int64_t cells_of(int32_t value, int64_t cells, int32_t pixels) {
    const float scale = static_cast<float>(cells) / static_cast<float>(pixels);
    const float product = std::trunc(static_cast<float>(value) * scale);
    if (!std::isfinite(product) || product >= 2147483648.0f || product < -2147483648.0f) {
        return -1;
    }
    return static_cast<int64_t>(product);
}

}  // namespace

MapExtent classic_map_extent() {
    static std::once_flag once;
    static MapExtent extent;
    std::call_once(once, [] {
        try {
            Engine engine;
            const Picture blank = picture_from_pixels(cv::Mat(480, 640, CV_8UC3, cv::Scalar::all(128)), "blank");
            FeatureMap map;
            if (engine.feature_map(blank, map)) {
                extent = MapExtent{map.channels, map.columns, map.rows};
            }
        } catch (const std::exception &) {
            extent = MapExtent{};  // unknown: the window is then not checked
        }
    });
    return extent;
}

std::vector<std::string> classic_window_problems(const ModelInfo &info, const MapExtent &map) {
    std::vector<std::string> problems;
    if (map.channels <= 0 || map.columns <= 0 || map.rows <= 0 || info.input_width <= 0 || info.input_height <= 0 ||
        info.trained_width <= 0 || info.trained_height <= 0) {
        return problems;  // the library's own checks cover sizes that are not positive
    }
    const int64_t columns = cells_of(info.trained_width, map.columns, info.input_width);
    const int64_t rows = cells_of(info.trained_height, map.rows, info.input_height);
    const std::string box = strformat("the trained box %dx%d on its %dx%d picture", info.trained_width,
                                      info.trained_height, info.input_width, info.input_height);
    if (columns < 0 || rows < 0 || columns > map.columns || rows > map.rows) {
        problems.push_back(box + strformat(" gives a window larger than the %lldx%lld-cell feature map",
                                           static_cast<long long>(map.columns), static_cast<long long>(map.rows)));
        return problems;
    }
    if (columns < 1 || rows < 1) {
        problems.push_back(box + " covers no whole feature cell");
        return problems;
    }
    const int64_t values = map.channels * columns * rows;
    if (values != info.support_vector_size) {
        problems.push_back(strformat("%d weights, but %s needs %lld (a window of %lldx%lld cells, %lld channels)",
                                     info.support_vector_size, box.c_str(), static_cast<long long>(values),
                                     static_cast<long long>(columns), static_cast<long long>(rows),
                                     static_cast<long long>(map.channels)));
    }
    return problems;
}

bool accurate_profile_takes(const std::string &path, std::string *reason) {
    // No profile is set: the import takes the file's.
    Engine engine;
    const bool taken = engine.import_model(path);
    if (!taken && reason != nullptr) {
        *reason = engine.last_error();
    }
    if (taken && engine.profile() != OSTREL_ALG_PROFILE_ACCURATE) {
        if (reason != nullptr) {
            *reason = "it is a model of the classic profile";
        }
        return false;
    }
    return taken;
}

std::string usability_problem(const std::string &path, const ModelInfo &info) {
    if (!info.problems.empty()) {
        return info.problems.front();
    }
    if (info.accurate) {
        std::string reason;
        if (accurate_profile_takes(path, &reason)) {
            return "";
        }
        return "the library cannot load it" + (reason.empty() ? "" : ": " + reason);
    }
    const std::vector<std::string> problems = classic_window_problems(info, classic_map_extent());
    return problems.empty() ? "" : problems.front();
}

}  // namespace ostrel_tool
