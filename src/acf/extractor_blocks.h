// extractor_blocks: the four set-up blocks of the feature extractor.
//
// Detector parameters (pyramid and channel settings), detector-run options,
// channel options and the boosted-tree tables, each with its fixed defaults.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "acf/integral_channel_feature.h"

namespace ostrel {

// Pyramid and channel settings of the detector. Field order is the block's
// layout.
struct pyramid_params {
    int32_t n_per_oct = 8;  // scales per octave
    int32_t reserved = 0;   // second word, always 0
    int32_t n_approx = 7;   // scale i is computed when i mod (n_approx + 1) == 0
    // Passed on to detection, which owns their meaning.
    float pyr_param_a = 0.00033f;
    float pyr_param_b = 0.51733f;  // bits 0x3F046FBD
    float pyr_param_c = 0.52436f;  // bits 0x3F063C75
    int32_t pad_x = 8;             // feature pad along a record's width, in pixels
    int32_t pad_y = 6;             // feature pad along a record's height, in pixels
    float model_w = 50.0f;         // object width inside the model window
    float model_h = 20.5f;         // object height inside the model window
    chn_config chns;
    float model_w_copy = 50.0f;
    float model_h_copy = 20.5f;
    int32_t model_pad_w = 64;  // padded model window, pixels
    int32_t model_pad_h = 32;
};

inline constexpr int32_t kDefaultRunThreshold = -3000;

// Options of a detector run. Detection owns their meaning; only
// run_threshold has a known name. The values are the set-up's, in order.
struct run_options {
    int32_t option_0 = 1;
    int32_t option_1 = 1;
    float option_2 = 0.65f;
    int32_t option_3 = 0;
    int32_t option_4 = 2147483647;
    int32_t option_5 = static_cast<int32_t>(0x8000000Bu);
    int32_t option_6 = 2;
    int32_t run_threshold = kDefaultRunThreshold;
    float option_8 = 0.005f;
};

// Channel options: the colour switch (1 = the padding replicates every image
// plane, anything else = only plane 0) and the record of the channel groups
// added at the last computed scale. A new block is all zero.
struct channel_options {
    int32_t color_option = 0;
    int32_t n_added = 0;
};

// Number of live tree-table arrays in the process (each table set owns four
// while initialised). Lets the re-initialisation be checked for leaks.
size_t tree_table_live_arrays();

// The boosted-tree tables: fixed data of the extractor, tree-major (node k
// of tree t at t * n_nodes + k). Nothing evaluates them: windows are scored
// by the linear classifier. They are carried with the extractor, copied from
// the library's constant data at every (re)initialisation.
class tree_tables {
public:
    static constexpr int32_t kTrees = 2048;
    static constexpr int32_t kNodes = 7;
    static constexpr int32_t kDepth = 2;

    struct array_deleter {
        void operator()(int32_t *p) const;
    };
    using table = std::unique_ptr<int32_t[], array_deleter>;

    // Frees the four arrays (when present) and copies them afresh.
    void init();
    size_t table_size() const { return static_cast<size_t>(n_trees) * static_cast<size_t>(n_nodes); }

    int32_t n_trees = kTrees;
    int32_t n_nodes = kNodes;
    int32_t depth = kDepth;
    table fids;   // feature index compared at an internal node; 0 at leaves
    table child;  // one-based first child of an internal node; 0 at leaves
    table thrs;   // threshold of an internal node, feature-byte units
    table hs;     // score of every node
};

// The library's constant tree data, one array per table, tree-major
// (defined in tree_table_data.cpp).
using tree_table_data = std::array<int32_t, static_cast<size_t>(tree_tables::kTrees) * tree_tables::kNodes>;
extern const tree_table_data kTreeFids;
extern const tree_table_data kTreeChild;
extern const tree_table_data kTreeThrs;
extern const tree_table_data kTreeHs;

}  // namespace ostrel
