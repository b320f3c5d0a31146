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

// 2^(steps / per_octave) (per_octave >= 1; steps may be negative), the
// same bits on every platform: whole octaves are exact powers of two, and
// the root of two between them comes from additions, multiplications and
// divisions alone, which IEEE arithmetic rounds the same everywhere.
// (std::pow and std::exp may differ in their last bit between C
// libraries, and a level factor one bit above 2 turns a working side of
// exactly 55.5 cells into 55 on one platform and 56 on another.)
double octave_factor(int32_t steps, int32_t per_octave);

// Which way a working side goes that lands exactly halfway between two
// even sides (side / size_factor an odd whole number). With exact octave
// factors this is common: a side of 4m + 2 pixels halves to 2m + 1.
enum class halfway {
    up,    // to the larger side: plain rounding
    down,  // to the smaller side
};

// An even working side, at least 2: side / size_factor rounded to the
// nearest even number, exactly halfway as `tie` says. Every working side of
// a picture, of a single class's levels and of the shared grid of several
// classes alike, comes from here.
int32_t scaled_working_side(int32_t side, double size_factor, halfway tie = halfway::up);

}  // namespace ostrel
