#include "accurate/size_range.h"

#include <algorithm>
#include <cmath>

#include "accurate/scale_set.h"
#include "common/portable_math.h"

namespace ostrel {

namespace {

// Tolerance of comparisons between heights computed along different roads.
constexpr double kTolerance = 1e-9;

double margin_factor(const accurate_settings &settings) {
    // step^size_steps by repeated multiplication: the same bits everywhere.
    const double step = std::max(settings.search_margin_percent, 100) / 100.0;
    double factor = 1.0;
    for (int32_t k = 0; k < settings.size_steps; ++k) factor *= step;
    return factor;
}

// Windows of a map of `cells` cells along one axis, padded on both sides.
int64_t positions(int32_t working_side, int32_t pad, int32_t window) {
    return std::max<int64_t>(0, static_cast<int64_t>(working_side / 2) + 2 * pad - window + 1);
}

}  // namespace

height_range taught_range(const std::vector<ostrel_alg_box> &boxes, const window_shape &shape) {
    height_range r;
    for (const ostrel_alg_box &b : boxes) {
        if (b.label != 1) continue;
        const double h = box_height(b, shape);
        if (!(h > 0.0)) continue;
        r.min = r.min > 0.0 ? std::min(r.min, h) : h;
        r.max = std::max(r.max, h);
    }
    return r;
}

height_range cover(const height_range &a, const height_range &b) {
    if (!a.valid()) return b;
    if (!b.valid()) return a;
    return height_range{std::min(a.min, b.min), std::max(a.max, b.max)};
}

searched_range search_range(const height_range &taught, const accurate_settings &settings) {
    searched_range s;
    s.min_from_host = settings.min_height > 0;
    s.max_from_host = settings.max_height > 0;
    const double m = margin_factor(settings);
    const double low = taught.valid() ? taught.min / m : 0.0;
    const double high = taught.valid() ? taught.max * m : 0.0;
    s.range.min = s.min_from_host ? settings.min_height : low;
    s.range.max = s.max_from_host ? settings.max_height : high;
    // One bound from the host, the other automatic: the automatic one gives
    // way rather than leave an empty range.
    if (s.min_from_host && !s.max_from_host) s.range.max = std::max(s.range.max, s.range.min);
    if (s.max_from_host && !s.min_from_host && s.range.min > s.range.max) s.range.min = s.range.max;
    return s;
}

plan_status plan_levels(int32_t picture_columns, int32_t picture_rows, const searched_range &searched,
                        const height_range &taught, const window_shape &shape, const accurate_settings &settings,
                        int32_t pad_columns, int32_t pad_rows, level_plan *out) {
    *out = level_plan{};
    if (!searched.range.valid() || shape.empty() || picture_columns < 1 || picture_rows < 1) {
        return plan_status::no_range;
    }
    const double object_height = shape.object_height_working();  // working pixels
    const double area = static_cast<double>(picture_columns) * picture_rows;
    const double upscale_limit = std::max(settings.max_object_upscale_percent, 1) / 100.0;
    const double pixel_limit = std::sqrt(std::max(settings.max_level_pixels, 4) / area);
    const double finest_scale = std::min(upscale_limit, pixel_limit);
    out->smallest_searchable = object_height / finest_scale;

    double low = searched.range.min;
    const double high = searched.range.max;
    if (low < out->smallest_searchable * (1.0 - kTolerance)) {
        // The automatic margin gives way to the bounds; the taught range and
        // the host's range do not.
        const bool may_cut =
            !searched.min_from_host && taught.valid() && taught.min >= out->smallest_searchable * (1.0 - kTolerance);
        if (!may_cut) {
            return upscale_limit <= pixel_limit ? plan_status::too_small : plan_status::too_large;
        }
        low = out->smallest_searchable;
    }
    if (low > high * (1.0 + kTolerance)) {
        return upscale_limit <= pixel_limit ? plan_status::too_small : plan_status::too_large;
    }
    const int32_t per_octave = std::max(settings.levels_per_octave, 1);
    // Levels 2^(1 / per_octave) apart.
    const double span = portable_log(std::max(high / low, 1.0)) * per_octave / portable_log(2.0);
    const int64_t count = static_cast<int64_t>(std::ceil(span - 1e-6)) + 1;
    if (count > std::max(settings.max_levels, 1)) {
        return plan_status::too_many_levels;
    }

    const double scale = object_height / low;
    out->base_columns = scaled_working_side(picture_columns, 1.0 / scale);
    out->base_rows = scaled_working_side(picture_rows, 1.0 / scale);
    for (int64_t k = 0; k < count; ++k) {
        const double factor = octave_factor(static_cast<int32_t>(k), per_octave);
        const double height = low * factor;
        // Less than half of such an object could show on the picture.
        if (height > 2.0 * picture_rows || height * shape.aspect > 2.0 * picture_columns) break;
        out->factors.push_back(factor);
        out->heights.push_back(height);
    }
    if (out->factors.empty()) {
        return plan_status::nothing_fits;
    }
    out->range = height_range{low, out->heights.back()};
    for (double f : out->factors) {
        out->windows += positions(scaled_working_side(out->base_columns, f, out->ties), pad_columns, shape.columns) *
                        positions(scaled_working_side(out->base_rows, f, out->ties), pad_rows, shape.rows);
    }
    if (out->windows > settings.max_search_windows) {
        return plan_status::too_large;
    }
    return plan_status::ok;
}

const char *plan_status_text(plan_status status) {
    switch (status) {
        case plan_status::ok: return "it fits";
        case plan_status::no_range: return "there is no range of sizes to search";
        case plan_status::too_many_levels: return "the range of sizes is too wide (more than 48 levels)";
        case plan_status::too_small: return "its smallest objects would have to be enlarged more than 4 times";
        case plan_status::too_large:
            return "its smallest objects would need a working picture beyond the search bounds";
        case plan_status::nothing_fits:
            return "every object of the range would be more than twice the picture's width or height";
    }
    return "unknown";
}

}  // namespace ostrel
