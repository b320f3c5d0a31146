// scale_set: the object sizes the accurate profile searches, and the
// working picture of each.
//
// Size k of n is step^(k - (n - 1) / 2) times the marked size: the middle
// one is the marked size itself (n odd), the others spread geometrically
// around it. A picture is searched for objects s times the marked size by
// resampling it s times smaller than the working size.
#pragma once

#include <cstdint>
#include <vector>

#include "accurate/accurate_settings.h"

namespace ostrel {

// At most this many sizes are searched.
inline constexpr int32_t kMaxSearchScales = 9;

// The size factors, smallest first (settings.scales of them, 1 to 9).
std::vector<double> search_scales(const accurate_settings &settings);

// Index of the marked size (the factor 1) among search_scales().
int32_t marked_scale_index(const accurate_settings &settings);

// An even working side for a picture side at `scale` working pixels per
// picture pixel, divided by the size factor; at least 2.
int32_t scaled_working_side(int32_t side, double scale, double size_factor);

}  // namespace ostrel
