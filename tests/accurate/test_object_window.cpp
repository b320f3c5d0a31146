// A marked object as a positive at the model's window, cut at its own size:
// the window of a box equals (nearly) the window of the same object on a
// level computed for the whole picture at that scale; mirror images and
// objects cut by the edge are cut too; the approximated variant is close to
// the exact one.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "accurate/accurate_pyramid.h"
#include "accurate/accurate_trainer.h"
#include "accurate/object_window.h"
#include "accurate/window_sums.h"
#include "support/test_data.h"

namespace {

double correlation(const std::vector<uint8_t> &a, const std::vector<uint8_t> &b) {
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
    const double n = static_cast<double>(a.size());
    for (size_t i = 0; i < a.size(); ++i) {
        sa += a[i];
        sb += b[i];
        saa += static_cast<double>(a[i]) * a[i];
        sbb += static_cast<double>(b[i]) * b[i];
        sab += static_cast<double>(a[i]) * b[i];
    }
    const double cov = sab / n - sa / n * sb / n;
    return cov / std::sqrt((saa / n - sa / n * sa / n) * (sbb / n - sb / n * sb / n) + 1e-12);
}

struct fixture {
    cv::Mat bgr = cv::imread(ostrel_test::data_path("bccd/images/BloodImage_00000.jpg"), cv::IMREAD_COLOR);
    ostrel::window_shape shape = ostrel::window_for_aspect(1.0, 100, ostrel::accurate_settings{});
    ostrel::channel_recipe recipe;
    ostrel::picture_resample_scratch scratch;
};

TEST(ObjectWindow, TheBoxsWindowIsTheWindowOfALevelAtItsScale) {
    fixture f;
    const ostrel_alg_box box{83, 336, 96, 99, 0.0f, 1, 0, 0};
    const std::vector<uint8_t> window =
        ostrel::object_window(ostrel::split_bgr(f.bgr), box, f.shape, f.recipe, false, f.scratch);
    ASSERT_EQ(window.size(), static_cast<size_t>(f.shape.features()));
    // The whole picture at the box's scale, and the window on it.
    const double scale = ostrel::scale_for_height(ostrel::box_height(box, f.shape), f.shape);
    ostrel::pyramid_request r;
    r.base_columns = 2 * static_cast<int32_t>(std::lround(f.bgr.cols * scale / 2));
    r.base_rows = 2 * static_cast<int32_t>(std::lround(f.bgr.rows * scale / 2));
    r.size_factors = {1.0};
    r.marked_index = 0;
    const ostrel::accurate_pyramid level = ostrel::build_accurate_pyramid(ostrel::split_bgr(f.bgr), r, f.scratch);
    ASSERT_EQ(level.levels.size(), 1u);
    int32_t x = 0, y = 0;
    ostrel::box_window_cell(box, level.levels[0], f.shape.geometry(), &x, &y);
    std::vector<uint8_t> whole(window.size());
    ostrel::window_bytes(level.levels[0].map, x, y, f.shape.columns, f.shape.rows, whole.data());
    EXPECT_GT(correlation(window, whole), 0.9);
}

TEST(ObjectWindow, MirrorImagesAndObjectsCutByTheEdge) {
    fixture f;
    const ostrel::split_picture picture = ostrel::split_bgr(f.bgr);
    const ostrel_alg_box box{200, 150, 96, 99, 0.0f, 1, 0, 0};
    cv::Mat flipped;
    cv::flip(f.bgr, flipped, 1);
    const ostrel_alg_box flipped_box{f.bgr.cols - box.x - box.width, box.y, box.width, box.height, 0.0f, 1, 0, 0};
    const std::vector<uint8_t> mirrored = ostrel::object_window(picture, box, f.shape, f.recipe, true, f.scratch);
    const std::vector<uint8_t> of_flipped =
        ostrel::object_window(ostrel::split_bgr(flipped), flipped_box, f.shape, f.recipe, false, f.scratch);
    ASSERT_EQ(mirrored.size(), of_flipped.size());
    EXPECT_GT(correlation(mirrored, of_flipped), 0.95);
    // Half outside the picture: padded as a search level is; wholly
    // outside: nothing.
    const ostrel_alg_box cut{-48, 100, 96, 99, 0.0f, 1, 0, 0};
    EXPECT_EQ(ostrel::object_window(picture, cut, f.shape, f.recipe, false, f.scratch).size(),
              static_cast<size_t>(f.shape.features()));
    const ostrel_alg_box outside{5000, 100, 96, 99, 0.0f, 1, 0, 0};
    EXPECT_TRUE(ostrel::object_window(picture, outside, f.shape, f.recipe, false, f.scratch).empty());
}

TEST(ObjectWindow, TheApproximatedVariantIsCloseToTheExactOne) {
    fixture f;
    const ostrel::split_picture picture = ostrel::split_bgr(f.bgr);
    const ostrel_alg_box box{200, 150, 96, 99, 0.0f, 1, 0, 0};
    const std::vector<uint8_t> exact = ostrel::object_window(picture, box, f.shape, f.recipe, false, f.scratch);
    const std::vector<uint8_t> approximated =
        ostrel::object_window_approximated(picture, box, f.shape, f.recipe, false, std::pow(2.0, 0.5), -100, f.scratch);
    ASSERT_EQ(exact.size(), approximated.size());
    EXPECT_NE(exact, approximated);
    EXPECT_GT(correlation(exact, approximated), 0.85);
}

}  // namespace
