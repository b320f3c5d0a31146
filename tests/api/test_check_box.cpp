// ostrel_alg_checkBox through the public header: it answers as set-up and
// export do (a box it accepts trains a model that can be exported; a box it
// refuses is refused by set-up or by the export), it gives the reason as a
// code, a sentence that says what to do and a failure line, and it changes
// nothing in the engine.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"

using namespace ostrel_test;

namespace {

struct answer {
    int32_t status = -1;
    int32_t code = -1;
    std::string message;
    std::string log;
};

answer check(ostrel_alg *engine, int32_t width, int32_t height, int32_t box_width, int32_t box_height) {
    answer a;
    const ostrel_alg_box box{5, 5, box_width, box_height, 0.0f, 1, 0, 0};
    a.log = capture_stdout([&] { a.status = ostrel_alg_checkBox(engine, width, height, &box, &a.code); });
    if (a.status != 0) {
        char message[OSTREL_ALG_MAX_ERROR_MESSAGE_BYTES];
        int32_t recorded = -1;
        EXPECT_EQ(ostrel_alg_getLastError(engine, &recorded, message, sizeof message), 0);
        EXPECT_EQ(recorded, a.code);
        a.message = message;
    }
    return a;
}

class CheckBox : public testing::Test {
protected:
    void SetUp() override {
        picture_ = load_blood_picture("BloodImage_00000");
        ASSERT_FALSE(picture_.pixels.empty());
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 4), 0);
    }
    void TearDown() override { ostrel_alg_destroy(engine_); }
    int32_t width() const { return picture_.pixels.cols; }
    int32_t height() const { return picture_.pixels.rows; }
    // Set-up with boxes of one size on the picture (key), then the export:
    // 0 when both succeed.
    int32_t train_and_export(int32_t box_width, int32_t box_height, int64_t key) {
        const std::vector<ostrel_alg_box> boxes = at_size(picture_.boxes, box_width, box_height);
        int32_t status = set_up(engine_, picture_.record(key), boxes);
        if (status == 0) {
            const std::string path = temp_path("check_box.model");
            capture_stdout([&] { status = ostrel_alg_exportModel_ptr(engine_, path.c_str()); });
            std::remove(path.c_str());
        }
        return status;
    }

    blood_picture picture_;
    ostrel_alg *engine_ = nullptr;
};

}  // namespace

TEST_F(CheckBox, ABoxOfTheMarkedSizeIsLearnt) {
    const ostrel_alg_box &first = picture_.boxes.front();
    const answer a = check(engine_, width(), height(), first.width, first.height);
    EXPECT_EQ(a.status, 0);
    EXPECT_EQ(a.code, OSTREL_ALG_ERR_OK);
    EXPECT_EQ(a.log, "");
    EXPECT_EQ(train_and_export(first.width, first.height, 1), 0);
    // The same size again, now that the engine holds its samples.
    EXPECT_EQ(check(engine_, width(), height(), first.width, first.height).status, 0);
}

TEST_F(CheckBox, TooSmallAndTooLargeBoxesSayWhichWayToGo) {
    // init between the cases: a box trained before would make the engine
    // hold samples of its window.
    for (const int32_t side : {1, 10}) {
        ASSERT_EQ(ostrel_alg_init(engine_), 0);
        const answer a = check(engine_, width(), height(), side, side);
        EXPECT_EQ(a.status, 1) << side;
        EXPECT_EQ(a.code, OSTREL_ALG_ERR_BOX_NOT_LEARNABLE) << side;
        EXPECT_NE(a.message.find("use a larger box"), std::string::npos) << a.message;
        EXPECT_EQ(a.message.rfind("ostrel_alg_checkBox: ", 0), 0u) << a.message;
        EXPECT_EQ(a.log, "[Debug] " + a.message + "\n");
        EXPECT_NE(train_and_export(side, side, 10 + side), 0) << side;
    }
    for (const int32_t side : {400, 5000}) {
        ASSERT_EQ(ostrel_alg_init(engine_), 0);
        const answer a = check(engine_, width(), height(), side, side);
        EXPECT_EQ(a.code, OSTREL_ALG_ERR_BOX_NOT_LEARNABLE) << side;
        EXPECT_NE(a.message.find("use a smaller box"), std::string::npos) << side << ": " << a.message;
        EXPECT_NE(train_and_export(side, side, 10 + side), 0) << side;
    }
    ASSERT_EQ(ostrel_alg_init(engine_), 0);
    const answer zero = check(engine_, width(), height(), 0, 30);
    EXPECT_EQ(zero.code, OSTREL_ALG_ERR_BOX_NOT_LEARNABLE);
}

TEST_F(CheckBox, ABoxOfAnotherWindowThanTheSamplesHeldIsRefused) {
    const ostrel_alg_box &first = picture_.boxes.front();
    ASSERT_EQ(train_and_export(first.width, first.height, 1), 0);
    const int32_t other = first.width * 3 / 2;
    const answer a = check(engine_, width(), height(), other, other);
    EXPECT_EQ(a.code, OSTREL_ALG_ERR_BOX_NOT_LEARNABLE);
    EXPECT_NE(a.message.find("samples the engine holds"), std::string::npos) << a.message;
    // A fresh engine holds no samples: there the same box is learnt.
    ostrel_alg *fresh = nullptr;
    ASSERT_EQ(ostrel_alg_create(&fresh), 0);
    EXPECT_EQ(check(fresh, width(), height(), other, other).status, 0);
    ostrel_alg_destroy(fresh);
    // And set-up agrees on the trained engine.
    EXPECT_NE(train_and_export(other, other, 2), 0);
}

TEST_F(CheckBox, PicturesProfilesAndNullsAreRefusedWithTheirCodes) {
    EXPECT_EQ(check(engine_, 0, 480, 60, 60).code, OSTREL_ALG_ERR_BAD_PICTURE);
    EXPECT_EQ(check(engine_, 65536, 65536, 60, 60).code, OSTREL_ALG_ERR_PICTURE_TOO_LARGE);
    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    const answer accurate = check(engine_, width(), height(), 60, 60);
    EXPECT_EQ(accurate.code, OSTREL_ALG_ERR_WRONG_PROFILE);
    EXPECT_EQ(accurate.status, 1);

    int32_t code = -1;
    std::string log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_checkBox(engine_, 640, 480, nullptr, &code), 1); });
    EXPECT_EQ(code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(log, "[Alg.Fail] ostrel_alg_checkBox: box must not be null\n");
    const ostrel_alg_box box{0, 0, 60, 60, 0.0f, 1, 0, 0};
    log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_checkBox(nullptr, 640, 480, &box, &code), 1); });
    EXPECT_EQ(code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(log, "[Alg.Fail] ostrel_alg_checkBox (ostrel_alg_lib line:659)\n");
    // code may be null.
    capture_stdout([&] { EXPECT_EQ(ostrel_alg_checkBox(engine_, 640, 480, &box, nullptr), 1); });
}

TEST_F(CheckBox, AskingChangesNothing) {
    const ostrel_alg_box &first = picture_.boxes.front();
    check(engine_, width(), height(), 1, 1);
    check(engine_, width(), height(), first.width, first.height);
    std::string asked_log, plain_log;
    ASSERT_EQ(set_up(engine_, picture_.record(1), picture_.boxes, &asked_log), 0);
    ostrel_alg *plain = nullptr;
    ASSERT_EQ(ostrel_alg_create(&plain), 0);
    ASSERT_EQ(ostrel_alg_setRandomSeed(plain, 4), 0);
    ASSERT_EQ(set_up(plain, picture_.record(1), picture_.boxes, &plain_log), 0);
    EXPECT_EQ(asked_log, plain_log);
    const detection asked = detect(engine_, picture_.record(5));
    const detection without = detect(plain, picture_.record(6));
    EXPECT_TRUE(same_boxes(asked.boxes, without.boxes));
    ostrel_alg_destroy(plain);
}
