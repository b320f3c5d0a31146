// Pictures of the channel feature map: what the detector sees.
//
// The library hands out the scale-0 map as bytes stored channel by channel,
// each channel column by column: channel c at map column x, row y is
// bytes[c * columns * rows + x * rows + y]. Channels 0..2 are L, a, b; 3 is
// the gradient magnitude; 4..9 are the oriented-gradient histograms.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>

namespace ostrel_tool {

struct FeatureMapView {
    const uint8_t *data = nullptr;
    uint32_t channels = 0;
    uint32_t columns = 0;
    uint32_t rows = 0;

    uint8_t at(uint32_t c, uint32_t x, uint32_t y) const {
        return data[static_cast<size_t>(c) * columns * rows + static_cast<size_t>(x) * rows + y];
    }
};

// "L", "a", "b", "gradient", "orient 0".."orient 5"; "channel <c>" beyond.
std::string channel_name(uint32_t channel);

// One channel as a picture: rows x columns, 8-bit, one grey value per cell.
cv::Mat channel_plane(const FeatureMapView &map, uint32_t channel);

// All channels side by side, five to a row, each enlarged scale times
// (nearest neighbour) under a caption band with its name, on a dark
// background; 8-bit BGR. With stretch every channel is scaled so that its
// largest value shows white (the caption then gives that value), otherwise
// the bytes are shown as they are.
cv::Mat channel_mosaic(const FeatureMapView &map, int scale, bool stretch);

// {"channels":C,"columns":W,"rows":H,"padded":padded}
nlohmann::ordered_json map_description(const FeatureMapView &map, bool padded);

}  // namespace ostrel_tool
