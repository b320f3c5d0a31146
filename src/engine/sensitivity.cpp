#include "engine/sensitivity.h"

namespace ostrel {

int32_t confidence_of_sensitivity(uint32_t sensitivity) {
    const int32_t v = static_cast<int32_t>(sensitivity);
    // Single precision, truncated toward zero, as models were always tuned
    // with: the steep part above 80 gives one percent per step.
    if (v < 80) {
        return static_cast<int32_t>(50.0f - static_cast<float>(80 - v) * -40.0f / 80.0f);
    }
    return static_cast<int32_t>(50.0f - static_cast<float>(v - 80) * 20.0f / 20.0f);
}

}  // namespace ostrel
