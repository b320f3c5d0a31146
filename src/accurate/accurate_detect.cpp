#include "accurate/accurate_detect.h"

#include <algorithm>
#include <cmath>

#include "accurate/accurate_trainer.h"
#include "common/box_geometry.h"

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

float margin_confidence(float margin, float offset) {
    return static_cast<float>(1.0 / (1.0 + std::exp(-static_cast<double>(margin - offset))));
}

}  // namespace ostrel
