// ostrel_acf: the engine's feature extractor.
//
// It holds the extractor's set-up (channel configuration, detector
// parameters, run options, tree tables and the scale pyramid for the
// working picture size), turns pictures into channel feature maps, and cuts
// training samples out of those maps.
#pragma once

#include <cstdint>
#include <vector>

#include "ostrel_alg.h"
#include "acf/feature_map.h"
#include "acf/training_sample.h"

namespace ostrel {

// Crops `window` out of `map` into planes * width * height floats, ordered
// channel, then window column, then window row (each copy runs along one
// contiguous map column). Empty when either input is missing. The window is
// not checked: callers keep it inside the map.
std::vector<float> cropChannelWindow(const feature_map *map, const window_rect *window);

// Appends to parent->variants the copies of `window` shifted by up to
// shift * size cells, in steps of two (see the definition).
void addJitteredSamples(const feature_map *map, const window_rect *window, int32_t label, float shift,
                        training_sample *parent);

class ostrel_acf {
public:
    ostrel_acf();
    ~ostrel_acf();
    ostrel_acf(const ostrel_acf &) = delete;
    ostrel_acf &operator=(const ostrel_acf &) = delete;

    // --- extractor set-up ---------------------------------------------
    // Sets the working size, creates the blocks and computes the pyramid.
    int32_t init_pyramid();
    // Writes every default, re-initialises the tree tables.
    int32_t set_extractor_defaults();
    // Stores the training window and its size at every pyramid scale.
    void setTrainingWindow(int32_t window_width, int32_t window_height, int32_t input_width,
                           int32_t input_height);

    // --- training samples -----------------------------------------------
    // Cuts the box samples, their jittered variants and (unless
    // skip_random_negatives) ten random negatives out of `map`, into
    // `samples`, and copies them to `out`. Box coordinates are in pixels of
    // a picture of input_width x input_height.
    void collectTrainingSamples(std::vector<training_sample> &out, const feature_map *map,
                                const std::vector<ostrel_alg_box> &boxes, bool skip_random_negatives,
                                int32_t input_width, int32_t input_height);
    // Appends ten random negatives, the size of the first positive window,
    // that overlap no positive window by more than 0.3.
    void addRandomNegative(const feature_map *map, const std::vector<window_rect> &positives);

    // Draw random negatives from rand() seeded with `seed` instead of the time.
    void setRandomSeed(uint32_t seed) {
        random_seed_ = seed;
        random_seed_set_ = true;
    }

    std::vector<training_sample> samples;

private:
    uint32_t random_seed_ = 0;
    bool random_seed_set_ = false;
};

}  // namespace ostrel
