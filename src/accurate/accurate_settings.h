// accurate_settings: the numbers the accurate profile works with, in one
// record that geometry, features, training and detection read. Three of
// them are host options (engine_options.h); the others are fixed choices,
// measured on the development sets (see bench/accuracy.sh).
#pragma once

#include <cstdint>

namespace ostrel {

struct accurate_settings {
    // --- window -------------------------------------------------------
    // Feature cells the object should cover (width x height in cells); the
    // working scale is chosen to give about this many. Host option.
    int32_t object_cells = 100;
    // The working scale never enlarges a picture more than this (per cent).
    int32_t max_upscale_percent = 200;
    // Working pictures hold at most this many pixels (this bounds the
    // search)...
    int32_t max_working_pixels = 100000;
    // ...unless the object would then cover fewer cells than this: small
    // objects on large pictures get a larger working picture, up to
    // hard_working_pixels, rather than being refused.
    int32_t min_budget_cells = 49;
    int32_t hard_working_pixels = 1000000;
    // An object narrower or lower than this many cells is refused.
    int32_t min_object_side_cells = 3;
    // How far a window may reach past the picture's edge, in per cent of
    // the object's size (objects cut off by the edge are found too).
    int32_t edge_reach_percent = 50;
    // Marked boxes share one window of their median shape when no box's
    // width / height differs from the median by more than this factor (per
    // cent).
    int32_t max_aspect_spread_percent = 200;
    // A marked object is enlarged at most this much (per cent) to fill the
    // window; smaller objects are refused as too small.
    int32_t max_object_upscale_percent = 400;

    // --- channels -------------------------------------------------------
    // The gradient magnitude is divided by its mean within this radius
    // (working pixels) plus norm_floor.
    int32_t norm_radius = 6;
    int32_t norm_floor = 2;

    // --- search ---------------------------------------------------------
    // Steps of search_margin_percent that the search reaches beyond the
    // taught range of object heights on each side (host option 3: 0 = the
    // taught range only).
    int32_t size_steps = 1;
    int32_t search_margin_percent = 150;
    // The searched range of object heights in pixels, when the host sets it
    // (options 6 and 7); 0: the taught range and its margin.
    int32_t min_height = 0;
    int32_t max_height = 0;
    // Searched sizes per octave (doubling of the height); channels are
    // computed exactly once per octave and approximated in between.
    int32_t levels_per_octave = 6;
    // The power law of the approximated levels (the fast feature pyramid):
    // a gradient plane resampled from a level s times finer is multiplied
    // by s^(-exponent), exponent in thousandths. Measured on the
    // development sets: the contrast-normalised planes hardly change with
    // scale.
    int32_t approximation_exponent_permille = -100;
    // The prior on object sizes: a level whose objects lie beyond the
    // taught range loses this much margin (thousandths) per
    // search_margin_percent step beyond it.
    int32_t size_prior_permille = 3000;
    // Bounds of one search: levels at most, working pixels of a level at
    // most, and windows (positions of all levels) at most.
    int32_t max_levels = 48;
    int32_t max_level_pixels = 4194304;
    int32_t max_search_windows = 8388608;
    // The ratio (per cent) between neighbouring sizes of a fixed set of
    // sizes around one (scale_set.h).
    int32_t size_step_percent = 115;
    // Detection's coarse-to-fine scan: every other column of window
    // positions is computed, the columns between only beside a window
    // within this much margin (thousandths) of the floor below; negative:
    // every position is computed. Training always computes every position.
    int32_t refine_margin_permille = 500;
    // Boxes overlapping a stronger one by this much (IoU, per cent) are
    // dropped. Host option.
    int32_t suppression_overlap_percent = 30;
    // A box whose area lies this much (per cent) inside a stronger box of
    // another size is dropped too: a part of an object found at a smaller
    // size, or an object found again with much around it.
    int32_t suppression_contained_percent = 70;

    // --- training ---------------------------------------------------------
    // Each object is learnt as the levels between the pyramid's exact ones
    // show it: computed 1, 2^(1/n), 2^(2/n) ... times finer and shrunk, this
    // many of them (n = levels_per_octave), each with its mirror image.
    int32_t approximated_positives = 4;
    // SVM cost of every sample (per mille of 1.0).
    int32_t cost_permille = 10000;
    // A window overlapping a marked object by less than this (IoU, per
    // cent) may be background.
    int32_t negative_overlap_percent = 30;
    // ...and a window whose object is this many times (per cent) larger or
    // smaller than the marked one is background whatever its overlap: a
    // part of an object, or an object with much around it, is not the
    // object (0: overlap alone decides).
    int32_t negative_size_ratio_percent = 0;
    // Background windows the first training takes (spread evenly over all).
    int32_t initial_negatives = 1000;
    // Hard-negative mining rounds after the first training, at most; hard
    // negatives added per round at most, and held in all at most.
    int32_t mining_rounds = 3;
    int32_t negatives_per_round = 2000;
    int32_t max_negatives = 20000;

    // --- scores -----------------------------------------------------------
    // The default threshold is learnt from this many held-out strips of the
    // training pictures (held_out_calibration.h); 0 strips: the fixed
    // calibration margin below. Each strip's classifier is the trained one
    // retrained without the strip's samples, or, with mining rounds above
    // 0, one trained afresh with at most that many mining rounds.
    int32_t calibration_folds = 4;
    int32_t calibration_mining_rounds = 0;
    // The width (thousandths of a margin) each held-out margin is smeared
    // by when the best cut is sought.
    int32_t calibration_bandwidth_permille = 200;
    // A cut learnt from a handful of held-out objects is uncertain: it is
    // drawn towards the margin that is the best cut for most models
    // (thousandths; measured on the tuning parts of the development sets),
    // as if that margin were the cut of this many more objects.
    int32_t calibration_prior_permille = -350;
    int32_t calibration_prior_objects = 30;
    // The classifier margin (per mille) that gets 50% confidence.
    int32_t calibration_margin_permille = 500;
    // Boxes below the threshold that a run reports at most, and the lowest
    // margin (per mille) such a box may have.
    int32_t max_below_boxes = 64;
    int32_t floor_margin_permille = -1500;
};

}  // namespace ostrel
