// The false-positive filter: when it is built, what the build computes, the
// trace bounds that set its flags, and the projection and distance.
#include "fpfilter/pca_fp_filter.h"

#include <cmath>
#include <cstring>

#include <gtest/gtest.h>

#include "support/stdout_capture.h"

using ostrel::pca_fp_filter;
using ostrel_test::capture_stdout;

namespace {

constexpr float kMinTrace = 0.005f;

// Rows of uniform values in [-10, 10) from a fixed seed.
cv::Mat random_rows(int rows, int cols, uint64_t seed) {
    cv::Mat m(rows, cols, CV_32F);
    cv::RNG rng(seed);
    rng.fill(m, cv::RNG::UNIFORM, -10.0, 10.0);
    return m;
}

bool same_bytes(const cv::Mat &a, const cv::Mat &b) {
    if (a.size() != b.size() || a.type() != b.type()) {
        return false;
    }
    for (int r = 0; r < a.rows; ++r) {
        if (std::memcmp(a.ptr(r), b.ptr(r), a.cols * a.elemSize()) != 0) {
            return false;
        }
    }
    return true;
}

// Four points on the two axes, (+-x1, 0) and (0, +-x2): their mean is 0,
// the principal axes are the coordinate axes, the projections are the
// coordinates themselves and, with K = 2 (divisor 1), the inverse covariance
// is diag(1 / (2 x1^2), 1 / (2 x2^2)). Choosing x1 and x2 sets the trace.
cv::Mat axis_points(float x1, float x2) { return (cv::Mat_<float>(4, 2) << x1, 0.0f, -x1, 0.0f, 0.0f, x2, 0.0f, -x2); }

double abs_trace(const cv::Mat &m) { return cv::trace(cv::abs(m))[0]; }

// A published filter over D = 4 whose projection keeps coordinates 0 and 2
// of (sample - mean).
pca_fp_filter published_filter() {
    pca_fp_filter f;
    f.mean = (cv::Mat_<float>(1, 4) << 1.0f, 2.0f, 3.0f, 4.0f);
    f.eigenvectors = (cv::Mat_<float>(2, 4) << 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f);
    f.reduce_mean = (cv::Mat_<float>(1, 2) << 0.0f, 0.0f);
    f.reduce_inv_covar = (cv::Mat_<float>(2, 2) << 1.0f, 0.0f, 0.0f, 1.0f);
    f.pca_filter_ready = 1;
    return f;
}

}  // namespace

// A training matrix of 1000 rows or more leaves the filter as it was.
TEST(PcaFpFilterBuild, ThousandRowsLeaveTheFilterUntouched) {
    pca_fp_filter f;
    f.pca_filter_ready = 1;
    f.reduce_mean = (cv::Mat_<float>(1, 2) << 7.0f, 8.0f);
    const cv::Mat data = random_rows(1000, 3, 1);
    EXPECT_EQ(ostrel::computePcaFpFilter(f, data, data.rowRange(0, 10), kMinTrace), 0);
    EXPECT_TRUE(f.pca.mean.empty());
    EXPECT_EQ(f.pca_filter_ready, 1);
    EXPECT_EQ(f.reduce_mean.at<float>(0, 1), 8.0f);

    // One row fewer is analysed.
    const cv::Mat fewer = data.rowRange(0, 999);
    EXPECT_EQ(ostrel::computePcaFpFilter(f, fewer, fewer.rowRange(0, 10), kMinTrace), 0);
    EXPECT_FALSE(f.pca.mean.empty());
    EXPECT_EQ(f.reduce_mean.cols, 3);
}

// Up to 14 rows every component is kept; from 15 rows on at most 14.
TEST(PcaFpFilterBuild, ComponentCountFollowsTheRowCount) {
    const struct {
        int rows;
        int components;
    } cases[] = {{5, 5}, {14, 14}, {15, 14}, {16, 14}, {40, 14}};
    for (const auto &c : cases) {
        pca_fp_filter f;
        const cv::Mat data = random_rows(c.rows, 30, static_cast<uint64_t>(c.rows));
        ostrel::computePcaFpFilter(f, data, data, kMinTrace);
        EXPECT_EQ(f.pca.eigenvectors.rows, c.components) << c.rows << " rows";
        EXPECT_EQ(f.pca.eigenvectors.cols, 30);
        EXPECT_EQ(f.reduce_mean.cols, c.components);
        EXPECT_EQ(f.reduce_inv_covar.rows, c.components);
        EXPECT_EQ(f.reduce_inv_covar.cols, c.components);
    }
}

// The analysis takes its mean from the data and projects the positives with
// it; reduce_mean is the mean of the projected positives.
TEST(PcaFpFilterBuild, ProjectsThePositivesWithTheDataAnalysis) {
    pca_fp_filter f;
    const cv::Mat data = random_rows(20, 8, 7);
    const cv::Mat positives = data.rowRange(0, 6);
    ostrel::computePcaFpFilter(f, data, positives, kMinTrace);

    cv::Mat data_mean;
    cv::reduce(data, data_mean, 0, cv::REDUCE_AVG, CV_32F);
    EXPECT_LT(cv::norm(f.pca.mean, data_mean, cv::NORM_INF), 1e-5);

    const cv::Mat projected = f.pca.project(positives);
    cv::Mat projected_mean;
    cv::reduce(projected, projected_mean, 0, cv::REDUCE_AVG, CV_32F);
    EXPECT_LT(cv::norm(f.reduce_mean, projected_mean, cv::NORM_INF), 1e-5);
    EXPECT_EQ(f.reduce_mean.type(), CV_32F);
    EXPECT_EQ(f.reduce_inv_covar.type(), CV_32F);
}

// The scatter matrix is divided by K - 1 (components), not by the number of
// samples: six points +-a_i on three axes give K = 3 and an inverse
// covariance of diag((K - 1) / (2 a_i^2)) = diag(1 / a_i^2).
TEST(PcaFpFilterBuild, CovarianceIsDividedByComponentsMinusOne) {
    pca_fp_filter f;
    const cv::Mat data = (cv::Mat_<float>(6, 3) << 8, 0, 0, -8, 0, 0, 0, 4, 0, 0, -4, 0, 0, 0, 2, 0, 0, -2);
    ostrel::computePcaFpFilter(f, data, data, kMinTrace);
    ASSERT_EQ(f.reduce_inv_covar.rows, 3);
    // Components come in order of decreasing variance: the axes of 8, 4, 2.
    EXPECT_FLOAT_EQ(std::abs(f.reduce_inv_covar.at<float>(0, 0)), 1.0f / 64.0f);
    EXPECT_FLOAT_EQ(std::abs(f.reduce_inv_covar.at<float>(1, 1)), 1.0f / 16.0f);
    EXPECT_FLOAT_EQ(std::abs(f.reduce_inv_covar.at<float>(2, 2)), 1.0f / 4.0f);
    EXPECT_NEAR(f.reduce_inv_covar.at<float>(0, 1), 0.0f, 1e-7);
    EXPECT_EQ(f.pca_filter_ready, 0);  // trace 0.328 is far above 0.025
}

// A trace exactly at 5 * min_trace (single precision, 0.0249999985f) gives
// a ready filter; the next representable trace above it does not.
TEST(PcaFpFilterBuild, TraceExactlyAtTheReadyBoundIsReady) {
    const float bound = 5 * kMinTrace;
    const float x2 = 0x1.400002p+3f;  // 10.000001: 1/50 + 1/(2 x2^2) hits the bound
    pca_fp_filter f;
    const cv::Mat data = axis_points(5.0f, x2);
    ostrel::computePcaFpFilter(f, data, data, kMinTrace);
    ASSERT_EQ(abs_trace(f.reduce_inv_covar), static_cast<double>(bound));
    EXPECT_EQ(f.pca_filter_ready, 1);
    EXPECT_EQ(f.pca_filter_frozen, 0);

    pca_fp_filter above;
    const cv::Mat wider = axis_points(5.0f, std::nextafter(x2, 0.0f));
    ostrel::computePcaFpFilter(above, wider, wider, kMinTrace);
    ASSERT_GT(abs_trace(above.reduce_inv_covar), static_cast<double>(bound));
    EXPECT_EQ(above.pca_filter_ready, 0);
    EXPECT_EQ(above.pca_filter_frozen, 0);
}

// A trace exactly at min_trace (0.005f) is ready but not frozen; the next
// trace below it freezes the filter.
TEST(PcaFpFilterBuild, TraceExactlyAtMinTraceDoesNotFreeze) {
    const float x1 = 0x1.40f976p+3f;  // 10.0304518
    const float x2 = 0x1.00dc9cp+7f;  // 128.430878
    pca_fp_filter f;
    const cv::Mat data = axis_points(x1, x2);
    ostrel::computePcaFpFilter(f, data, data, kMinTrace);
    ASSERT_EQ(abs_trace(f.reduce_inv_covar), static_cast<double>(kMinTrace));
    EXPECT_EQ(f.pca_filter_ready, 1);
    EXPECT_EQ(f.pca_filter_frozen, 0);

    pca_fp_filter below;
    float wider_x1 = x1;
    cv::Mat wider;
    do {  // the next x1 whose trace comes out below the bound
        wider_x1 = std::nextafter(wider_x1, 100.0f);
        wider = axis_points(wider_x1, x2);
        below = pca_fp_filter{};
        ostrel::computePcaFpFilter(below, wider, wider, kMinTrace);
    } while (abs_trace(below.reduce_inv_covar) >= static_cast<double>(kMinTrace));
    EXPECT_EQ(below.pca_filter_ready, 1);
    EXPECT_EQ(below.pca_filter_frozen, 1);
}

// A frozen filter ignores every later build, even one that would fail.
TEST(PcaFpFilterBuild, FrozenFilterIgnoresLaterBuilds) {
    pca_fp_filter f;
    const cv::Mat spread = axis_points(100.0f, 200.0f);  // trace 1/20000 + 1/80000: frozen
    ostrel::computePcaFpFilter(f, spread, spread, kMinTrace);
    ASSERT_EQ(f.pca_filter_ready, 1);
    ASSERT_EQ(f.pca_filter_frozen, 1);
    const cv::Mat inv_before = f.reduce_inv_covar.clone();
    const cv::Mat mean_before = f.pca.mean.clone();

    const cv::Mat tight = axis_points(0.5f, 0.25f);  // would give a huge trace
    ostrel::computePcaFpFilter(f, tight, tight, kMinTrace);
    ostrel::buildFpFilterFromTrainingMat(f, tight, cv::Mat::ones(4, 1, CV_32S), 4, 0);
    EXPECT_EQ(f.pca_filter_ready, 1);
    EXPECT_EQ(f.pca_filter_frozen, 1);
    EXPECT_TRUE(same_bytes(f.reduce_inv_covar, inv_before));
    EXPECT_TRUE(same_bytes(f.pca.mean, mean_before));
}

// A build whose trace is too large clears an earlier ready flag.
TEST(PcaFpFilterBuild, RejectedBuildClearsReady) {
    pca_fp_filter f;
    const cv::Mat spread = axis_points(10.0f, 12.0f);  // trace 0.0085: ready, not frozen
    ostrel::computePcaFpFilter(f, spread, spread, kMinTrace);
    ASSERT_EQ(f.pca_filter_ready, 1);
    ASSERT_EQ(f.pca_filter_frozen, 0);
    const cv::Mat tight = axis_points(1.0f, 2.0f);
    ostrel::computePcaFpFilter(f, tight, tight, kMinTrace);
    EXPECT_EQ(f.pca_filter_ready, 0);
}

// Nothing to analyse (no rows, or no positives) is not an error that
// escapes: the build just gives no usable filter.
TEST(PcaFpFilterBuild, NoPositivesGiveNoFilterAndNoException) {
    pca_fp_filter f;
    f.pca_filter_ready = 1;
    const cv::Mat data = random_rows(6, 4, 3);
    EXPECT_EQ(ostrel::computePcaFpFilter(f, data, cv::Mat(0, 4, CV_32F), kMinTrace), 0);
    EXPECT_EQ(f.pca_filter_ready, 0);

    f.pca_filter_ready = 1;
    EXPECT_EQ(ostrel::computePcaFpFilter(f, cv::Mat(), cv::Mat(), kMinTrace), 0);
    EXPECT_EQ(f.pca_filter_ready, 0);
}

// The training matrix is split into every non-positive row plus the first
// positive_sample_count positives (data), and those positives alone.
TEST(PcaFpFilterBuild, TrainingMatrixSplitKeepsTheFirstPositives) {
    const cv::Mat samples = random_rows(8, 5, 11);
    const cv::Mat labels = (cv::Mat_<int32_t>(8, 1) << 1, -1, 1, 1, -2, 1, -1, 1);
    // positive_sample_count 2, new_positive_count 3: rows 3, 5 and 7 are later positives.
    pca_fp_filter built;
    EXPECT_EQ(ostrel::buildFpFilterFromTrainingMat(built, samples, labels, 2, 3), 0);

    cv::Mat all_rows;
    for (int r : {0, 1, 2, 4, 6}) {
        all_rows.push_back(samples.row(r));
    }
    cv::Mat pos_rows;
    for (int r : {0, 2}) {
        pos_rows.push_back(samples.row(r));
    }
    pca_fp_filter direct;
    ostrel::computePcaFpFilter(direct, all_rows, pos_rows, kMinTrace);
    EXPECT_EQ(all_rows.rows, 8 - 3);
    EXPECT_TRUE(same_bytes(built.pca.mean, direct.pca.mean));
    EXPECT_TRUE(same_bytes(built.pca.eigenvectors, direct.pca.eigenvectors));
    EXPECT_TRUE(same_bytes(built.reduce_mean, direct.reduce_mean));
    EXPECT_TRUE(same_bytes(built.reduce_inv_covar, direct.reduce_inv_covar));
    EXPECT_EQ(built.pca_filter_ready, direct.pca_filter_ready);
}

// Projection: (sample - mean) x eigenvectors^T, row by row.
TEST(PcaProject, CentresAndMultipliesByTheTransposedEigenvectors) {
    const pca_fp_filter f = published_filter();
    const cv::Mat sample = (cv::Mat_<float>(1, 4) << 11.0f, 5.0f, -3.0f, 9.0f);
    const cv::Mat p = ostrel::pca_project(f, sample);
    ASSERT_EQ(p.rows, 1);
    ASSERT_EQ(p.cols, 2);
    EXPECT_EQ(p.type(), CV_32F);
    EXPECT_EQ(p.at<float>(0, 0), 10.0f);
    EXPECT_EQ(p.at<float>(0, 1), -6.0f);

    // Several rows: the mean is repeated down, each row projected alike.
    const cv::Mat two = (cv::Mat_<float>(2, 4) << 11.0f, 5.0f, -3.0f, 9.0f, 1.0f, 0.0f, 5.5f, 0.0f);
    const cv::Mat q = ostrel::pca_project(f, two);
    ASSERT_EQ(q.rows, 2);
    EXPECT_EQ(q.at<float>(1, 0), 0.0f);
    EXPECT_EQ(q.at<float>(1, 1), 2.5f);
}

// An integer sample is converted to the mean's float depth before centring:
// the result equals that of the same values as floats, fractions included.
TEST(PcaProject, IntegerSampleIsConvertedBeforeCentring) {
    pca_fp_filter f = published_filter();
    f.mean = (cv::Mat_<float>(1, 4) << 0.25f, 0.5f, 200.75f, 1.0f);
    const cv::Mat bytes = (cv::Mat_<uint8_t>(1, 4) << 255, 7, 3, 9);
    cv::Mat as_float;
    bytes.convertTo(as_float, CV_32F);
    const cv::Mat p = ostrel::pca_project(f, bytes);
    const cv::Mat q = ostrel::pca_project(f, as_float);
    ASSERT_EQ(p.type(), CV_32F);
    EXPECT_TRUE(same_bytes(p, q));
    EXPECT_EQ(p.at<float>(0, 0), 254.75f);
    EXPECT_EQ(p.at<float>(0, 1), -197.75f);

    const cv::Mat ints = (cv::Mat_<int32_t>(1, 4) << -5, 7, 3, 9);
    EXPECT_EQ(ostrel::pca_project(f, ints).at<float>(0, 0), -5.25f);
}

// A 1 x D sample against a mean of another width is a size error: the line
// names the sizes and the result is empty.
TEST(PcaProject, NarrowerSampleIsASizeError) {
    const pca_fp_filter f = published_filter();
    const cv::Mat sample = (cv::Mat_<float>(1, 3) << 1.0f, 2.0f, 3.0f);
    cv::Mat p;
    const std::string out = capture_stdout([&] { p = ostrel::pca_project(f, sample); });
    EXPECT_TRUE(p.empty());
    EXPECT_EQ(out, "[ostrel_alg::pca_project:3236] Size Error(1 1 3 4)\n");
}

// A sample twice as wide repeats the mean but cannot meet the eigenvectors:
// the same size error, not a crash.
TEST(PcaProject, WiderSampleIsASizeErrorToo) {
    const pca_fp_filter f = published_filter();
    const cv::Mat sample = cv::Mat::ones(1, 8, CV_32F);
    cv::Mat p;
    const std::string out = capture_stdout([&] { p = ostrel::pca_project(f, sample); });
    EXPECT_TRUE(p.empty());
    EXPECT_EQ(out, "[ostrel_alg::pca_project:3236] Size Error(1 1 8 4)\n");
}

// A filter with nothing published cannot project anything.
TEST(PcaProject, EmptyMeanIsASizeError) {
    const pca_fp_filter f;
    cv::Mat p;
    const std::string out = capture_stdout([&] { p = ostrel::pca_project(f, cv::Mat::ones(1, 4, CV_32F)); });
    EXPECT_TRUE(p.empty());
    EXPECT_EQ(out, "[ostrel_alg::pca_project:3236] Size Error(1 0 4 0)\n");
}

// Publishing copies the analysis' mean and eigenvectors, deeply, and only
// when the filter is ready.
TEST(PcaPublish, DeepCopiesWhenReady) {
    pca_fp_filter f;
    const cv::Mat spread = axis_points(10.0f, 12.0f);
    ostrel::computePcaFpFilter(f, spread, spread, kMinTrace);
    ASSERT_EQ(f.pca_filter_ready, 1);
    ostrel::publishPcaFilter(f);
    ASSERT_TRUE(same_bytes(f.mean, f.pca.mean));
    ASSERT_TRUE(same_bytes(f.eigenvectors, f.pca.eigenvectors));
    EXPECT_NE(f.mean.data, f.pca.mean.data);
    EXPECT_NE(f.eigenvectors.data, f.pca.eigenvectors.data);

    pca_fp_filter not_ready;
    const cv::Mat tight = axis_points(1.0f, 2.0f);
    ostrel::computePcaFpFilter(not_ready, tight, tight, kMinTrace);
    ASSERT_EQ(not_ready.pca_filter_ready, 0);
    ostrel::publishPcaFilter(not_ready);
    EXPECT_TRUE(not_ready.mean.empty());
    EXPECT_TRUE(not_ready.eigenvectors.empty());
}

// The distance is OpenCV's Mahalanobis distance of the projection, as a float.
TEST(PcaDistance, MahalanobisOfTheProjection) {
    pca_fp_filter f = published_filter();
    f.reduce_mean = (cv::Mat_<float>(1, 2) << 1.0f, -1.0f);
    f.reduce_inv_covar = (cv::Mat_<float>(2, 2) << 0.25f, 0.0f, 0.0f, 4.0f);
    const cv::Mat sample = (cv::Mat_<float>(1, 4) << 7.0f, 0.0f, 2.0f, 0.0f);  // projection (6, -1)
    const std::optional<float> d = ostrel::fp_distance(f, sample);
    ASSERT_TRUE(d.has_value());
    EXPECT_EQ(*d, 2.5f);  // sqrt(25 * 0.25 + 0)
    const cv::Mat p = ostrel::pca_project(f, sample);
    EXPECT_EQ(*d, static_cast<float>(cv::Mahalanobis(p, f.reduce_mean, f.reduce_inv_covar)));
}

// No distance when the window cannot be projected, or when the filter's
// reduced mean does not fit its eigenvectors (a corrupt file).
TEST(PcaDistance, NoValueWithoutAProjection) {
    const pca_fp_filter f = published_filter();
    std::optional<float> d;
    capture_stdout([&] { d = ostrel::fp_distance(f, cv::Mat::ones(1, 2, CV_32F)); });
    EXPECT_FALSE(d.has_value());

    pca_fp_filter mismatched = published_filter();
    mismatched.reduce_mean = cv::Mat::zeros(1, 3, CV_32F);
    EXPECT_FALSE(ostrel::fp_distance(mismatched, cv::Mat::ones(1, 4, CV_32F)).has_value());
}

// One row gives one component and a divisor K - 1 = 0: the covariance is
// not a number, and the trace test fails on its own.
TEST(PcaFpFilterBuild, SingleComponentFailsTheTraceTest) {
    pca_fp_filter f;
    f.pca_filter_ready = 1;
    const cv::Mat one = random_rows(1, 30, 9);
    EXPECT_EQ(ostrel::computePcaFpFilter(f, one, one, kMinTrace), 0);
    EXPECT_EQ(f.pca.eigenvectors.rows, 1);
    EXPECT_EQ(f.pca_filter_ready, 0);
    EXPECT_EQ(f.pca_filter_frozen, 0);
}

// Counts that disagree with the labels (more positives announced than
// there are, more new ones than rows) write no row out of bounds: the data
// is every row that the walk selects.
TEST(PcaFpFilterBuild, InconsistentCountsAreSafe) {
    const cv::Mat samples = random_rows(6, 5, 13);
    const cv::Mat labels = (cv::Mat_<int32_t>(6, 1) << 1, -1, 1, -1, -1, -1);
    pca_fp_filter built;
    EXPECT_EQ(ostrel::buildFpFilterFromTrainingMat(built, samples, labels, 10, 50), 0);
    pca_fp_filter direct;
    cv::Mat positives;
    positives.push_back(samples.row(0));
    positives.push_back(samples.row(2));
    ostrel::computePcaFpFilter(direct, samples, positives, kMinTrace);
    EXPECT_TRUE(same_bytes(built.pca.mean, direct.pca.mean));
    EXPECT_TRUE(same_bytes(built.reduce_mean, direct.reduce_mean));
    EXPECT_TRUE(same_bytes(built.reduce_inv_covar, direct.reduce_inv_covar));
}
