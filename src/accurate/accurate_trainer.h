// accurate_trainer: trains the accurate profile's linear classifier from
// marked pictures.
//
// Positives are the windows of the marked objects, each taken at the
// searched size nearest to the box's own size, and their mirror images.
// Background comes from every window of every searched size of the
// training pictures and of their mirror images that overlaps no marked
// object by 0.3 or more: a first training takes an even spread of them,
// then each mining round scores all of them with the classifier so far and
// adds those it gets wrong or nearly wrong (margin above -1), strongest
// first, until none is left or a limit is reached:
//   - at most settings.mining_rounds rounds,
//   - at most settings.negatives_per_round added per round,
//   - at most settings.max_negatives background windows in all.
// Each SVM training is bounded too (linear_svm.h).
#pragma once

#include <cstdint>
#include <vector>

#include "ostrel_alg.h"
#include "accurate/accurate_geometry.h"
#include "accurate/accurate_pyramid.h"
#include "accurate/accurate_settings.h"

namespace ostrel {

struct accurate_training_picture {
    accurate_pyramid pyramid;           // levels with mirror images
    std::vector<ostrel_alg_box> boxes;  // as marked: label 1 objects, others background
    int32_t marked_width = 0;           // the box size the picture's working size was chosen for
    int32_t marked_height = 0;
    // The objects' windows cut at their own sizes (object_window.h), each
    // followed by its mirror image. When there are any they are the
    // positives; otherwise each object is cut from the level nearest its
    // size.
    std::vector<std::vector<uint8_t>> object_windows;
};

struct accurate_training_result {
    bool trained = false;
    std::vector<float> weights;  // per window byte, window feature order
    double bias = 0.0;           // margin = sum(weights * bytes) + bias
    uint32_t positives = 0;
    uint32_t negatives = 0;
    int32_t rounds = 0;          // mining rounds run
};

// Trains on every picture. seed fixes the solver's coordinate order.
accurate_training_result train_accurate(const std::vector<accurate_training_picture> &pictures,
                                        const accurate_geometry &geometry, const accurate_settings &settings,
                                        uint32_t seed);

// The window (top-left cell of the padded map) of a level whose object
// cells are centred on the box's centre.
void box_window_cell(const ostrel_alg_box &box, const pyramid_level &level, const accurate_geometry &geometry,
                     int32_t *x, int32_t *y);

// The object box (picture pixels) of the window at cell (x, y) of a level.
void window_object_box(int32_t x, int32_t y, const pyramid_level &level, const accurate_geometry &geometry,
                       double *left, double *top, double *width, double *height);

}  // namespace ostrel
