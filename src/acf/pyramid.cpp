// The scale pyramid: scale search, map layout and the pyramid computation.
#include "acf/pyramid.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "acf/acf_helper.h"
#include "acf/integral_channel_feature.h"

namespace ostrel {

// --- store --------------------------------------------------------------------

void pyramid_store::clear() {
    const int32_t flag = pyramid_flag;
    *this = pyramid_store{};
    pyramid_flag = flag;
}

bool pyramid_store::add_scale(float factor, int32_t image_w, int32_t image_h) {
    if (n_scales >= kMaxScales || image_w < 0 || image_h < 0) {
        return false;
    }
    const int32_t i = n_scales++;
    scales[i] = factor;
    scale_w[i] = factor;
    scale_h[i] = factor;
    image_width[i] = image_w;
    image_height[i] = image_h;
    return true;
}

void pyramid_store::classify_scales(int32_t n_approx) {
    const int32_t step = n_approx >= 0 ? n_approx + 1 : 1;
    n_computed = 0;
    n_approximated = 0;
    for (int32_t i = 0; i < n_scales; ++i) {
        if (i % step == 0) {
            computed[n_computed++] = i;
        }
    }
    for (int32_t i = 0; i < n_scales; ++i) {
        if (i % step == 0) {
            continue;
        }
        // The nearest computed scale; the earlier one when two are as near.
        int32_t nearest = computed[0];
        for (int32_t k = 1; k < n_computed; ++k) {
            if (std::abs(computed[k] - i) < std::abs(nearest - i)) {
                nearest = computed[k];
            }
        }
        approximated[n_approximated] = i;
        approximated_from[n_approximated] = nearest;
        ++n_approximated;
    }
}

void pyramid_store::layout_maps(int32_t n_channels, int32_t shrink) {
    bool changed = false;
    size_t total = 0;
    for (int32_t i = 0; i < n_scales; ++i) {
        const int32_t c = std::max(n_channels, 0);
        const int32_t w = shrink > 0 ? image_width[i] / shrink : 0;
        const int32_t h = shrink > 0 ? image_height[i] / shrink : 0;
        changed = changed || c != channels[i] || w != width[i] || h != height[i] || offset[i] != total;
        channels[i] = c;
        width[i] = w;
        height[i] = h;
        offset[i] = total;
        total += map_bytes(i);
    }
    if (changed || unpadded.size() != total) {
        unpadded.assign(total, 0);
    }
}

void pyramid_store::layout_padded(int32_t pad_cells_x, int32_t pad_cells_y) {
    size_t total = 0;
    for (int32_t i = 0; i < n_scales; ++i) {
        padded_width[i] = width[i] + 2 * pad_cells_x;
        padded_height[i] = height[i] + 2 * pad_cells_y;
        padded_offset[i] = total;
        total += padded_bytes(i);
    }
    if (padded.size() != total) {
        padded.assign(total, 0);
    }
}

bool pyramid_store::is_computed(int32_t scale) const {
    return std::find(computed, computed + n_computed, scale) != computed + n_computed;
}

size_t pyramid_store::map_bytes(int32_t scale) const {
    return static_cast<size_t>(channels[scale]) * static_cast<size_t>(width[scale]) *
           static_cast<size_t>(height[scale]);
}

size_t pyramid_store::padded_bytes(int32_t scale) const {
    return static_cast<size_t>(channels[scale]) * static_cast<size_t>(padded_width[scale]) *
           static_cast<size_t>(padded_height[scale]);
}

namespace {

// A copy of the map of channels x w x h bytes that starts at `from`.
chn_image8 copy_map(const uint8_t *from, int32_t channels, int32_t w, int32_t h) {
    chn_image8 out(channels, w, h);
    std::memcpy(out.data.data(), from, out.data.size());
    return out;
}

}  // namespace

chn_image8 pyramid_store::map(int32_t scale) const {
    if (scale < 0 || scale >= n_scales) {
        return chn_image8();
    }
    return copy_map(unpadded.data() + offset[scale], channels[scale], width[scale], height[scale]);
}

chn_image8 pyramid_store::padded_map(int32_t scale) const {
    if (scale < 0 || scale >= n_scales) {
        return chn_image8();
    }
    return copy_map(padded.data() + padded_offset[scale], channels[scale], padded_width[scale], padded_height[scale]);
}

// --- scale search -----------------------------------------------------------

namespace {

// Number of candidate factors of the scale search.
constexpr int32_t kScaleCandidates = 101;
// Error the search starts from; any real candidate beats it.
constexpr float kWorstScaleError = 100.0f;

// Side length of a scaled side, rounded to a multiple of shrink (single
// precision, truncating after adding one half).
int32_t rounded_side(int32_t side, float factor, float shrink) {
    return static_cast<int32_t>(static_cast<float>(side) * factor / shrink + 0.5f) * static_cast<int32_t>(shrink);
}

float side_error(int32_t side, float factor, float shrink) {
    const float scaled = static_cast<float>(side) * factor;
    const float rounded = static_cast<float>(static_cast<int32_t>(scaled / shrink + 0.5f)) * shrink;
    return std::fabs(scaled - rounded);
}

}  // namespace

refined_scale refine_scale(int32_t side_a, int32_t side_b, int32_t shrink) {
    refined_scale result;
    if (side_a <= 0 || side_b <= 0 || shrink <= 0) {
        return result;
    }
    const float s = static_cast<float>(shrink);
    const float d = static_cast<float>(std::min(side_a, side_b));
    // The multiple of shrink nearest to half the smaller side; the candidates
    // span a quarter cell either side of it.
    const float half = static_cast<float>(static_cast<int32_t>(d * 0.5f / s + 0.5f)) * s;
    const float lo = (half - 0.25f * s) / d;
    const float hi = (half + 0.25f * s) / d;

    float best_error = kWorstScaleError;
    float best = 0.0f;
    for (int32_t k = 0; k < kScaleCandidates; ++k) {
        const float candidate = lo + 0.01f * static_cast<float>(k) * (hi - lo);
        const float error = std::max(side_error(side_a, candidate, s), side_error(side_b, candidate, s));
        if (error < best_error) {  // strictly better: the earliest wins a tie
            best_error = error;
            best = candidate;
        }
    }
    result.factor = best;
    result.image_a = rounded_side(side_a, best, s);
    result.image_b = rounded_side(side_b, best, s);
    result.factor_a = static_cast<float>(result.image_a) / static_cast<float>(side_a);
    result.factor_b = static_cast<float>(result.image_b) / static_cast<float>(side_b);
    return result;
}

void compute_scales(pyramid_store &store, const pyramid_params &params, int32_t record_width, int32_t record_height,
                    int32_t pyramid_flag) {
    store.clear();
    store.pyramid_flag = pyramid_flag;
    if (record_width <= 0 || record_height <= 0 || params.chns.shrink <= 0) {
        return;
    }
    // One scale: the half-size scale refined so that both sides of its image
    // are multiples of shrink. Further pyramid levels are never used.
    const refined_scale scale = refine_scale(record_width, record_height, params.chns.shrink);
    store.add_scale(scale.factor, scale.image_a, scale.image_b);
    store.scale_w[0] = scale.factor_a;
    store.scale_h[0] = scale.factor_b;
    store.classify_scales(params.n_approx);
    const int32_t shrink = params.chns.shrink;
    store.layout_maps(params.chns.total_channels(), shrink);
    store.layout_padded(std::max(params.pad_x, 0) / shrink, std::max(params.pad_y, 0) / shrink);
}

// --- padding ----------------------------------------------------------------

namespace {

void pad_planes(const uint8_t *src, int32_t channels, int32_t width, int32_t height, int32_t pad_x, int32_t pad_y,
                int32_t replicated_planes, uint8_t *dst) {
    const int32_t out_w = width + 2 * pad_x;
    const int32_t out_h = height + 2 * pad_y;
    const size_t in_plane = static_cast<size_t>(width) * static_cast<size_t>(height);
    const size_t out_plane = static_cast<size_t>(out_w) * static_cast<size_t>(out_h);
    for (int32_t c = 0; c < channels; ++c) {
        const uint8_t *in = src + static_cast<size_t>(c) * in_plane;
        uint8_t *out = dst + static_cast<size_t>(c) * out_plane;
        const bool replicate = c < replicated_planes && width > 0 && height > 0;
        if (!replicate) {
            std::memset(out, 0, out_plane);
            for (int32_t y = 0; y < height; ++y) {
                std::memcpy(out + static_cast<size_t>(y + pad_y) * out_w + pad_x, in + static_cast<size_t>(y) * width,
                            static_cast<size_t>(width));
            }
            continue;
        }
        // Each border cell takes the nearest map cell: rows above and below
        // repeat the first and last map row, columns left and right repeat
        // the row's first and last value.
        for (int32_t y = 0; y < out_h; ++y) {
            const int32_t sy = std::min(std::max(y - pad_y, 0), height - 1);
            const uint8_t *row_in = in + static_cast<size_t>(sy) * width;
            uint8_t *row_out = out + static_cast<size_t>(y) * out_w;
            std::memset(row_out, row_in[0], static_cast<size_t>(pad_x));
            std::memcpy(row_out + pad_x, row_in, static_cast<size_t>(width));
            std::memset(row_out + pad_x + width, row_in[width - 1], static_cast<size_t>(pad_x));
        }
    }
}

}  // namespace

chn_image8 pad_feature_map(const chn_image8 &map, int32_t pad_x, int32_t pad_y, int32_t replicated_planes) {
    pad_x = std::max(pad_x, 0);
    pad_y = std::max(pad_y, 0);
    chn_image8 out(map.channels, map.width + 2 * pad_x, map.height + 2 * pad_y);
    if (!out.data.empty()) {
        pad_planes(map.data.data(), map.channels, map.width, map.height, pad_x, pad_y, replicated_planes,
                   out.data.data());
    }
    return out;
}

// --- pyramid ----------------------------------------------------------------

namespace {

// Half-size scales may serve as the base of the scales after them.
constexpr float kRebaseFactor = 0.5f;

}  // namespace

void compute_acf_pyramid(channel_options &options, const chn_image8 &image, const pyramid_params &params,
                         pyramid_store &store) {
    const chn_config &config = params.chns;
    if (config.shrink <= 0) {
        return;
    }
    // With the colour option the border of every image plane repeats its
    // edge; otherwise only the first plane does, and all others get zeros.
    const int32_t replicated_planes = options.color_option == 1 ? image.channels : 1;
    store.layout_maps(config.total_channels(), config.shrink);

    // The base image: the input, until a half-size scale takes its place.
    const chn_image8 *base = &image;
    chn_image8 half_base;
    integral_channel_feature channels;
    for (int32_t k = 0; k < store.n_computed; ++k) {
        const int32_t i = store.computed[k];
        const int32_t wi = store.image_width[i];
        const int32_t hi = store.image_height[i];
        chn_image8 scaled =
            (wi != base->width || hi != base->height) ? acf_helper::image_resample_fix(*base, wi, hi, 1.0f) : *base;
        if (store.scales[i] == kRebaseFactor && (params.n_approx > 0 || params.n_per_oct == 1)) {
            // Later scales are resampled from this half-size image, not from
            // the full input: their pixels differ from a direct resampling,
            // and that is the intended pyramid.
            half_base = scaled;
            base = &half_base;
        }
        channels.compute_channels(scaled, config);
        options.n_added = channels.n_added;
        const size_t bytes = std::min(channels.feature.data.size(), store.map_bytes(i));
        uint8_t *dst = store.unpadded.data() + store.offset[i];
        if (bytes > 0) {
            std::memcpy(dst, channels.feature.data.data(), bytes);
        }
        std::fill(dst + bytes, dst + store.map_bytes(i), 0);
    }

    const int32_t pad_cells_x = std::max(params.pad_x, 0) / config.shrink;
    const int32_t pad_cells_y = std::max(params.pad_y, 0) / config.shrink;
    store.layout_padded(pad_cells_x, pad_cells_y);
    for (int32_t i = 0; i < store.n_scales; ++i) {
        if (store.padded_bytes(i) == 0) {
            continue;
        }
        pad_planes(store.unpadded.data() + store.offset[i], store.channels[i], store.width[i], store.height[i],
                   pad_cells_x, pad_cells_y, replicated_planes, store.padded.data() + store.padded_offset[i]);
    }
}

}  // namespace ostrel
