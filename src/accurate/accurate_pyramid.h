// accurate_pyramid: one picture at every searched object size - the
// feature map of each working picture, optionally its mirror image too,
// and the Lab planes at the marked size (for the colour classes).
#pragma once

#include <cstdint>
#include <vector>

#include "acf/chn_image.h"
#include "acf/feature_map.h"
#include "acf/picture_resample.h"
#include "accurate/working_picture.h"

namespace ostrel {

struct pyramid_level {
    double size_factor = 1.0;  // objects this many times the marked size
    float scale_x = 0.0f;      // working pixels per picture pixel
    float scale_y = 0.0f;
    // Cells added on each side of the maps, so that windows reach past the
    // picture's edge.
    int32_t pad_columns = 0;
    int32_t pad_rows = 0;
    feature_map map;
    feature_map mirrored;      // the mirror image's map (training only)
};

// Contrast normalisation of the gradient planes (radius < 0: none).
struct gradient_normalisation {
    int32_t radius = -1;
    int32_t floor = 8;
    int32_t gain = 64;
    bool append = false;
    int32_t channel_set = 0;  // 0: the classic planes; 1: accurate_channel_map
};

struct accurate_pyramid {
    int32_t picture_columns = 0;
    int32_t picture_rows = 0;
    std::vector<pyramid_level> levels;
    chn_image8 lab;  // Lab record at the marked size (record terms)
    int32_t marked_level = 0;

    bool empty() const { return levels.empty(); }
};

// Builds the levels for the given size factors from a picture whose
// working size at the marked size is base_columns x base_rows. Levels whose
// working picture would be smaller than 2 x 2 are left out.
accurate_pyramid build_accurate_pyramid(const split_picture &picture, int32_t base_columns, int32_t base_rows,
                                        const std::vector<double> &size_factors, int32_t marked_index,
                                        bool with_mirror, int32_t pad_columns, int32_t pad_rows,
                                        const gradient_normalisation &norm, picture_resample_scratch &scratch);

}  // namespace ostrel
