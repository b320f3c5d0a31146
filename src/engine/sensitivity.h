// sensitivity: how a host's sensitivity (0..100, higher finds more) becomes
// the confidence percent a box needs. The engine sets its threshold with it
// and the interface reports it to hosts, so both say the same.
#pragma once

#include <cstdint>

namespace ostrel {

inline constexpr uint32_t kMaxSensitivity = 100;

// The confidence percent, 30..90, for a sensitivity of at most
// kMaxSensitivity: 90 at 0, 50 at 79 and 80, 30 at 100.
int32_t confidence_of_sensitivity(uint32_t sensitivity);

}  // namespace ostrel
