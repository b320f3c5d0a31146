// Byte-plane transposition, blocked 16 x 16 with SSE2 where available.
#include "acf/plane_transpose.h"

#include <cstring>

#include "common/sse2.h"

namespace ostrel {

void transpose_plane_scalar(const uint8_t *src, size_t src_stride, int32_t rows, int32_t columns, uint8_t *dst) {
    for (int32_t r = 0; r < rows; ++r) {
        const uint8_t *row = src + static_cast<size_t>(r) * src_stride;
        for (int32_t k = 0; k < columns; ++k) {
            dst[static_cast<size_t>(k) * static_cast<size_t>(rows) + static_cast<size_t>(r)] = row[k];
        }
    }
}

namespace {

// Transposes the part of the plane from row r0, column k0 on, of the given
// extent, element by element.
void transpose_part(const uint8_t *src, size_t src_stride, int32_t rows, int32_t r0, int32_t r1, int32_t k0, int32_t k1,
                    uint8_t *dst) {
    for (int32_t r = r0; r < r1; ++r) {
        const uint8_t *row = src + static_cast<size_t>(r) * src_stride;
        for (int32_t k = k0; k < k1; ++k) {
            dst[static_cast<size_t>(k) * static_cast<size_t>(rows) + static_cast<size_t>(r)] = row[k];
        }
    }
}

#if defined(OSTREL_SSE2)

// One 16 x 16 block: 16 loads, four rounds of interleaving, 16 stores.
inline void transpose_block16(const uint8_t *src, size_t src_stride, uint8_t *dst, size_t dst_stride) {
    __m128i a[16];
    for (int i = 0; i < 16; ++i) {
        a[i] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + static_cast<size_t>(i) * src_stride));
    }
    __m128i b[16];
    for (int i = 0; i < 8; ++i) {
        b[2 * i] = _mm_unpacklo_epi8(a[2 * i], a[2 * i + 1]);
        b[2 * i + 1] = _mm_unpackhi_epi8(a[2 * i], a[2 * i + 1]);
    }
    // b[2i] holds rows 2i, 2i+1 interleaved for columns 0..7, b[2i+1] for 8..15.
    __m128i c[16];
    for (int i = 0; i < 4; ++i) {
        c[4 * i + 0] = _mm_unpacklo_epi16(b[4 * i + 0], b[4 * i + 2]);
        c[4 * i + 1] = _mm_unpackhi_epi16(b[4 * i + 0], b[4 * i + 2]);
        c[4 * i + 2] = _mm_unpacklo_epi16(b[4 * i + 1], b[4 * i + 3]);
        c[4 * i + 3] = _mm_unpackhi_epi16(b[4 * i + 1], b[4 * i + 3]);
    }
    // c[4i + j] holds rows 4i..4i+3 for columns 4j..4j+3.
    __m128i d[16];
    for (int i = 0; i < 2; ++i) {
        for (int j = 0; j < 4; ++j) {
            d[8 * i + 2 * j] = _mm_unpacklo_epi32(c[8 * i + j], c[8 * i + 4 + j]);
            d[8 * i + 2 * j + 1] = _mm_unpackhi_epi32(c[8 * i + j], c[8 * i + 4 + j]);
        }
    }
    // d[8i + m] holds rows 8i..8i+7 for columns 2m, 2m+1.
    for (int m = 0; m < 8; ++m) {
        const __m128i lo = _mm_unpacklo_epi64(d[m], d[8 + m]);  // column 2m, rows 0..15
        const __m128i hi = _mm_unpackhi_epi64(d[m], d[8 + m]);  // column 2m+1
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + static_cast<size_t>(2 * m) * dst_stride), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + static_cast<size_t>(2 * m + 1) * dst_stride), hi);
    }
}

#endif

}  // namespace

void transpose_strip(const uint8_t *src, size_t src_stride, int32_t rows, int32_t columns, uint8_t *tile) {
    if (columns <= 0) {
        return;
    }
    int32_t done = 0;
#if defined(OSTREL_SSE2)
    if (rows == kStripRows) {
        done = columns - columns % kStripRows;
        for (int32_t k = 0; k < done; k += kStripRows) {
            transpose_block16(src + static_cast<size_t>(k), src_stride, tile + static_cast<size_t>(k) * kStripRows,
                              kStripRows);
        }
    }
#endif
    const int32_t lanes = rows < 0 ? 0 : (rows > kStripRows ? kStripRows : rows);
    for (int32_t k = done; k < columns; ++k) {
        uint8_t *out = tile + static_cast<size_t>(k) * kStripRows;
        for (int32_t l = 0; l < lanes; ++l) {
            out[l] = src[static_cast<size_t>(l) * src_stride + static_cast<size_t>(k)];
        }
        std::memset(out + lanes, 0, static_cast<size_t>(kStripRows - lanes));
    }
}

void transpose_plane(const uint8_t *src, size_t src_stride, int32_t rows, int32_t columns, uint8_t *dst) {
    if (rows <= 0 || columns <= 0) {
        return;
    }
#if defined(OSTREL_SSE2)
    constexpr int32_t kBlock = 16;
    const int32_t full_rows = rows - rows % kBlock;
    const int32_t full_columns = columns - columns % kBlock;
    for (int32_t r = 0; r < full_rows; r += kBlock) {
        for (int32_t k = 0; k < full_columns; k += kBlock) {
            transpose_block16(src + static_cast<size_t>(r) * src_stride + static_cast<size_t>(k), src_stride,
                              dst + static_cast<size_t>(k) * static_cast<size_t>(rows) + static_cast<size_t>(r),
                              static_cast<size_t>(rows));
        }
    }
    // The ragged right columns and bottom rows.
    transpose_part(src, src_stride, rows, 0, full_rows, full_columns, columns, dst);
    transpose_part(src, src_stride, rows, full_rows, rows, 0, columns, dst);
#else
    transpose_part(src, src_stride, rows, 0, rows, 0, columns, dst);
#endif
}

}  // namespace ostrel
