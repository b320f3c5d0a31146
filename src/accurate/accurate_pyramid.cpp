#include "accurate/accurate_pyramid.h"

#include "accurate/scale_set.h"

namespace ostrel {

namespace {

// The colour planes continue past the edge; the gradient planes are 0 there
// (no edge runs outside the picture).
constexpr int32_t kReplicatedPlanes = 3;

}  // namespace

accurate_pyramid build_accurate_pyramid(const split_picture &picture, const pyramid_request &request,
                                        picture_resample_scratch &scratch) {
    accurate_pyramid out;
    out.picture_columns = picture.columns();
    out.picture_rows = picture.rows();
    if (out.picture_columns < 1 || out.picture_rows < 1) {
        return out;
    }
    for (size_t k = 0; k < request.size_factors.size(); ++k) {
        const double s = request.size_factors[k];
        const int32_t columns = scaled_working_side(request.base_columns, s);
        const int32_t rows = scaled_working_side(request.base_rows, s);
        chn_image8 lab = working_lab(picture, columns, rows, scratch);
        if (lab.empty()) {
            continue;
        }
        pyramid_level level;
        level.size_factor = s;
        level.scale_x = static_cast<float>(columns) / static_cast<float>(out.picture_columns);
        level.scale_y = static_cast<float>(rows) / static_cast<float>(out.picture_rows);
        level.pad_columns = request.pad_columns;
        level.pad_rows = request.pad_rows;
        level.map = pad_map(accurate_channel_map(lab, request.recipe), request.pad_columns, request.pad_rows,
                            kReplicatedPlanes);
        if (request.with_mirror) {
            level.mirrored = pad_map(accurate_channel_map(mirror_columns(lab), request.recipe), request.pad_columns,
                                     request.pad_rows, kReplicatedPlanes);
        }
        if (static_cast<int32_t>(k) == request.marked_index) {
            out.marked_level = static_cast<int32_t>(out.levels.size());
            out.lab = std::move(lab);
        }
        out.levels.push_back(std::move(level));
    }
    return out;
}

}  // namespace ostrel
