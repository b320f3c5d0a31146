// Whether a published filter can measure the windows of a model: every
// matrix must agree with the window's length and with one another.
#include "fpfilter/pca_fp_filter.h"

#include <gtest/gtest.h>

namespace {

ostrel::pca_fp_filter filter_of(int d, int k) {
    ostrel::pca_fp_filter f;
    f.mean = cv::Mat::zeros(1, d, CV_32F);
    f.eigenvectors = cv::Mat::zeros(k, d, CV_32F);
    f.reduce_mean = cv::Mat::zeros(1, k, CV_32F);
    f.reduce_inv_covar = cv::Mat::eye(k, k, CV_32F);
    f.pca_filter_ready = 1;
    return f;
}

}  // namespace

TEST(FilterFitsWindow, AConsistentFilterOfTheWindowsLength) {
    EXPECT_TRUE(ostrel::filter_fits_window(filter_of(2520, 3), 2520));
    EXPECT_FALSE(ostrel::filter_fits_window(filter_of(2520, 3), 2210));
    EXPECT_FALSE(ostrel::filter_fits_window(ostrel::pca_fp_filter{}, 2520));
}

TEST(FilterFitsWindow, MatricesThatDisagree) {
    ostrel::pca_fp_filter f = filter_of(300, 2);
    f.reduce_mean = cv::Mat::zeros(1, 3, CV_32F);
    EXPECT_FALSE(ostrel::filter_fits_window(f, 300));
    f = filter_of(300, 2);
    f.reduce_inv_covar = cv::Mat::eye(3, 3, CV_32F);
    EXPECT_FALSE(ostrel::filter_fits_window(f, 300));
    f = filter_of(300, 2);
    f.mean = cv::Mat();  // published from an analysis that was never made
    EXPECT_FALSE(ostrel::filter_fits_window(f, 300));
    f = filter_of(300, 2);
    f.eigenvectors = cv::Mat::zeros(2, 300, CV_64F);
    EXPECT_FALSE(ostrel::filter_fits_window(f, 300));
}
