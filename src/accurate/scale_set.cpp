#include "accurate/scale_set.h"

#include <algorithm>
#include <cmath>

namespace ostrel {

namespace {

int32_t steps(const accurate_settings &settings) { return std::min(std::max(settings.size_steps, 0), kMaxSizeSteps); }

}  // namespace

std::vector<double> search_scales(const accurate_settings &settings) {
    const int32_t n = steps(settings);
    const double step = std::max(settings.size_step_percent, 101) / 100.0;
    std::vector<double> out;
    for (int32_t k = -n; k <= n; ++k) {
        out.push_back(std::pow(step, k));
    }
    return out;
}

int32_t marked_scale_index(const accurate_settings &settings) { return steps(settings); }

int32_t scaled_working_side(int32_t side, double size_factor) {
    const double v = side / size_factor / 2.0;
    return std::max(2, 2 * static_cast<int32_t>(std::floor(v + 0.5)));
}

}  // namespace ostrel
