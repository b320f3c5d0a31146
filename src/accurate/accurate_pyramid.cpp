#include "accurate/accurate_pyramid.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "accurate/cell_resample.h"
#include "accurate/scale_set.h"

namespace ostrel {

namespace {

// The colour planes continue past the edge; the gradient planes are 0 there
// (no edge runs outside the picture).
constexpr int32_t kReplicatedPlanes = 3;
// Planes from this one on hold gradients (magnitude, orientation histograms).
constexpr int32_t kFirstGradientPlane = 3;
// Fixed point of the approximation's gain.
constexpr int32_t kGainShift = 14;

}  // namespace

feature_map approximate_level(const feature_map &finer, int32_t columns, int32_t rows, double ratio,
                              int32_t exponent_permille) {
    feature_map out;
    if (finer.empty() || columns < 1 || rows < 1) {
        return out;
    }
    out = shrink_cells(finer, columns, rows);
    if (out.empty()) {
        return out;
    }
    if (exponent_permille != 0 && ratio > 0.0) {
        const double gain = std::pow(ratio, -exponent_permille / 1000.0);
        const int64_t q = std::llround(gain * (1 << kGainShift));
        for (int32_t c = kFirstGradientPlane; c < out.channels; ++c) {
            uint8_t *plane = out.data.data() + static_cast<size_t>(c) * out.plane_size();
            for (size_t i = 0; i < out.plane_size(); ++i) {
                const int64_t v = (plane[i] * q + (1 << (kGainShift - 1))) >> kGainShift;
                plane[i] = static_cast<uint8_t>(std::min<int64_t>(v, 255));
            }
        }
    }
    return out;
}

accurate_pyramid build_accurate_pyramid(const split_picture &picture, const pyramid_request &request,
                                        picture_resample_scratch &scratch) {
    accurate_pyramid out;
    out.picture_columns = picture.columns();
    out.picture_rows = picture.rows();
    if (out.picture_columns < 1 || out.picture_rows < 1) {
        return out;
    }
    // The unpadded maps of the last exact level, which the levels after it
    // are approximated from.
    feature_map exact_map;
    feature_map exact_mirrored;
    double exact_factor = 1.0;
    for (size_t k = 0; k < request.size_factors.size(); ++k) {
        const double s = request.size_factors[k];
        const int32_t columns = scaled_working_side(request.base_columns, s);
        const int32_t rows = scaled_working_side(request.base_rows, s);
        const bool exact = request.exact_every <= 0 || k % static_cast<size_t>(request.exact_every) == 0 ||
                           exact_map.empty();
        pyramid_level level;
        level.size_factor = s;
        level.scale_x = static_cast<float>(columns) / static_cast<float>(out.picture_columns);
        level.scale_y = static_cast<float>(rows) / static_cast<float>(out.picture_rows);
        level.pad_columns = request.pad_columns;
        level.pad_rows = request.pad_rows;
        level.exact = exact;
        chn_image8 lab;
        feature_map map;
        feature_map mirrored;
        if (exact) {
            lab = working_lab(picture, columns, rows, scratch);
            if (lab.empty()) {
                continue;
            }
            map = accurate_channel_map(lab, request.recipe);
            if (request.with_mirror) {
                mirrored = accurate_channel_map(mirror_columns(lab), request.recipe);
            }
            if (request.exact_every > 0) {
                exact_map = map;
                exact_mirrored = mirrored;
                exact_factor = s;
            }
        } else {
            const double ratio = s / exact_factor;
            map = approximate_level(exact_map, columns / 2, rows / 2, ratio,
                                    request.approximation_exponent_permille);
            if (map.empty()) {
                continue;
            }
            if (request.with_mirror) {
                mirrored = approximate_level(exact_mirrored, columns / 2, rows / 2, ratio,
                                             request.approximation_exponent_permille);
            }
        }
        level.map = pad_map(map, request.pad_columns, request.pad_rows, kReplicatedPlanes);
        if (request.with_mirror) {
            level.mirrored = pad_map(mirrored, request.pad_columns, request.pad_rows, kReplicatedPlanes);
        }
        if (static_cast<int32_t>(k) == request.marked_index) {
            out.marked_level = static_cast<int32_t>(out.levels.size());
            out.lab = lab.empty() ? out.lab : lab;
        }
        if (exact && request.keep_exact_lab) {
            level.lab = std::move(lab);
        }
        out.levels.push_back(std::move(level));
    }
    return out;
}

}  // namespace ostrel
