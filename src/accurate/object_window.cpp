#include "accurate/object_window.h"

#include <algorithm>
#include <cmath>

#include "accurate/accurate_pyramid.h"
#include "accurate/window_sums.h"

namespace ostrel {

namespace {

// The colour planes continue past the edge; the gradient planes are 0 there
// (as on the search's padded levels).
constexpr int32_t kReplicatedPlanes = 3;

}  // namespace

std::vector<uint8_t> object_window(const split_picture &picture, const ostrel_alg_box &box, const window_shape &shape,
                                   const channel_recipe &recipe, bool mirrored, picture_resample_scratch &scratch,
                                   int64_t max_pixels) {
    return object_window_approximated(picture, box, shape, recipe, mirrored, 1.0, 0, scratch, max_pixels);
}

std::vector<uint8_t> object_window_approximated(const split_picture &picture, const ostrel_alg_box &box,
                                                const window_shape &shape, const channel_recipe &recipe, bool mirrored,
                                                double finer_ratio, int32_t exponent_permille,
                                                picture_resample_scratch &scratch, int64_t max_pixels) {
    finer_ratio = std::max(finer_ratio, 1.0);
    const int32_t columns = picture.columns();
    const int32_t rows = picture.rows();
    const double scale = scale_for_height(box_height(box, shape), shape);
    if (shape.empty() || columns < 1 || rows < 1 || !(scale > 0.0) || !std::isfinite(scale)) {
        return {};
    }
    // The crop: the window and its context around the box's centre, in
    // picture pixels, cut to the picture.
    const double centre_x = box.x + box.width / 2.0;
    const double centre_y = box.y + box.height / 2.0;
    const double half_x = (shape.columns / 2.0 + kObjectContextCells) * kAccurateShrink / scale;
    const double half_y = (shape.rows / 2.0 + kObjectContextCells) * kAccurateShrink / scale;
    const int32_t left = static_cast<int32_t>(std::max(0.0, std::floor(centre_x - half_x)));
    const int32_t top = static_cast<int32_t>(std::max(0.0, std::floor(centre_y - half_y)));
    const int32_t right = static_cast<int32_t>(std::min<double>(columns, std::ceil(centre_x + half_x)));
    const int32_t bottom = static_cast<int32_t>(std::min<double>(rows, std::ceil(centre_y + half_y)));
    if (right - left < 1 || bottom - top < 1) {
        return {};
    }
    const int32_t crop_columns = right - left;
    const int32_t crop_rows = bottom - top;
    // Even working sides, as every level has.
    const int32_t working_columns = std::max(2, 2 * static_cast<int32_t>(std::floor(crop_columns * scale / 2.0 + 0.5)));
    const int32_t working_rows = std::max(2, 2 * static_cast<int32_t>(std::floor(crop_rows * scale / 2.0 + 0.5)));
    // The finer crop the approximation starts from.
    const int32_t finer_columns =
        std::max(2, 2 * static_cast<int32_t>(std::floor(crop_columns * scale * finer_ratio / 2.0 + 0.5)));
    const int32_t finer_rows =
        std::max(2, 2 * static_cast<int32_t>(std::floor(crop_rows * scale * finer_ratio / 2.0 + 0.5)));
    if (static_cast<int64_t>(finer_columns) * finer_rows > max_pixels) {
        return {};
    }
    split_picture crop;
    for (int c = 0; c < 3; ++c) {
        crop.planes[c] = picture.planes[c](cv::Rect(left, top, crop_columns, crop_rows));
    }
    const bool approximated = finer_columns > working_columns || finer_rows > working_rows;
    chn_image8 lab = working_lab(crop, approximated ? finer_columns : working_columns,
                                 approximated ? finer_rows : working_rows, scratch);
    if (lab.empty()) {
        return {};
    }
    if (mirrored) {
        lab = mirror_columns(lab);
    }
    feature_map map = accurate_channel_map(lab, recipe);
    if (approximated && !map.empty()) {
        map = approximate_level(map, working_columns / 2, working_rows / 2,
                                static_cast<double>(finer_columns) / working_columns, exponent_permille);
    }
    if (map.empty()) {
        return {};
    }
    // The box's centre on the crop's map, in cells.
    const double sx = static_cast<double>(working_columns) / crop_columns / kAccurateShrink;
    const double sy = static_cast<double>(working_rows) / crop_rows / kAccurateShrink;
    double cell_x = (centre_x - left) * sx;
    if (mirrored) {
        cell_x = working_columns / static_cast<double>(kAccurateShrink) - cell_x;
    }
    const double cell_y = (centre_y - top) * sy;
    int32_t x = static_cast<int32_t>(std::floor(cell_x - shape.columns / 2.0 + 0.5));
    int32_t y = static_cast<int32_t>(std::floor(cell_y - shape.rows / 2.0 + 0.5));
    // Where the window leaves the map (the picture ended there), the map is
    // padded as a search level is.
    const int32_t pad_columns = std::max({0, -x, x + shape.columns - map.columns});
    const int32_t pad_rows = std::max({0, -y, y + shape.rows - map.rows});
    const int32_t pad = std::max(pad_columns, pad_rows);
    const feature_map padded = pad > 0 ? pad_map(map, pad, pad, kReplicatedPlanes) : map;
    x += pad;
    y += pad;
    if (x < 0 || y < 0 || x + shape.columns > padded.columns || y + shape.rows > padded.rows) {
        return {};
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(shape.features()));
    window_bytes(padded, x, y, shape.columns, shape.rows, bytes.data());
    return bytes;
}

}  // namespace ostrel
