// Loading a picture plane column by column and resampling it in one pass
// gives exactly the bytes of the record resampler on the column-by-column
// record, for every case of both passes (2:1, 3:1, 4:1, enlargement, equal
// size, general reduction), ragged strips and padded strides.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "acf/acf_helper.h"
#include "acf/picture_resample.h"

using namespace ostrel;

namespace {

struct picture_plane {
    int32_t rows = 0;
    int32_t columns = 0;
    size_t stride = 0;
    std::vector<uint8_t> bytes;
};

// A plane with texture (so that every weight matters) and a few extremes.
picture_plane make_plane(int32_t rows, int32_t columns, size_t extra_stride) {
    picture_plane p;
    p.rows = rows;
    p.columns = columns;
    p.stride = static_cast<size_t>(columns) + extra_stride;
    p.bytes.resize(p.stride * static_cast<size_t>(rows));
    uint32_t state = 2024u + static_cast<uint32_t>(rows * 31 + columns);
    for (uint8_t &b : p.bytes) {
        state = state * 1103515245u + 12345u;
        b = static_cast<uint8_t>(state >> 23);
    }
    p.bytes[0] = 255;
    p.bytes[p.bytes.size() - 1] = 0;
    return p;
}

// The record the engine would build: width = rows, height = columns.
chn_image8 column_by_column(const picture_plane &p) {
    chn_image8 record(1, p.rows, p.columns);
    for (int32_t r = 0; r < p.rows; ++r) {
        for (int32_t k = 0; k < p.columns; ++k) {
            record.at(0, k, r) = p.bytes[static_cast<size_t>(r) * p.stride + static_cast<size_t>(k)];
        }
    }
    return record;
}

void expect_same_as_record_resampler(int32_t rows, int32_t columns, int32_t dst_w, int32_t dst_h, float r,
                                     size_t extra_stride = 0) {
    const picture_plane p = make_plane(rows, columns, extra_stride);
    const chn_image8 expected = acf_helper::image_resample_fix(column_by_column(p), dst_w, dst_h, r);
    std::vector<uint8_t> got(static_cast<size_t>(dst_w) * static_cast<size_t>(dst_h), 0xEE);
    picture_resample_scratch scratch;
    ASSERT_TRUE(resample_picture_plane(p.bytes.data(), p.stride, rows, columns, dst_w, dst_h, r, got.data(), scratch));
    EXPECT_EQ(got, expected.data) << rows << " x " << columns << " -> " << dst_w << " x " << dst_h << " r " << r;
}

}  // namespace

// The scale-0 image of common picture sizes (general reduction both ways).
TEST(ResamplePicturePlane, CommonPictureSizesToTheScaleZeroImage) {
    expect_same_as_record_resampler(480, 640, 136, 242, 1.0f);
    expect_same_as_record_resampler(1080, 1920, 136, 242, 1.0f);
    expect_same_as_record_resampler(270, 480, 136, 242, 1.0f);
    expect_same_as_record_resampler(61, 101, 136, 242, 1.0f);  // enlargement both ways
}

// Each case of the vertical pass (record heights = picture columns) and of
// the horizontal pass (record widths = picture rows).
TEST(ResamplePicturePlane, EveryCaseOfBothPasses) {
    const int32_t targets[] = {10, 11};
    for (int32_t dst : targets) {
        for (int32_t factor : {2, 3, 4}) {
            expect_same_as_record_resampler(37, dst * factor, 19, dst, 1.0f);  // vertical shortcut
            expect_same_as_record_resampler(dst * factor, 37, dst, 19, 1.0f);  // horizontal shortcut
        }
        expect_same_as_record_resampler(dst, dst, dst, dst, 1.0f);                  // equal size
        expect_same_as_record_resampler(7, 5, dst, dst + 3, 1.0f);                  // enlargement
        expect_same_as_record_resampler(dst * 5 + 1, dst * 7 + 3, dst, dst, 1.0f);  // general reduction
        expect_same_as_record_resampler(dst * 2 + 1, dst * 9, dst, dst, 1.0f);      // more than 4 sources
    }
}

// Other factors and padded row strides.
TEST(ResamplePicturePlane, FactorsAndStrides) {
    expect_same_as_record_resampler(50, 70, 20, 30, 0.5f, 3);
    expect_same_as_record_resampler(33, 17, 16, 8, 0.005667f, 13);
    expect_same_as_record_resampler(16, 32, 8, 16, 1.0f, 1);
    expect_same_as_record_resampler(1, 1, 3, 2, 1.0f);
    expect_same_as_record_resampler(17, 1, 5, 1, 1.0f);
}

// Several planes go to one record, plane by plane.
TEST(ResamplePicturePlanes, EveryPlaneInOrder) {
    const picture_plane a = make_plane(40, 60, 0);
    const picture_plane b = make_plane(40, 60, 0);
    std::vector<uint8_t> b_changed = b.bytes;
    for (uint8_t &v : b_changed) {
        v = static_cast<uint8_t>(255 - v);
    }
    const uint8_t *planes[2] = {a.bytes.data(), b_changed.data()};
    const size_t strides[2] = {a.stride, b.stride};
    picture_resample_scratch scratch;
    const chn_image8 out = resample_picture_planes(planes, strides, 2, 40, 60, 20, 30, 1.0f, scratch);
    ASSERT_EQ(out.channels, 2);
    ASSERT_EQ(out.width, 20);
    ASSERT_EQ(out.height, 30);
    chn_image8 record(2, 40, 60);
    for (int32_t r = 0; r < 40; ++r) {
        for (int32_t k = 0; k < 60; ++k) {
            record.at(0, k, r) = a.bytes[static_cast<size_t>(r) * 60 + k];
            record.at(1, k, r) = b_changed[static_cast<size_t>(r) * 60 + k];
        }
    }
    EXPECT_EQ(out.data, acf_helper::image_resample_fix(record, 20, 30, 1.0f).data);
}

// Sizes below 1 are refused and write nothing.
TEST(ResamplePicturePlane, RefusesEmptySizes) {
    const picture_plane p = make_plane(4, 4, 0);
    std::vector<uint8_t> out(16, 9);
    picture_resample_scratch scratch;
    EXPECT_FALSE(resample_picture_plane(p.bytes.data(), p.stride, 4, 4, 0, 4, 1.0f, out.data(), scratch));
    EXPECT_FALSE(resample_picture_plane(p.bytes.data(), p.stride, 0, 4, 4, 4, 1.0f, out.data(), scratch));
    EXPECT_EQ(out[0], 9);
    EXPECT_TRUE(resample_picture_planes(nullptr, nullptr, 0, 4, 4, 4, 4, 1.0f, scratch).empty());
}
