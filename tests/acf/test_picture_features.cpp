// From a host picture to the scale-0 feature map: loading planar and
// interleaved pixels, Lab conversion, column-by-column loading, sizes and
// storage order in picture terms, and a pinned map of a real picture.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "acf/acf_helper.h"
#include "acf/ostrel_acf.h"
#include "acf/picture_features.h"
#include "acf/map_hash.h"
#include "support/host_picture.h"
#include "support/test_data.h"

using namespace ostrel;

namespace {

// An extractor set up as the engine sets it up.
class PictureFeatures : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(acf_.init_pyramid(), 0);
        ASSERT_EQ(acf_.set_extractor_defaults(), 0);
    }
    ostrel_acf acf_;
};

cv::Mat blood_picture() {
    return cv::imread(ostrel_test::data_path("bccd/images/BloodImage_00000.jpg"), cv::IMREAD_COLOR);
}

// Fingerprint of the blood picture's whole scale-0 map (sizes and bytes),
// computed once from this implementation. A change means the features
// changed.
constexpr uint32_t kBloodMapHash = 0x2B4F3432u;

uint32_t hash_of(const feature_map &map) {
    return acf_test::map_hash(static_cast<uint32_t>(map.channels), static_cast<uint32_t>(map.columns),
                              static_cast<uint32_t>(map.rows), map.data.data(), map.data.size());
}

// A grey picture with a bright vertical stripe over the given columns.
cv::Mat stripe_picture(int width, int height, int from_column, int to_column) {
    cv::Mat bgr(height, width, CV_8UC3, cv::Scalar(60, 60, 60));
    bgr.colRange(from_column, to_column).setTo(cv::Scalar(230, 230, 230));
    return bgr;
}

}  // namespace

// Planar pixels (three planes in order) and interleaved pixels load to the
// same BGR picture, rows x columns.
TEST(LoadBgrPicture, PlanarAndInterleavedGiveTheSamePicture) {
    cv::Mat bgr(5, 7, CV_8UC3);
    cv::randu(bgr, 0, 256);
    std::vector<uint8_t> planar_bytes;
    std::vector<uint8_t> interleaved_bytes;
    const cv::Mat from_planar = load_bgr_picture(ostrel_test::host_record(bgr, true, planar_bytes), true);
    const cv::Mat from_interleaved = load_bgr_picture(ostrel_test::host_record(bgr, false, interleaved_bytes), false);
    ASSERT_EQ(from_planar.rows, 5);
    ASSERT_EQ(from_planar.cols, 7);
    ASSERT_EQ(from_planar.type(), CV_8UC3);
    EXPECT_EQ(cv::norm(from_planar, bgr, cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(from_interleaved, bgr, cv::NORM_INF), 0.0);
    // Plane 0 is the first channel: pixel (row 2, column 3) of plane 1.
    EXPECT_EQ(from_planar.at<cv::Vec3b>(2, 3)[1], planar_bytes[5 * 7 + 2 * 7 + 3]);
}

// The loaded picture owns its pixels.
TEST(LoadBgrPicture, CopiesThePixels) {
    cv::Mat bgr(4, 4, CV_8UC3, cv::Scalar(1, 2, 3));
    std::vector<uint8_t> bytes;
    const ostrel_alg_image record = ostrel_test::host_record(bgr, false, bytes);
    const cv::Mat loaded = load_bgr_picture(record, false);
    bytes[0] = 200;
    EXPECT_EQ(loaded.at<cv::Vec3b>(0, 0)[0], 1);
}

// The blood picture (640 x 480): a map of 121 columns x 68 rows x 10
// channels, Lab planes as OpenCV makes them, and the whole map pinned by
// its fingerprint so that any change of the kernels shows.
TEST_F(PictureFeatures, BloodPictureMapIsPinned) {
    const cv::Mat bgr = blood_picture();
    ASSERT_FALSE(bgr.empty());
    ASSERT_EQ(bgr.cols, 640);
    ASSERT_EQ(bgr.rows, 480);
    picture_features features;
    ASSERT_TRUE(compute_picture_features(acf_, bgr, &features));
    EXPECT_EQ(features.map.channels, 10);
    EXPECT_EQ(features.map.columns, 121);
    EXPECT_EQ(features.map.rows, 68);
    ASSERT_EQ(features.map.data.size(), 10u * 121u * 68u);
    EXPECT_EQ(hash_of(features.map), kBloodMapHash) << std::hex << hash_of(features.map);
    EXPECT_EQ(acf_.chn_options->n_added, 3);

    cv::Mat lab;
    cv::cvtColor(bgr, lab, cv::COLOR_BGR2Lab);
    cv::Mat planes[3];
    cv::split(lab, planes);
    for (int c = 0; c < 3; ++c) {
        ASSERT_EQ(features.lab_planes[c].rows, 480);
        ASSERT_EQ(features.lab_planes[c].cols, 640);
        EXPECT_TRUE(features.lab_planes[c].isContinuous());
        EXPECT_EQ(cv::norm(features.lab_planes[c], planes[c], cv::NORM_INF), 0.0) << c;
    }
}

// Colour cells equal a direct computation from the Lab planes: load column
// by column (record width = picture rows), resample to the scale-0 image
// (136 x 242), reduce 2 x 2 with 8191/8192. Map column x, row y covers
// record rows 2x, 2x + 1 and record columns 2y, 2y + 1.
TEST_F(PictureFeatures, ColourCellsMatchADirectComputationFromLab) {
    const cv::Mat bgr = blood_picture();
    ASSERT_FALSE(bgr.empty());
    picture_features features;
    ASSERT_TRUE(compute_picture_features(acf_, bgr, &features));

    chn_image8 record(3, bgr.rows, bgr.cols);
    for (int c = 0; c < 3; ++c) {
        for (int r = 0; r < bgr.rows; ++r) {
            for (int k = 0; k < bgr.cols; ++k) {
                record.at(c, k, r) = features.lab_planes[c].at<uint8_t>(r, k);
            }
        }
    }
    const chn_image8 scaled = acf_helper::image_resample_fix(record, 136, 242, 1.0f);
    const int cells[][2] = {{0, 0}, {120, 67}, {5, 60}, {100, 3}, {61, 33}, {17, 42}};
    for (const auto &cell : cells) {
        const int x = cell[0];
        const int y = cell[1];
        for (int c = 0; c < 3; ++c) {
            const int a = scaled.at(c, 2 * x, 2 * y);
            const int b = scaled.at(c, 2 * x + 1, 2 * y);
            const int d = scaled.at(c, 2 * x, 2 * y + 1);
            const int e = scaled.at(c, 2 * x + 1, 2 * y + 1);
            const int expected = ((((a + b) >> 1) + ((d + e) >> 1)) * 8191) >> 14;
            EXPECT_EQ(features.map.at(c, x, y), expected) << "channel " << c << " column " << x << " row " << y;
        }
    }
}

// The one-pass load-and-resample of the pictures gives the map that the
// pyramid computes from the full-size column-by-column record.
TEST_F(PictureFeatures, SameMapAsThePyramidOfTheFullSizeRecord) {
    for (const cv::Size size : {cv::Size(640, 480), cv::Size(333, 517), cv::Size(242, 136), cv::Size(484, 272)}) {
        cv::Mat bgr = blood_picture();
        ASSERT_FALSE(bgr.empty());
        cv::resize(bgr, bgr, size, 0, 0, cv::INTER_AREA);
        picture_features features;
        ASSERT_TRUE(compute_picture_features(acf_, bgr, &features));

        chn_image8 record(3, bgr.rows, bgr.cols);
        for (int c = 0; c < 3; ++c) {
            for (int r = 0; r < bgr.rows; ++r) {
                for (int k = 0; k < bgr.cols; ++k) {
                    record.at(c, k, r) = features.lab_planes[c].at<uint8_t>(r, k);
                }
            }
        }
        pyramid_store store = acf_.pyramid;
        channel_options options = *acf_.chn_options;
        compute_acf_pyramid(options, record, *acf_.params, store);
        EXPECT_EQ(features.map.data, store.map(0).data) << size;
        EXPECT_EQ(acf_.pyramid.padded, store.padded) << size;
    }
}

// Orientation: a wide picture (480 x 270) with a bright vertical stripe
// over columns 200..239. The map has more columns (121) than rows (68); the
// stripe shows along map columns 50..59 in every map row, and its edges in
// the gradient plane, while far columns stay flat.
TEST_F(PictureFeatures, VerticalStripeShowsAlongMapColumns) {
    picture_features features;
    ASSERT_TRUE(compute_picture_features(acf_, stripe_picture(480, 270, 200, 240), &features));
    const feature_map &map = features.map;
    ASSERT_EQ(map.columns, 121);
    ASSERT_EQ(map.rows, 68);
    EXPECT_GT(map.columns, map.rows);
    for (int y = 0; y < map.rows; ++y) {
        EXPECT_GT(map.at(0, 55, y), map.at(0, 20, y) + 50) << y;  // L inside the stripe vs outside
        EXPECT_EQ(map.at(0, 20, y), map.at(0, 100, y)) << y;
        EXPECT_EQ(map.at(3, 20, y), 0) << y;                     // no gradient far from the stripe
        EXPECT_GT(map.at(3, 50, y) + map.at(3, 51, y), 0) << y;  // left edge
    }
    // Nothing changes down a map column away from the picture's borders.
    for (int y = 2; y < map.rows - 2; ++y) {
        EXPECT_EQ(map.at(0, 55, y), map.at(0, 55, 10)) << y;
    }
}

// A horizontal stripe shows along map rows instead.
TEST_F(PictureFeatures, HorizontalStripeShowsAlongMapRows) {
    cv::Mat bgr(270, 480, CV_8UC3, cv::Scalar(60, 60, 60));
    bgr.rowRange(100, 140).setTo(cv::Scalar(230, 230, 230));
    picture_features features;
    ASSERT_TRUE(compute_picture_features(acf_, bgr, &features));
    const feature_map &map = features.map;
    // Rows 100..139 of 270 map to map rows of about 25..35 of 68.
    for (int x = 0; x < map.columns; ++x) {
        EXPECT_GT(map.at(0, x, 30), map.at(0, x, 10) + 50) << x;
    }
}

// Every picture is resampled to the same scale-0 image: a tall picture
// still gives 121 map columns and 68 map rows.
TEST_F(PictureFeatures, EveryPictureGivesTheSameCellCount) {
    for (const cv::Size size : {cv::Size(270, 480), cv::Size(1920, 1080), cv::Size(64, 48)}) {
        cv::Mat bgr(size, CV_8UC3, cv::Scalar(10, 120, 200));
        picture_features features;
        ASSERT_TRUE(compute_picture_features(acf_, bgr, &features));
        EXPECT_EQ(features.map.columns, 121);
        EXPECT_EQ(features.map.rows, 68);
        EXPECT_EQ(features.map.channels, 10);
    }
}

// Storage order in picture terms: the cell of channel c at column x, row y
// lies at c * columns * rows + x * rows + y: the unpadded map of scale 0
// (record width = map rows, record height = map columns), not the padded one.
TEST_F(PictureFeatures, MapIsTheUnpaddedScaleZeroInPictureTerms) {
    const cv::Mat bgr = blood_picture();
    ASSERT_FALSE(bgr.empty());
    picture_features features;
    ASSERT_TRUE(compute_picture_features(acf_, bgr, &features));
    const chn_image8 record_map = acf_.pyramid.map(0);
    ASSERT_EQ(record_map.width, 68);
    ASSERT_EQ(record_map.height, 121);
    for (int c = 0; c < 10; c += 3) {
        for (int x = 0; x < 121; x += 11) {
            for (int y = 0; y < 68; y += 7) {
                ASSERT_EQ(features.map.at(c, x, y), record_map.at(c, x, y));
                ASSERT_EQ(features.map.data[features.map.index(c, x, y)],
                          features.map.data[static_cast<size_t>(c) * 121 * 68 + static_cast<size_t>(x) * 68 + y]);
            }
        }
    }
    EXPECT_EQ(features.map.data, record_map.data);
}

// The host record, planar or interleaved, gives the map of the picture.
TEST_F(PictureFeatures, HostRecordsPlanarAndInterleavedGiveTheSameMap) {
    const cv::Mat bgr = blood_picture();
    ASSERT_FALSE(bgr.empty());
    picture_features from_mat;
    ASSERT_TRUE(compute_picture_features(acf_, bgr, &from_mat));
    for (bool planar : {true, false}) {
        std::vector<uint8_t> bytes;
        const ostrel_alg_image record = ostrel_test::host_record(bgr, planar, bytes);
        picture_features from_record;
        ASSERT_TRUE(compute_picture_features(acf_, record, &from_record));
        EXPECT_EQ(from_record.map.data, from_mat.map.data) << planar;
    }
}

// No pixels, a wrong pixel type or a bad record: false and no map.
TEST_F(PictureFeatures, NoPixelsGiveNoMap) {
    picture_features features;
    features.map.data.assign(3, 1);
    EXPECT_FALSE(compute_picture_features(acf_, cv::Mat(), &features));
    EXPECT_TRUE(features.map.empty());
    EXPECT_FALSE(compute_picture_features(acf_, cv::Mat(4, 4, CV_8UC1, cv::Scalar(0)), &features));
    ostrel_alg_image record{};
    record.width = 4;
    record.height = 4;
    record.channels = 3;
    EXPECT_FALSE(compute_picture_features(acf_, record, &features));  // no data
    EXPECT_FALSE(compute_picture_features(acf_, cv::Mat(4, 4, CV_8UC3), nullptr));
}

// An extractor that was never set up has no pyramid: false.
TEST(PictureFeaturesWithoutSetUp, RefusesThePicture) {
    ostrel_acf acf;
    picture_features features;
    EXPECT_FALSE(compute_picture_features(acf, cv::Mat(8, 8, CV_8UC3, cv::Scalar(1, 2, 3)), &features));
    EXPECT_TRUE(features.map.empty());
}
