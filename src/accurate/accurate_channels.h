// accurate_channels: the accurate profile's ten channel planes.
//
// The same planes as the classic features - L, a and b, gradient magnitude
// and six orientation histograms, at half the working resolution - with
// two differences that matter for recognition: the gradient magnitude is
// linear (the classic plane holds its square, which makes faint edges
// vanish next to strong ones), and it can be divided by the mean magnitude
// around each pixel, so that an edge counts by its shape rather than by its
// contrast (a white and a black object of one shape then look alike).
// Integer arithmetic throughout, built on the library's gradient and
// histogram kernels.
#pragma once

#include <cstdint>

#include "acf/chn_image.h"
#include "acf/feature_map.h"

namespace ostrel {

// Pixels per feature cell of the working pictures.
inline constexpr int32_t kAccurateShrink = 2;
// Orientation histograms per cell, and byte planes per cell: L, a, b, the
// gradient magnitude and the orientations.
inline constexpr int32_t kAccurateOrientations = 6;
inline constexpr int32_t kAccurateChannels = 3 + 1 + kAccurateOrientations;

struct channel_recipe {
    // Radius (working pixels) of the mean the magnitude is divided by; -1:
    // no division.
    int32_t norm_radius = 6;
    // Added to that mean (in units of the difference of neighbouring
    // pixels), so that flat areas are not blown up.
    int32_t norm_floor = 2;
};

// The planes of a Lab record (record terms, width = picture rows) as a map
// in picture terms, half the record's size (odd sides lose their last
// pixel). Empty for a record smaller than 2 x 2 pixels.
feature_map accurate_channel_map(const chn_image8 &lab, const channel_recipe &recipe);

}  // namespace ostrel
