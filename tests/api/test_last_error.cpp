// The last failure through the public header: every code a host can act on
// comes from a real failing call, with a sentence; the record belongs to
// the engine (or, without one, to the calling thread); a success leaves it
// as it was; the message buffer is cut to its size; and the log lines stay
// what they were.
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"

using namespace ostrel_test;

namespace {

struct last_error {
    int32_t code = -1;
    std::string message;
};

last_error read_last_error(ostrel_alg *engine) {
    last_error e;
    char buffer[OSTREL_ALG_MAX_ERROR_MESSAGE_BYTES];
    std::memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(ostrel_alg_getLastError(engine, &e.code, buffer, sizeof buffer), 0);
    e.message = buffer;
    return e;
}

class LastError : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 4), 0);
    }
    void TearDown() override {
        EXPECT_EQ(ostrel_alg_destroy(engine_), 0);
        for (const std::string &p : created_) std::remove(p.c_str());
    }
    std::string path(const std::string &name) {
        created_.push_back(temp_path(name));
        return created_.back();
    }
    // Runs a call that must fail (its log lines kept out of the test's
    // output) and returns what the engine then records.
    template <typename Call>
    last_error failure_of(Call &&call, ostrel_alg *record_of) {
        int32_t status = -1;
        capture_stdout([&] { status = call(); });
        EXPECT_EQ(status, 1);
        return read_last_error(record_of);
    }
    template <typename Call>
    last_error failure_of(Call &&call) {
        return failure_of(std::forward<Call>(call), engine_);
    }
    void train_blood() {
        picture_ = load_blood_picture("BloodImage_00000");
        ASSERT_FALSE(picture_.pixels.empty());
        ASSERT_EQ(set_up(engine_, picture_.record(1), picture_.boxes), 0);
    }

    ostrel_alg *engine_ = nullptr;
    blood_picture picture_;

private:
    std::vector<std::string> created_;
};

}  // namespace

TEST_F(LastError, ANewEngineHasNoFailure) {
    const last_error e = read_last_error(engine_);
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_OK);
    EXPECT_EQ(e.message, "");
}

TEST_F(LastError, BadArgument) {
    last_error e = failure_of([&] { return ostrel_alg_setOption(engine_, 99, 1); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(e.message, "ostrel_alg_setOption: option 99 is unknown");
    e = failure_of([&] { return ostrel_alg_setSensitivity(engine_, 101); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(e.message, "ostrel_alg_setSensitivity: sensitivity 101 is above 100");
    e = failure_of([&] { return ostrel_alg_getOption(engine_, OSTREL_ALG_OPTION_PROFILE, nullptr); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(e.message, "ostrel_alg_getOption: value must not be null");
}

TEST_F(LastError, SilentFailuresRecordToo) {
    uint32_t id = 0;
    last_error e = failure_of([&] { return ostrel_alg_getModelId(engine_, &id); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(e.message, "ostrel_alg_getModelId: no model id is set");
    e = failure_of([&] { return ostrel_alg_exportModel_ptr(engine_, path("never.model").c_str()); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_NOT_TRAINED);
    EXPECT_EQ(e.message, "ostrel_alg_exportModel_ptr: the engine holds no trained or imported model");
    e = failure_of([&] { return ostrel_alg_removeSample(engine_, 0); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BAD_ARGUMENT);
}

TEST_F(LastError, BadPicture) {
    std::vector<uint8_t> pixels(64 * 64 * 3, 0);
    const ostrel_alg_image image{64, 64, 1, pixels.data(), 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    const ostrel_alg_box box{8, 8, 16, 16, 0.0f, 1, 0, 0};
    const last_error e = failure_of([&] { return ostrel_alg_setDetector_ptr(engine_, &image, &box, 1); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BAD_PICTURE);
    EXPECT_NE(e.message.find("invalid image data: 64 x 64"), std::string::npos) << e.message;
}

TEST_F(LastError, PictureTooLarge) {
    uint8_t never_read[3] = {0, 0, 0};
    const ostrel_alg_image image{16385, 16384, 3, never_read, 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    const ostrel_alg_box box{8, 8, 16, 16, 0.0f, 1, 0, 0};
    const last_error e = failure_of([&] { return ostrel_alg_setDetector_ptr(engine_, &image, &box, 1); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_PICTURE_TOO_LARGE);
    EXPECT_NE(e.message.find("is larger than the limit"), std::string::npos) << e.message;
}

TEST_F(LastError, TooManyBoxes) {
    std::vector<uint8_t> pixels(64 * 64 * 3, 0);
    const ostrel_alg_image image{64, 64, 3, pixels.data(), 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    const std::vector<ostrel_alg_box> boxes(OSTREL_ALG_MAX_MARKED_BOXES + 1,
                                            ostrel_alg_box{8, 8, 16, 16, 0.0f, 1, 0, 0});
    const last_error e = failure_of(
        [&] { return ostrel_alg_setDetector_ptr(engine_, &image, boxes.data(), static_cast<int32_t>(boxes.size())); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_TOO_MANY_BOXES);
    EXPECT_EQ(e.message, "ostrel_alg_setDetector_ptr: box count 1001 is above the limit of 1000");
}

TEST_F(LastError, BoxNotLearnable) {
    std::vector<uint8_t> pixels(640 * 480 * 3, 90);
    const ostrel_alg_image image{640, 480, 3, pixels.data(), 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    const ostrel_alg_box box{8, 8, 0, 0, 0.0f, 1, 0, 0};
    const last_error e = failure_of([&] { return ostrel_alg_setDetector_ptr(engine_, &image, &box, 1); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BOX_NOT_LEARNABLE);
    EXPECT_EQ(e.message,
              "ostrel_alg::setDetectorWithAutoTrain: the first box is 0 x 0 pixels: no window can be learnt from it");
}

TEST_F(LastError, NotTrainedAndPictureTooSmall) {
    std::vector<uint8_t> pixels(4 * 4 * 3, 0);
    const ostrel_alg_image tiny{4, 4, 3, pixels.data(), 9, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    last_error e = failure_of([&] { return ostrel_alg_runDetector_ptr(engine_, &tiny, &boxes, &count); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_NOT_TRAINED);
    // The engine's failure line names no reason: the code's own sentence,
    // after the function the host called.
    EXPECT_EQ(e.message, "ostrel_alg_runDetector_ptr: the engine holds no trained or imported model");

    train_blood();
    e = failure_of([&] { return ostrel_alg_runDetector_ptr(engine_, &tiny, &boxes, &count); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_PICTURE_TOO_SMALL);
    EXPECT_NE(e.message.find("too small to detect"), std::string::npos) << e.message;
}

TEST_F(LastError, WrongProfile) {
    const last_error e = failure_of([&] { return ostrel_alg_addClass(engine_, "cell", nullptr); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_WRONG_PROFILE);
    EXPECT_NE(e.message.find("only the accurate profile learns several classes"), std::string::npos) << e.message;
}

TEST_F(LastError, ModelFiles) {
    const std::string missing = path("missing.model");
    std::remove(missing.c_str());
    last_error e = failure_of([&] { return ostrel_alg_importModel_ptr(engine_, missing.c_str()); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE);
    EXPECT_EQ(e.message, "ostrel_alg_importModel_ptr: cannot open the model file " + missing);

    train_blood();
    const std::string unwritable = path("no-such-folder") + "/x.model";
    e = failure_of([&] { return ostrel_alg_exportModel_ptr(engine_, unwritable.c_str()); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE);
    EXPECT_EQ(e.message, "ostrel_alg_exportModel_ptr: cannot create the model file " + unwritable);

    const std::string damaged = path("damaged.model");
    ASSERT_EQ(ostrel_alg_exportModel_ptr(engine_, damaged.c_str()), 0);
    file_bytes bytes = read_bytes(damaged);
    ASSERT_GT(bytes.size(), 200u);
    bytes[100] ^= 0x5a;
    write_bytes(damaged, bytes);
    e = failure_of([&] { return ostrel_alg_checkModelValidation_ptr(engine_, damaged.c_str()); });
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_MODEL_INVALID);
    EXPECT_EQ(e.message, "ostrel_alg_checkModelValidation_ptr: the CRC-32 of the model file " + damaged +
                             " does not match its contents");
}

TEST_F(LastError, NothingToLearn) {
    train_blood();
    uint32_t count = 0;
    ostrel_alg_sample *samples = nullptr;
    ASSERT_EQ(ostrel_alg_getSamples_ptr(engine_, &samples, &count), 0);
    ASSERT_GT(count, 0u);
    // Removing the marked boxes one by one leaves only background samples:
    // nothing to tell apart.
    int32_t status = 0;
    capture_stdout([&] {
        for (uint32_t left = count; left > 0 && status == 0; --left) status = ostrel_alg_removeSample(engine_, 0);
    });
    EXPECT_EQ(status, 1);
    const last_error e = read_last_error(engine_);
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_NOTHING_TO_LEARN);
    EXPECT_EQ(e.message, "ostrel_alg_removeSample: every training sample has the label -1: nothing to tell apart");
}

TEST_F(LastError, ASuccessLeavesTheRecordAndAnotherFailureReplacesIt) {
    failure_of([&] { return ostrel_alg_setSensitivity(engine_, 101); });
    ASSERT_EQ(ostrel_alg_setSensitivity(engine_, 50), 0);
    EXPECT_EQ(read_last_error(engine_).code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    std::vector<uint8_t> pixels(64 * 64 * 3, 0);
    const ostrel_alg_image image{64, 64, 3, pixels.data(), 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    failure_of([&] { return ostrel_alg_runDetector_ptr(engine_, &image, &boxes, &count); });
    EXPECT_EQ(read_last_error(engine_).code, OSTREL_ALG_ERR_NOT_TRAINED);
}

TEST_F(LastError, EnginesKeepTheirOwnRecords) {
    ostrel_alg *other = nullptr;
    ASSERT_EQ(ostrel_alg_create(&other), 0);
    failure_of([&] { return ostrel_alg_setSensitivity(engine_, 101); });
    EXPECT_EQ(read_last_error(other).code, OSTREL_ALG_ERR_OK);
    EXPECT_EQ(ostrel_alg_destroy(other), 0);
}

TEST_F(LastError, CallsWithoutAnEngineRecordOnTheThread) {
    last_error e = failure_of([&] { return ostrel_alg_create(nullptr); }, nullptr);
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(e.message, "ostrel_alg_create: handle must not be null");
    e = failure_of([&] { return ostrel_alg_init(nullptr); }, nullptr);
    EXPECT_EQ(e.code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(e.message, "ostrel_alg_init: the engine handle is null");
    // The engine's own record did not take them.
    EXPECT_EQ(read_last_error(engine_).code, OSTREL_ALG_ERR_OK);
}

TEST_F(LastError, EachThreadHasItsOwnRecordWithoutAnEngine) {
    failure_of([&] { return ostrel_alg_destroy(nullptr); }, nullptr);
    ASSERT_EQ(read_last_error(nullptr).code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    last_error seen;
    std::thread other([&] { seen = read_last_error(nullptr); });
    other.join();
    EXPECT_EQ(seen.code, OSTREL_ALG_ERR_OK);
    EXPECT_EQ(seen.message, "");
}

TEST_F(LastError, TheMessageIsCutToTheBuffer) {
    failure_of([&] { return ostrel_alg_setOption(engine_, 99, 1); });
    const std::string whole = read_last_error(engine_).message;
    char small[8];
    std::memset(small, 'Z', sizeof small);
    int32_t code = -1;
    EXPECT_EQ(ostrel_alg_getLastError(engine_, &code, small, sizeof small), 0);
    EXPECT_EQ(code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(std::string(small), whole.substr(0, 7));
    // The code alone, and a buffer that is not there.
    code = -1;
    EXPECT_EQ(ostrel_alg_getLastError(engine_, &code, nullptr, 0), 0);
    EXPECT_EQ(code, OSTREL_ALG_ERR_BAD_ARGUMENT);
    EXPECT_EQ(ostrel_alg_getLastError(engine_, &code, nullptr, 4), 1);
}

TEST_F(LastError, AMessageIsNeverCutInsideACharacter) {
    // A class name of two-byte characters, refused as a duplicate.
    ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    const std::string name = "\xc3\xa9\xc3\xa9\xc3\xa9";
    ASSERT_EQ(ostrel_alg_addClass(engine_, name.c_str(), nullptr), 0);
    failure_of([&] { return ostrel_alg_addClass(engine_, name.c_str(), nullptr); });
    const std::string whole = read_last_error(engine_).message;
    const size_t first = whole.find('\xc3');
    ASSERT_NE(first, std::string::npos);
    std::vector<char> buffer(first + 2);  // room for the first byte of the character only
    ASSERT_EQ(ostrel_alg_getLastError(engine_, nullptr, buffer.data(), buffer.size()), 0);
    EXPECT_EQ(std::string(buffer.data()), whole.substr(0, first));
}

TEST_F(LastError, TheLogLinesStayAsTheyWere) {
    std::string log;
    log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_setOption(engine_, 99, 1), 1); });
    EXPECT_EQ(log, "[Alg.Fail] ostrel_alg_setOption: option 99 is unknown\n");
    log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_init(nullptr), 1); });
    EXPECT_EQ(log, "[Alg.Fail] ostrel_alg_init (ostrel_alg_lib line:128)\n");
}
