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
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "ostrel_alg.h"
#include "accurate/accurate_geometry.h"
#include "accurate/accurate_pyramid.h"
#include "accurate/accurate_settings.h"
#include "accurate/linear_svm.h"

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
    // The object height (pixels) of the pyramid's level of factor 1.
    double finest_height = 0.0;
    // The picture itself (BGR), for the calibration's rescaled copies.
    cv::Mat bgr;
};

struct accurate_training_result {
    bool trained = false;
    std::vector<float> weights;  // per window byte, window feature order
    double bias = 0.0;           // margin = sum(weights * bytes) + bias
    uint32_t positives = 0;
    uint32_t negatives = 0;
    int32_t rounds = 0;  // mining rounds run
};

// A part of a training picture kept out of a training (to see how the
// classifier does on what it has not seen): the columns left .. right
// (picture pixels, right excluded), where no window whose object's centre
// lies is background, and the objects not learnt - those flagged in
// `objects` (one flag per box labelled 1, in their order), or, when it is
// empty, those whose centre lies in the columns.
struct held_out_part {
    double left = 0.0;
    double right = 0.0;
    std::vector<uint8_t> objects;
    bool empty() const { return !(right > left) && objects.empty(); }
    bool holds(double x) const { return x >= left && x < right; }
    // Whether object `index` (among the boxes labelled 1) centred at x is
    // held out.
    bool holds_object(size_t index, double x) const {
        return objects.empty() ? holds(x) : index < objects.size() && objects[index] != 0;
    }
};

// Where a training sample came from: its picture, the object it is (index
// among the picture's boxes labelled 1) or -1 for background, and its
// centre along the picture's columns (in the picture, not its mirror
// image).
struct sample_origin {
    uint32_t picture = 0;
    int32_t object = -1;
    double centre_x = 0.0;
};

// What a training ends with: the samples (with their dual variables) and
// where each came from, so that a classifier without some of them can be
// trained again quickly (retrain_without).
struct accurate_training_state {
    std::unique_ptr<linear_svm> svm;
    std::vector<sample_origin> origins;
};

// Trains on every picture. seed fixes the solver's coordinate order.
// held_out, when not empty, holds one part per picture. state, when not
// null, receives the samples the training ended with.
accurate_training_result train_accurate(const std::vector<accurate_training_picture> &pictures,
                                        const accurate_geometry &geometry, const accurate_settings &settings,
                                        uint32_t seed, const std::vector<held_out_part> &held_out = {},
                                        accurate_training_state *state = nullptr);

// The classifier of a finished training trained again without the samples
// of the held-out parts (one per picture): the same background and objects
// elsewhere, no new mining, starting from the dual variables the training
// ended with (so it takes a fraction of the first training's time).
accurate_training_result retrain_without(const accurate_training_state &state,
                                         const std::vector<held_out_part> &held_out, const accurate_settings &settings,
                                         uint32_t seed);

// The window (top-left cell of the padded map) of a level whose object
// cells are centred on the box's centre.
void box_window_cell(const ostrel_alg_box &box, const pyramid_level &level, const accurate_geometry &geometry,
                     int32_t *x, int32_t *y);

// The object box (picture pixels) of the window at cell (x, y) of a level.
void window_object_box(int32_t x, int32_t y, const pyramid_level &level, const accurate_geometry &geometry,
                       double *left, double *top, double *width, double *height);

}  // namespace ostrel
