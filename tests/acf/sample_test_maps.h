// Hand-made feature maps and an independent model of the random-negative
// draws, shared by the sample and training-matrix tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "acf/feature_map.h"
#include "acf/training_sample.h"
#include "ostrel_alg.h"

namespace ostrel_test {

// A map whose cells tell where they are: channel 0 holds the map column,
// channel 1 the map row, channel 2 a value that differs between (x, y) and
// (y, x). Extents up to 256 so that the positions fit in a byte.
inline ostrel::feature_map make_position_map(int32_t columns, int32_t rows) {
    ostrel::feature_map map;
    map.channels = 3;
    map.columns = columns;
    map.rows = rows;
    map.data.resize(map.plane_size() * 3);
    for (int32_t x = 0; x < columns; ++x) {
        for (int32_t y = 0; y < rows; ++y) {
            map.data[map.index(0, x, y)] = static_cast<uint8_t>(x);
            map.data[map.index(1, x, y)] = static_cast<uint8_t>(y);
            map.data[map.index(2, x, y)] = static_cast<uint8_t>((x * 7 + y * 13 + 5) % 251);
        }
    }
    return map;
}

inline ostrel_alg_box make_box(int32_t x, int32_t y, int32_t width, int32_t height, int32_t label) {
    ostrel_alg_box box{};
    box.x = x;
    box.y = y;
    box.width = width;
    box.height = height;
    box.label = label;
    return box;
}

// The window a crop of a position map came from: channel 0 of its first cell
// is the column, channel 1 the row.
inline ostrel::window_rect window_of_position_crop(const std::vector<float> &features, int32_t width, int32_t height) {
    ostrel::window_rect w;
    w.x = static_cast<int32_t>(features.at(0));
    w.y = static_cast<int32_t>(features.at(static_cast<size_t>(width) * height));
    w.width = width;
    w.height = height;
    return w;
}

inline float reference_overlap(const ostrel::window_rect &a, const ostrel::window_rect &b) {
    const int32_t left = std::max(a.x, b.x);
    const int32_t top = std::max(a.y, b.y);
    const int32_t right = std::min(a.x + a.width, b.x + b.width);
    const int32_t bottom = std::min(a.y + a.height, b.y + b.height);
    const int32_t inter = (right > left && bottom > top) ? (right - left) * (bottom - top) : 0;
    return static_cast<float>(inter) / static_cast<float>(a.width * a.height + b.width * b.height - inter);
}

// The windows that ten draws from srand(seed) + rand() accept: centre
// column then centre row, size of the first obstacle, inside the map (edges
// may be touched), overlapping no obstacle by more than 0.3.
inline std::vector<ostrel::window_rect> reference_random_negatives(unsigned seed, int32_t columns, int32_t rows,
                                                                   const std::vector<ostrel::window_rect> &obstacles) {
    std::srand(seed);
    const int32_t w = obstacles.front().width;
    const int32_t h = obstacles.front().height;
    std::vector<ostrel::window_rect> accepted;
    while (accepted.size() < 10) {
        const int32_t cx = std::rand() % columns;
        const int32_t cy = std::rand() % rows;
        const ostrel::window_rect c{cx - w / 2, cy - h / 2, w, h};
        if (c.x < 0 || c.y < 0 || c.x + w > columns || c.y + h > rows) continue;
        bool blocked = false;
        for (const auto &p : obstacles) blocked = blocked || reference_overlap(c, p) > 0.3f;
        if (!blocked) accepted.push_back(c);
    }
    return accepted;
}

}  // namespace ostrel_test
