// acf_helper: the integer kernels of the channel features.
//
// Gradient magnitude and orientation, oriented-gradient histograms, and
// fixed-point resampling and byte conversion of planar images. Every result
// is defined to the bit by integer arithmetic: truncating divisions,
// arithmetic shifts, 32-bit wrap-around where noted. All images are
// chn_image records in record terms (width = the contiguous axis).
#pragma once

#include <cstdint>
#include <vector>

#include "acf/chn_image.h"

namespace ostrel {
namespace acf_helper {

// --- gradient magnitude and orientation -----------------------------------

// Number of entries of the orientation table: 511 * 511.
inline constexpr int32_t kOrientTableSize = 511 * 511;

// The process-wide arctangent table, made ready once (thread-safely) on first
// use. Entry (a + 255) * 511 + (b + 255), a and b in -255..255, holds
// trunc(10000 * atan2(a, b)), raised by pi when negative: 0..31415.
const int32_t *orient_table();

// Fills the vertical and horizontal differences of row y of channel c
// (previous minus next; one-sided differences at the borders doubled) into
// two caller-owned rows of `width` values, zeroing them first.
void gradient_row_diff(const chn_image8 &image, int32_t y, int32_t c, int32_t width, int32_t height,
                       int32_t *vertical_row, int32_t *horizontal_row);

// Squared gradient magnitude (of the strongest channel) and orientation in
// 1/10000 radian. mag and orient must already be 1 x width x height. Images
// smaller than 2 x 2 are refused with a log line and leave both untouched.
void gradient_mag_orient(const chn_image8 &image, chn_image32 &mag, chn_image32 &orient);

// --- gradient histograms ----------------------------------------------------

// n_orients planes of (width / bin_size) x (height / bin_size) cells, each the
// sum of (mag / bin_size) / bin_size over the cell's pixels whose orientation
// falls into the bin. A size or channel mismatch logs and returns an empty
// record.
chn_image32 gradient_mag_histogram(const chn_image32 &mag, const chn_image32 &orient, int32_t bin_size,
                                   int32_t n_orients);

// --- fixed-point resampling and normalisation -------------------------------

// One direction's resampling coefficients (Q14 weights).
struct resample_coefs {
    std::vector<int32_t> src_index;
    std::vector<int32_t> dst_index;
    std::vector<int32_t> weight;
    int32_t bd0 = 0;
    int32_t bd1 = 0;
    int32_t size() const { return static_cast<int32_t>(weight.size()); }
};

// Coefficients for resampling a line of `a` values to `b` values; p is the
// number of entries each target is padded to (0 vertical, 4 horizontal).
resample_coefs resample_coef(int32_t a, int32_t b, int32_t p);

// Resizes an 8-bit image to dst_width x dst_height with factor r (1.0 for
// pictures). A target side below 1 logs and returns an empty record.
chn_image8 image_resample_fix(const chn_image8 &src, int32_t dst_width, int32_t dst_height, float r);

// Resizes 32-bit planes and converts them to bytes in the same pass, with
// factor r (1.0 or 0.005667).
chn_image8 feature_resample_fix(const chn_image32 &src, int32_t dst_width, int32_t dst_height, float r);

// Converts 32-bit planes to bytes without resizing: clamp((v * q) >> 14, 0,
// 255) with q = trunc(r * 16384). width and height are the source's own.
chn_image8 convert_norm_byte_fix(const chn_image32 &src, int32_t width, int32_t height, float r);

}  // namespace acf_helper
}  // namespace ostrel
