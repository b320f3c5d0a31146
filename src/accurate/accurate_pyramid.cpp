#include "accurate/accurate_pyramid.h"

#include <cmath>

#include "accurate/accurate_channels.h"
#include "accurate/scale_set.h"

namespace ostrel {

namespace {

// The colour planes continue past the edge; the gradient planes are 0 there.
constexpr int32_t kReplicatedPlanes = 3;

feature_map planes(const chn_image8 &lab, const gradient_normalisation &norm) {
    if (norm.channel_set == 1) {
        channel_recipe recipe;
        recipe.norm_radius = norm.radius;
        recipe.norm_floor = norm.floor;
        recipe.magnitude_gain = norm.gain;
        recipe.histogram_gain = norm.gain;
        return accurate_channel_map(lab, recipe);
    }
    feature_map map = lab_channel_map(lab);
    if (norm.radius >= 0) normalise_gradients(map, norm.radius, norm.floor, norm.gain, norm.append);
    return map;
}

}  // namespace

accurate_pyramid build_accurate_pyramid(const split_picture &picture, int32_t base_columns, int32_t base_rows,
                                        const std::vector<double> &size_factors, int32_t marked_index,
                                        bool with_mirror, int32_t pad_columns, int32_t pad_rows,
                                        const gradient_normalisation &norm, picture_resample_scratch &scratch) {
    accurate_pyramid out;
    out.picture_columns = picture.columns();
    out.picture_rows = picture.rows();
    if (out.picture_columns < 1 || out.picture_rows < 1) {
        return out;
    }
    for (size_t k = 0; k < size_factors.size(); ++k) {
        const double s = size_factors[k];
        const int32_t columns = scaled_working_side(base_columns, 1.0, s);
        const int32_t rows = scaled_working_side(base_rows, 1.0, s);
        chn_image8 lab = working_lab(picture, columns, rows, scratch);
        if (lab.empty()) {
            continue;
        }
        pyramid_level level;
        level.size_factor = s;
        level.scale_x = static_cast<float>(columns) / static_cast<float>(out.picture_columns);
        level.scale_y = static_cast<float>(rows) / static_cast<float>(out.picture_rows);
        level.pad_columns = pad_columns;
        level.pad_rows = pad_rows;
        feature_map map = planes(lab, norm);
        level.map = pad_map(map, pad_columns, pad_rows, kReplicatedPlanes);
        if (with_mirror) {
            feature_map mirrored = planes(mirror_columns(lab), norm);
            level.mirrored = pad_map(mirrored, pad_columns, pad_rows, kReplicatedPlanes);
        }
        if (static_cast<int32_t>(k) == marked_index) {
            out.marked_level = static_cast<int32_t>(out.levels.size());
            out.lab = std::move(lab);
        }
        out.levels.push_back(std::move(level));
    }
    return out;
}

}  // namespace ostrel
