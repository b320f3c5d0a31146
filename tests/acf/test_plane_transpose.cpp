// Column-by-column copies of picture planes: the blocked fast path gives
// the same bytes as the plain loop for every size, stride and ragged edge.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "acf/plane_transpose.h"

using namespace ostrel;

namespace {

std::vector<uint8_t> pattern(size_t size) {
    std::vector<uint8_t> v(size);
    uint32_t state = 99u;
    for (uint8_t &b : v) {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
    }
    return v;
}

}  // namespace

// Element (r, k) of the picture plane lands at k * rows + r.
TEST(TransposePlane, PixelAtRowAndColumnLandsAtColumnTimesRowsPlusRow) {
    const uint8_t src[2 * 3] = {1, 2, 3, 4, 5, 6};  // 2 rows, 3 columns
    uint8_t dst[6] = {};
    transpose_plane(src, 3, 2, 3, dst);
    const uint8_t expected[6] = {1, 4, 2, 5, 3, 6};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(dst[i], expected[i]) << i;
    }
}

// Fast path and plain loop agree, with ragged edges and a padded stride.
TEST(TransposePlane, FastPathGivesTheSameBytesAsThePlainLoop) {
    const int sizes[][2] = {{1, 1},   {1, 40},  {40, 1},    {15, 17},   {16, 16},  {17, 15},
                            {32, 48}, {33, 47}, {270, 480}, {137, 243}, {480, 640}};
    for (const auto &size : sizes) {
        const int rows = size[0];
        const int columns = size[1];
        const size_t stride = static_cast<size_t>(columns) + 5;
        const std::vector<uint8_t> src = pattern(stride * static_cast<size_t>(rows));
        std::vector<uint8_t> fast(static_cast<size_t>(rows) * columns, 0xAA);
        std::vector<uint8_t> plain(static_cast<size_t>(rows) * columns, 0x55);
        transpose_plane(src.data(), stride, rows, columns, fast.data());
        transpose_plane_scalar(src.data(), stride, rows, columns, plain.data());
        ASSERT_EQ(fast, plain) << rows << " x " << columns;
    }
}

// Empty sizes write nothing.
TEST(TransposePlane, EmptySizesWriteNothing) {
    uint8_t dst[4] = {7, 7, 7, 7};
    const uint8_t src[4] = {1, 2, 3, 4};
    transpose_plane(src, 2, 0, 2, dst);
    transpose_plane(src, 2, 2, 0, dst);
    EXPECT_EQ(dst[0], 7);
    EXPECT_EQ(dst[3], 7);
}

// A strip of up to 16 picture rows becomes a tile of columns x 16 bytes;
// lanes past the strip's rows are 0.
TEST(TransposeStrip, FullAndRaggedStrips) {
    for (int rows : {16, 5, 1}) {
        for (int columns : {16, 37, 3}) {
            const size_t stride = static_cast<size_t>(columns) + 2;
            const std::vector<uint8_t> src = pattern(stride * static_cast<size_t>(rows));
            std::vector<uint8_t> tile(static_cast<size_t>(columns) * kStripRows, 0xCC);
            transpose_strip(src.data(), stride, rows, columns, tile.data());
            for (int k = 0; k < columns; ++k) {
                for (int l = 0; l < kStripRows; ++l) {
                    const uint8_t expected = l < rows ? src[static_cast<size_t>(l) * stride + k] : 0;
                    ASSERT_EQ(tile[static_cast<size_t>(k) * kStripRows + l], expected)
                        << rows << " " << columns << " " << k << " " << l;
                }
            }
        }
    }
}
