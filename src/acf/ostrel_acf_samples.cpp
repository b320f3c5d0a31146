// Training samples cut out of a feature map: box samples, their jittered
// variants and random negatives.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "acf/ostrel_acf.h"
#include "acf/box_window.h"
#include "common/box_geometry.h"
#include "common/log.h"
#include "common/progress.h"

namespace ostrel {

namespace {

constexpr const char *kWrongPointerFormat = "[%s] Fail:: wrong pointer! (%s line:%d)\n";
constexpr const char *kAddRandomNegativeName = "ostrel_acf::addRandomNegative";
constexpr const char *kAcfSource = "ostrel_acf";
constexpr int kAddRandomNegativeLine = 709;

constexpr int kRandomNegativeCount = 10;
constexpr float kMaxNegativeOverlap = 0.3f;
constexpr float kJitterShift = 0.1f;

// Without a bound the draw loop never ends when no position can satisfy the
// rules (a positive as large as the map, or positives covering it), which
// would hang the host's thread. A million rejected draws is far beyond what
// any map with room for a negative needs (each draw is a fixed chance of
// landing on an allowed position), so the bound only ever cuts loops that
// could not have finished.
constexpr long kMaxRejectedDraws = 1000000;

// The map's extents are usable and its buffer holds every cell they name.
bool map_is_consistent(const feature_map &map) {
    if (map.channels < 0 || map.columns < 0 || map.rows < 0) return false;
    const unsigned long long cells = static_cast<unsigned long long>(map.channels) *
                                     static_cast<unsigned long long>(map.columns) *
                                     static_cast<unsigned long long>(map.rows);
    return cells <= map.data.size();
}

// The window covers at least one cell and lies wholly inside the map.
bool window_inside_map(const feature_map &map, const window_rect &w) {
    return window_inside_cells(w, map.columns, map.rows);
}

// The part of the window inside the map (width or height 0 when none).
window_rect clip_to_map(const feature_map &map, const window_rect &w) {
    const int64_t left = std::max<int64_t>(w.x, 0);
    const int64_t top = std::max<int64_t>(w.y, 0);
    const int64_t right = std::min<int64_t>(static_cast<int64_t>(w.x) + w.width, map.columns);
    const int64_t bottom = std::min<int64_t>(static_cast<int64_t>(w.y) + w.height, map.rows);
    window_rect clipped;
    if (right <= left || bottom <= top) return clipped;
    clipped.x = static_cast<int32_t>(left);
    clipped.y = static_cast<int32_t>(top);
    clipped.width = static_cast<int32_t>(right - left);
    clipped.height = static_cast<int32_t>(bottom - top);
    return clipped;
}

}  // namespace

std::vector<float> cropChannelWindow(const feature_map *map, const window_rect *window) {
    std::vector<float> features;
    if (map == nullptr || window == nullptr) return features;
    // Callers keep their windows inside the map; a window that is not (or a
    // map whose buffer is shorter than its extents) gives an empty crop
    // instead of a read past the buffer.
    if (!map_is_consistent(*map) || !window_inside_map(*map, *window)) return features;

    const size_t width = static_cast<size_t>(window->width);
    const size_t height = static_cast<size_t>(window->height);
    features.resize(static_cast<size_t>(map->channels) * width * height);
    float *out = features.data();
    for (int32_t c = 0; c < map->channels; ++c) {
        for (size_t i = 0; i < width; ++i) {
            // One map column of the window is one contiguous run of cells.
            const uint8_t *column = map->data.data() + map->index(c, window->x + static_cast<int32_t>(i), window->y);
            for (size_t j = 0; j < height; ++j) *out++ = static_cast<float>(column[j]);
        }
    }
    return features;
}

void addJitteredSamples(const feature_map *map, const window_rect *window, int32_t label, float shift,
                        training_sample *parent) {
    if (map == nullptr || map->empty() || window == nullptr || parent == nullptr) return;
    // A window as wide or as tall as the map has no variant strictly inside
    // it; leaving early also keeps the loop short for absurd sizes.
    if (window->width >= map->columns || window->height >= map->rows) return;
    int32_t kx = 0;
    int32_t ky = 0;
    if (!scale_to_cells(window->width, shift, &kx) || !scale_to_cells(window->height, shift, &ky)) return;

    // Steps of two: with an odd reach the unshifted window is not visited,
    // which is fine, since the box sample itself already carries it.
    // Offsets run in int64 so that no reach can overflow the loop counter.
    for (int64_t dx = -static_cast<int64_t>(kx); dx <= kx; dx += 2) {
        for (int64_t dy = -static_cast<int64_t>(ky); dy <= ky; dy += 2) {
            const int64_t x = window->x + dx;
            const int64_t y = window->y + dy;
            // Strictly inside: a variant touching the right or bottom edge is
            // not kept.
            if (x < 0 || y < 0 || x + window->width >= map->columns || y + window->height >= map->rows) continue;
            training_sample variant;
            variant.rect = window_rect{static_cast<int32_t>(x), static_cast<int32_t>(y), window->width, window->height};
            variant.label = label;
            variant.features = cropChannelWindow(map, &variant.rect);
            parent->variants.push_back(std::move(variant));
        }
    }
}

void ostrel_acf::addRandomNegative(const feature_map *map, const std::vector<window_rect> &positives) {
    // A malformed map or a first positive without cells is as unusable as a
    // missing one: no negative could be cut out of it.
    if (map == nullptr || map->empty() || positives.empty() || !map_is_consistent(*map) || map->columns < 1 ||
        map->rows < 1 || positives.front().width < 1 || positives.front().height < 1) {
        log(kWrongPointerFormat, kAddRandomNegativeName, kAcfSource, kAddRandomNegativeLine);
        return;
    }

    // One seeding per call: from the clock so that the draws differ between
    // runs, or from the chosen seed so that a training can be repeated.
    if (random_seed_set_) {
        random_.seed(random_seed_);
    } else {
        random_.seed(static_cast<uint32_t>(std::time(nullptr)));
    }

    const int32_t W = map->columns;
    const int32_t H = map->rows;
    const int32_t w = positives.front().width;
    const int32_t h = positives.front().height;

    int found = 0;
    long rejected = 0;
    while (found < kRandomNegativeCount) {
        if (rejected >= kMaxRejectedDraws) {
            log("[ostrel_acf::addRandomNegative] Fail:: gave up after %ld rejected draws, %d of %d negatives found\n",
                rejected, found, kRandomNegativeCount);
            return;
        }
        const int32_t cx = random_.next() % W;
        const int32_t cy = random_.next() % H;
        const window_rect candidate{cx - w / 2, cy - h / 2, w, h};
        // Touching the right or bottom edge is allowed here.
        if (candidate.x < 0 || candidate.y < 0 || static_cast<int64_t>(candidate.x) + w > W ||
            static_cast<int64_t>(candidate.y) + h > H) {
            ++rejected;
            continue;
        }
        bool overlaps_positive = false;
        for (const window_rect &p : positives) {
            if (box_overlap(candidate.x, candidate.y, candidate.width, candidate.height, p.x, p.y, p.width, p.height) >
                kMaxNegativeOverlap) {
                overlaps_positive = true;
                break;
            }
        }
        if (overlaps_positive) {
            ++rejected;
            continue;
        }
        // Negatives are not checked against each other: two may coincide.
        training_sample negative;
        negative.label = kRandomNegativeLabel;
        negative.features = cropChannelWindow(map, &candidate);
        samples.push_back(std::move(negative));
        ++found;
    }
}

void ostrel_acf::collectTrainingSamples(std::vector<training_sample> &out, const feature_map *map,
                                        const std::vector<ostrel_alg_box> &boxes, bool skip_random_negatives,
                                        int32_t input_width, int32_t input_height) {
    samples.clear();
    if (map == nullptr || map->empty()) {
        out = samples;
        return;
    }
    if (!map_is_consistent(*map)) {
        log("[Debug] feature map of %d channels, %d x %d cells holds only %zu bytes: no samples\n", map->channels,
            map->columns, map->rows, map->data.size());
        out = samples;
        return;
    }
    if (input_width < 1 || input_height < 1) {
        log("[Debug] picture size %d x %d cannot scale boxes to the feature map: no samples\n", input_width,
            input_height);
        out = samples;
        return;
    }

    const float sx = static_cast<float>(map->columns) / static_cast<float>(input_width);
    const float sy = static_cast<float>(map->rows) / static_cast<float>(input_height);

    std::vector<window_rect> positives;
    // Positive boxes whose window leaves the map: they make no sample, but the
    // part of the object that is inside the map must not become a negative.
    std::vector<window_rect> outside_positives;

    for (size_t b = 0; b < boxes.size(); ++b) {
        const ostrel_alg_box &box = boxes[b];
        window_rect window;
        const bool scaled = box_to_window(box, sx, sy, &window);
        // A box that reaches past the picture (or one too small to cover a
        // cell) has no window of the map to cut: cropping it would read
        // outside the map. Skipping it keeps every sample the same size
        // (clipping would not) and keeps its content honest (shifting it
        // inside would not).
        if (!scaled || !window_inside_map(*map, window)) {
            log("[Debug] box %zu (%d, %d, %d x %d) lies outside the %d x %d feature map: skipped\n", b, window.x,
                window.y, window.width, window.height, map->columns, map->rows);
            ostrel_alg_progress skipped = progress_record(OSTREL_ALG_STAGE_BOX_SKIPPED);
            skipped.boxes_skipped = 1;
            report_progress(skipped);
            if (scaled && box.label == kPositiveLabel) {
                const window_rect visible = clip_to_map(*map, window);
                if (visible.width > 0 && visible.height > 0) outside_positives.push_back(visible);
            }
            continue;
        }

        training_sample sample;
        sample.features = cropChannelWindow(map, &window);
        sample.label = box.label;
        if (box.label == kPositiveLabel) {
            addJitteredSamples(map, &window, kPositiveLabel, kJitterShift, &sample);
            positives.push_back(window);
        } else {
            addJitteredSamples(map, &window, kNegativeLabel, kJitterShift, &sample);
        }
        samples.push_back(std::move(sample));
    }

    if (!skip_random_negatives) {
        // The negatives take the size of the first positive that made a
        // sample; the skipped positives only stand in their way.
        if (!positives.empty()) positives.insert(positives.end(), outside_positives.begin(), outside_positives.end());
        addRandomNegative(map, positives);
    }
    out = samples;
}

}  // namespace ostrel
