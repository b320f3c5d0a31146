#include "acf/fixed_point_factor.h"

#include <cmath>
#include <limits>

namespace ostrel {
namespace acf_helper {

int32_t truncate_saturated(float v) {
    if (std::isnan(v)) {
        return 0;
    }
    if (v >= 2147483648.0f) {
        return std::numeric_limits<int32_t>::max();
    }
    if (v <= -2147483648.0f) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(v);
}

// The division by 1.000001 makes the factor slightly smaller on purpose:
// 8191 instead of 8192 for 1.0, which is why a 255 plane halved in both
// directions comes out as 254. Features and trained models depend on it.
int32_t resample_factor_q13(float r) {
    const int32_t r13 = truncate_saturated(r * 8192.0f);
    return truncate_saturated(static_cast<float>(r13) / 1.000001f);
}

int32_t convert_factor_q14(float r) { return truncate_saturated(r * 16384.0f); }

}  // namespace acf_helper
}  // namespace ostrel
