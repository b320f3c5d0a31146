// object_window: a marked object as a positive at the model's one window,
// cut at exactly its own size.
//
// The part of the picture around the box is resampled so that the box's
// area fills the window's object (window_shape.h), its channels are
// computed as a search level's are, and the window centred on the box is
// cut out. That is the level on which the object has the window's size,
// made for this object alone: a small crop rather than the whole picture,
// so that twenty objects of twenty sizes cost about as much as one level.
// The crop reaches settings-independent context cells beyond the window so
// that the channel normalisation sees what it sees on a whole picture; where
// the picture ends, the map is padded as the search's levels are (colour
// repeated, no gradient), so objects cut by the edge are learnt as they
// are found.
#pragma once

#include <cstdint>
#include <vector>

#include "ostrel_alg.h"
#include "acf/picture_resample.h"
#include "accurate/accurate_channels.h"
#include "accurate/window_shape.h"
#include "accurate/working_picture.h"

namespace ostrel {

// Cells of picture around the window that the crop includes, where the
// picture has them (enough for the normalisation radius of 6 working
// pixels and the gradient's neighbours).
inline constexpr int32_t kObjectContextCells = 6;

// The window's bytes (window feature order, shape.features() of them) of
// the object in `box`, or of its mirror image; empty when the box is empty,
// lies wholly outside the picture, or its scale would need a working crop
// of more than max_pixels pixels.
std::vector<uint8_t> object_window(const split_picture &picture, const ostrel_alg_box &box, const window_shape &shape,
                                   const channel_recipe &recipe, bool mirrored, picture_resample_scratch &scratch,
                                   int64_t max_pixels = 1 << 22);

// The same window as an approximated level of the fast pyramid shows it:
// the crop's channels computed `finer_ratio` (>= 1) times finer and shrunk
// to the object's size (approximate_level, with the power law's exponent).
// finer_ratio 1 is object_window itself.
std::vector<uint8_t> object_window_approximated(const split_picture &picture, const ostrel_alg_box &box,
                                                const window_shape &shape, const channel_recipe &recipe, bool mirrored,
                                                double finer_ratio, int32_t exponent_permille,
                                                picture_resample_scratch &scratch, int64_t max_pixels = 1 << 22);

}  // namespace ostrel
