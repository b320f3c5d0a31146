#include "engine/engine_options.h"

#include <iterator>

namespace ostrel {

namespace {

// Heights in pixels a host may set: no picture side is longer than the
// picture limit allows, and objects below 8 pixels carry no shape.
constexpr int32_t kLeastHeight = 8;
constexpr int32_t kGreatestHeight = 16384;

constexpr option_range kOptionRanges[] = {
    {kOptionProfile, "profile", kProfileClassic, kProfileAccurate, kProfileClassic, 0},
    {kOptionAccurateCells, "accurate cells", 36, 400, accurate_settings{}.object_cells, 0},
    {kOptionAccurateSizeSteps, "accurate size steps", 0, 4, accurate_settings{}.size_steps, 0},
    {kOptionAccurateOverlap, "accurate overlap", 10, 90, accurate_settings{}.suppression_overlap_percent, 0},
    {kOptionAccurateMinHeight, "accurate min height", 0, kGreatestHeight, accurate_settings{}.min_height, kLeastHeight},
    {kOptionAccurateMaxHeight, "accurate max height", 0, kGreatestHeight, accurate_settings{}.max_height, kLeastHeight},
};

}  // namespace

const option_range *option_table(int32_t *count) {
    *count = static_cast<int32_t>(std::size(kOptionRanges));
    return kOptionRanges;
}

const option_range *find_option(int32_t id) {
    for (const option_range &range : kOptionRanges) {
        if (range.id == id) return &range;
    }
    return nullptr;
}

bool within_range(const option_range &range, int32_t value) {
    if (value < range.minimum || value > range.maximum) return false;
    return range.least_nonzero <= 0 || value == 0 || value >= range.least_nonzero;
}

int32_t least_chosen_value(const option_range &range) {
    return range.least_nonzero > 0 ? range.least_nonzero : range.minimum;
}

const char *engine_options::conflict(int32_t id, int32_t value) const {
    if (id == kOptionAccurateMinHeight && value > 0 && accurate.max_height > 0 && value > accurate.max_height) {
        return "is above the accurate max height";
    }
    if (id == kOptionAccurateMaxHeight && value > 0 && accurate.min_height > 0 && value < accurate.min_height) {
        return "is below the accurate min height";
    }
    return nullptr;
}

int32_t engine_options::get(int32_t id) const {
    if (id == kOptionProfile) return profile;
    for (const accurate_option &option : kAccurateOptions) {
        if (option.id == id) return accurate.*option.field;
    }
    return 0;
}

void engine_options::set(int32_t id, int32_t value) {
    if (id == kOptionProfile) profile = value;
    for (const accurate_option &option : kAccurateOptions) {
        if (option.id == id) accurate.*option.field = value;
    }
}

}  // namespace ostrel
