#include "engine/learnable_window.h"

#include "acf/box_window.h"
#include "acf/ostrel_acf.h"
#include "common/failure.h"
#include "common/log.h"
#include "common/window_weights.h"

namespace ostrel {

namespace {

// Cells per picture pixel, as the sample cutter takes them.
float cells_per_pixel(int32_t cells, int32_t pixels) { return static_cast<float>(cells) / static_cast<float>(pixels); }

// Features of the first box that the sample cutter turns into a sample: the
// first, in list order and whatever its label, whose window lies inside the
// map. 0 when no box does (set-up then fails for want of samples).
int64_t first_sample_features(const std::vector<ostrel_alg_box> &boxes, float sx, float sy, const map_extent &map) {
    for (const ostrel_alg_box &box : boxes) {
        window_rect window;
        if (box_to_window(box, sx, sy, &window) && window_inside_cells(window, map.columns, map.rows)) {
            return static_cast<int64_t>(map.channels) * window.width * window.height;
        }
    }
    return 0;
}

}  // namespace

map_extent scale0_map_extent(const ostrel_acf &extractor) {
    map_extent map;
    if (extractor.pyramid.n_scales < 1) {
        return map;
    }
    // The store keeps record terms: a record's width runs along the
    // picture's rows.
    map.channels = extractor.pyramid.channels[0];
    map.columns = extractor.pyramid.height[0];
    map.rows = extractor.pyramid.width[0];
    return map;
}

learning_state learning_state_of(const ostrel_acf &extractor, const std::vector<training_sample> &held_samples) {
    learning_state state;
    state.map = scale0_map_extent(extractor);
    state.held_sample_features = held_samples.empty() ? 0 : held_samples.front().features.size();
    return state;
}

window_check check_learnable_window(const std::vector<ostrel_alg_box> &boxes, int32_t picture_width,
                                    int32_t picture_height, const map_extent &map, size_t held_sample_features) {
    window_check check;
    const ostrel_alg_box &first = boxes.front();
    if (first.width < 1 || first.height < 1) {
        check.verdict = window_verdict::box_without_size;
        return check;
    }
    const float sx = cells_per_pixel(map.columns, picture_width);
    const float sy = cells_per_pixel(map.rows, picture_height);
    int32_t columns = 0;
    int32_t rows = 0;
    if (!scale_to_cells(first.width, sx, &columns) || !scale_to_cells(first.height, sy, &rows)) {
        // Beyond the int32 range: far larger than any map.
        check.verdict = window_verdict::window_beyond_map;
        return check;
    }
    check.window.width = columns;
    check.window.height = rows;
    if (columns < 1 || rows < 1) {
        check.verdict = window_verdict::window_without_cell;
        return check;
    }
    if (columns > map.columns || rows > map.rows) {
        check.verdict = window_verdict::window_beyond_map;
        return check;
    }
    check.window_features = static_cast<int64_t>(map.channels) * columns * rows;
    check.sample_features = held_sample_features > 0 ? static_cast<int64_t>(held_sample_features)
                                                     : first_sample_features(boxes, sx, sy, map);
    if (check.sample_features != 0 && check.sample_features != check.window_features) {
        check.verdict = window_verdict::other_sample_length;
    }
    return check;
}

window_check check_storable_window(const std::vector<ostrel_alg_box> &boxes, int32_t picture_width,
                                   int32_t picture_height, const map_extent &map, size_t held_sample_features) {
    window_check check = check_learnable_window(boxes, picture_width, picture_height, map, held_sample_features);
    if (check.verdict == window_verdict::learnable &&
        (check.window_features < kMinWindowWeights || check.window_features > kMaxWindowWeights)) {
        check.verdict = window_verdict::weights_unstorable;
    }
    return check;
}

void fail_unlearnable_box(const window_check &check, const ostrel_alg_box &box, int32_t picture_width,
                          int32_t picture_height, const map_extent &map, const char *operation) {
    switch (check.verdict) {
        case window_verdict::learnable: return;
        case window_verdict::box_without_size:
            fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                 "[Debug] %s: a box of %d x %d pixels has no window: use a larger box\n", operation, box.width,
                 box.height);
            return;
        case window_verdict::window_beyond_map:
            fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                 "[Debug] %s: a %d x %d box on this %d x %d picture gives the detector a window larger than the "
                 "picture's %d x %d feature cells; a model holds %d to %d values: use a smaller box\n",
                 operation, box.width, box.height, picture_width, picture_height, map.columns, map.rows,
                 kMinWindowWeights, kMaxWindowWeights);
            return;
        case window_verdict::window_without_cell:
        case window_verdict::weights_unstorable:
            fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                 "[Debug] %s: a %d x %d box on this %d x %d picture gives the detector a window of %d x %d feature "
                 "cells "
                 "(%lld values); a model holds %d to %d values: use a %s box\n",
                 operation, box.width, box.height, picture_width, picture_height, check.window.width,
                 check.window.height,
                 static_cast<long long>(static_cast<int64_t>(map.channels) * check.window.width * check.window.height),
                 kMinWindowWeights, kMaxWindowWeights,
                 check.window_features > kMaxWindowWeights ? "smaller" : "larger");
            return;
        case window_verdict::other_sample_length:
            fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                 "[Debug] %s: a %d x %d box on this %d x %d picture gives the detector a window of %d x %d feature "
                 "cells "
                 "(%lld values), but the samples the engine holds have %lld: mark the box at the size of the boxes "
                 "before it\n",
                 operation, box.width, box.height, picture_width, picture_height, check.window.width,
                 check.window.height, static_cast<long long>(check.window_features),
                 static_cast<long long>(check.sample_features));
            return;
    }
}

void log_window_check(const window_check &check, const ostrel_alg_box &first, int32_t picture_width,
                      int32_t picture_height, const map_extent &map, const char *operation) {
    switch (check.verdict) {
        case window_verdict::learnable:
        case window_verdict::weights_unstorable:  // set-up trains such a window
            return;
        case window_verdict::box_without_size:
            fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                 "[Debug] %s: the first box is %d x %d pixels: no window can be learnt from it\n", operation,
                 first.width, first.height);
            return;
        case window_verdict::window_without_cell:
            fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                 "[Debug] %s: the first box, %d x %d pixels of a %d x %d picture, covers %d x %d feature cells: too "
                 "small to learn\n",
                 operation, first.width, first.height, picture_width, picture_height, check.window.width,
                 check.window.height);
            return;
        case window_verdict::window_beyond_map:
            fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                 "[Debug] %s: the first box, %d x %d pixels of a %d x %d picture, is larger than the picture's %d x %d "
                 "feature cells: too large to learn\n",
                 operation, first.width, first.height, picture_width, picture_height, map.columns, map.rows);
            return;
        case window_verdict::other_sample_length:
            fail(OSTREL_ALG_ERR_BOX_NOT_LEARNABLE,
                 "[Debug] %s: the first box's window of %d x %d cells has %lld features, but the training samples "
                 "it would join have %lld: a model learns one window, so mark every box at one size\n",
                 operation, check.window.width, check.window.height, static_cast<long long>(check.window_features),
                 static_cast<long long>(check.sample_features));
            return;
    }
}

}  // namespace ostrel
