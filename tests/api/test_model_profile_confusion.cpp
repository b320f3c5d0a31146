// A model of one profile is never used under the other, even where the
// weight counts agree: objects of 32 x 107 pixels on 640 x 480 pictures
// give 900 weights under both profiles (classic: 6 x 15 cells; accurate:
// 5 x 18 cells), so before model files said which profile made them an
// accurate model passed as classic (and detection reported boxes all
// scored 1.0) and a classic model passed as accurate (with weights 100
// times too small). Now the file decides: an accurate file is never read
// by the classic reader (its first int32, the classic class_idx, is
// negative), a classic file never by the accurate one, and an engine of
// either profile detects with a model exactly as the engine that made it.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "ostrel_alg.h"
#include "support/bccd_picture.h"

namespace {

using ostrel_test::image_record;
using ostrel_test::load_bccd;

int64_t fresh_key() {
    static int64_t next = 9000000;
    return next++;
}

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

int32_t i32_at(const std::string &bytes, size_t offset) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(bytes[offset + static_cast<size_t>(i)]);
    return static_cast<int32_t>(v);
}

// A blood picture with dark upright bars in 32 x 107 boxes.
cv::Mat bar_picture(const char *stem, std::vector<ostrel_alg_box> *boxes) {
    cv::Mat picture = load_bccd(stem).pixels.clone();
    for (int i = 0; i < 6; ++i) {
        const ostrel_alg_box b{40 + 100 * i, 60 + 200 * (i % 2), 32, 107, 0.0f, 1, 0, 0};
        cv::rectangle(picture, cv::Rect(b.x + 6, b.y + 8, 20, 91), cv::Scalar(40, 30, 90), cv::FILLED);
        cv::rectangle(picture, cv::Rect(b.x + 10, b.y + 40, 12, 10), cv::Scalar(230, 230, 230), cv::FILLED);
        boxes->push_back(b);
    }
    return picture;
}

ostrel_alg *trained(int32_t profile) {
    ostrel_alg *engine = nullptr;
    EXPECT_EQ(ostrel_alg_create(&engine), 0);
    EXPECT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, profile), 0);
    EXPECT_EQ(ostrel_alg_setRandomSeed(engine, 1), 0);
    EXPECT_EQ(ostrel_alg_setSensitivity(engine, 80), 0);
    std::vector<ostrel_alg_box> boxes;
    const cv::Mat picture = bar_picture("BloodImage_00000", &boxes);
    const ostrel_alg_image image = image_record(picture, fresh_key());
    EXPECT_EQ(ostrel_alg_setDetector_ptr(engine, &image, boxes.data(), static_cast<int32_t>(boxes.size())), 0);
    return engine;
}

std::vector<ostrel_alg_box> detections(ostrel_alg *engine) {
    std::vector<ostrel_alg_box> unused;
    const cv::Mat picture = bar_picture("BloodImage_00004", &unused);
    const ostrel_alg_image image = image_record(picture, fresh_key());
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 0);
    std::vector<ostrel_alg_box> out;
    for (uint32_t i = 0; i < count; ++i) {
        if (boxes[i].label == 1) out.push_back(boxes[i]);
    }
    return out;
}

void expect_same(const std::vector<ostrel_alg_box> &a, const std::vector<ostrel_alg_box> &b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].x, b[i].x);
        EXPECT_EQ(a[i].y, b[i].y);
        EXPECT_EQ(a[i].width, b[i].width);
        EXPECT_EQ(a[i].score, b[i].score);
    }
}

class ProfileConfusion : public testing::Test {
protected:
    void SetUp() override {
        accurate_ = trained(OSTREL_ALG_PROFILE_ACCURATE);
        classic_ = trained(OSTREL_ALG_PROFILE_CLASSIC);
        accurate_path_ = testing::TempDir() + "confusion_accurate.model";
        classic_path_ = testing::TempDir() + "confusion_classic.model";
        ASSERT_EQ(ostrel_alg_exportModel_ptr(accurate_, accurate_path_.c_str()), 0);
        ASSERT_EQ(ostrel_alg_exportModel_ptr(classic_, classic_path_.c_str()), 0);
    }
    void TearDown() override {
        ostrel_alg_destroy(accurate_);
        ostrel_alg_destroy(classic_);
        std::remove(accurate_path_.c_str());
        std::remove(classic_path_.c_str());
    }
    ostrel_alg *accurate_ = nullptr;
    ostrel_alg *classic_ = nullptr;
    std::string accurate_path_, classic_path_;
};

TEST_F(ProfileConfusion, TheWeightCountsAgree) {
    const std::string accurate = file_bytes(accurate_path_);
    const std::string classic = file_bytes(classic_path_);
    EXPECT_EQ(i32_at(classic, 24), 900);  // support_vector_size
    // The accurate file's first class record: its weight count after the
    // 56-byte settings, the class count, the record length, an empty name
    // and the window, shape, sizes, calibration and bias fields.
    EXPECT_EQ(i32_at(accurate, 80), 0);   // name length
    EXPECT_EQ(i32_at(accurate, 84), 5);   // window columns
    EXPECT_EQ(i32_at(accurate, 88), 18);  // window rows
    EXPECT_EQ(i32_at(accurate, 136), 900);
}

TEST_F(ProfileConfusion, AnAccurateModelNeverPassesAsClassic) {
    // Read as the classic layout, its class_idx is negative: the classic
    // checks refuse it.
    EXPECT_LT(i32_at(file_bytes(accurate_path_), 0), 0);
    // Imported by an engine set to the classic profile, it makes the engine
    // accurate and detects as the accurate engine does - never as a classic
    // model with accurate weights (boxes all scored 1.0).
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_CLASSIC), 0);
    ASSERT_EQ(ostrel_alg_setSensitivity(engine, 80), 0);
    EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(engine, accurate_path_.c_str()), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(engine, accurate_path_.c_str()), 0);
    int32_t profile = -1;
    ASSERT_EQ(ostrel_alg_getOption(engine, OSTREL_ALG_OPTION_PROFILE, &profile), 0);
    EXPECT_EQ(profile, OSTREL_ALG_PROFILE_ACCURATE);
    const std::vector<ostrel_alg_box> found = detections(engine);
    expect_same(found, detections(accurate_));
    for (const ostrel_alg_box &b : found) EXPECT_LT(b.score, 1.0f);
    ostrel_alg_destroy(engine);
}

TEST_F(ProfileConfusion, NoClassicFileIsReadAsAccurate) {
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    ASSERT_EQ(ostrel_alg_setSensitivity(engine, 80), 0);
    EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(engine, classic_path_.c_str()), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(engine, classic_path_.c_str()), 0);
    int32_t profile = -1;
    ASSERT_EQ(ostrel_alg_getOption(engine, OSTREL_ALG_OPTION_PROFILE, &profile), 0);
    EXPECT_EQ(profile, OSTREL_ALG_PROFILE_CLASSIC);
    expect_same(detections(engine), detections(classic_));
    ostrel_alg_destroy(engine);
}

}  // namespace
