#include "accurate/accurate_detect.h"

#include <algorithm>
#include <cmath>

#include "accurate/accurate_trainer.h"
#include "common/box_geometry.h"
#include "detect/color_labels.h"

namespace ostrel {

std::vector<margin_box> search_pyramid(const accurate_pyramid &pyramid, const accurate_geometry &geometry,
                                       const accurate_search &search, float floor_margin) {
    std::vector<margin_box> out;
    const double scale = search.weights->scale * search.sum_scale;
    for (const pyramid_level &level : pyramid.levels) {
        const window_sum_grid grid = window_sums(pair_cells(level.map), *search.weights);
        const double width = search.box_width * level.size_factor;
        const double height = search.box_height * level.size_factor;
        for (int32_t x = 0; x < grid.columns; ++x) {
            for (int32_t y = 0; y < grid.rows; ++y) {
                const float margin = static_cast<float>(grid.at(x, y) * scale + search.bias);
                if (margin < floor_margin) continue;
                double l, t, w, h;
                window_object_box(x, y, level, geometry, &l, &t, &w, &h);
                margin_box candidate;
                candidate.margin = margin;
                candidate.box.x = static_cast<int32_t>(std::floor(l + w / 2.0 - width / 2.0 + 0.5));
                candidate.box.y = static_cast<int32_t>(std::floor(t + h / 2.0 - height / 2.0 + 0.5));
                candidate.box.width = static_cast<int32_t>(std::floor(width + 0.5));
                candidate.box.height = static_cast<int32_t>(std::floor(height + 0.5));
                out.push_back(candidate);
            }
        }
    }
    return out;
}

std::vector<margin_box> suppress_by_margin(std::vector<margin_box> boxes, float max_overlap, size_t limit) {
    std::stable_sort(boxes.begin(), boxes.end(),
                     [](const margin_box &a, const margin_box &b) { return a.margin > b.margin; });
    std::vector<margin_box> kept;
    for (const margin_box &candidate : boxes) {
        if (kept.size() >= limit) break;
        bool suppressed = false;
        for (const margin_box &k : kept) {
            if (box_overlap(candidate.box, k.box) >= max_overlap) {
                suppressed = true;
                break;
            }
        }
        if (!suppressed) kept.push_back(candidate);
    }
    return kept;
}

float margin_confidence(float margin) {
    return static_cast<float>(1.0 / (1.0 + std::exp(-static_cast<double>(margin))));
}

ostrel_alg_box clip_to_picture(const ostrel_alg_box &box, int32_t width, int32_t height) {
    ostrel_alg_box out = box;
    const int64_t left = std::max<int64_t>(box.x, 0);
    const int64_t top = std::max<int64_t>(box.y, 0);
    const int64_t right = std::min<int64_t>(static_cast<int64_t>(box.x) + box.width, width);
    const int64_t bottom = std::min<int64_t>(static_cast<int64_t>(box.y) + box.height, height);
    out.x = static_cast<int32_t>(std::min<int64_t>(left, width - 1));
    out.y = static_cast<int32_t>(std::min<int64_t>(top, height - 1));
    out.width = static_cast<int32_t>(std::max<int64_t>(right - out.x, 1));
    out.height = static_cast<int32_t>(std::max<int64_t>(bottom - out.y, 1));
    return out;
}

void label_colours(const accurate_pyramid &pyramid, std::vector<ostrel_alg_box> &boxes) {
    if (pyramid.lab.empty() || pyramid.levels.empty()) return;
    const pyramid_level &level = pyramid.levels[static_cast<size_t>(pyramid.marked_level)];
    // The Lab record is the transposed working picture (its rows are the
    // picture's columns), so each box is scaled and transposed to match it.
    std::vector<ostrel_alg_box> transposed = boxes;
    for (ostrel_alg_box &b : transposed) {
        const int32_t x = static_cast<int32_t>(b.x * level.scale_x);
        const int32_t y = static_cast<int32_t>(b.y * level.scale_y);
        const int32_t w = std::max(1, static_cast<int32_t>(b.width * level.scale_x));
        const int32_t h = std::max(1, static_cast<int32_t>(b.height * level.scale_y));
        b.x = y;
        b.y = x;
        b.width = h;
        b.height = w;
    }
    lab_planes_view lab;
    lab.width = pyramid.lab.width;
    lab.height = pyramid.lab.height;
    lab.L = pyramid.lab.plane(0);
    lab.a = pyramid.lab.plane(1);
    lab.b = pyramid.lab.plane(2);
    labelColors(lab, lab.width, lab.height, transposed);
    for (size_t i = 0; i < boxes.size(); ++i) {
        boxes[i].color_main = transposed[i].color_main;
        boxes[i].color_second = transposed[i].color_second;
    }
}

}  // namespace ostrel
