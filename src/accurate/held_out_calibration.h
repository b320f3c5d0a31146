// held_out_calibration: where the default threshold should lie, learnt from
// the training pictures alone.
//
// A classifier scores the objects and the background it was trained on
// better than new ones, so the margins of its own training picture say
// little about the margin at which new pictures are best cut. Held-out
// parts say more: each training picture is cut into `folds` strips of
// columns; for each strip a classifier is trained on everything outside it
// (objects and background, with the same settings but fewer mining
// rounds) and searched over the strip as detection searches a picture - the
// pyramid's levels, the size prior, the suppression across sizes - on the
// picture and its mirror image. Every object of the strip is then either
// found (the margin of the detection that matches it, IoU 0.4 or more) or
// missed, and every other detection in the strip is a false alarm with its
// margin. Pooled over the strips these are what the classifier does on
// pictures it has not seen.
//
// The threshold is then the margin that maximises F1 over the pooled
// scores (best_f1_margin).
#pragma once

#include <cstdint>
#include <vector>

#include "accurate/accurate_detect.h"
#include "accurate/accurate_model.h"
#include "accurate/accurate_settings.h"
#include "accurate/accurate_trainer.h"

namespace ostrel {

struct held_out_scores {
    std::vector<float> objects;       // per held-out object: its detection's margin, or -infinity when missed
    std::vector<float> false_alarms;  // margins of the other detections in the held-out strips
};

// Scores the held-out strips of the pictures (see above). `search` gives
// the size prior and the reported box shape as detection sets them (its
// weights, sum_scale, bias and box sizes are set here per fold and
// picture).
// With `trained` (the state a training of these pictures ended with) each
// fold's classifier is that training's, retrained without the fold's held-out
// samples (retrain_without); without it, each is trained afresh with
// settings.calibration_mining_rounds of mining.
held_out_scores score_held_out_parts(const std::vector<accurate_training_picture> &pictures,
                                     const accurate_geometry &geometry, const accurate_settings &settings,
                                     const accurate_search &search, uint32_t seed, int32_t folds,
                                     const accurate_training_state *trained = nullptr);

// The margin between low and high (in hundredths) that maximises the sum
// of the sets' F1, each margin smeared by a normal of width `bandwidth` so
// that a handful of objects more or less moves the cut little, and the
// middle of the stretch where that sum is flat at its best (objects far
// above every false alarm); `fallback` when no set found an object.
float best_f1_margin(const std::vector<const held_out_scores *> &sets, float bandwidth, float low, float high,
                     float fallback);

// What the trained classifier itself does on copies of the training
// pictures enlarged or shrunk by each of `factors` (the marked objects seen
// again through other resampling and other pyramid levels, as in the next
// frames of one camera): found and missed objects, false alarms. `search`
// carries the classifier (weights, scale, bias) and the size prior; `plan`
// makes the levels of a copy of the given size.
struct copy_levels {
    virtual ~copy_levels() = default;
    // The pyramid of a picture, and the object height of its factor-1 level;
    // an empty pyramid when it cannot be searched.
    virtual accurate_pyramid levels(const split_picture &picture, double *finest_height) const = 0;
};
held_out_scores score_rescaled_copies(const std::vector<accurate_training_picture> &pictures,
                                      const accurate_geometry &geometry, const accurate_settings &settings,
                                      const accurate_search &search, const std::vector<double> &factors,
                                      const copy_levels &plan);

// The learnt cut drawn towards a prior cut: their mean weighted by the
// held-out objects behind the learnt one and prior_objects.
float shrunk_cut(float learnt, size_t objects, float prior, int32_t prior_objects);

}  // namespace ostrel
