// The limits on pictures and marked boxes hold under the accurate profile
// as under the classic one, with the same lines: set-up and detection
// refuse before they read the pixels, which lie on a page that may not be
// read at all.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"
#include "support/untouchable_memory.h"

using namespace ostrel_test;

namespace {

// Picture keys of this file: the last picture's features are kept per thread.
constexpr int64_t kKeys = 75000;

std::string refusal(const std::string &operation, int line, const std::string &debug) {
    return "[Debug] ostrel_alg::" + operation + ": " + debug + "\n[Alg. FAIL!] ostrel_alg::" + operation +
           " (ostrel_alg line:" + std::to_string(line) + ")\n";
}

class AccurateInputLimits : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 1), 0);
        ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
        ASSERT_NE(page_.bytes(), nullptr);
        picture_ = load_blood_picture("BloodImage_00000");
        ASSERT_FALSE(picture_.pixels.empty());
    }
    void TearDown() override { ASSERT_EQ(ostrel_alg_destroy(engine_), 0); }
    ostrel_alg_image untouchable_picture(int32_t width, int32_t height) const {
        return ostrel_alg_image{width, height, 3, page_.bytes(), kKeys + 900, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    }
    uint8_t trained() {
        uint8_t flag = 9;
        EXPECT_EQ(ostrel_alg_istraied(engine_, &flag), 0);
        return flag;
    }

    ostrel_alg *engine_ = nullptr;
    untouchable_page page_;
    blood_picture picture_;
};

const std::string kTooLargeLine = "a picture of 16385 x 16384 pixels is larger than the limit of 268435456 pixels";

}  // namespace

TEST_F(AccurateInputLimits, SetUpRefusesTooManyBoxes) {
    const std::vector<ostrel_alg_box> boxes(OSTREL_ALG_MAX_MARKED_BOXES + 1, picture_.boxes.front());
    const ostrel_alg_image image = picture_.record(kKeys + 1);
    int32_t status = -1;
    const std::string log = capture_stdout([&] { status = ostrel_alg_setDetector(engine_, &image, boxes); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(log, refusal("setDetectorWithAutoTrain", 4101,
                           std::to_string(OSTREL_ALG_MAX_MARKED_BOXES + 1) + " marked boxes, more than the " +
                               std::to_string(OSTREL_ALG_MAX_MARKED_BOXES) + " one picture may have"));
    EXPECT_EQ(trained(), 0);
}

TEST_F(AccurateInputLimits, SetUpRefusesTooLargePictures) {
    std::string log;
    EXPECT_EQ(set_up(engine_, untouchable_picture(16385, 16384), picture_.boxes, &log), 1);
    EXPECT_EQ(log, refusal("setDetectorWithAutoTrain", 4102, kTooLargeLine));
    EXPECT_EQ(trained(), 0);
}

// A trained accurate engine refuses the picture and keeps detecting on
// ordinary ones afterwards.
TEST_F(AccurateInputLimits, DetectionRefusesTooLargePictures) {
    ASSERT_EQ(set_up(engine_, picture_.record(kKeys + 1), picture_.boxes), 0);
    const detection refused = detect(engine_, untouchable_picture(16385, 16384));
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.log, refusal("runDetector", 4111, kTooLargeLine));
    const detection d = detect(engine_, picture_.record(kKeys + 2));
    EXPECT_EQ(d.status, 0);
    EXPECT_FALSE(d.boxes.empty());
}
