// The diagnostic feature-map export as a host sees it: sizes, storage order
// in picture terms, the pinned map of a real picture, planar and
// interleaved pixels, and the failure lines.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "acf/map_hash.h"
#include "ostrel_alg.h"
#include "support/stdout_capture.h"
#include "support/host_picture.h"
#include "support/test_data.h"

using ostrel_test::capture_stdout;

namespace {

// Fingerprint of the blood picture's scale-0 map; the unit tests of the
// feature computation pin the same value, so the export hands out exactly
// the map that detection and training read.
constexpr uint32_t kBloodMapHash = 0x2B4F3432u;

const char *const kFailLine = "[Alg. FAIL!] ostrel_alg::getFeatureMap (ostrel_alg line:1190)\n";

class FeatureMapExport : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ostrel_alg_create(&engine_), 0); }
    void TearDown() override { ASSERT_EQ(ostrel_alg_destroy(engine_), 0); }

    // Host record over a picture, planar (three planes) or interleaved.
    ostrel_alg_image record(const cv::Mat &bgr, bool planar) {
        return ostrel_test::host_record(bgr, planar, pixels_, 7);
    }

    struct map_view {
        const uint8_t *data = nullptr;
        uint32_t channels = 0;
        uint32_t columns = 0;
        uint32_t rows = 0;
        uint8_t at(uint32_t c, uint32_t x, uint32_t y) const { return data[c * columns * rows + x * rows + y]; }
        size_t size() const { return static_cast<size_t>(channels) * columns * rows; }
    };

    int32_t get(const ostrel_alg_image *image, map_view *view) {
        return ostrel_alg_getFeatureMap_ptr(engine_, image, &view->data, &view->channels, &view->columns, &view->rows);
    }

    ostrel_alg *engine_ = nullptr;
    std::vector<uint8_t> pixels_;
};

uint32_t hash_of(uint32_t channels, uint32_t columns, uint32_t rows, const uint8_t *data) {
    return acf_test::map_hash(channels, columns, rows, data, static_cast<size_t>(channels) * columns * rows);
}

}  // namespace

// The blood picture, planar: 121 columns x 68 rows x 10 channels, the
// pinned map.
TEST_F(FeatureMapExport, BloodPictureGivesThePinnedMap) {
    const cv::Mat bgr = cv::imread(ostrel_test::data_path("bccd/images/BloodImage_00000.jpg"), cv::IMREAD_COLOR);
    ASSERT_FALSE(bgr.empty());
    const ostrel_alg_image image = record(bgr, true);
    map_view map;
    ASSERT_EQ(get(&image, &map), 0);
    ASSERT_NE(map.data, nullptr);
    EXPECT_EQ(map.channels, 10u);
    EXPECT_EQ(map.columns, 121u);
    EXPECT_EQ(map.rows, 68u);
    const uint32_t hash = hash_of(map.channels, map.columns, map.rows, map.data);
    EXPECT_EQ(hash, kBloodMapHash) << std::hex << hash;
}

// Interleaved pixels of the same picture give the same map.
TEST_F(FeatureMapExport, InterleavedAndPlanarGiveTheSameMap) {
    const cv::Mat bgr = cv::imread(ostrel_test::data_path("bccd/images/BloodImage_00000.jpg"), cv::IMREAD_COLOR);
    ASSERT_FALSE(bgr.empty());
    ostrel_alg_image image = record(bgr, true);
    map_view planar;
    ASSERT_EQ(get(&image, &planar), 0);
    const std::vector<uint8_t> planar_bytes(planar.data, planar.data + planar.size());
    image = record(bgr, false);
    map_view interleaved;
    ASSERT_EQ(get(&image, &interleaved), 0);
    ASSERT_EQ(interleaved.size(), planar_bytes.size());
    EXPECT_EQ(std::vector<uint8_t>(interleaved.data, interleaved.data + interleaved.size()), planar_bytes);
}

// Storage order: a bright vertical stripe over picture columns 200..239 of
// a 480 x 270 picture lies along map columns 50..59 (x of
// data[c * columns * rows + x * rows + y]) in every map row; a horizontal
// stripe over rows 100..139 lies along map row 30 in every map column.
TEST_F(FeatureMapExport, StorageOrderIsColumnByColumnInPictureTerms) {
    cv::Mat vertical(270, 480, CV_8UC3, cv::Scalar(60, 60, 60));
    vertical.colRange(200, 240).setTo(cv::Scalar(230, 230, 230));
    ostrel_alg_image image = record(vertical, true);
    map_view map;
    ASSERT_EQ(get(&image, &map), 0);
    ASSERT_EQ(map.columns, 121u);
    ASSERT_EQ(map.rows, 68u);
    for (uint32_t y = 0; y < map.rows; ++y) {
        EXPECT_GT(map.at(0, 55, y), map.at(0, 20, y) + 50) << y;
        EXPECT_EQ(map.at(3, 20, y), 0) << y;
    }

    cv::Mat horizontal(270, 480, CV_8UC3, cv::Scalar(60, 60, 60));
    horizontal.rowRange(100, 140).setTo(cv::Scalar(230, 230, 230));
    image = record(horizontal, false);
    ASSERT_EQ(get(&image, &map), 0);
    for (uint32_t x = 0; x < map.columns; ++x) {
        EXPECT_GT(map.at(0, x, 30), map.at(0, x, 10) + 50) << x;
    }
}

// The map stays valid until the next call; each call computes afresh.
TEST_F(FeatureMapExport, EachCallComputesAfresh) {
    cv::Mat dark(48, 64, CV_8UC3, cv::Scalar(20, 20, 20));
    cv::Mat light(48, 64, CV_8UC3, cv::Scalar(200, 200, 200));
    ostrel_alg_image image = record(dark, true);
    map_view first;
    ASSERT_EQ(get(&image, &first), 0);
    const uint8_t dark_l = first.at(0, 60, 30);
    image = record(light, true);  // the same key: no cache is consulted
    map_view second;
    ASSERT_EQ(get(&image, &second), 0);
    const uint8_t light_l = second.at(0, 60, 30);
    EXPECT_GT(light_l, dark_l);
    // After init (which frees the handed-out map) the engine computes maps
    // as before.
    ASSERT_EQ(ostrel_alg_init(engine_), 0);
    map_view third;
    ASSERT_EQ(get(&image, &third), 0);
    EXPECT_EQ(third.at(0, 60, 30), light_l);
}

// A missing picture: the failure line, status 1, outputs untouched.
TEST_F(FeatureMapExport, MissingPictureFails) {
    map_view map;
    int32_t status = 0;
    const std::string out = capture_stdout([&] { status = get(nullptr, &map); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, kFailLine);
    EXPECT_EQ(map.data, nullptr);
    EXPECT_EQ(map.columns, 0u);
}

// A two-channel or data-less picture: the invalid-image line, then the
// failure line, status 1.
TEST_F(FeatureMapExport, InvalidPictureLogsBothLines) {
    uint8_t pixels[12] = {};
    ostrel_alg_image image{2, 2, 2, pixels, 1, 0, 0};
    map_view map;
    int32_t status = 0;
    std::string out = capture_stdout([&] { status = get(&image, &map); });
    EXPECT_EQ(status, 1);
    char line[160];
    std::snprintf(line, sizeof line, "[ostrel_alg::checkImgValid] invalid image data: 2 x 2 @%p)\n",
                  static_cast<const void *>(pixels));
    EXPECT_EQ(out, std::string(line) + kFailLine);

    image = ostrel_alg_image{3, 2, 3, nullptr, 1, 0, 3};
    out = capture_stdout([&] { status = get(&image, &map); });
    EXPECT_EQ(status, 1);
    std::snprintf(line, sizeof line, "[ostrel_alg::checkImgValid] invalid image data: 3 x 2 @%p)\n",
                  static_cast<const void *>(nullptr));
    EXPECT_EQ(out, std::string(line) + kFailLine);
    EXPECT_EQ(map.data, nullptr);
}
