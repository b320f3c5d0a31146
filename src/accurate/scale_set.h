// scale_set: the object sizes the accurate profile searches.
//
// With n steps there are 2n + 1 sizes, step^k times the marked size for k
// = -n .. n: the middle one is the marked size itself. A picture is
// searched for objects f times the marked size by resampling it f times
// smaller than its working size.
#pragma once

#include <cstdint>
#include <vector>

#include "accurate/accurate_settings.h"

namespace ostrel {

// At most this many steps on each side of the marked size.
inline constexpr int32_t kMaxSizeSteps = 4;

// The size factors, smallest first.
std::vector<double> search_scales(const accurate_settings &settings);

// Index of the marked size (the factor 1) among search_scales().
int32_t marked_scale_index(const accurate_settings &settings);

// An even working side, at least 2: side / size_factor, rounded.
int32_t scaled_working_side(int32_t side, double size_factor);

}  // namespace ostrel
