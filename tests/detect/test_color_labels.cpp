// Colour labelling: the class of one Lab pixel and the main and second
// colours of a detection from a histogram of sampled pixels.
#include "detect/color_labels.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace {

using ostrel::classify_lab_pixel;
using ostrel::kNoSecondColor;

struct lab_pixel {
    uint8_t L;
    uint8_t a;
    uint8_t b;
};

// One pixel of each class (see ClassifyLabPixel tests).
const lab_pixel kPixelOfClass[9] = {
    {30, 128, 128},   // 0: dark grey
    {100, 128, 128},  // 1: middle grey
    {200, 128, 128},  // 2: light grey
    {92, 145, 139},   // 3
    {125, 142, 142},  // 4
    {169, 128, 148},  // 5
    {148, 116, 144},  // 6
    {100, 126, 108},  // 7
    {105, 142, 113},  // 8
};

// A picture in three Lab planes, all pixels of one class to start with.
struct lab_picture {
    int32_t width;
    int32_t height;
    std::vector<uint8_t> L, a, b;

    lab_picture(int32_t w, int32_t h, int32_t fill_class)
        : width(w), height(h), L(static_cast<size_t>(w) * h), a(L.size()), b(L.size()) {
        for (int32_t y = 0; y < h; ++y) {
            for (int32_t x = 0; x < w; ++x) {
                set(x, y, fill_class);
            }
        }
    }
    void set(int32_t x, int32_t y, int32_t cls) {
        const size_t i = static_cast<size_t>(y) * width + x;
        L[i] = kPixelOfClass[cls].L;
        a[i] = kPixelOfClass[cls].a;
        b[i] = kPixelOfClass[cls].b;
    }
    ostrel::lab_planes_view view() const {
        ostrel::lab_planes_view v;
        v.width = width;
        v.height = height;
        v.L = L.data();
        v.a = a.data();
        v.b = b.data();
        return v;
    }
};

ostrel_alg_box make_box(int32_t x, int32_t y, int32_t width, int32_t height, int32_t label = 1) {
    ostrel_alg_box box{};
    box.x = x;
    box.y = y;
    box.width = width;
    box.height = height;
    box.label = label;
    return box;
}

// A one-row picture whose sampled pixels (even columns) carry the given
// classes in order; the odd columns hold class `filler`, never sampled.
lab_picture sampled_row(const std::vector<int32_t> &classes, int32_t filler = 6) {
    lab_picture picture(static_cast<int32_t>(classes.size()) * 2, 1, filler);
    for (size_t i = 0; i < classes.size(); ++i) {
        picture.set(static_cast<int32_t>(i) * 2, 0, classes[i]);
    }
    return picture;
}

std::vector<int32_t> repeated(std::initializer_list<std::pair<int32_t, int>> runs) {
    std::vector<int32_t> classes;
    for (const auto &run : runs) {
        classes.insert(classes.end(), static_cast<size_t>(run.second), run.first);
    }
    return classes;
}

// Labels one box covering the whole row picture; returns it.
ostrel_alg_box label_row(const std::vector<int32_t> &classes, int32_t filler = 6) {
    const lab_picture picture = sampled_row(classes, filler);
    std::vector<ostrel_alg_box> boxes{make_box(0, 0, picture.width, 1)};
    EXPECT_EQ(ostrel::labelColors(picture.view(), picture.width, picture.height, boxes), 0);
    return boxes[0];
}

}  // namespace

// ---------------------------------------------------------------------------
// classify_lab_pixel

// Near-neutral pixels are achromatic, by L on a 0..100 scale (L*100/255,
// truncated): above 50 light, 15..50 middle, below 15 dark.
TEST(ClassifyLabPixel, AchromaticByLightness) {
    EXPECT_EQ(classify_lab_pixel(0, 128, 128), 0);
    EXPECT_EQ(classify_lab_pixel(38, 128, 128), 0);   // 14.9 -> 14
    EXPECT_EQ(classify_lab_pixel(39, 128, 128), 1);   // 15.29 -> 15
    EXPECT_EQ(classify_lab_pixel(130, 128, 128), 1);  // 50.98 -> 50
    EXPECT_EQ(classify_lab_pixel(131, 128, 128), 2);  // 51.37 -> 51
    EXPECT_EQ(classify_lab_pixel(255, 128, 128), 2);
}

// The neutral disc has squared radius below 101: 100 is inside, 101 not.
TEST(ClassifyLabPixel, NeutralRadius) {
    EXPECT_EQ(classify_lab_pixel(100, 138, 128), 1);  // 10^2
    EXPECT_EQ(classify_lab_pixel(100, 128, 118), 1);  // 10^2
    EXPECT_EQ(classify_lab_pixel(100, 122, 120), 1);  // 36 + 64
    EXPECT_NE(classify_lab_pixel(100, 138, 129), 1);  // 100 + 1
    EXPECT_NE(classify_lab_pixel(100, 127, 138), 1);  // 1 + 100
}

// Each reference point classifies as its own class (L chosen so that
// L*100/255 equals the reference lightness).
TEST(ClassifyLabPixel, EachReferencePointIsReachable) {
    EXPECT_EQ(classify_lab_pixel(92, 145, 139), 3);
    EXPECT_EQ(classify_lab_pixel(125, 142, 142), 4);
    EXPECT_EQ(classify_lab_pixel(169, 128, 148), 5);
    EXPECT_EQ(classify_lab_pixel(148, 116, 144), 6);
    EXPECT_EQ(classify_lab_pixel(100, 126, 108), 7);
    EXPECT_EQ(classify_lab_pixel(105, 142, 113), 8);
    for (int32_t cls = 0; cls < 9; ++cls) {
        EXPECT_EQ(classify_lab_pixel(kPixelOfClass[cls].L, kPixelOfClass[cls].a, kPixelOfClass[cls].b), cls);
    }
}

// The third reference row gives 5 for a <= 128 and 4 on the other side.
TEST(ClassifyLabPixel, FiveOrFourBySideOfA) {
    EXPECT_EQ(classify_lab_pixel(169, 128, 148), 5);
    EXPECT_EQ(classify_lab_pixel(169, 127, 148), 5);
    // distances at L 66: row three 1, row two 17^2/4 + 13^2 + 6^2 = 277
    EXPECT_EQ(classify_lab_pixel(169, 129, 148), 4);
}

// The last reference row gives 7 when |b - 128| passes |a - 128| + 12, else
// 8: (137, 105) is nearest to it (509 against 510) with 9 + 12 < 23.
TEST(ClassifyLabPixel, EightOrSevenByDominantB) {
    EXPECT_EQ(classify_lab_pixel(0, 137, 105), 7);
    EXPECT_EQ(classify_lab_pixel(105, 142, 113), 8);  // 14 + 12 < 15 fails
    EXPECT_EQ(classify_lab_pixel(105, 140, 113), 8);  // 12 + 12 < 15 fails
}

// Equal distances keep the earlier row: at L 1 (3*100/255), (121, 137) is
// 886 from the first and the fourth rows (classes 3 and 6); (136, 108) is
// 461 from the fifth and sixth rows (7, and 8 by the last row's own rule).
TEST(ClassifyLabPixel, TieKeepsEarlierRow) {
    EXPECT_EQ(classify_lab_pixel(3, 121, 137), 3);
    EXPECT_EQ(classify_lab_pixel(3, 136, 108), 7);
    // One step off the tie goes to the nearer row.
    EXPECT_EQ(classify_lab_pixel(3, 120, 137), 6);
}

// ---------------------------------------------------------------------------
// labelColors

// Planes without size or data: status 1, boxes untouched.
TEST(LabelColors, MissingPlanesFail) {
    const lab_picture picture(4, 4, 3);
    std::vector<ostrel_alg_box> boxes{make_box(0, 0, 4, 4)};
    ostrel::lab_planes_view view = picture.view();
    view.L = nullptr;
    EXPECT_EQ(ostrel::labelColors(view, 4, 4, boxes), 1);
    view = picture.view();
    view.width = 0;
    EXPECT_EQ(ostrel::labelColors(view, 4, 4, boxes), 1);
    view = picture.view();
    view.height = 0;
    EXPECT_EQ(ostrel::labelColors(view, 4, 4, boxes), 1);
    EXPECT_EQ(boxes[0].color_main, 0);
    EXPECT_EQ(boxes[0].color_second, 0);
}

// Only label-1 boxes are labelled; a box wholly right of the picture is
// skipped and keeps colour fields 0.
TEST(LabelColors, OnlyDetectionsInsideThePicture) {
    const lab_picture picture(10, 10, 3);
    std::vector<ostrel_alg_box> boxes{make_box(0, 0, 10, 10, -1), make_box(10, 0, 5, 5), make_box(12, 2, 5, 5),
                                      make_box(0, 10, 5, 5), make_box(2, 2, 4, 4)};
    boxes[0].color_main = 7;
    boxes[0].color_second = 7;
    ASSERT_EQ(ostrel::labelColors(picture.view(), 10, 10, boxes), 0);
    EXPECT_EQ(boxes[0].color_main, 7);  // not a detection: untouched
    EXPECT_EQ(boxes[0].color_second, 7);
    EXPECT_EQ(boxes[1].color_main, 0);  // starts at the right edge
    EXPECT_EQ(boxes[1].color_second, 0);
    EXPECT_EQ(boxes[2].color_main, 0);  // wholly right
    EXPECT_EQ(boxes[2].color_second, 0);
    EXPECT_EQ(boxes[3].color_main, 0);  // below: no sample
    EXPECT_EQ(boxes[3].color_second, 0);
    EXPECT_EQ(boxes[4].color_main, 3);
    EXPECT_EQ(boxes[4].color_second, kNoSecondColor);
}

// A one-colour object: second colour 9 (its share is 0).
TEST(LabelColors, OneColourHasNoSecond) {
    const ostrel_alg_box box = label_row(repeated({{6, 10}}), 3);
    EXPECT_EQ(box.color_main, 6);
    EXPECT_EQ(box.color_second, kNoSecondColor);
}

// Every second column and every second row from the box corner is sampled;
// the others do not count.
TEST(LabelColors, SamplesEverySecondPixel) {
    lab_picture picture(8, 8, 3);
    for (int32_t y = 0; y < 8; ++y) {
        for (int32_t x = 0; x < 8; ++x) {
            if (x % 2 == 1 || y % 2 == 1) {
                picture.set(x, y, 7);  // 48 of 64 pixels, none sampled from (0, 0)
            }
        }
    }
    std::vector<ostrel_alg_box> boxes{make_box(0, 0, 8, 8), make_box(1, 1, 7, 7)};
    ASSERT_EQ(ostrel::labelColors(picture.view(), 8, 8, boxes), 0);
    EXPECT_EQ(boxes[0].color_main, 3);
    EXPECT_EQ(boxes[0].color_second, kNoSecondColor);
    EXPECT_EQ(boxes[1].color_main, 7);
}

// A grey object: with 70% achromatic samples the main colour is
// achromatic even though the chromatic class 3 (30%) is the largest bin.
// The second colour is the other grey class 0 (25%), reported as 0.
TEST(LabelColors, MostlyGreyObjectIsAchromatic) {
    const ostrel_alg_box box = label_row(repeated({{0, 25}, {1, 25}, {2, 20}, {3, 30}}));
    EXPECT_EQ(box.color_main, 1);
    EXPECT_EQ(box.color_second, 0);
}

// 69% achromatic (integer percent 69) keeps the chromatic bins: main 3;
// the second is the grey class the second pass carries up (2, 23%).
TEST(LabelColors, JustBelowSeventyPercentStaysChromatic) {
    const ostrel_alg_box box = label_row(repeated({{0, 23}, {1, 23}, {2, 23}, {3, 31}}));
    EXPECT_EQ(box.color_main, 3);
    EXPECT_EQ(box.color_second, 2);
}

// Main 5 with second 4 always reports 5 and 9, even with a large second.
TEST(LabelColors, FiveWithFourReportsFiveAndNine) {
    const ostrel_alg_box box = label_row(repeated({{5, 55}, {4, 45}}));
    EXPECT_EQ(box.color_main, 5);
    EXPECT_EQ(box.color_second, kNoSecondColor);
    // The other way round is reported as it is.
    const ostrel_alg_box other = label_row(repeated({{4, 55}, {5, 45}}));
    EXPECT_EQ(other.color_main, 4);
    EXPECT_EQ(other.color_second, 5);
}

// The second colour needs a share of 20%: exactly 20% is kept, 19% is not.
TEST(LabelColors, SecondColourShare) {
    const ostrel_alg_box kept = label_row(repeated({{3, 80}, {6, 20}}), 7);
    EXPECT_EQ(kept.color_main, 3);
    EXPECT_EQ(kept.color_second, 6);
    const ostrel_alg_box dropped = label_row(repeated({{3, 81}, {6, 19}}), 7);
    EXPECT_EQ(dropped.color_main, 3);
    EXPECT_EQ(dropped.color_second, kNoSecondColor);
}

// Two bubble passes that swap only on a strictly greater count: of two
// equal bins the higher class ends last and is the main colour.
TEST(LabelColors, EqualCountsFavourTheHigherClass) {
    const ostrel_alg_box box = label_row(repeated({{3, 50}, {6, 50}}), 7);
    EXPECT_EQ(box.color_main, 6);
    EXPECT_EQ(box.color_second, 3);
}

// Of two equal second-largest bins the later class stays second: counts
// 3:40, 4:30, 8:30 give main 3 and second 8.
TEST(LabelColors, TwoPassesPickMainAndSecond) {
    const ostrel_alg_box box = label_row(repeated({{3, 40}, {4, 30}, {8, 30}}), 7);
    EXPECT_EQ(box.color_main, 3);
    EXPECT_EQ(box.color_second, 8);
}

// A box reaching past the right and bottom edges is clipped to the picture.
TEST(LabelColors, BoxIsClippedToThePicture) {
    lab_picture picture(10, 10, 3);
    picture.set(6, 6, 8);
    picture.set(8, 6, 8);
    picture.set(6, 8, 8);
    picture.set(8, 8, 8);
    std::vector<ostrel_alg_box> boxes{make_box(6, 6, 20, 20)};
    ASSERT_EQ(ostrel::labelColors(picture.view(), 10, 10, boxes), 0);
    EXPECT_EQ(boxes[0].color_main, 8);
    EXPECT_EQ(boxes[0].color_second, kNoSecondColor);
}

// A box starting left of or above the picture keeps its sampling grid;
// positions outside the planes are not taken.
TEST(LabelColors, BoxOutsideTopLeftReadsOnlyThePicture) {
    lab_picture picture(6, 6, 3);
    for (int32_t y = 0; y < 6; ++y) {
        for (int32_t x = 0; x < 6; ++x) {
            if (x % 2 == 1 && y % 2 == 1) {
                picture.set(x, y, 6);
            }
        }
    }
    // x = -3, -1, 1, 3 and y = -5, -3, -1, 1, 3: odd positions only.
    std::vector<ostrel_alg_box> boxes{make_box(-3, -5, 8, 10)};
    ASSERT_EQ(ostrel::labelColors(picture.view(), 6, 6, boxes), 0);
    EXPECT_EQ(boxes[0].color_main, 6);
    EXPECT_EQ(boxes[0].color_second, kNoSecondColor);
    // Wholly above the picture: no sample, skipped.
    std::vector<ostrel_alg_box> above{make_box(0, -10, 6, 5)};
    ASSERT_EQ(ostrel::labelColors(picture.view(), 6, 6, above), 0);
    EXPECT_EQ(above[0].color_main, 0);
    EXPECT_EQ(above[0].color_second, 0);
}

// A picture size larger than the planes reads only the planes.
TEST(LabelColors, PictureSizeLargerThanPlanes) {
    const lab_picture picture(4, 4, 8);
    std::vector<ostrel_alg_box> boxes{make_box(0, 0, 100, 100)};
    ASSERT_EQ(ostrel::labelColors(picture.view(), 100, 100, boxes), 0);
    EXPECT_EQ(boxes[0].color_main, 8);
}
