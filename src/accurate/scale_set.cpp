#include "accurate/scale_set.h"

#include <algorithm>
#include <cmath>

namespace ostrel {

namespace {

int32_t scale_count(const accurate_settings &settings) {
    return std::min(std::max(settings.scales, 1), kMaxSearchScales);
}

}  // namespace

std::vector<double> search_scales(const accurate_settings &settings) {
    const int32_t n = scale_count(settings);
    const double step = std::max(settings.scale_step_percent, 101) / 100.0;
    std::vector<double> out;
    for (int32_t k = 0; k < n; ++k) {
        out.push_back(std::pow(step, k - (n - 1) / 2.0));
    }
    return out;
}

int32_t marked_scale_index(const accurate_settings &settings) { return (scale_count(settings) - 1) / 2; }

int32_t scaled_working_side(int32_t side, double scale, double size_factor) {
    const double v = side * scale / size_factor / 2.0;
    return std::max(2, 2 * static_cast<int32_t>(std::floor(v + 0.5)));
}

}  // namespace ostrel
