// The engine's detection run: input checks, the shared picture cache, the
// window size side effects, marked boxes, the caps and the result copy.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "engine/bccd_engine.h"
#include "engine/picture_cache.h"
#include "support/host_picture.h"
#include "support/stdout_capture.h"

using engine_test::bccd_picture;
using engine_test::image_record;
using engine_test::seeded_engine;
using ostrel_test::capture_stdout;

namespace {

const char *const kRunFailure = "[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:1135)\n";

std::string pointer_text(const void *p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
}

bool same_boxes(const std::vector<ostrel_alg_box> &a, const std::vector<ostrel_alg_box> &b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(ostrel_alg_box)) == 0);
}

// One engine trained once on BloodImage_00000 for all tests of this file.
class Detection : public testing::Test {
protected:
    static void SetUpTestSuite() {
        training_ = new engine_test::marked_picture(bccd_picture("BloodImage_00000"));
        engine_ = seeded_engine().release();
        const ostrel_alg_image image = image_record(training_->pixels, 1);
        capture_stdout([&] { ASSERT_EQ(engine_->setDetectorWithAutoTrain(&image, training_->boxes), 0); });
    }
    static void TearDownTestSuite() {
        delete engine_;
        delete training_;
        engine_ = nullptr;
        training_ = nullptr;
    }
    std::vector<ostrel_alg_box> detect(const cv::Mat &pixels, int64_t key, int32_t *status = nullptr) {
        std::vector<ostrel_alg_box> out;
        const ostrel_alg_image image = image_record(pixels, key);
        capture_stdout([&] {
            const int32_t s = engine_->runDetector(&image, out);
            if (status) *status = s;
        });
        return out;
    }
    static ostrel_alg *engine_;
    static engine_test::marked_picture *training_;
};

ostrel_alg *Detection::engine_ = nullptr;
engine_test::marked_picture *Detection::training_ = nullptr;

}  // namespace

// A two-channel picture or one without data: the image check's line, then
// the run's failure line; the list and the engine's copy stay as they were.
TEST_F(Detection, InvalidPicturesAreRefused) {
    std::vector<uint8_t> pixels(8 * 8 * 3, 0);
    ostrel_alg_image two_channels{8, 8, 2, pixels.data(), 50, 0, 0};
    std::vector<ostrel_alg_box> out(1);
    const uint32_t copied = engine_->result_box_count;
    std::string log = capture_stdout([&] { EXPECT_EQ(engine_->runDetector(&two_channels, out), 1); });
    EXPECT_EQ(log, "[ostrel_alg::checkImgValid] invalid image data: 8 x 8 @" + pointer_text(pixels.data()) + ")\n" +
                       kRunFailure);
    ostrel_alg_image no_data{8, 8, 3, nullptr, 51, 0, 0};
    log = capture_stdout([&] { EXPECT_EQ(engine_->runDetector(&no_data, out), 1); });
    EXPECT_EQ(log,
              "[ostrel_alg::checkImgValid] invalid image data: 8 x 8 @" + pointer_text(nullptr) + ")\n" + kRunFailure);
    log = capture_stdout([&] { EXPECT_EQ(engine_->runDetector(nullptr, out), 1); });
    EXPECT_EQ(log, kRunFailure);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_EQ(engine_->result_box_count, copied);
}

// Detections come first by falling score, at most 32, each with a score in
// (0, 1], label 1 and colour classes; below-confidence boxes follow; the
// engine keeps a copy.
TEST_F(Detection, ResultOrderAndCopy) {
    const engine_test::marked_picture other = bccd_picture("BloodImage_00002");
    int32_t status = -1;
    const std::vector<ostrel_alg_box> out = detect(other.pixels, 200, &status);
    ASSERT_EQ(status, 0);
    ASSERT_FALSE(out.empty());
    size_t detections = 0;
    bool below_seen = false;
    for (size_t i = 0; i < out.size(); ++i) {
        const ostrel_alg_box &b = out[i];
        if (b.label == 1) {
            EXPECT_FALSE(below_seen) << "detections come before below-confidence boxes";
            ++detections;
            EXPECT_GT(b.score, 0.0f);
            EXPECT_LE(b.score, 1.0f);
            EXPECT_GE(b.score * 100.0f + 0.01f, static_cast<float>(engine_->confidence_threshold));
            if (i > 0 && out[i - 1].label == 1) {
                EXPECT_GE(out[i - 1].score, b.score);
            }
            EXPECT_GE(b.color_main, 0);
            EXPECT_LE(b.color_main, 8);
            EXPECT_LE(b.color_second, 9);
            EXPECT_LE(b.x + b.width, other.pixels.cols - 1);
            EXPECT_LE(b.y + b.height, other.pixels.rows - 1);
        } else {
            EXPECT_EQ(b.label, -1);
            below_seen = true;
            EXPECT_LE(b.score * 100.0f, static_cast<float>(engine_->confidence_threshold) + 0.01f);
        }
    }
    EXPECT_LE(detections, 32u);
    EXPECT_LE(out.size() - detections, 17u);
    ASSERT_EQ(engine_->result_box_count, out.size());
    EXPECT_EQ(std::memcmp(engine_->result_boxes.get(), out.data(), out.size() * sizeof(ostrel_alg_box)), 0);
}

// The run appends to the caller's list.
TEST_F(Detection, RunAppendsToTheList) {
    const engine_test::marked_picture other = bccd_picture("BloodImage_00002");
    const std::vector<ostrel_alg_box> fresh = detect(other.pixels, 201);
    std::vector<ostrel_alg_box> out(2, ostrel_alg_box{1, 2, 3, 4, 0.5f, 7, 0, 0});
    const ostrel_alg_image image = image_record(other.pixels, 201);
    capture_stdout([&] { ASSERT_EQ(engine_->runDetector(&image, out), 0); });
    ASSERT_EQ(out.size(), fresh.size() + 2);
    EXPECT_EQ(out[0].label, 7);
    EXPECT_EQ(std::memcmp(out.data() + 2, fresh.data(), fresh.size() * sizeof(ostrel_alg_box)), 0);
}

// Planar and interleaved copies of a picture give the same boxes.
TEST_F(Detection, PlanarAndInterleavedAgree) {
    const engine_test::marked_picture other = bccd_picture("BloodImage_00003");
    const std::vector<ostrel_alg_box> interleaved = detect(other.pixels, 300);
    std::vector<uint8_t> planar;
    const ostrel_alg_image image = ostrel_test::host_record(other.pixels, true, planar, 301);
    std::vector<ostrel_alg_box> from_planes;
    capture_stdout([&] { ASSERT_EQ(engine_->runDetector(&image, from_planes), 0); });
    EXPECT_TRUE(same_boxes(interleaved, from_planes));
    EXPECT_FALSE(interleaved.empty());
}

// The same key with other pixels reuses the features of the first picture.
TEST_F(Detection, SameKeyReusesTheFeatures) {
    const engine_test::marked_picture first = bccd_picture("BloodImage_00004");
    const engine_test::marked_picture second = bccd_picture("BloodImage_00005");
    const std::vector<ostrel_alg_box> of_first = detect(first.pixels, 400);
    const std::vector<ostrel_alg_box> of_second_same_key = detect(second.pixels, 400);
    const std::vector<ostrel_alg_box> of_second = detect(second.pixels, 401);
    EXPECT_TRUE(same_boxes(of_first, of_second_same_key)) << "stale features are reused on purpose";
    EXPECT_FALSE(same_boxes(of_second, of_first));
    EXPECT_TRUE(ostrel::shared_last_picture().holds(401));
}

// Marked boxes of the training picture that no detection covers are added
// after the detections, labelled 1; on any other picture they are not.
TEST_F(Detection, UncoveredMarkedBoxesOnlyOnTheirOwnPicture) {
    const std::vector<ostrel_alg_box> saved = engine_->marked_boxes;
    const ostrel_alg_box far_away{2, 2, 30, 30, 0.0f, 1, 0, 0};
    const ostrel_alg_box not_positive{40, 2, 30, 30, 0.0f, -1, 0, 0};
    engine_->marked_boxes.push_back(far_away);
    engine_->marked_boxes.push_back(not_positive);

    const std::vector<ostrel_alg_box> on_training = detect(training_->pixels, 1);
    const std::vector<ostrel_alg_box> on_copy = detect(training_->pixels, 2);
    engine_->marked_boxes = saved;

    auto contains = [](const std::vector<ostrel_alg_box> &list, const ostrel_alg_box &b) {
        for (const ostrel_alg_box &x : list)
            if (x.x == b.x && x.y == b.y && x.width == b.width && x.height == b.height) return true;
        return false;
    };
    EXPECT_TRUE(contains(on_training, far_away));
    EXPECT_FALSE(contains(on_training, not_positive));
    EXPECT_FALSE(contains(on_copy, far_away));
    ASSERT_FALSE(on_training.empty());
    EXPECT_EQ(on_training.back().x, far_away.x) << "added after detections and below-confidence boxes";
    EXPECT_EQ(on_training.back().label, 1);
    // Every marked cell is either detected (overlap 0.3 or more) or added.
    for (const ostrel_alg_box &cell : training_->boxes) {
        bool found = contains(on_training, cell);
        for (const ostrel_alg_box &b : on_training) {
            const int x0 = std::max(b.x, cell.x), y0 = std::max(b.y, cell.y);
            const int x1 = std::min(b.x + b.width, cell.x + cell.width),
                      y1 = std::min(b.y + b.height, cell.y + cell.height);
            const float i = (x1 > x0 && y1 > y0) ? static_cast<float>((x1 - x0) * (y1 - y0)) : 0.0f;
            if (b.label == 1 && i / (static_cast<float>(b.width * b.height + cell.width * cell.height) - i) >= 0.3f)
                found = true;
        }
        EXPECT_TRUE(found) << cell.x << "," << cell.y;
    }
}

// At most 32 label-1 boxes are reported, marked boxes included.
TEST_F(Detection, AtMost32PositiveBoxes) {
    const std::vector<ostrel_alg_box> saved = engine_->marked_boxes;
    for (int i = 0; i < 40; ++i) {
        engine_->marked_boxes.push_back(ostrel_alg_box{1 + i % 2, 470 - i % 3, 2, 2, 0.0f, 1, 0, 0});
    }
    const std::vector<ostrel_alg_box> out = detect(training_->pixels, 1);
    engine_->marked_boxes = saved;
    size_t positives = 0;
    for (const ostrel_alg_box &b : out) positives += b.label == 1 ? 1 : 0;
    EXPECT_EQ(positives, 32u);
}

// The run appends to the caller's list and the engine copies the list's
// first 256 records: a list of more than 256 keeps them all, the copy is cut.
TEST_F(Detection, EngineCopyIsCutAt256) {
    std::vector<ostrel_alg_box> out;
    for (int i = 0; i < 300; ++i) out.push_back(ostrel_alg_box{i, i, 1, 1, 0.0f, 1, 0, 0});
    const ostrel_alg_image image = image_record(training_->pixels, 1);
    capture_stdout([&] { ASSERT_EQ(engine_->runDetector(&image, out), 0); });
    EXPECT_GT(out.size(), 300u);
    EXPECT_EQ(engine_->result_box_count, 256u);
    EXPECT_EQ(std::memcmp(engine_->result_boxes.get(), out.data(), 256 * sizeof(ostrel_alg_box)), 0);
}

// A model whose weights do not fit the window (another window size) is
// refused instead of being read past its end.
TEST_F(Detection, ModelOfAnotherWindowSizeIsRefused) {
    const int32_t saved_size = engine_->svm_model.support_vector_size;
    engine_->svm_model.support_vector_size = saved_size - 10;
    std::vector<ostrel_alg_box> out;
    const ostrel_alg_image image = image_record(training_->pixels, 1);
    const std::string log = capture_stdout([&] { EXPECT_EQ(engine_->runDetector(&image, out), 1); });
    engine_->svm_model.support_vector_size = saved_size;
    EXPECT_EQ(log, "[Debug] ostrel_alg::runDetector: a window of " + std::to_string(saved_size) +
                       " features does not fit the model's " + std::to_string(saved_size - 10) + " weights\n" +
                       kRunFailure);
    EXPECT_TRUE(out.empty());
}

// A picture of another size rescales the window and the box size; the
// engine keeps the new sizes, the model record keeps the trained ones.
TEST_F(Detection, PictureOfAnotherSizeRescalesTheWindow) {
    auto engine = seeded_engine();
    const ostrel_alg_image image = image_record(training_->pixels, 1);
    capture_stdout([&] { ASSERT_EQ(engine->setDetectorWithAutoTrain(&image, training_->boxes), 0); });
    ASSERT_EQ(engine->train_width, 96u);
    ASSERT_EQ(engine->scaled_width, 0);
    cv::Mat doubled;
    cv::resize(training_->pixels, doubled, cv::Size(1280, 960));
    std::vector<ostrel_alg_box> out;
    const ostrel_alg_image big = image_record(doubled, 77);
    capture_stdout([&] { ASSERT_EQ(engine->runDetector(&big, out), 0); });
    EXPECT_EQ(engine->train_width, 192u);
    EXPECT_EQ(engine->train_height, 198u);
    EXPECT_EQ(engine->scaled_width, 18);   // (int)(121 / 640 * 96)
    EXPECT_EQ(engine->scaled_height, 14);  // (int)(68 / 480 * 99)
    EXPECT_EQ(engine->svm_model.input_width, 640);
    EXPECT_EQ(engine->svm_model.input_height, 480);
    EXPECT_EQ(engine->svm_model.trained_width, 96);
    ASSERT_FALSE(out.empty());
    for (const ostrel_alg_box &b : out) {
        EXPECT_EQ(b.width, 192);
        EXPECT_EQ(b.height, 198);
    }
}

// Pictures of several sizes in any order: every run uses the trained window,
// so a size seen before gives the same boxes again.
TEST_F(Detection, AlternatingPictureSizesKeepWorking) {
    auto engine = seeded_engine();
    const ostrel_alg_image image = image_record(training_->pixels, 1);
    capture_stdout([&] { ASSERT_EQ(engine->setDetectorWithAutoTrain(&image, training_->boxes), 0); });
    const engine_test::marked_picture other = bccd_picture("BloodImage_00002");
    cv::Mat wide;
    cv::resize(other.pixels, wide, cv::Size(1920, 1080));
    auto run = [&](const cv::Mat &pixels, int64_t key) {
        std::vector<ostrel_alg_box> out;
        const ostrel_alg_image record = image_record(pixels, key);
        int32_t status = -1;
        capture_stdout([&] { status = engine->runDetector(&record, out); });
        EXPECT_EQ(status, 0);
        return out;
    };
    const std::vector<ostrel_alg_box> before = run(other.pixels, 600);
    const std::vector<ostrel_alg_box> on_wide = run(wide, 601);
    const std::vector<ostrel_alg_box> after = run(other.pixels, 602);
    EXPECT_FALSE(on_wide.empty());
    EXPECT_TRUE(same_boxes(before, after));
    EXPECT_EQ(engine->train_width, 96u);
    EXPECT_EQ(engine->train_height, 99u);
}
