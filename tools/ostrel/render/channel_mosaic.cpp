#include "render/channel_mosaic.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>

#include "cli/tool_output.h"

namespace ostrel_tool {

namespace {
constexpr int kTilesPerRow = 5;
constexpr int kGap = 4;
constexpr int kCaption = 16;
}  // namespace

std::string channel_name(uint32_t channel) {
    static const char *const names[] = {"L", "a", "b", "gradient"};
    if (channel < 4) {
        return names[channel];
    }
    if (channel < 10) {
        return "orient " + std::to_string(channel - 4);
    }
    return "channel " + std::to_string(channel);
}

cv::Mat channel_plane(const FeatureMapView &map, uint32_t channel) {
    cv::Mat plane(static_cast<int>(map.rows), static_cast<int>(map.columns), CV_8UC1);
    for (uint32_t y = 0; y < map.rows; ++y) {
        uint8_t *row = plane.ptr<uint8_t>(static_cast<int>(y));
        for (uint32_t x = 0; x < map.columns; ++x) {
            row[x] = map.at(channel, x, y);
        }
    }
    return plane;
}

cv::Mat channel_mosaic(const FeatureMapView &map, int scale, bool stretch) {
    scale = std::max(scale, 1);
    const int tile_w = static_cast<int>(map.columns) * scale;
    const int tile_h = static_cast<int>(map.rows) * scale;
    const int cell_w = std::max(tile_w, 60);
    const int count = static_cast<int>(map.channels);
    const int per_row = std::max(std::min(count, kTilesPerRow), 1);
    const int tile_rows = std::max((count + per_row - 1) / per_row, 1);
    const int width = kGap + per_row * (cell_w + kGap);
    const int height = kGap + tile_rows * (kCaption + tile_h + kGap);
    cv::Mat mosaic(height, width, CV_8UC3, cv::Scalar(40, 40, 40));
    for (int c = 0; c < count; ++c) {
        cv::Mat plane = channel_plane(map, static_cast<uint32_t>(c));
        double max_value = 0.0;
        cv::minMaxLoc(plane, nullptr, &max_value);
        std::string caption = channel_name(static_cast<uint32_t>(c));
        if (stretch && max_value > 0.0) {
            plane.convertTo(plane, CV_8U, 255.0 / max_value);
            caption += strformat(" (max %d)", static_cast<int>(max_value));
        }
        cv::Mat big;
        cv::resize(plane, big, cv::Size(tile_w, tile_h), 0, 0, cv::INTER_NEAREST);
        cv::Mat big_bgr;
        cv::cvtColor(big, big_bgr, cv::COLOR_GRAY2BGR);
        const int left = kGap + (c % per_row) * (cell_w + kGap);
        const int top = kGap + (c / per_row) * (kCaption + tile_h + kGap);
        if (tile_w > 0 && tile_h > 0) {
            big_bgr.copyTo(mosaic(cv::Rect(left, top + kCaption, tile_w, tile_h)));
        }
        cv::putText(mosaic, caption, cv::Point(left + 1, top + kCaption - 4), cv::FONT_HERSHEY_SIMPLEX, 0.4,
                    cv::Scalar(230, 230, 230), 1, cv::LINE_AA);
    }
    return mosaic;
}

nlohmann::ordered_json map_description(const FeatureMapView &map, bool padded) {
    nlohmann::ordered_json j;
    j["channels"] = map.channels;
    j["columns"] = map.columns;
    j["rows"] = map.rows;
    j["padded"] = padded;
    return j;
}

}  // namespace ostrel_tool
