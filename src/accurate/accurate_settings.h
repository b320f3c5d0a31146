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

    // --- channels -------------------------------------------------------
    // The gradient magnitude is divided by its mean within this radius
    // (working pixels) plus norm_floor.
    int32_t norm_radius = 6;
    int32_t norm_floor = 2;

    // --- search ---------------------------------------------------------
    // Sizes searched on each side of the marked size (host option), and
    // the ratio between neighbouring sizes (per cent).
    int32_t size_steps = 1;
    int32_t size_step_percent = 115;
    // Boxes overlapping a stronger one by this much (IoU, per cent) are
    // dropped. Host option.
    int32_t suppression_overlap_percent = 30;

    // --- training ---------------------------------------------------------
    // SVM cost of every sample (per mille of 1.0).
    int32_t cost_permille = 10000;
    // A window overlapping a marked object by less than this (IoU, per
    // cent) may be background.
    int32_t negative_overlap_percent = 30;
    // Background windows the first training takes (spread evenly over all).
    int32_t initial_negatives = 1000;
    // Hard-negative mining rounds after the first training, at most; hard
    // negatives added per round at most, and held in all at most.
    int32_t mining_rounds = 6;
    int32_t negatives_per_round = 4000;
    int32_t max_negatives = 20000;

    // --- scores -----------------------------------------------------------
    // The classifier margin (per mille) that gets 50% confidence.
    int32_t calibration_margin_permille = 500;
    // Boxes below the threshold that a run reports at most, and the lowest
    // margin (per mille) such a box may have.
    int32_t max_below_boxes = 64;
    int32_t floor_margin_permille = -1500;
};

}  // namespace ostrel
