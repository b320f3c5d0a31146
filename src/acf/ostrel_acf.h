// ostrel_acf: the engine's feature extractor.
//
// It holds the extractor's set-up (channel configuration, detector
// parameters, run options, tree tables and the scale pyramid for the
// working picture size), turns pictures into channel feature maps, and cuts
// training samples out of those maps.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "ostrel_alg.h"
#include "common/additive_random.h"
#include "acf/extractor_blocks.h"
#include "acf/feature_map.h"
#include "acf/picture_resample.h"
#include "acf/pyramid.h"
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

// The training window and its size at every pyramid scale, in feature
// cells of the unpadded map (picture terms: x along map columns).
struct training_window {
    int32_t width = 0;  // object window in pixels of the input picture
    int32_t height = 0;
    int32_t input_width = 0;                   // picture columns
    int32_t input_height = 0;                  // picture rows
    float sx[pyramid_store::kMaxScales] = {};  // map columns / input width
    float sy[pyramid_store::kMaxScales] = {};  // map rows / input height
    int32_t scaled_width[pyramid_store::kMaxScales] = {};
    int32_t scaled_height[pyramid_store::kMaxScales] = {};
};

class ostrel_acf {
public:
    // The picture size the pyramid is laid out for. Every picture is
    // resampled to this pyramid's scale-0 image size, so all feature maps
    // have the same number of cells.
    static constexpr int32_t kWorkingWidth = 480;
    static constexpr int32_t kWorkingHeight = 270;

    ostrel_acf();
    ~ostrel_acf();
    ostrel_acf(const ostrel_acf &) = delete;
    ostrel_acf &operator=(const ostrel_acf &) = delete;

    // --- extractor set-up ---------------------------------------------
    // Creates each of the four set-up blocks that does not exist yet, with
    // its defaults (the channel options all zero).
    void create_extractor_blocks();
    // Sets the working size, creates the blocks and computes the pyramid.
    int32_t init_pyramid();
    // Writes every default, re-initialises the tree tables.
    int32_t set_extractor_defaults();
    // Stores the training window and its size at every pyramid scale.
    void setTrainingWindow(int32_t window_width, int32_t window_height, int32_t input_width, int32_t input_height);

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

    // Draw random negatives from the extractor's generator seeded with
    // `seed` instead of the time.
    void setRandomSeed(uint32_t seed) {
        random_seed_ = seed;
        random_seed_set_ = true;
    }

    std::vector<training_sample> samples;

    // --- extractor state ----------------------------------------------------
    std::unique_ptr<run_options> run_opts;
    std::unique_ptr<pyramid_params> params;
    std::unique_ptr<tree_tables> trees;
    std::unique_ptr<channel_options> chn_options;
    pyramid_store pyramid;
    int32_t working_width = 0;   // picture columns the pyramid is laid out for
    int32_t working_height = 0;  // picture rows
    int32_t n_scales = 0;
    float scales[pyramid_store::kMaxScales] = {};
    // Offset of the object inside the padded model window, in pixels,
    // relative to the feature pad: kept for detection.
    float shift_x = 0.0f;
    float shift_y = 0.0f;
    int32_t ready = 0;         // 1 once the pyramid is laid out
    int32_t pyramid_flag = 0;  // handed to the scale computation; 1 after the defaults
    // Three parameters the engine sets to 500000, 1 and a third value when
    // it prepares the extractor. Their meaning is unknown: no operation of
    // the library reads them; they are kept only as set.
    int32_t unnamed_params[3] = {};
    training_window window;
    int32_t sized = 0;  // 1 once setTrainingWindow has run
    // Buffers of the picture loading, kept from one picture to the next
    // (a large buffer allocated afresh for every picture costs more than
    // filling it).
    cv::Mat lab_picture;
    picture_resample_scratch resample_scratch;

private:
    additive_random random_;  // this engine's own draws: engines on other threads never share it
    uint32_t random_seed_ = 0;
    bool random_seed_set_ = false;
};

}  // namespace ostrel
