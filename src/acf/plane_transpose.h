// plane_transpose: turns a picture plane into its column-by-column copy.
//
// The channel routines take pictures column by column (a record's width
// runs along the picture's rows), so every picture plane is transposed once
// on its way in. This is a pure move of bytes; the fast path and the plain
// loop give the same bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ostrel {

// dst[k * rows + r] = src[r * src_stride + k] for r < rows, k < columns.
void transpose_plane(const uint8_t *src, size_t src_stride, int32_t rows, int32_t columns, uint8_t *dst);

// Width of a strip: the number of picture rows transpose_strip turns at once.
inline constexpr int32_t kStripRows = 16;

// Transposes a strip of up to kStripRows picture rows into a tile of
// `columns` x kStripRows bytes: tile[k * kStripRows + l] = src[l * src_stride
// + k] for l < rows; lanes l >= rows are 0.
void transpose_strip(const uint8_t *src, size_t src_stride, int32_t rows, int32_t columns, uint8_t *tile);

// The plain element-by-element loop (the reference of the fast path).
void transpose_plane_scalar(const uint8_t *src, size_t src_stride, int32_t rows, int32_t columns, uint8_t *dst);

}  // namespace ostrel
