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

namespace {

// 2^(r / n) for 0 <= r < n: Newton's method on y^n = 2^r from 1 + r / n,
// which lies above the root (2^x <= 1 + x on [0, 1]); from above the
// iteration falls monotonically, so it stops at the first step that no
// longer lowers y, after the same operations on every machine.
double root_of_two(int32_t r, int32_t n) {
    if (r == 0) return 1.0;
    const double target = std::ldexp(1.0, r);
    double y = 1.0 + static_cast<double>(r) / n;
    for (int32_t iteration = 0; iteration < 64; ++iteration) {
        double below = 1.0;  // y^(n-1)
        for (int32_t i = 1; i < n; ++i) below *= y;
        const double next = y - (below * y - target) / (n * below);
        if (!(next < y)) break;
        y = next;
    }
    return y;
}

}  // namespace

double octave_factor(int32_t steps, int32_t per_octave) {
    const int32_t n = std::max(per_octave, 1);
    // Floor division, so that the root's exponent r is in 0 .. n - 1.
    const int32_t octaves = steps >= 0 ? steps / n : -((-steps + n - 1) / n);
    const int32_t r = steps - octaves * n;
    return std::ldexp(root_of_two(r, n), octaves);
}

int32_t scaled_working_side(int32_t side, double size_factor, halfway tie) {
    const double v = side / size_factor / 2.0;
    const double halves = tie == halfway::down ? std::ceil(v - 0.5) : std::floor(v + 0.5);
    return std::max(2, 2 * static_cast<int32_t>(halves));
}

}  // namespace ostrel
