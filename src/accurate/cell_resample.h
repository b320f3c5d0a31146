// cell_resample: shrinks the planes of a channel map by area averaging,
// for the approximated levels of the fast feature pyramid.
//
// Every target cell is the mean of the source cells it covers, each
// weighted by the part of it that falls inside (the source and target maps
// span the same picture). Integer arithmetic with rounding: a plane of
// one value keeps that value exactly, and the planes' means are kept
// (the library's picture resampler truncates at every step, which lowers a
// map's values by about one; trained weights would read that as a
// difference between the exact and the approximated levels).
#pragma once

#include <cstdint>

#include "acf/feature_map.h"

namespace ostrel {

// The map's planes resampled to columns x rows cells, each no larger than
// the source's; an empty map when a size is below 1 or above the source's.
// plane_gains, when given, holds a factor per plane in Q15 (32768 = 1, at
// most 2): the plane is multiplied by it on the way (bytes above 255 are
// 255). `faster` lets processors with AVX2 take the vector loop, which
// gives the same bytes.
feature_map shrink_cells(const feature_map &source, int32_t columns, int32_t rows,
                         const uint32_t *plane_gains = nullptr, bool faster = true);

}  // namespace ostrel
