#include "engine/engine_options.h"

#include <iterator>

namespace ostrel {

namespace {

// Research knobs (ids 100 and up) while the profile is being tuned.
struct knob {
    int32_t id;
    int32_t accurate_settings::*field;
};
constexpr knob kKnobs[] = {
    {100, &accurate_settings::object_cells},
    {101, &accurate_settings::context_cells},
    {102, &accurate_settings::max_upscale_percent},
    {103, &accurate_settings::max_working_pixels},
    {104, &accurate_settings::scales},
    {105, &accurate_settings::scale_step_percent},
    {106, &accurate_settings::suppression_overlap_percent},
    {107, &accurate_settings::cost_positive_permille},
    {108, &accurate_settings::cost_negative_permille},
    {109, &accurate_settings::negative_overlap_percent},
    {110, &accurate_settings::mining_rounds},
    {111, &accurate_settings::initial_negatives},
    {112, &accurate_settings::negatives_per_round},
    {113, &accurate_settings::max_negatives},
    {114, &accurate_settings::mirror},
    {115, &accurate_settings::jitter_cells},
    {116, &accurate_settings::calibration_offset_permille},
    {117, &accurate_settings::max_below_boxes},
    {118, &accurate_settings::floor_margin_permille},
    {119, &accurate_settings::edge_reach_percent},
    {120, &accurate_settings::clip_boxes},
    {121, &accurate_settings::suspect_margin_permille},
    {122, &accurate_settings::calibrate},
    {123, &accurate_settings::norm_radius},
    {124, &accurate_settings::norm_floor},
    {125, &accurate_settings::norm_gain},
    {126, &accurate_settings::norm_mode},
    {127, &accurate_settings::norm_planes},
    {128, &accurate_settings::channel_set},
};

constexpr option_spec kSpecs[] = {
    {kOptionProfile, "profile", kProfileClassic, kProfileAccurate, kProfileClassic},
    {100, "knob", -100000000, 100000000, 0},
    {101, "knob", -100000000, 100000000, 0},
    {102, "knob", -100000000, 100000000, 0},
    {103, "knob", -100000000, 100000000, 0},
    {104, "knob", -100000000, 100000000, 0},
    {105, "knob", -100000000, 100000000, 0},
    {106, "knob", -100000000, 100000000, 0},
    {107, "knob", -100000000, 100000000, 0},
    {108, "knob", -100000000, 100000000, 0},
    {109, "knob", -100000000, 100000000, 0},
    {110, "knob", -100000000, 100000000, 0},
    {111, "knob", -100000000, 100000000, 0},
    {112, "knob", -100000000, 100000000, 0},
    {113, "knob", -100000000, 100000000, 0},
    {114, "knob", -100000000, 100000000, 0},
    {115, "knob", -100000000, 100000000, 0},
    {116, "knob", -100000000, 100000000, 0},
    {117, "knob", -100000000, 100000000, 0},
    {118, "knob", -100000000, 100000000, 0},
    {119, "knob", -100000000, 100000000, 0},
    {120, "knob", -100000000, 100000000, 0},
    {121, "knob", -100000000, 100000000, 0},
    {122, "knob", -100000000, 100000000, 0},
    {123, "knob", -100000000, 100000000, 0},
    {124, "knob", -100000000, 100000000, 0},
    {125, "knob", -100000000, 100000000, 0},
    {126, "knob", -100000000, 100000000, 0},
    {127, "knob", -100000000, 100000000, 0},
    {128, "knob", -100000000, 100000000, 0},
};

}  // namespace

const option_spec *option_specs(int32_t *count) {
    *count = static_cast<int32_t>(std::size(kSpecs));
    return kSpecs;
}

const option_spec *find_option(int32_t id) {
    for (const option_spec &spec : kSpecs) {
        if (spec.id == id) return &spec;
    }
    return nullptr;
}

int32_t engine_options::get(int32_t id) const {
    if (id == kOptionProfile) return profile;
    for (const knob &k : kKnobs) {
        if (k.id == id) return accurate.*(k.field);
    }
    return 0;
}

void engine_options::set(int32_t id, int32_t value) {
    if (id == kOptionProfile) {
        profile = value;
        return;
    }
    for (const knob &k : kKnobs) {
        if (k.id == id) accurate.*(k.field) = value;
    }
}

}  // namespace ostrel
