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
    int32_t base_columns = 0;
    int32_t base_rows = 0;
    std::vector<double> size_factors;
    int32_t pad_columns = 0;
    int32_t pad_rows = 0;
    int32_t norm_radius = 0, norm_floor = 0, norm_gain = 0;

    bool operator==(const accurate_picture_key &o) const {
        return image_key == o.image_key && picture_columns == o.picture_columns && picture_rows == o.picture_rows &&
               base_columns == o.base_columns && base_rows == o.base_rows && size_factors == o.size_factors &&
               pad_columns == o.pad_columns && pad_rows == o.pad_rows &&
               norm_radius == o.norm_radius && norm_floor == o.norm_floor && norm_gain == o.norm_gain;
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
