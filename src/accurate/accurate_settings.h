// accurate_settings: the numbers the accurate profile works with, gathered
// in one record so that geometry, training and detection read the same.
#pragma once

#include <cstdint>

namespace ostrel {

struct accurate_settings {
    // --- window -------------------------------------------------------
    // Feature cells the object should cover (width x height in cells); the
    // working scale is chosen to give about this many.
    int32_t object_cells = 100;
    // Context around the object, in cells on every side.
    int32_t context_cells = 1;
    // The working scale never enlarges a picture more than this (per cent).
    int32_t max_upscale_percent = 200;
    // Working pictures hold at most this many pixels (bounds the scan).
    int32_t max_working_pixels = 160000;
    // How far a window may reach past the picture's edge, in per cent of
    // the object's size.
    int32_t edge_reach_percent = 50;
    // Reported boxes are cut to the picture.
    int32_t clip_boxes = 1;
    // An object smaller than this many cells (each side) is refused.
    int32_t min_object_side_cells = 3;

    // Contrast normalisation of the gradient planes: radius in cells (-1:
    // none), floor and gain.
    int32_t norm_radius = -1;
    // 1: the normalised planes replace the raw ones; 2: they follow them.
    int32_t norm_mode = 1;
    int32_t norm_planes = 0;
    int32_t channel_set = 0;
    int32_t norm_floor = 8;
    int32_t norm_gain = 64;

    // --- search --------------------------------------------------------
    // Object sizes searched: `scales` sizes, `scale_step_percent` apart
    // (geometrically), centred on the marked size.
    int32_t scales = 3;
    int32_t scale_step_percent = 115;
    // Boxes overlapping a stronger one by this much (IoU, per cent) are
    // suppressed.
    int32_t suppression_overlap_percent = 30;

    // --- training --------------------------------------------------------
    // SVM cost of the positives and negatives (per mille of 1.0).
    int32_t cost_positive_permille = 1000;
    int32_t cost_negative_permille = 1000;
    // A window overlapping a marked box by less than this (IoU, per cent) may
    // be a negative.
    int32_t negative_overlap_percent = 30;
    // During mining, a window scoring above this margin (per mille) is taken
    // for an unmarked object and not learnt as background.
    int32_t suspect_margin_permille = 1000000;
    // Hard-negative mining rounds after the first training, at most.
    int32_t mining_rounds = 6;
    // Negatives the first training takes (spread over the windows).
    int32_t initial_negatives = 2000;
    // Hard negatives added per round at most, and held at most in all.
    int32_t negatives_per_round = 4000;
    int32_t max_negatives = 20000;
    // Mirrored copies of the positives (and of the background).
    int32_t mirror = 1;
    // Shifted copies of each positive: offsets -k..k cells on each axis.
    int32_t jitter_cells = 0;

    // --- scores ----------------------------------------------------------
    // Choose the 50% confidence margin by cross-validation on the training
    // pictures.
    int32_t calibrate = 1;
    // The margin (per mille of one SVM margin unit) that maps to a confidence
    // of 50%.
    int32_t calibration_offset_permille = 0;
    // Boxes below the threshold that a run reports at most.
    int32_t max_below_boxes = 64;
    // Lowest margin (per mille) of a reported box below the threshold.
    int32_t floor_margin_permille = -1500;
};

}  // namespace ostrel
