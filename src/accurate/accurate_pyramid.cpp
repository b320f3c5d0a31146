#include "accurate/accurate_pyramid.h"

#include <cmath>

#include "accurate/scale_set.h"

namespace ostrel {

accurate_pyramid build_accurate_pyramid(const split_picture &picture, int32_t base_columns, int32_t base_rows,
                                        const std::vector<double> &size_factors, int32_t marked_index,
                                        bool with_mirror, picture_resample_scratch &scratch) {
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
        level.map = lab_channel_map(lab);
        if (with_mirror) {
            level.mirrored = lab_channel_map(mirror_columns(lab));
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
