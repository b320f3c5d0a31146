// The documented limits of one call, and pictures too small for the trained
// box: each is refused with status 1 and a log line that says what was
// wrong, before the library reads or allocates anything for the input.
// Pixels and boxes beyond a limit lie on a page that may not be read at all,
// so a library that touched them would end the test program.
#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"
#include "support/untouchable_memory.h"

using namespace ostrel_test;

namespace {

// Picture keys of this file: detection keeps the features of the last key
// per thread, so every file of the test program keeps keys of its own.
constexpr int64_t kKeys = 73000;

std::string engine_refusal(const std::string &operation, int line, const std::string &debug) {
    return "[Debug] ostrel_alg::" + operation + ": " + debug + "\n[Alg. FAIL!] ostrel_alg::" + operation +
           " (ostrel_alg line:" + std::to_string(line) + ")\n";
}

// The last line of a log.
std::string last_line(const std::string &log) {
    const size_t start = log.rfind('\n', log.size() >= 2 ? log.size() - 2 : 0);
    return start == std::string::npos ? log : log.substr(start + 1);
}

class InputLimits : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 3), 0);
        ASSERT_EQ(ostrel_alg_setSensitivity(engine_, 50), 0);
        ASSERT_NE(page_.bytes(), nullptr);
        picture_ = load_blood_picture("BloodImage_00000");
        ASSERT_FALSE(picture_.pixels.empty());
    }
    void TearDown() override { ASSERT_EQ(ostrel_alg_destroy(engine_), 0); }
    void train() { ASSERT_EQ(set_up(engine_, picture_.record(kKeys + 1), picture_.boxes), 0); }
    uint8_t trained() {
        uint8_t flag = 9;
        EXPECT_EQ(ostrel_alg_istraied(engine_, &flag), 0);
        return flag;
    }
    // A record of width x height pixels over the page that may not be read.
    ostrel_alg_image untouchable_picture(int32_t width, int32_t height, int32_t format = 0) const {
        return ostrel_alg_image{width, height, 3, page_.bytes(), kKeys + 900, 0, format};
    }

    ostrel_alg *engine_ = nullptr;
    untouchable_page page_;
    blood_picture picture_;
};

struct picture_size {
    int32_t width;
    int32_t height;
};

// Above 2^28 pixels, and where width * height * 3 leaves 31 bits.
const picture_size kTooLarge[] = {{16385, 16384}, {268435457, 1}, {1, 268435457}, {40000, 18000}, {INT_MAX, INT_MAX}};

}  // namespace

// --- marked boxes per picture ----------------------------------------------

// The pointer form refuses more boxes than the limit before it copies them.
TEST_F(InputLimits, TooManyBoxesThroughThePointerForm) {
    for (const int32_t count : {OSTREL_ALG_MAX_MARKED_BOXES + 1, INT_MAX}) {
        const ostrel_alg_image image = picture_.record(kKeys + 1);
        int32_t status = -1;
        const std::string log = capture_stdout(
            [&] { status = ostrel_alg_setDetector_ptr(engine_, &image, page_.as<ostrel_alg_box>(), count); });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(log, "[Alg.Fail] ostrel_alg_setDetector_ptr: box count " + std::to_string(count) +
                           " is above the limit of " + std::to_string(OSTREL_ALG_MAX_MARKED_BOXES) + "\n");
    }
    EXPECT_EQ(trained(), 0);
}

// The C++ form gives the engine the host's own list: the engine refuses it
// before any other work (no box is looked at, so no box is reported
// skipped).
TEST_F(InputLimits, TooManyBoxesThroughTheVectorForm) {
    const std::vector<ostrel_alg_box> boxes(OSTREL_ALG_MAX_MARKED_BOXES + 1,
                                            ostrel_alg_box{5000, 5000, 96, 99, 0.0f, 1, 0, 0});
    const ostrel_alg_image image = picture_.record(kKeys + 2);
    int32_t status = -1;
    const std::string log = capture_stdout([&] { status = ostrel_alg_setDetector(engine_, &image, boxes); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(log, engine_refusal("setDetectorWithAutoTrain", 4101,
                                  std::to_string(OSTREL_ALG_MAX_MARKED_BOXES + 1) + " marked boxes, more than the " +
                                      std::to_string(OSTREL_ALG_MAX_MARKED_BOXES) + " one picture may have"));
    EXPECT_EQ(trained(), 0);
}

// Exactly the limit is taken: the boxes outside the picture are skipped,
// the others train.
TEST_F(InputLimits, BoxesUpToTheLimitAreTaken) {
    std::vector<ostrel_alg_box> boxes = picture_.boxes;
    boxes.resize(OSTREL_ALG_MAX_MARKED_BOXES, ostrel_alg_box{5000, 5000, 96, 99, 0.0f, 1, 0, 0});
    std::string log;
    EXPECT_EQ(set_up(engine_, picture_.record(kKeys + 3), boxes, &log), 0) << last_line(log);
    EXPECT_EQ(trained(), 1);
}

// --- picture size ------------------------------------------------------------

// Set-up refuses a picture above the pixel limit without reading it, and
// the engine stays untrained.
TEST_F(InputLimits, SetUpRefusesTooLargePictures) {
    for (const picture_size size : kTooLarge) {
        const ostrel_alg_image image = untouchable_picture(size.width, size.height);
        std::string log;
        EXPECT_EQ(set_up(engine_, image, picture_.boxes, &log), 1);
        EXPECT_EQ(log,
                  engine_refusal("setDetectorWithAutoTrain", 4102,
                                 "a picture of " + std::to_string(size.width) + " x " + std::to_string(size.height) +
                                     " pixels is larger than the limit of 268435456 pixels"));
    }
    EXPECT_EQ(trained(), 0);
}

// Detection refuses it too, interleaved or planar, and a trained engine
// keeps detecting on ordinary pictures afterwards.
TEST_F(InputLimits, DetectionRefusesTooLargePictures) {
    train();
    for (const picture_size size : kTooLarge) {
        for (const int32_t format : {OSTREL_ALG_FORMAT_INTERLEAVED, OSTREL_ALG_FORMAT_PLANAR}) {
            const detection d = detect(engine_, untouchable_picture(size.width, size.height, format));
            EXPECT_EQ(d.status, 1);
            EXPECT_EQ(d.log, engine_refusal("runDetector", 4111,
                                            "a picture of " + std::to_string(size.width) + " x " +
                                                std::to_string(size.height) +
                                                " pixels is larger than the limit of 268435456 pixels"));
        }
    }
    const detection d = detect(engine_, picture_.record(kKeys + 4));
    EXPECT_EQ(d.status, 0);
    EXPECT_FALSE(d.boxes.empty());
}

// The diagnostic feature map refuses it as well.
TEST_F(InputLimits, FeatureMapRefusesTooLargePictures) {
    for (const picture_size size : kTooLarge) {
        const ostrel_alg_image image = untouchable_picture(size.width, size.height);
        const uint8_t *data = nullptr;
        uint32_t channels = 0, columns = 0, rows = 0;
        int32_t status = -1;
        const std::string log = capture_stdout(
            [&] { status = ostrel_alg_getFeatureMap_ptr(engine_, &image, &data, &channels, &columns, &rows); });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(log,
                  engine_refusal("getFeatureMap", 4121,
                                 "a picture of " + std::to_string(size.width) + " x " + std::to_string(size.height) +
                                     " pixels is larger than the limit of 268435456 pixels"));
    }
}

// --- pictures too small for the trained box ---------------------------------

// The trained box is 96 x 99 pixels on a 640 x 480 picture. On a picture
// where it would be less than one pixel wide or high detection is refused;
// from one pixel on it runs, and no detection has a zero width or height.
TEST_F(InputLimits, PicturesTooSmallForTheTrainedBox) {
    train();
    // Narrowest width and lowest height on which the box keeps one pixel:
    // 96 * 7 = 672 >= 640 > 96 * 6, 99 * 5 = 495 >= 480 > 99 * 4.
    const picture_size refused[] = {{1, 1}, {3, 3}, {6, 5}, {7, 4}, {5000, 1}, {1, 5000}, {2, 1}, {1, 3}};
    const picture_size taken[] = {{7, 5}, {8, 8}, {64, 48}, {3001, 17}, {5000, 5}};
    int64_t key = kKeys + 100;
    for (const picture_size size : refused) {
        std::vector<uint8_t> pixels(static_cast<size_t>(size.width) * size.height * 3, 77);
        for (const int32_t format : {OSTREL_ALG_FORMAT_INTERLEAVED, OSTREL_ALG_FORMAT_PLANAR}) {
            const detection d =
                detect(engine_, ostrel_alg_image{size.width, size.height, 3, pixels.data(), ++key, 0, format});
            EXPECT_EQ(d.status, 1) << size.width << " x " << size.height;
            EXPECT_EQ(last_line(d.log), "[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:4112)\n")
                << size.width << " x " << size.height;
        }
    }
    for (const picture_size size : taken) {
        std::vector<uint8_t> pixels(static_cast<size_t>(size.width) * size.height * 3, 77);
        for (const int32_t format : {OSTREL_ALG_FORMAT_INTERLEAVED, OSTREL_ALG_FORMAT_PLANAR}) {
            const detection d =
                detect(engine_, ostrel_alg_image{size.width, size.height, 3, pixels.data(), ++key, 0, format});
            EXPECT_EQ(d.status, 0) << size.width << " x " << size.height << "\n" << d.log;
            for (const ostrel_alg_box &b : d.boxes) {
                EXPECT_GE(b.width, 1) << size.width << " x " << size.height;
                EXPECT_GE(b.height, 1) << size.width << " x " << size.height;
            }
        }
    }
}

// The refusal names the sizes.
TEST_F(InputLimits, TooSmallPictureLine) {
    train();
    std::vector<uint8_t> pixels(3 * 3 * 3, 77);
    const detection d = detect(engine_, ostrel_alg_image{3, 3, 3, pixels.data(), kKeys + 5, 0, 0});
    EXPECT_EQ(d.status, 1);
    EXPECT_EQ(d.log, engine_refusal("runDetector", 4112,
                                    "the trained box of 96 x 99 pixels on a 640 x 480 picture is 0 x 0 pixels on "
                                    "this 3 x 3 picture: too small to detect"));
}
