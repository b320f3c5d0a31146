#include "detect/color_labels.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace ostrel {

namespace {

constexpr int32_t kClassCount = 9;

// Chromatic reference points: L on a 0..100 scale, a and b as 8-bit Lab.
struct reference_point {
    int32_t L;
    int32_t a;
    int32_t b;
};

constexpr reference_point kReferences[] = {
    {36, 145, 139},  // 3
    {49, 142, 142},  // 4
    {66, 128, 148},  // 5, or 4 on the red side of neutral
    {58, 116, 144},  // 6
    {39, 126, 108},  // 7
    {41, 142, 113},  // 8, or 7 when blue clearly dominates
};

constexpr int32_t kFiveOrFourRow = 2;
constexpr int32_t kEightOrSevenRow = 5;

// Share of achromatic samples (percent) from which the main colour is
// achromatic whatever the chromatic bins hold.
constexpr int64_t kAchromaticPercent = 70;
constexpr float kSecondColorShare = 0.2f;

}  // namespace

int32_t classify_lab_pixel(uint8_t L, uint8_t a, uint8_t b) {
    const int32_t lightness = static_cast<int32_t>(L) * 100 / 255;
    const int32_t da = static_cast<int32_t>(a) - 128;
    const int32_t db = static_cast<int32_t>(b) - 128;
    if (da * da + db * db < 101) {
        if (lightness > 50) {
            return 2;
        }
        return lightness >= 15 ? 1 : 0;
    }
    int32_t best_row = 0;
    int32_t best_distance = 0;
    for (int32_t row = 0; row < static_cast<int32_t>(std::size(kReferences)); ++row) {
        const reference_point &ref = kReferences[row];
        const int32_t dl = lightness - ref.L;
        const int32_t dra = static_cast<int32_t>(a) - ref.a;
        const int32_t drb = static_cast<int32_t>(b) - ref.b;
        const int32_t distance = dl * dl / 4 + dra * dra + drb * drb;
        // Ties keep the earlier row.
        if (row == 0 || distance < best_distance) {
            best_row = row;
            best_distance = distance;
        }
    }
    if (best_row == kFiveOrFourRow) {
        return a <= 128 ? 5 : 4;
    }
    if (best_row == kEightOrSevenRow) {
        return std::abs(da) + 12 < std::abs(db) ? 7 : 8;
    }
    return best_row + 3;
}

int32_t labelColors(const lab_planes_view &lab, int32_t image_width, int32_t image_height,
                    std::vector<ostrel_alg_box> &boxes) {
    if (lab.width <= 0 || lab.height <= 0 || lab.L == nullptr || lab.a == nullptr || lab.b == nullptr) {
        return 1;
    }
    for (ostrel_alg_box &box : boxes) {
        if (box.label != 1) {
            continue;
        }
        const int64_t left = box.x;
        const int64_t top = box.y;
        const int64_t right = std::min<int64_t>(image_width, left + box.width);
        const int64_t bottom = std::min<int64_t>(image_height, top + box.height);
        if (left >= right) {
            continue;
        }
        // Every second pixel of every second row, from the box's own corner.
        // Detections are clamped into the picture by the scan, but marked
        // boxes may start left of or above it, and the picture size given may
        // exceed the planes: sampling positions outside the planes are not
        // taken (and not counted), the others keep the grid they would have
        // in an unclipped box.
        int64_t histogram[kClassCount] = {};
        int64_t samples = 0;
        for (int64_t x = left; x < right; x += 2) {
            if (x < 0 || x >= lab.width) {
                continue;
            }
            for (int64_t y = top; y < bottom; y += 2) {
                if (y < 0 || y >= lab.height) {
                    continue;
                }
                const size_t pixel = static_cast<size_t>(y) * static_cast<size_t>(lab.width) + static_cast<size_t>(x);
                ++histogram[classify_lab_pixel(lab.L[pixel], lab.a[pixel], lab.b[pixel])];
                ++samples;
            }
        }
        if (samples == 0) {
            continue;
        }
        // A mostly achromatic object takes an achromatic main colour.
        if ((histogram[0] + histogram[1] + histogram[2]) * 100 / samples >= kAchromaticPercent) {
            std::fill(histogram + 3, histogram + kClassCount, 0);
        }
        // Two bubble-sort passes, ascending by count: the largest bin ends
        // last and the second largest just before it. Equal counts are not
        // swapped.
        int32_t classes[kClassCount];
        for (int32_t i = 0; i < kClassCount; ++i) {
            classes[i] = i;
        }
        for (int32_t pass = 0; pass < 2; ++pass) {
            for (int32_t i = 0; i + 1 < kClassCount - pass; ++i) {
                if (histogram[i] > histogram[i + 1]) {
                    std::swap(histogram[i], histogram[i + 1]);
                    std::swap(classes[i], classes[i + 1]);
                }
            }
        }
        const int32_t main_class = classes[kClassCount - 1];
        const int32_t second_class = classes[kClassCount - 2];
        const int64_t second_count = histogram[kClassCount - 2];
        if (main_class == 5 && second_class == 4) {
            box.color_main = 5;
            box.color_second = kNoSecondColor;
            continue;
        }
        box.color_main = main_class;
        box.color_second = second_class >= 1 && second_class <= 8 ? second_class : 0;
        if (static_cast<float>(second_count) / static_cast<float>(samples) < kSecondColorShare) {
            box.color_second = kNoSecondColor;
        }
    }
    return 0;
}

}  // namespace ostrel
