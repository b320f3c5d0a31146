// accurate_trainer: trains the accurate profile's linear classifier from
// marked pictures.
//
// Positives are the windows of the marked boxes, each taken at the searched
// size nearest to the box's own size, and their mirror images. Negatives
// come from every window of every searched size of the training pictures
// (and of their mirror images) that overlaps no marked box: a first
// training takes an even spread of them, then each mining round scores all
// windows with the classifier so far and adds the ones it gets wrong or
// nearly wrong, until none is left or the round limit is reached.
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
    int32_t marked_width = 0;           // the box size the picture's scale was chosen for
    int32_t marked_height = 0;
};

// A band of a training picture, picture rows top..bottom - 1: a training
// limited to bands learns only from the objects and windows whose centre
// lies inside them (the calibration trains on one half of a picture and
// tests on the other).
struct picture_band {
    double top = 0.0;
    double bottom = 1e300;
    bool holds(double y) const { return y >= top && y < bottom; }
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
// `bands`, when not null, holds one band per picture.
accurate_training_result train_accurate(const std::vector<accurate_training_picture> &pictures,
                                        const accurate_geometry &geometry, const accurate_settings &settings,
                                        uint32_t seed, const std::vector<picture_band> *bands = nullptr);

// The window (top-left cell) of a box at a level: the object cells centred
// on the box's centre.
void box_window_cell(const ostrel_alg_box &box, const pyramid_level &level, const accurate_geometry &geometry,
                     int32_t *x, int32_t *y);

// The object box (picture pixels) of the window at cell (x, y) of a level.
void window_object_box(int32_t x, int32_t y, const pyramid_level &level, const accurate_geometry &geometry,
                       double *left, double *top, double *width, double *height);

}  // namespace ostrel
