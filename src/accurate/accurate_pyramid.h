// accurate_pyramid: one picture at every searched object size - the
// feature map of each working picture (with its mirror image, for
// training), padded so that windows reach past the picture's edge, and the
// Lab planes at the marked size (for the colour classes).
#pragma once

#include <cstdint>
#include <vector>

#include "acf/chn_image.h"
#include "acf/feature_map.h"
#include "acf/picture_resample.h"
#include "accurate/accurate_channels.h"
#include "accurate/scale_set.h"
#include "accurate/working_picture.h"

namespace ostrel {

struct pyramid_level {
    double size_factor = 1.0;  // objects this many times the marked size (the base size's)
    float scale_x = 0.0f;      // working pixels per picture pixel
    float scale_y = 0.0f;
    // Cells added on each side of the maps.
    int32_t pad_columns = 0;
    int32_t pad_rows = 0;
    feature_map map;
    feature_map mirrored;  // the mirror image's map (training only)
    // Computed from the picture (true) or approximated from a finer level's
    // channels (false).
    bool exact = true;
    // The level's Lab planes (record terms), when the request keeps them.
    chn_image8 lab;
};

struct accurate_pyramid {
    int32_t picture_columns = 0;
    int32_t picture_rows = 0;
    std::vector<pyramid_level> levels;
    chn_image8 lab;  // Lab record at the marked size (record terms)
    int32_t marked_level = 0;

    bool empty() const { return levels.empty(); }
};

struct pyramid_request {
    int32_t base_columns = 0;  // working size at the marked size
    int32_t base_rows = 0;
    std::vector<double> size_factors;
    int32_t marked_index = 0;  // the factor 1 among them
    bool with_mirror = false;
    int32_t pad_columns = 0;
    int32_t pad_rows = 0;
    channel_recipe recipe;
    // 0: every level is computed from the picture. n > 0: the fast feature
    // pyramid - with the factors in rising order, levels 0, n, 2n ... are
    // computed from the picture and each level between is approximated from
    // the exact level before it (see approximate_level).
    int32_t exact_every = 0;
    // The power law of the approximation (thousandths; see
    // accurate_settings::approximation_exponent_permille).
    int32_t approximation_exponent_permille = 0;
    // Every exact level keeps its Lab planes (for the colour classes).
    bool keep_exact_lab = false;
    // The levels' working sides exactly halfway between two even sides go
    // this way (scaled_working_side).
    halfway ties = halfway::up;
};

// The fast feature pyramid's step: the channel map (unpadded) of a level
// `ratio` (> 1) times finer, resampled to columns x rows cells; the
// gradient planes (3 onwards) are multiplied by ratio^(-exponent/1000) in
// fixed point. The colour planes are averages and scale as they are.
feature_map approximate_level(const feature_map &finer, int32_t columns, int32_t rows, double ratio,
                              int32_t exponent_permille);

// Builds the levels of a picture. Levels whose working picture would be
// smaller than 2 x 2 pixels are left out.
accurate_pyramid build_accurate_pyramid(const split_picture &picture, const pyramid_request &request,
                                        picture_resample_scratch &scratch);

}  // namespace ostrel
