// The options interface through the public header: defaults, ranges,
// refusals (status 1, one log line, nothing changed), options kept by init
// and recorded in an accurate model file, and what happens when the
// profile or the window option changes between training and detection.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "ostrel_alg.h"
#include "support/host_picture.h"
#include "support/stdout_capture.h"

namespace {

constexpr int32_t kCellsOption = OSTREL_ALG_OPTION_ACCURATE_CELLS;
constexpr int32_t kSizeStepsOption = OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS;
constexpr int32_t kOverlapOption = OSTREL_ALG_OPTION_ACCURATE_OVERLAP;

struct option_case {
    int32_t option;
    int32_t minimum;
    int32_t maximum;
    int32_t default_value;
};
// The documented numbers, ranges and defaults.
const option_case kOptions[] = {
    {1, 0, 1, 0},
    {2, 36, 400, 100},
    {3, 0, 4, 1},
    {4, 10, 90, 30},
};

int count_lines(const std::string &text) {
    int lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

int32_t option_value(ostrel_alg *engine, int32_t option) {
    int32_t value = -12345;
    EXPECT_EQ(ostrel_alg_getOption(engine, option, &value), 0);
    return value;
}

// A light picture with dark rings in the given boxes (as the README's example).
cv::Mat ring_picture(const std::vector<ostrel_alg_box> &boxes, unsigned seed) {
    cv::Mat picture(480, 640, CV_8UC3);
    cv::RNG rng(seed);
    rng.fill(picture, cv::RNG::UNIFORM, cv::Scalar::all(200), cv::Scalar::all(224));
    for (const ostrel_alg_box &b : boxes) {
        cv::circle(picture, cv::Point(b.x + b.width / 2, b.y + b.height / 2), 18, cv::Scalar::all(40), 12);
    }
    return picture;
}

std::vector<ostrel_alg_box> ring_boxes(int count, int first_x, int first_y) {
    std::vector<ostrel_alg_box> boxes;
    for (int i = 0; i < count; ++i) {
        boxes.push_back(ostrel_alg_box{first_x + 100 * i, first_y + 160 * (i % 3), 64, 64, 0.0f, 1, 0, 0});
    }
    return boxes;
}

// Picture keys unique in the process: the last picture's features are kept
// per thread across engines (and tests), and equal keys mean equal pixels.
int64_t fresh_key() {
    static int64_t next = 1000;
    return next++;
}

class Options : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ostrel_alg_create(&engine_), 0); }
    void TearDown() override { ostrel_alg_destroy(engine_); }

    // Trains on six rings; the engine keeps the pictures' storage alive.
    int32_t train() {
        marked_ = ring_boxes(6, 40, 60);
        train_picture_ = ring_picture(marked_, 1);
        train_record_ = ostrel_test::host_record(train_picture_, false, train_storage_, fresh_key());
        return ostrel_alg_setDetector_ptr(engine_, &train_record_, marked_.data(),
                                          static_cast<int32_t>(marked_.size()));
    }
    int32_t detect(std::vector<ostrel_alg_box> &found) {
        test_picture_ = ring_picture(ring_boxes(4, 90, 120), 2);
        test_record_ = ostrel_test::host_record(test_picture_, false, test_storage_, fresh_key());
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        const int32_t status = ostrel_alg_runDetector_ptr(engine_, &test_record_, &boxes, &count);
        found.assign(boxes, boxes + (status == 0 ? count : 0));
        return status;
    }

    ostrel_alg *engine_ = nullptr;
    std::vector<ostrel_alg_box> marked_;
    cv::Mat train_picture_, test_picture_;
    std::vector<uint8_t> train_storage_, test_storage_;
    ostrel_alg_image train_record_{}, test_record_{};
};

TEST_F(Options, EveryOptionStartsAtItsDocumentedDefault) {
    for (const option_case &c : kOptions) {
        EXPECT_EQ(option_value(engine_, c.option), c.default_value) << "option " << c.option;
    }
}

TEST_F(Options, BothEndsOfEveryRangeAreAccepted) {
    for (const option_case &c : kOptions) {
        EXPECT_EQ(ostrel_alg_setOption(engine_, c.option, c.maximum), 0);
        EXPECT_EQ(option_value(engine_, c.option), c.maximum);
        EXPECT_EQ(ostrel_alg_setOption(engine_, c.option, c.minimum), 0);
        EXPECT_EQ(option_value(engine_, c.option), c.minimum);
    }
}

TEST_F(Options, AValueOutsideTheRangeIsRefusedWithOneLineAndChangesNothing) {
    for (const option_case &c : kOptions) {
        ASSERT_EQ(ostrel_alg_setOption(engine_, c.option, c.default_value), 0);
        for (const int32_t bad : {c.minimum - 1, c.maximum + 1, INT32_MIN, INT32_MAX}) {
            int32_t status = 0;
            const std::string printed =
                ostrel_test::capture_stdout([&] { status = ostrel_alg_setOption(engine_, c.option, bad); });
            EXPECT_EQ(status, 1) << "option " << c.option << " value " << bad;
            EXPECT_EQ(count_lines(printed), 1) << printed;
            EXPECT_NE(printed.find("ostrel_alg_setOption"), std::string::npos) << printed;
            EXPECT_EQ(option_value(engine_, c.option), c.default_value);
        }
    }
}

TEST_F(Options, AnUnknownOptionIsRefusedWithOneLine) {
    for (const int32_t unknown : {0, 5, 100, -1, INT32_MIN, INT32_MAX}) {
        int32_t status = 0;
        std::string printed = ostrel_test::capture_stdout([&] { status = ostrel_alg_setOption(engine_, unknown, 0); });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(printed, "[Alg.Fail] ostrel_alg_setOption: option " + std::to_string(unknown) + " is unknown\n");
        int32_t value = 77;
        printed = ostrel_test::capture_stdout([&] { status = ostrel_alg_getOption(engine_, unknown, &value); });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(value, 77);
        EXPECT_EQ(printed, "[Alg.Fail] ostrel_alg_getOption: option " + std::to_string(unknown) + " is unknown\n");
    }
    for (const option_case &c : kOptions) {
        EXPECT_EQ(option_value(engine_, c.option), c.default_value);
    }
}

TEST_F(Options, ANullHandleOrValueIsRefusedWithOneLine) {
    int32_t status = 0;
    std::string printed =
        ostrel_test::capture_stdout([&] { status = ostrel_alg_setOption(nullptr, OSTREL_ALG_OPTION_PROFILE, 1); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(printed, "[Alg.Fail] ostrel_alg_setOption (ostrel_alg_lib line:515)\n");
    int32_t value = 0;
    printed =
        ostrel_test::capture_stdout([&] { status = ostrel_alg_getOption(nullptr, OSTREL_ALG_OPTION_PROFILE, &value); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(printed, "[Alg.Fail] ostrel_alg_getOption (ostrel_alg_lib line:531)\n");
    printed = ostrel_test::capture_stdout(
        [&] { status = ostrel_alg_getOption(engine_, OSTREL_ALG_OPTION_PROFILE, nullptr); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(count_lines(printed), 1);
}

TEST_F(Options, InitKeepsTheOptions) {
    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine_, kCellsOption, 144), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine_, kSizeStepsOption, 2), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine_, kOverlapOption, 45), 0);
    ASSERT_EQ(ostrel_alg_init(engine_), 0);
    EXPECT_EQ(option_value(engine_, OSTREL_ALG_OPTION_PROFILE), OSTREL_ALG_PROFILE_ACCURATE);
    EXPECT_EQ(option_value(engine_, kCellsOption), 144);
    EXPECT_EQ(option_value(engine_, kSizeStepsOption), 2);
    EXPECT_EQ(option_value(engine_, kOverlapOption), 45);
}

TEST_F(Options, TheModelFileRecordsTheSearchOptions) {
    // An accurate model file records the options it was written with, so
    // that an engine importing it searches as the exporting one did: two
    // trainings that differ only in the overlap (set before training) or
    // the size steps (set after it) give files that differ, and a fresh
    // engine takes the values back.
    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 1), 0);
    ASSERT_EQ(train(), 0);
    const std::string first = testing::TempDir() + "options_first.model";
    ASSERT_EQ(ostrel_alg_exportModel_ptr(engine_, first.c_str()), 0);

    ostrel_alg *other = nullptr;
    ASSERT_EQ(ostrel_alg_create(&other), 0);
    ASSERT_EQ(ostrel_alg_setOption(other, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    ASSERT_EQ(ostrel_alg_setOption(other, kOverlapOption, 70), 0);
    ASSERT_EQ(ostrel_alg_setRandomSeed(other, 1), 0);
    ASSERT_EQ(ostrel_alg_setDetector_ptr(other, &train_record_, marked_.data(), static_cast<int32_t>(marked_.size())),
              0);
    ASSERT_EQ(ostrel_alg_setOption(other, kSizeStepsOption, 0), 0);
    const std::string second = testing::TempDir() + "options_second.model";
    ASSERT_EQ(ostrel_alg_exportModel_ptr(other, second.c_str()), 0);
    ostrel_alg_destroy(other);

    std::ifstream a(first, std::ios::binary), b(second, std::ios::binary);
    const std::string bytes_a((std::istreambuf_iterator<char>(a)), std::istreambuf_iterator<char>());
    const std::string bytes_b((std::istreambuf_iterator<char>(b)), std::istreambuf_iterator<char>());
    EXPECT_FALSE(bytes_a.empty());
    EXPECT_NE(bytes_a, bytes_b);

    ostrel_alg *fresh = nullptr;
    ASSERT_EQ(ostrel_alg_create(&fresh), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(fresh, second.c_str()), 0);
    EXPECT_EQ(option_value(fresh, kOverlapOption), 70);
    EXPECT_EQ(option_value(fresh, kSizeStepsOption), 0);
    EXPECT_EQ(option_value(fresh, OSTREL_ALG_OPTION_PROFILE), OSTREL_ALG_PROFILE_ACCURATE);
    ostrel_alg_destroy(fresh);
    std::remove(first.c_str());
    std::remove(second.c_str());
}

TEST_F(Options, AccurateOptionsLeaveTheClassicProfileAsItIs) {
    // Same classic training and detection with and without the accurate
    // profile's options set.
    ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 1), 0);
    ASSERT_EQ(train(), 0);
    std::vector<ostrel_alg_box> plain;
    ASSERT_EQ(detect(plain), 0);

    ostrel_alg *other = nullptr;
    ASSERT_EQ(ostrel_alg_create(&other), 0);
    ASSERT_EQ(ostrel_alg_setOption(other, kCellsOption, 200), 0);
    ASSERT_EQ(ostrel_alg_setOption(other, kSizeStepsOption, 3), 0);
    ASSERT_EQ(ostrel_alg_setOption(other, kOverlapOption, 80), 0);
    ASSERT_EQ(ostrel_alg_setRandomSeed(other, 1), 0);
    ASSERT_EQ(ostrel_alg_setDetector_ptr(other, &train_record_, marked_.data(), static_cast<int32_t>(marked_.size())),
              0);
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    test_record_.image_key = fresh_key();
    ASSERT_EQ(ostrel_alg_runDetector_ptr(other, &test_record_, &boxes, &count), 0);
    ASSERT_EQ(count, plain.size());
    for (uint32_t i = 0; i < count; ++i) {
        EXPECT_EQ(boxes[i].x, plain[i].x);
        EXPECT_EQ(boxes[i].y, plain[i].y);
        EXPECT_EQ(boxes[i].score, plain[i].score);
        EXPECT_EQ(boxes[i].label, plain[i].label);
    }
    ostrel_alg_destroy(other);
}

TEST_F(Options, AProfileChangedAfterTrainingRefusesDetectionUntilItIsSetBack) {
    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    ASSERT_EQ(train(), 0);
    std::vector<ostrel_alg_box> found;
    ASSERT_EQ(detect(found), 0);
    EXPECT_FALSE(found.empty());

    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_CLASSIC), 0);
    int32_t status = 0;
    std::string printed = ostrel_test::capture_stdout([&] { status = detect(found); });
    EXPECT_EQ(status, 1);
    EXPECT_NE(printed.find("made under the accurate profile"), std::string::npos) << printed;

    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    EXPECT_EQ(detect(found), 0);
}

TEST_F(Options, AClassicModelIsRefusedUnderTheAccurateProfile) {
    ASSERT_EQ(train(), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    std::vector<ostrel_alg_box> found;
    int32_t status = 0;
    const std::string printed = ostrel_test::capture_stdout([&] { status = detect(found); });
    EXPECT_EQ(status, 1);
    EXPECT_NE(printed.find("made under the classic profile"), std::string::npos) << printed;
    EXPECT_EQ(count_lines(printed), 1) << printed;
}

TEST_F(Options, AWindowOptionChangedAfterTrainingRefusesDetectionUntilItIsSetBack) {
    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    ASSERT_EQ(train(), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine_, kCellsOption, 144), 0);
    std::vector<ostrel_alg_box> found;
    int32_t status = 0;
    const std::string printed = ostrel_test::capture_stdout([&] { status = detect(found); });
    EXPECT_EQ(status, 1);
    EXPECT_NE(printed.find("accurate cells option changed"), std::string::npos) << printed;
    EXPECT_EQ(count_lines(printed), 1) << printed;

    // Options that do not shape the window may change freely.
    ASSERT_EQ(ostrel_alg_setOption(engine_, kCellsOption, 100), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine_, kSizeStepsOption, 0), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine_, kOverlapOption, 50), 0);
    EXPECT_EQ(detect(found), 0);
}

}  // namespace
