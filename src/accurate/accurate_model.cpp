#include "accurate/accurate_model.h"

namespace ostrel {

accurate_model_settings recorded_settings(const accurate_settings &s) {
    accurate_model_settings r;
    r.object_cells = s.object_cells;
    r.size_steps = s.size_steps;
    r.suppression_overlap_percent = s.suppression_overlap_percent;
    r.min_height = s.min_height;
    r.max_height = s.max_height;
    r.search_margin_percent = s.search_margin_percent;
    r.levels_per_octave = s.levels_per_octave;
    r.approximation_exponent_permille = s.approximation_exponent_permille;
    r.norm_radius = s.norm_radius;
    r.norm_floor = s.norm_floor;
    r.edge_reach_percent = s.edge_reach_percent;
    r.size_prior_permille = s.size_prior_permille;
    r.suppression_contained_percent = s.suppression_contained_percent;
    return r;
}

accurate_settings with_recorded(const accurate_settings &base, const accurate_model_settings &r) {
    accurate_settings s = base;
    s.object_cells = r.object_cells;
    s.size_steps = r.size_steps;
    s.suppression_overlap_percent = r.suppression_overlap_percent;
    s.min_height = r.min_height;
    s.max_height = r.max_height;
    s.search_margin_percent = r.search_margin_percent;
    s.levels_per_octave = r.levels_per_octave;
    s.approximation_exponent_permille = r.approximation_exponent_permille;
    s.norm_radius = r.norm_radius;
    s.norm_floor = r.norm_floor;
    s.edge_reach_percent = r.edge_reach_percent;
    s.size_prior_permille = r.size_prior_permille;
    s.suppression_contained_percent = r.suppression_contained_percent;
    return s;
}

}  // namespace ostrel
