// sensitivity: how a host's sensitivity (0..100, higher finds more) becomes
// the confidence percent a box needs. The engine sets its threshold with it
// and the interface reports it to hosts, so both say the same.
#pragma once

#include <cstdint>

#include "ostrel_alg.h"

namespace ostrel {

// The header's range: hosts read it there, the library checks against it here.
inline constexpr uint32_t kMinSensitivity = OSTREL_ALG_MIN_SENSITIVITY;
inline constexpr uint32_t kMaxSensitivity = OSTREL_ALG_MAX_SENSITIVITY;
static_assert(kMinSensitivity == 0, "every unsigned sensitivity up to the maximum is taken");

// The confidence percent, 30..90, for a sensitivity of at most
// kMaxSensitivity: 90 at 0, 50 at 79 and 80, 30 at 100.
int32_t confidence_of_sensitivity(uint32_t sensitivity);

}  // namespace ostrel
