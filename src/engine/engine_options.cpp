#include "engine/engine_options.h"

#include <iterator>

namespace ostrel {

namespace {

constexpr option_range kOptionRanges[] = {
    {kOptionProfile, "profile", kProfileClassic, kProfileAccurate, kProfileClassic},
    {kOptionAccurateCells, "accurate cells", 36, 400, accurate_settings{}.object_cells},
    {kOptionAccurateSizeSteps, "accurate size steps", 0, 4, accurate_settings{}.size_steps},
    {kOptionAccurateOverlap, "accurate overlap", 10, 90, accurate_settings{}.suppression_overlap_percent},
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

int32_t engine_options::get(int32_t id) const {
    switch (id) {
        case kOptionProfile:
            return profile;
        case kOptionAccurateCells:
            return accurate.object_cells;
        case kOptionAccurateSizeSteps:
            return accurate.size_steps;
        case kOptionAccurateOverlap:
            return accurate.suppression_overlap_percent;
        default:
            return 0;
    }
}

void engine_options::set(int32_t id, int32_t value) {
    switch (id) {
        case kOptionProfile:
            profile = value;
            break;
        case kOptionAccurateCells:
            accurate.object_cells = value;
            break;
        case kOptionAccurateSizeSteps:
            accurate.size_steps = value;
            break;
        case kOptionAccurateOverlap:
            accurate.suppression_overlap_percent = value;
            break;
        default:
            break;
    }
}

}  // namespace ostrel
