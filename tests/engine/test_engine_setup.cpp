// Sample thumbnails and the input checks of detector set-up.
#include <cstring>

#include <gtest/gtest.h>

#include "engine/ostrel_alg.h"
#include "support/stdout_capture.h"

using ostrel_test::capture_stdout;

namespace {

cv::Mat gradient_picture(int rows, int cols) {
    cv::Mat picture(rows, cols, CV_8UC3);
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < cols; ++x) {
            picture.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uint8_t>(x), static_cast<uint8_t>(y),
                                                    static_cast<uint8_t>((x + y) & 0xFF));
        }
    }
    return picture;
}

ostrel_alg_box marked(int32_t x, int32_t y, int32_t w, int32_t h, int32_t label = 1) {
    return ostrel_alg_box{x, y, w, h, 0.0f, label, 0, 0};
}

class SetupEngine : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(engine_.init(), 0); }
    ostrel_alg engine_;
};

}  // namespace

// A 10 x 10 box at (0, 0) on a 100 x 100 picture gives a 10 x 10 thumbnail
// holding exactly those pixels.
TEST_F(SetupEngine, ThumbnailOfABoxInside) {
    const cv::Mat picture = gradient_picture(100, 100);
    engine_.addSampleThumbs(picture, {marked(0, 0, 10, 10)});
    ASSERT_EQ(engine_.sample_thumbs.size(), 1u);
    const ostrel_alg_sample &thumb = engine_.sample_thumbs[0];
    EXPECT_EQ(thumb.label, 1);
    EXPECT_EQ(thumb.reserved0, 0);
    EXPECT_EQ(thumb.reserved1, 0);
    EXPECT_EQ(thumb.image.width, 10);
    EXPECT_EQ(thumb.image.height, 10);
    EXPECT_EQ(thumb.image.channels, 3);
    EXPECT_EQ(thumb.image.image_key, 0);
    const cv::Mat expected = picture(cv::Rect(0, 0, 10, 10)).clone();
    EXPECT_EQ(std::memcmp(thumb.image.data, expected.data, 300), 0);
}

// The same box at (95, 95) is cut at column and row 99: 4 x 4.
TEST_F(SetupEngine, ThumbnailAtTheCornerLosesTheLastColumnAndRow) {
    const cv::Mat picture = gradient_picture(100, 100);
    engine_.addSampleThumbs(picture, {marked(95, 95, 10, 10)});
    ASSERT_EQ(engine_.sample_thumbs.size(), 1u);
    EXPECT_EQ(engine_.sample_thumbs[0].image.width, 4);
    EXPECT_EQ(engine_.sample_thumbs[0].image.height, 4);
    const cv::Mat expected = picture(cv::Rect(95, 95, 4, 4)).clone();
    EXPECT_EQ(std::memcmp(engine_.sample_thumbs[0].image.data, expected.data, 4 * 4 * 3), 0);
}

// A box wholly outside the picture still adds a record, of 0 x 0.
TEST_F(SetupEngine, ThumbnailOfABoxOutsideIsEmpty) {
    const cv::Mat picture = gradient_picture(100, 100);
    engine_.addSampleThumbs(picture, {marked(150, 20, 10, 10), marked(-30, -30, 10, 10)});
    ASSERT_EQ(engine_.sample_thumbs.size(), 2u);
    for (const ostrel_alg_sample &thumb : engine_.sample_thumbs) {
        EXPECT_EQ(thumb.image.width, 0);
        EXPECT_EQ(thumb.image.height, 0);
        EXPECT_EQ(thumb.image.channels, 3);
    }
}

// Thumbnails are appended in list order, to those already held.
TEST_F(SetupEngine, ThumbnailsAccumulateInOrder) {
    const cv::Mat picture = gradient_picture(60, 80);
    engine_.addSampleThumbs(picture, {marked(0, 0, 5, 6)});
    engine_.addSampleThumbs(picture, {marked(10, 10, 7, 8, 1), marked(20, 20, 3, 2, -1)});
    ASSERT_EQ(engine_.sample_thumbs.size(), 3u);
    EXPECT_EQ(engine_.sample_thumbs[1].image.width, 7);
    EXPECT_EQ(engine_.sample_thumbs[2].image.height, 2);
    EXPECT_EQ(engine_.sample_thumbs[2].label, -1);
    std::vector<ostrel_alg_sample> copies;
    engine_.getSamples(copies);
    ASSERT_EQ(copies.size(), 3u);
    EXPECT_EQ(copies[1].image.data, engine_.sample_thumbs[1].image.data) << "copies share the engine's pixels";
    ostrel_alg_sample *first = nullptr;
    uint32_t count = 0;
    engine_.getSamples_ptr(&first, &count);
    EXPECT_EQ(first, engine_.sample_thumbs.data());
    EXPECT_EQ(count, 3u);
}

// An empty picture or an empty box list is refused with line 734.
TEST_F(SetupEngine, ThumbnailsRefuseEmptyInput) {
    const std::string expected = "[Alg. FAIL!] ostrel_alg::addSampleThumbs (ostrel_alg line:734)\n";
    std::string out = capture_stdout([&] { engine_.addSampleThumbs(cv::Mat(), {marked(0, 0, 5, 5)}); });
    EXPECT_EQ(out, expected);
    out = capture_stdout([&] { engine_.addSampleThumbs(gradient_picture(10, 10), {}); });
    EXPECT_EQ(out, expected);
    EXPECT_TRUE(engine_.sample_thumbs.empty());
}

// Refused input: no record, a bad picture, no boxes, a negative key: line 861.
TEST_F(SetupEngine, SetDetectorRefusesBadInput) {
    std::vector<uint8_t> pixels(4 * 4 * 3, 7);
    const std::vector<ostrel_alg_box> boxes = {marked(0, 0, 2, 2)};
    const std::string refused = "[Alg. FAIL!] ostrel_alg::setDetectorWithAutoTrain (ostrel_alg line:861)\n";

    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(engine_.setDetectorWithAutoTrain(nullptr, boxes), 1); }), refused);

    ostrel_alg_image two_channels{4, 4, 2, pixels.data(), 1, 0, 0};
    char pointer_text[32];
    std::snprintf(pointer_text, sizeof pointer_text, "%p", static_cast<void *>(pixels.data()));
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(engine_.setDetectorWithAutoTrain(&two_channels, boxes), 1); }),
              std::string("[ostrel_alg::checkImgValid] invalid image data: 4 x 4 @") + pointer_text + ")\n" +
                  refused);

    ostrel_alg_image good{4, 4, 3, pixels.data(), 1, 0, 0};
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(engine_.setDetectorWithAutoTrain(&good, {}), 1); }), refused);

    ostrel_alg_image negative_key{4, 4, 3, pixels.data(), -1, 0, 0};
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(engine_.setDetectorWithAutoTrain(&negative_key, boxes), 1); }),
              refused);
    EXPECT_EQ(engine_.detector_set, 0) << "nothing changes on refused input";
    EXPECT_EQ(engine_.cached_image_key, -1);
}
