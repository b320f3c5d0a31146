#include "accurate/accurate_pyramid.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "accurate/cell_resample.h"
#include "accurate/scale_set.h"
#include "common/portable_math.h"

namespace ostrel {

namespace {

// The colour planes continue past the edge; the gradient planes are 0 there
// (no edge runs outside the picture).
constexpr int32_t kReplicatedPlanes = 3;
// Planes from this one on hold gradients (magnitude, orientation histograms).
constexpr int32_t kFirstGradientPlane = 3;

}  // namespace

feature_map approximate_level(const feature_map &finer, int32_t columns, int32_t rows, double ratio,
                              int32_t exponent_permille) {
    if (finer.empty() || columns < 1 || rows < 1) {
        return feature_map{};
    }
    // The power law's gain of the gradient planes, in Q15 (at most 2).
    std::vector<uint32_t> gains(static_cast<size_t>(std::max(finer.channels, 0)), 1u << 15);
    if (exponent_permille != 0 && ratio > 0.0) {
        const double gain = std::min(2.0, portable_exp(portable_log(ratio) * (-exponent_permille / 1000.0)));
        for (int32_t c = kFirstGradientPlane; c < finer.channels; ++c) {
            gains[static_cast<size_t>(c)] = static_cast<uint32_t>(std::lround(gain * (1 << 15)));
        }
    }
    return shrink_cells(finer, columns, rows, gains.data());
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
    // The BGR working picture of the last exact level: with approximated
    // levels the next exact one (an octave further) is resampled from it,
    // a quarter of the pixels, rather than from the whole picture.
    chn_image8 exact_bgr;
    for (size_t k = 0; k < request.size_factors.size(); ++k) {
        const double s = request.size_factors[k];
        const int32_t columns = scaled_working_side(request.base_columns, s, request.ties);
        const int32_t rows = scaled_working_side(request.base_rows, s, request.ties);
        const bool exact =
            request.exact_every <= 0 || k % static_cast<size_t>(request.exact_every) == 0 || exact_map.empty();
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
            chn_image8 bgr = request.exact_every > 0 && !exact_bgr.empty()
                                 ? shrink_record(exact_bgr, columns, rows)
                                 : working_bgr(picture, columns, rows, scratch);
            lab = lab_of_record(bgr);
            if (request.exact_every > 0) exact_bgr = std::move(bgr);
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
            map = approximate_level(exact_map, columns / 2, rows / 2, ratio, request.approximation_exponent_permille);
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
