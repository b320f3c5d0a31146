// Sample thumbnails and the input checks of detector set-up.
#include <cstring>

#include <gtest/gtest.h>

#include "engine/bccd_engine.h"
#include "engine/ostrel_alg.h"
#include "support/stdout_capture.h"

using ostrel_test::capture_stdout;

namespace {

cv::Mat gradient_picture(int rows, int cols) {
    cv::Mat picture(rows, cols, CV_8UC3);
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < cols; ++x) {
            picture.at<cv::Vec3b>(y, x) =
                cv::Vec3b(static_cast<uint8_t>(x), static_cast<uint8_t>(y), static_cast<uint8_t>((x + y) & 0xFF));
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
              std::string("[ostrel_alg::checkImgValid] invalid image data: 4 x 4 @") + pointer_text + ")\n" + refused);

    ostrel_alg_image good{4, 4, 3, pixels.data(), 1, 0, 0};
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(engine_.setDetectorWithAutoTrain(&good, {}), 1); }), refused);

    ostrel_alg_image negative_key{4, 4, 3, pixels.data(), -1, 0, 0};
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(engine_.setDetectorWithAutoTrain(&negative_key, boxes), 1); }), refused);
    EXPECT_EQ(engine_.detector_set, 0) << "nothing changes on refused input";
    EXPECT_EQ(engine_.cached_image_key, -1);
}

// --- the set-up flow on a real picture --------------------------------------

namespace {

std::vector<std::string> pass_lines(const std::string &log) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < log.size()) {
        size_t end = log.find('\n', start);
        if (end == std::string::npos) end = log.size();
        const std::string line = log.substr(start, end - start);
        if (line.rfind("[Alg. Scc] Auto-training pass", 0) == 0) lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

class SetupFlow : public testing::Test {
protected:
    void SetUp() override {
        picture_ = engine_test::bccd_picture("BloodImage_00000");
        ASSERT_EQ(picture_.boxes.size(), 19u);
        engine_ = engine_test::seeded_engine(7);
        ASSERT_NE(engine_, nullptr);
    }
    int32_t set_up(const std::vector<ostrel_alg_box> &boxes, int64_t key, std::string *log) {
        const ostrel_alg_image image = engine_test::image_record(picture_.pixels, key);
        int32_t status = -1;
        *log = capture_stdout([&] { status = engine_->setDetectorWithAutoTrain(&image, boxes); });
        return status;
    }
    engine_test::marked_picture picture_;
    std::unique_ptr<ostrel_alg> engine_;
};

}  // namespace

// Success trains the engine, keeps the picture and its positive boxes, cuts
// their thumbnails and switches the false-positive filter on.
TEST_F(SetupFlow, SuccessfulSetUp) {
    std::vector<ostrel_alg_box> boxes = picture_.boxes;
    ostrel_alg_box background{300, 200, 96, 99, 0.0f, -1, 0, 0};
    boxes.push_back(background);
    std::string log;
    ASSERT_EQ(set_up(boxes, 5, &log), 0) << log;
    EXPECT_TRUE(engine_->isTrained());
    EXPECT_EQ(engine_->detector_set, 1);
    EXPECT_EQ(engine_->pca_filter.fp_filter_enabled, 1);
    EXPECT_EQ(engine_->cached_image_key, 5);
    EXPECT_EQ(cv::norm(engine_->cached_image, picture_.pixels, cv::NORM_INF), 0.0);
    // The background box is trained on but is not a marked box.
    ASSERT_EQ(engine_->marked_boxes.size(), 19u);
    for (const ostrel_alg_box &b : engine_->marked_boxes) EXPECT_EQ(b.label, 1);
    EXPECT_EQ(engine_->sample_thumbs.size(), 19u);
    bool background_trained = false;
    for (const ostrel::training_sample &s : engine_->training_samples)
        background_trained |= s.label == -1 && !s.variants.empty();
    EXPECT_TRUE(background_trained);
}

// A picture that keeps producing false positives stops after the fifth pass,
// with success.
TEST_F(SetupFlow, FivePassesAtMost) {
    engine_->setSensitivity(100 - 100);
    std::string log;
    ASSERT_EQ(set_up(picture_.boxes, 1, &log), 0);
    const std::vector<std::string> passes = pass_lines(log);
    ASSERT_EQ(passes.size(), 5u) << log;
    EXPECT_EQ(passes.back().rfind("[Alg. Scc] Auto-training pass 5: ", 0), 0u);
    EXPECT_EQ(passes.back().find("[Alg. Scc] Auto-training pass 5: 0 false"), std::string::npos)
        << "false positives were still found in the last pass";
    EXPECT_EQ(engine_->pca_filter.fp_filter_enabled, 1);
}

// When the first detection finds no false positive, pass 0 still runs in
// full (low-confidence negatives, a retraining) and the loop ends in pass 1.
TEST_F(SetupFlow, PassZeroNeverEndsTheLoop) {
    engine_->setSensitivity(100 - 0);
    const std::vector<ostrel_alg_box> three(picture_.boxes.begin(), picture_.boxes.begin() + 3);
    std::string log;
    ASSERT_EQ(set_up(three, 1, &log), 0);
    const std::vector<std::string> passes = pass_lines(log);
    ASSERT_EQ(passes.size(), 1u) << log;
    EXPECT_EQ(passes[0], "[Alg. Scc] Auto-training pass 1: 0 false positives and 10 low-confidence negatives added");
    EXPECT_EQ(engine_->pca_filter.fp_filter_enabled, 1);
}

// Calling again with the same key does not read the new box list: the
// marked boxes, thumbnails and box samples of the first call stay, and the
// engine only retrains and re-runs the passes.
TEST_F(SetupFlow, SameKeyOnlyRetrains) {
    std::string log;
    ASSERT_EQ(set_up(picture_.boxes, 9, &log), 0);
    const std::vector<ostrel_alg_box> marked = engine_->marked_boxes;
    const size_t thumbs = engine_->sample_thumbs.size();
    const std::vector<ostrel_alg_box> other = {ostrel_alg_box{10, 10, 50, 50, 0.0f, 1, 0, 0}};
    ASSERT_EQ(set_up(other, 9, &log), 0);
    EXPECT_EQ(log.rfind("[Alg. Scc] set_training_mat...\n[Alg. Scc] Training done...\n", 0), 0u)
        << "no new box samples before the first retraining:\n"
        << log;
    EXPECT_EQ(engine_->marked_boxes.size(), marked.size());
    EXPECT_EQ(engine_->marked_boxes[0].x, marked[0].x);
    EXPECT_EQ(engine_->sample_thumbs.size(), thumbs);
    EXPECT_NE(log.find("[Alg. Scc] Training done...\n"), std::string::npos);
}

// Boxes that give no sample at all: no samples, failure 894; the key is
// not taken, so the next call with it tries again.
TEST_F(SetupFlow, NoSamplesFailsWith894) {
    const std::vector<ostrel_alg_box> outside = {ostrel_alg_box{900, 900, 96, 99, 0.0f, 1, 0, 0}};
    std::string log;
    EXPECT_EQ(set_up(outside, 3, &log), 1);
    const std::string tail = "[Alg. FAIL!] ostrel_alg::setDetectorWithAutoTrain (ostrel_alg line:894)\n";
    ASSERT_GE(log.size(), tail.size());
    EXPECT_EQ(log.substr(log.size() - tail.size()), tail) << log;
    EXPECT_EQ(engine_->cached_image_key, -1);
    EXPECT_EQ(engine_->marked_boxes.size(), 1u) << "the new marked boxes stay";
    EXPECT_TRUE(engine_->sample_thumbs.empty());
}

// Only background boxes on the first picture: no marked box to cut a
// thumbnail from (734), nothing to tell apart, the first training fails
// (910) and the engine stays untrained.
TEST_F(SetupFlow, FirstTrainingFailureFailsWith910) {
    std::vector<ostrel_alg_box> background = {picture_.boxes[0], picture_.boxes[1]};
    background[0].label = -1;
    background[1].label = -1;
    std::string log;
    EXPECT_EQ(set_up(background, 4, &log), 1);
    EXPECT_EQ(log,
              "[ostrel_acf::addRandomNegative] Fail:: wrong pointer! (ostrel_acf line:709)\n"
              "[Debug] Total size of Acfs: 2\n"
              "[Alg. FAIL!] ostrel_alg::addSampleThumbs (ostrel_alg line:734)\n"
              "[Alg. Scc] set_training_mat...\n"
              "[Debug] every training sample has the label -1: nothing to tell apart\n"
              "[Alg. FAIL!] ostrel_alg::trainClassifier (ostrel_alg line:3162)\n"
              "[Alg. FAIL!] ostrel_alg::setDetectorWithAutoTrain (ostrel_alg line:910)\n");
    EXPECT_FALSE(engine_->isTrained());
    EXPECT_TRUE(engine_->marked_boxes.empty());
    EXPECT_EQ(engine_->cached_image_key, 4);
}

// Removing a sample drops its thumbnail and sample group, refreshes the
// positive count and retrains.
TEST_F(SetupFlow, RemoveSampleRetrains) {
    std::string log;
    ASSERT_EQ(set_up(picture_.boxes, 6, &log), 0);
    const size_t groups = engine_->training_samples.size();
    const uint8_t *second_thumb = engine_->sample_thumbs[1].image.data;
    log = capture_stdout([&] { EXPECT_EQ(engine_->removeSample(0), 0); });
    EXPECT_NE(log.find("[Alg. Scc] Training done...\n"), std::string::npos);
    EXPECT_EQ(engine_->sample_thumbs.size(), 18u);
    EXPECT_EQ(engine_->sample_thumbs[0].image.data, second_thumb);
    EXPECT_EQ(engine_->training_samples.size(), groups - 1);
    uint32_t positives = 0, negatives = 0;
    engine_->countSamples(&positives, &negatives);
    EXPECT_EQ(engine_->positive_sample_count, positives);
    EXPECT_EQ(engine_->removeSample(18), 1) << "an index equal to the count is refused";
    EXPECT_EQ(engine_->removeSample(19), 1);
    EXPECT_EQ(engine_->sample_thumbs.size(), 18u);
}
