// Input the host should never send must not crash the library: tiny
// pictures, absurd boxes, boxes outside the picture. Each call ends with a
// status; the sanitizer run checks that nothing is read out of bounds.
#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"
#include "support/test_data.h"
#include "support/voc.h"

using ostrel_test::capture_stdout;

namespace {

class BadInput : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 3), 0);
        ASSERT_EQ(ostrel_alg_setSensitivity(engine_, 50), 0);
    }
    void TearDown() override { ASSERT_EQ(ostrel_alg_destroy(engine_), 0); }

    int32_t set_up(const ostrel_alg_image &image, const std::vector<ostrel_alg_box> &boxes) {
        int32_t status = -1;
        capture_stdout([&] {
            status = ostrel_alg_setDetector_ptr(engine_, &image, boxes.data(), static_cast<int32_t>(boxes.size()));
        });
        return status;
    }
    int32_t detect(const ostrel_alg_image &image, uint32_t *count) {
        int32_t status = -1;
        ostrel_alg_box *boxes = nullptr;
        capture_stdout([&] { status = ostrel_alg_runDetector_ptr(engine_, &image, &boxes, count); });
        return status;
    }
    void train_on_blood() {
        picture_ = cv::imread(ostrel_test::data_path("bccd/images/BloodImage_00000.jpg"), cv::IMREAD_COLOR);
        const auto boxes = ostrel_test::median_size_boxes(
            ostrel_test::read_voc(ostrel_test::data_path("bccd/annotations/BloodImage_00000.xml")), "RBC");
        const ostrel_alg_image image{picture_.cols, picture_.rows, 3, picture_.data, 1, 0, 0};
        ASSERT_EQ(set_up(image, boxes), 0);
    }

    ostrel_alg *engine_ = nullptr;
    cv::Mat picture_;
};

}  // namespace

// A 1 x 1 picture cannot hold a sample: set-up fails cleanly.
TEST_F(BadInput, OnePixelPictureSetUpFails) {
    uint8_t pixel[3] = {10, 20, 30};
    const ostrel_alg_image image{1, 1, 3, pixel, 1, 0, 0};
    EXPECT_EQ(set_up(image, {ostrel_alg_box{0, 0, 1, 1, 0.0f, 1, 0, 0}}), 1);
    uint8_t trained = 9;
    EXPECT_EQ(ostrel_alg_istraied(engine_, &trained), 0);
    EXPECT_EQ(trained, 0);
}

// Absurd boxes: huge, negative, at the ends of the int32 range, outside the
// picture. Set-up refuses them with a status, and nothing crashes.
TEST_F(BadInput, AbsurdBoxesAreRefused) {
    std::vector<uint8_t> pixels(64 * 48 * 3, 128);
    const ostrel_alg_image image{64, 48, 3, pixels.data(), 1, 0, 0};
    const std::vector<std::vector<ostrel_alg_box>> cases = {
        {ostrel_alg_box{0, 0, 100000, 100000, 0.0f, 1, 0, 0}},
        {ostrel_alg_box{-50, -50, -10, -10, 0.0f, 1, 0, 0}},
        {ostrel_alg_box{INT_MAX, INT_MAX, INT_MAX, INT_MAX, 0.0f, 1, 0, 0}},
        {ostrel_alg_box{INT_MIN, INT_MIN, INT_MAX, INT_MAX, 0.0f, 1, 0, 0}},
        {ostrel_alg_box{500, 500, 20, 20, 0.0f, 1, 0, 0}},
        {ostrel_alg_box{0, 0, 0, 0, 0.0f, 1, 0, 0}},
    };
    int64_t key = 10;
    for (const auto &boxes : cases) {
        ostrel_alg_image fresh = image;
        fresh.image_key = ++key;
        EXPECT_EQ(set_up(fresh, boxes), 1) << boxes[0].x << "," << boxes[0].width;
    }
}

// A trained engine detects on tiny and oddly sized pictures without
// crashing; where the trained 96 x 99 box of a 640 x 480 picture would be
// less than one pixel (1 x 1, 2 x 1, 1 x 3) detection is refused.
TEST_F(BadInput, DetectionOnTinyAndOddPictures) {
    train_on_blood();
    int64_t key = 100;
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(2, 1), cv::Size(1, 3), cv::Size(7, 5), cv::Size(3001, 17)}) {
        std::vector<uint8_t> pixels(static_cast<size_t>(size.area()) * 3, 77);
        const bool box_below_one_pixel = size.width * 96 < 640 || size.height * 99 < 480;
        for (int format : {OSTREL_ALG_FORMAT_INTERLEAVED, OSTREL_ALG_FORMAT_PLANAR}) {
            const ostrel_alg_image image{size.width, size.height, 3, pixels.data(), ++key, 0, format};
            uint32_t count = 1234;
            EXPECT_EQ(detect(image, &count), box_below_one_pixel ? 1 : 0) << size;
            EXPECT_LE(count, 256u);
        }
    }
}

// Marked boxes at the ends of the int32 range: alone they give no sample;
// next to a good box they are left out of training, get empty thumbnails,
// and detection on the picture still works.
TEST_F(BadInput, ExtremeBoxesNextToAGoodOne) {
    train_on_blood();
    const ostrel_alg_image other{picture_.cols, picture_.rows, 3, picture_.data, 2, 0, 0};
    EXPECT_EQ(set_up(other, {ostrel_alg_box{INT_MAX - 5, INT_MAX - 5, 50, 50, 0.0f, 1, 0, 0}}), 1);
    const ostrel_alg_image third{picture_.cols, picture_.rows, 3, picture_.data, 3, 0, 0};
    const std::vector<ostrel_alg_box> mixed = {ostrel_alg_box{83, 336, 96, 99, 0.0f, 1, 0, 0},
                                               ostrel_alg_box{INT_MAX - 5, INT_MAX - 5, 50, 50, 0.0f, 1, 0, 0},
                                               ostrel_alg_box{INT_MIN, INT_MIN, INT_MAX, INT_MAX, 0.0f, 1, 0, 0}};
    EXPECT_EQ(set_up(third, mixed), 0);
    ostrel_alg_sample *samples = nullptr;
    uint32_t thumbs = 0;
    ASSERT_EQ(ostrel_alg_getSamples_ptr(engine_, &samples, &thumbs), 0);
    ASSERT_GE(thumbs, 3u);
    EXPECT_EQ(samples[thumbs - 2].image.width, 0);
    EXPECT_EQ(samples[thumbs - 1].image.width, 0);
    uint32_t count = 0;
    EXPECT_EQ(detect(third, &count), 0);
}
