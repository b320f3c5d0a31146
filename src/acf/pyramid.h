// pyramid: the scale pyramid of the channel features.
//
// The store lists the scales to compute (factor and image size), which of
// them are computed and which approximated, and holds every scale's feature
// map twice: as computed (unpadded) and with its border pad. The scale
// computation fills the list for one picture size; compute_acf_pyramid
// fills the maps from one image.
//
// Everything here is in record terms (see chn_image.h): a record's width
// runs along the picture's rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "acf/chn_image.h"
#include "acf/extractor_blocks.h"

namespace ostrel {

struct pyramid_store {
    static constexpr int32_t kMaxScales = 30;

    int32_t n_scales = 0;
    float scales[kMaxScales] = {};
    // Per scale: the factors actually applied to each side (image size /
    // picture side), and the image size to compute.
    float scale_w[kMaxScales] = {};
    float scale_h[kMaxScales] = {};
    int32_t image_width[kMaxScales] = {};
    int32_t image_height[kMaxScales] = {};

    // Computed scales, and approximated scales with the computed scale each
    // is derived from.
    int32_t n_computed = 0;
    int32_t computed[kMaxScales] = {};
    int32_t n_approximated = 0;
    int32_t approximated[kMaxScales] = {};
    int32_t approximated_from[kMaxScales] = {};

    // Per scale: the unpadded feature map's size and its offset in
    // `unpadded`; the padded map's size and its offset in `padded`.
    int32_t channels[kMaxScales] = {};
    int32_t width[kMaxScales] = {};
    int32_t height[kMaxScales] = {};
    size_t offset[kMaxScales] = {};
    int32_t padded_width[kMaxScales] = {};
    int32_t padded_height[kMaxScales] = {};
    size_t padded_offset[kMaxScales] = {};
    std::vector<uint8_t> unpadded;
    std::vector<uint8_t> padded;

    // The last value of the caller's pyramid flag handed to the scale
    // computation. The scale computation keeps it and nothing reads it.
    int32_t pyramid_flag = 0;

    // Forgets every scale and releases the maps.
    void clear();
    // Appends a scale of the given factor and image size (record terms).
    // Returns false when the store is full or the size is negative.
    bool add_scale(float factor, int32_t image_w, int32_t image_h);
    // Marks scale i computed when i mod (n_approx + 1) == 0, else
    // approximated from the nearest computed scale (the earlier on a tie).
    void classify_scales(int32_t n_approx);
    // Sizes every scale's unpadded map (channels x image/shrink) and lays
    // out the unpadded store; keeps the bytes when the layout is unchanged.
    void layout_maps(int32_t n_channels, int32_t shrink);
    // Sizes every scale's padded map (pad_cells_x and pad_cells_y cells on
    // each side) and lays out the padded store.
    void layout_padded(int32_t pad_cells_x, int32_t pad_cells_y);

    bool is_computed(int32_t scale) const;
    size_t map_bytes(int32_t scale) const;
    size_t padded_bytes(int32_t scale) const;
    // Unpadded and padded map of a scale as a record (a copy).
    chn_image8 map(int32_t scale) const;
    chn_image8 padded_map(int32_t scale) const;
};

// The scale search around the half-size scale: the factor among 101
// candidates near 0.5 whose image sides land closest to multiples of
// `shrink`. side_a and side_b are the picture's sides in the order the
// record's width and height take them.
struct refined_scale {
    float factor = 0.0f;
    float factor_a = 0.0f;  // applied to side_a: image_a / side_a
    float factor_b = 0.0f;
    int32_t image_a = 0;
    int32_t image_b = 0;
};
refined_scale refine_scale(int32_t side_a, int32_t side_b, int32_t shrink);

// Fills the store's scale list for a picture whose record has
// record_width x record_height pixels (picture rows x picture columns) and
// lays out its maps. There is always one scale, the refined half-size
// scale; a side of 0 skips the search and leaves the store without scales.
void compute_scales(pyramid_store &store, const pyramid_params &params, int32_t record_width, int32_t record_height,
                    int32_t pyramid_flag);

// Pads `map` by pad_x cells left and right and pad_y cells above and below.
// The first `replicated_planes` planes repeat their nearest edge value; the
// others get zero borders.
chn_image8 pad_feature_map(const chn_image8 &map, int32_t pad_x, int32_t pad_y, int32_t replicated_planes);

// Computes the channel features of every computed scale of `store` from
// `image` (8-bit, planar) and stores the unpadded and padded maps of every
// scale. Writes the channel groups added at the last computed scale into
// options.n_added.
void compute_acf_pyramid(channel_options &options, const chn_image8 &image, const pyramid_params &params,
                         pyramid_store &store);

}  // namespace ostrel
