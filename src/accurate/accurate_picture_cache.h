// The last picture the accurate profile searched, per thread.
//
// Kept apart from the classic profile's record: the two compute different
// features, so an engine of one profile never reads the other's. The record
// is keyed by the picture key and by everything that shapes the features
// (the working size and the searched sizes), so two accurate engines with
// different models on one thread recompute rather than reuse.
#pragma once

#include <cstdint>
#include <vector>

#include "accurate/accurate_pyramid.h"

namespace ostrel {

struct accurate_picture_key {
    int64_t image_key = -1;
    int32_t picture_columns = 0;
    int32_t picture_rows = 0;
    pyramid_request request;  // working size, searched sizes, padding, channel recipe

    bool operator==(const accurate_picture_key &o) const {
        const pyramid_request &a = request;
        const pyramid_request &b = o.request;
        return image_key == o.image_key && picture_columns == o.picture_columns && picture_rows == o.picture_rows &&
               a.base_columns == b.base_columns && a.base_rows == b.base_rows && a.size_factors == b.size_factors &&
               a.marked_index == b.marked_index && a.with_mirror == b.with_mirror && a.pad_columns == b.pad_columns &&
               a.pad_rows == b.pad_rows && a.recipe.norm_radius == b.recipe.norm_radius &&
               a.recipe.norm_floor == b.recipe.norm_floor && a.exact_every == b.exact_every &&
               a.approximation_exponent_permille == b.approximation_exponent_permille &&
               a.keep_exact_lab == b.keep_exact_lab && a.ties == b.ties;
    }
};

struct accurate_last_picture {
    bool valid = false;
    accurate_picture_key key;
    accurate_pyramid pyramid;

    bool holds(const accurate_picture_key &k) const { return valid && key == k; }
    void forget() {
        valid = false;
        pyramid = accurate_pyramid{};
    }
};

// This thread's record.
accurate_last_picture &thread_accurate_last_picture();

}  // namespace ostrel
