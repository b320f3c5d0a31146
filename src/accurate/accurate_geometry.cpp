#include "accurate/accurate_geometry.h"

#include <algorithm>
#include <cmath>

#include "common/window_weights.h"

namespace ostrel {

namespace {

// Sizes beyond this are refused outright (no picture is that large).
constexpr int32_t kLargestSide = 1 << 20;

int32_t round_to_int(double v) { return static_cast<int32_t>(std::floor(v + 0.5)); }

// An even number of pixels near side * scale, at least 2.
int32_t working_side(int32_t side, double scale) { return std::max(2, 2 * round_to_int(side * scale / 2.0)); }

}  // namespace

geometry_status derive_accurate_geometry(int32_t object_width, int32_t object_height, int32_t picture_width,
                                         int32_t picture_height, const accurate_settings &settings,
                                         accurate_geometry *out) {
    *out = accurate_geometry{};
    if (object_width < 1 || object_height < 1 || picture_width < 1 || picture_height < 1 ||
        object_width > kLargestSide || object_height > kLargestSide || picture_width > kLargestSide ||
        picture_height > kLargestSide || settings.object_cells < 1) {
        return geometry_status::bad_size;
    }
    const double object_area = static_cast<double>(object_width) * object_height;
    double scale = kAccurateShrink * std::sqrt(static_cast<double>(settings.object_cells) / object_area);
    scale = std::min(scale, settings.max_upscale_percent / 100.0);
    const double picture_area = static_cast<double>(picture_width) * picture_height;
    const double budget = std::sqrt(static_cast<double>(settings.max_working_pixels) / picture_area);
    if (scale > budget) {
        // Within the budget when that keeps min_budget_cells cells, else as
        // few cells as that and a larger picture, up to the hard limit.
        const double keeping =
            kAccurateShrink *
            std::sqrt(static_cast<double>(std::min(settings.min_budget_cells, settings.object_cells)) / object_area);
        const double hard = std::sqrt(static_cast<double>(settings.hard_working_pixels) / picture_area);
        scale = std::min(scale, std::min(std::max(budget, keeping), hard));
    }

    out->working_width = working_side(picture_width, scale);
    out->working_height = working_side(picture_height, scale);
    out->scale_x = static_cast<float>(out->working_width) / static_cast<float>(picture_width);
    out->scale_y = static_cast<float>(out->working_height) / static_cast<float>(picture_height);
    out->window_columns = round_to_int(object_width * static_cast<double>(out->scale_x) / kAccurateShrink);
    out->window_rows = round_to_int(object_height * static_cast<double>(out->scale_y) / kAccurateShrink);
    if (out->window_columns < settings.min_object_side_cells || out->window_rows < settings.min_object_side_cells ||
        out->window_features() < kMinWindowWeights) {
        return geometry_status::object_too_small;
    }
    if (out->window_features() > kMaxWindowWeights) {
        return geometry_status::window_too_large;
    }
    if (out->working_width / kAccurateShrink < out->window_columns ||
        out->working_height / kAccurateShrink < out->window_rows) {
        return geometry_status::picture_too_small;
    }
    return geometry_status::ok;
}

const char *geometry_status_text(geometry_status status) {
    switch (status) {
        case geometry_status::ok: return "it fits";
        case geometry_status::bad_size: return "a size is not positive or too large";
        case geometry_status::object_too_small:
            return "the object is too small for a window (fewer than 3 cells a side or " OSTREL_MIN_WINDOW_WEIGHTS_TEXT
                   " weights)";
        case geometry_status::window_too_large:
            return "its window would need more than " OSTREL_MAX_WINDOW_WEIGHTS_TEXT " weights";
        case geometry_status::picture_too_small: return "the picture is smaller than a window";
    }
    return "unknown";
}

}  // namespace ostrel
