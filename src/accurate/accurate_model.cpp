#include "accurate/accurate_model.h"

#include <utility>

namespace ostrel {

namespace {

// Every recorded setting: where the settings record and the model's record
// keep it. One list, read both ways.
constexpr std::pair<int32_t accurate_settings::*, int32_t accurate_model_settings::*> kRecordedFields[] = {
    {&accurate_settings::object_cells, &accurate_model_settings::object_cells},
    {&accurate_settings::size_steps, &accurate_model_settings::size_steps},
    {&accurate_settings::suppression_overlap_percent, &accurate_model_settings::suppression_overlap_percent},
    {&accurate_settings::min_height, &accurate_model_settings::min_height},
    {&accurate_settings::max_height, &accurate_model_settings::max_height},
    {&accurate_settings::search_margin_percent, &accurate_model_settings::search_margin_percent},
    {&accurate_settings::levels_per_octave, &accurate_model_settings::levels_per_octave},
    {&accurate_settings::approximation_exponent_permille, &accurate_model_settings::approximation_exponent_permille},
    {&accurate_settings::norm_radius, &accurate_model_settings::norm_radius},
    {&accurate_settings::norm_floor, &accurate_model_settings::norm_floor},
    {&accurate_settings::edge_reach_percent, &accurate_model_settings::edge_reach_percent},
    {&accurate_settings::size_prior_permille, &accurate_model_settings::size_prior_permille},
    {&accurate_settings::suppression_contained_percent, &accurate_model_settings::suppression_contained_percent},
};

}  // namespace

accurate_model_settings recorded_settings(const accurate_settings &s) {
    accurate_model_settings r;
    for (const auto &field : kRecordedFields) r.*field.second = s.*field.first;
    return r;
}

accurate_settings with_recorded(const accurate_settings &base, const accurate_model_settings &r) {
    accurate_settings s = base;
    for (const auto &field : kRecordedFields) s.*field.first = r.*field.second;
    return s;
}

}  // namespace ostrel
