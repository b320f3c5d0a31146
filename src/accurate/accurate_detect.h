// accurate_detect: the accurate profile's search over one picture - every
// window position of every searched size, overlap suppression across sizes,
// and the scores.
#pragma once

#include <cstdint>
#include <vector>

#include "ostrel_alg.h"
#include "accurate/accurate_geometry.h"
#include "accurate/accurate_pyramid.h"
#include "accurate/accurate_settings.h"
#include "accurate/window_sums.h"

namespace ostrel {

// A candidate: a box in picture pixels with its classifier margin.
struct margin_box {
    ostrel_alg_box box{};
    float margin = 0.0f;
};

struct accurate_search {
    const quantised_weights *weights = nullptr;
    // margin = window sum * weights->scale * sum_scale + bias
    double sum_scale = 1.0;
    double bias = 0.0;
    // Reported box size at the marked size, in pixels of this picture.
    double box_width = 0.0;
    double box_height = 0.0;
    // A prior on sizes: a level whose objects lie outside the taught range
    // of heights loses size_penalty from its margins per `penalty_step`
    // times (a ratio, above 1) that they lie beyond it. 0: none.
    double taught_min = 0.0;
    double taught_max = 0.0;
    double size_penalty = 0.0;
    double penalty_step = 1.5;
    // Keep only the strongest window of every 3 x 3 neighbourhood of a
    // level (set when the suppression would drop the others anyway).
    bool neighbourhood_maxima = false;
    // The coarse-to-fine scan (window_sums_coarse_to_fine): windows of the
    // odd columns are computed only beside one within this much margin of
    // the floor. Negative: every window is computed.
    double refine_margin = -1.0;
};

// Whether windows one cell apart (diagonally the least) overlap by
// max_overlap (IoU) or more: then suppression drops every window that is
// not the strongest of its neighbourhood, and the search need not report
// them.
bool neighbours_suppressed(int32_t window_columns, int32_t window_rows, float max_overlap);

// The margin a level loses to the size prior (>= 0).
double size_prior_penalty(const accurate_search &search, double object_height);

// Every window whose margin reaches `floor_margin`, on every level, as a box
// centred on the window's object cells; in level, column, row order.
std::vector<margin_box> search_pyramid(const accurate_pyramid &pyramid, const accurate_geometry &geometry,
                                       const accurate_search &search, float floor_margin);
// The same on one map of a level (its picture's or its mirror image's),
// appended to *out.
void search_level(const feature_map &map, const pyramid_level &level, const accurate_geometry &geometry,
                  const accurate_search &search, float floor_margin, std::vector<margin_box> *out);

// The same on a level's map laid out in pairs (pair_cells), which several
// classifiers may share, searching only the window positions at least
// inset_columns and inset_rows cells from the map's edges: a classifier
// whose window may reach less far past the picture's edge than the map's
// padding allows searches exactly the positions its own padding gives.
void search_paired_level(const paired_map &paired, const pyramid_level &level, const accurate_geometry &geometry,
                         const accurate_search &search, float floor_margin, int32_t inset_columns, int32_t inset_rows,
                         std::vector<margin_box> *out);

// One class's share of a level searched by several classes at once.
struct class_level_search {
    const accurate_geometry *geometry = nullptr;
    const accurate_search *search = nullptr;
    int32_t inset_columns = 0;
    int32_t inset_rows = 0;
    std::vector<margin_box> *out = nullptr;  // its candidates are appended here
};
// Buffers a multi-class search keeps from level to level.
struct level_scan_scratch {
    std::vector<window_sum_grid> grids;
    std::vector<const quantised_weights *> weights;
    std::vector<double> refine_from;
};
// search_paired_level for every class of `classes`, with the same
// candidates for each: the classes whose windows have one shape share one
// scan of the map (window_sums_classes).
void search_paired_level_classes(const paired_map &paired, const pyramid_level &level,
                                 const std::vector<class_level_search> &classes, float floor_margin,
                                 level_scan_scratch *scratch);

// Greedy suppression: strongest first (earlier on equal margins), a box
// overlapping a kept one by `max_overlap` (IoU) or more is dropped. Keeps at
// most `limit` boxes.
std::vector<margin_box> suppress_by_margin(std::vector<margin_box> boxes, float max_overlap, size_t limit);
// The same across sizes: a box is dropped too when `max_contained` or more
// of the smaller one's area lies inside the other, a stronger box: of a
// part of an object found at a smaller size and the object (or the object
// and itself found again with much around it) only the stronger stays.
// 1 or more: off.
std::vector<margin_box> suppress_by_margin(std::vector<margin_box> boxes, float max_overlap, size_t limit,
                                           float max_contained);

// Confidence of a margin: the logistic function, 0..1 (0.5 at margin 0).
float margin_confidence(float margin);

// The box cut to the picture (at least one pixel of it kept): an object cut
// off by the picture's edge is reported as its visible part.
ostrel_alg_box clip_to_picture(const ostrel_alg_box &box, int32_t width, int32_t height);

// Sets the colour classes of every box from the pyramid's Lab planes at the
// marked size (see color_labels.h).
void label_colours(const accurate_pyramid &pyramid, std::vector<ostrel_alg_box> &boxes);

// The same from the Lab planes the exact levels keep (pyramid_request::
// keep_exact_lab): each box is read on the coarsest such level on which it
// is still at least kColourRows working pixels high (the finest when none
// is), so that small and large objects are read at a like resolution.
inline constexpr int32_t kColourRows = 24;
void label_colours_by_level(const accurate_pyramid &pyramid, std::vector<ostrel_alg_box> &boxes);

}  // namespace ostrel
