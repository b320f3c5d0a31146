// The fast feature pyramid: channels computed from the picture once per
// octave, the levels between approximated from them. The approximated
// levels have the exact levels' sizes, and on a real picture their channels
// stay close to the channels computed exactly at the same scale: colour
// and gradient magnitude means within a few per cent (the power law corrects
// the gradient planes), each orientation's within 30%, the cells
// correlated.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "accurate/accurate_pyramid.h"
#include "accurate/accurate_settings.h"
#include "support/test_data.h"

namespace {

struct plane_comparison {
    double mean_exact = 0.0;
    double mean_approximated = 0.0;
    double correlation = 0.0;
};

plane_comparison compare(const ostrel::feature_map &exact, const ostrel::feature_map &approximated, int32_t c) {
    const size_t n = exact.plane_size();
    const uint8_t *a = exact.data.data() + static_cast<size_t>(c) * n;
    const uint8_t *b = approximated.data.data() + static_cast<size_t>(c) * n;
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
    for (size_t i = 0; i < n; ++i) {
        sa += a[i];
        sb += b[i];
        saa += static_cast<double>(a[i]) * a[i];
        sbb += static_cast<double>(b[i]) * b[i];
        sab += static_cast<double>(a[i]) * b[i];
    }
    plane_comparison r;
    r.mean_exact = sa / n;
    r.mean_approximated = sb / n;
    const double cov = sab / n - r.mean_exact * r.mean_approximated;
    const double va = saa / n - r.mean_exact * r.mean_exact;
    const double vb = sbb / n - r.mean_approximated * r.mean_approximated;
    r.correlation = cov / std::sqrt(va * vb + 1e-12);
    return r;
}

ostrel::pyramid_request six_levels(int32_t exact_every) {
    ostrel::pyramid_request r;
    r.base_columns = 640;
    r.base_rows = 480;
    for (int k = 0; k < 7; ++k) r.size_factors.push_back(std::pow(2.0, k / 6.0));
    r.marked_index = -1;
    r.exact_every = exact_every;
    r.approximation_exponent_permille = ostrel::accurate_settings{}.approximation_exponent_permille;
    return r;
}

TEST(AccuratePyramidApproximation, OneExactLevelPerOctaveTheOthersApproximated) {
    const cv::Mat bgr = cv::imread(ostrel_test::data_path("bccd/images/BloodImage_00001.jpg"), cv::IMREAD_COLOR);
    ostrel::picture_resample_scratch scratch;
    const ostrel::accurate_pyramid fast =
        ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), six_levels(6), scratch);
    const ostrel::accurate_pyramid exact =
        ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), six_levels(0), scratch);
    ASSERT_EQ(fast.levels.size(), 7u);
    ASSERT_EQ(exact.levels.size(), 7u);
    for (size_t k = 0; k < 7; ++k) {
        EXPECT_EQ(fast.levels[k].exact, k == 0 || k == 6) << k;
        EXPECT_EQ(fast.levels[k].map.columns, exact.levels[k].map.columns);
        EXPECT_EQ(fast.levels[k].map.rows, exact.levels[k].map.rows);
        EXPECT_FLOAT_EQ(fast.levels[k].scale_x, exact.levels[k].scale_x);
    }
    EXPECT_EQ(fast.levels[0].map.data, exact.levels[0].map.data);  // the first octave is the picture's
}

TEST(AccuratePyramidApproximation, ApproximatedChannelsStayCloseToExactOnes) {
    const cv::Mat bgr = cv::imread(ostrel_test::data_path("bccd/images/BloodImage_00001.jpg"), cv::IMREAD_COLOR);
    ostrel::picture_resample_scratch scratch;
    const ostrel::accurate_pyramid fast =
        ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), six_levels(6), scratch);
    const ostrel::accurate_pyramid exact =
        ostrel::build_accurate_pyramid(ostrel::split_bgr(bgr), six_levels(0), scratch);
    for (size_t k = 1; k < 6; ++k) {
        double histogram_exact = 0.0, histogram_approximated = 0.0;
        for (int32_t c = 0; c < 10; ++c) {
            const plane_comparison r = compare(exact.levels[k].map, fast.levels[k].map, c);
            SCOPED_TRACE(testing::Message() << "level " << k << " channel " << c);
            if (c < 3) {
                // Colour: averages, exact up to the rounding.
                EXPECT_NEAR(r.mean_approximated, r.mean_exact, 1.0);
                EXPECT_GT(r.correlation, 0.98);
            } else if (c == 3) {
                // The gradient magnitude: the power law keeps its mean
                // within 10%; a shrunk map is smoother than a recomputed one.
                EXPECT_NEAR(r.mean_approximated / r.mean_exact, 1.0, 0.10);
                EXPECT_GT(r.correlation, 0.85);
            } else {
                // One orientation: the share of edges in a direction shifts
                // with the scale more than their sum does.
                EXPECT_NEAR(r.mean_approximated / r.mean_exact, 1.0, 0.30);
                EXPECT_GT(r.correlation, 0.6);
                histogram_exact += r.mean_exact;
                histogram_approximated += r.mean_approximated;
            }
        }
        EXPECT_NEAR(histogram_approximated / histogram_exact, 1.0, 0.15) << "level " << k;
    }
}

TEST(AccuratePyramidApproximation, TheApproximationScalesGradientPlanesByThePowerLaw) {
    ostrel::feature_map map;
    map.channels = 10;
    map.columns = 40;
    map.rows = 30;
    map.data.assign(static_cast<size_t>(10) * 40 * 30, 100);
    const ostrel::feature_map plain = ostrel::approximate_level(map, 28, 21, std::sqrt(2.0), 0);
    const ostrel::feature_map scaled = ostrel::approximate_level(map, 28, 21, std::sqrt(2.0), -100);
    EXPECT_EQ(plain.data[0], 100);
    EXPECT_EQ(scaled.data[0], 100);  // colour is not scaled
    EXPECT_EQ(plain.data[3 * plain.plane_size()], 100);
    // 100 * sqrt(2)^0.1 = 103.5.
    EXPECT_EQ(scaled.data[3 * scaled.plane_size()], 104);
}

}  // namespace
