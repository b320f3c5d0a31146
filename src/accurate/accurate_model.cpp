#include "accurate/accurate_model.h"

#include <utility>

namespace ostrel {

namespace {

// Every recorded setting, kept under one name in the settings record and
// in the model's record. One list, read both ways.
#define OSTREL_RECORDED_FIELD(name) \
    { &accurate_settings::name, &accurate_model_settings::name }
constexpr std::pair<int32_t accurate_settings::*, int32_t accurate_model_settings::*> kRecordedFields[] = {
    OSTREL_RECORDED_FIELD(object_cells),
    OSTREL_RECORDED_FIELD(size_steps),
    OSTREL_RECORDED_FIELD(suppression_overlap_percent),
    OSTREL_RECORDED_FIELD(min_height),
    OSTREL_RECORDED_FIELD(max_height),
    OSTREL_RECORDED_FIELD(search_margin_percent),
    OSTREL_RECORDED_FIELD(levels_per_octave),
    OSTREL_RECORDED_FIELD(approximation_exponent_permille),
    OSTREL_RECORDED_FIELD(norm_radius),
    OSTREL_RECORDED_FIELD(norm_floor),
    OSTREL_RECORDED_FIELD(edge_reach_percent),
    OSTREL_RECORDED_FIELD(size_prior_permille),
    OSTREL_RECORDED_FIELD(suppression_contained_percent),
};
#undef OSTREL_RECORDED_FIELD

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
