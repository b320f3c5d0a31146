// Models that describe themselves, through the public header only:
//   - an accurate model is written in its own format (the magic first) and a
//     classic one exactly as before;
//   - the file decides the profile: a model of either profile, exported and
//     imported by a fresh engine whose profile was never set, or by one set
//     to the other profile, detects exactly the same boxes and scores, and
//     the engine takes the file's profile;
//   - the accurate file records the options: an engine takes the values its
//     host has not set; a cells option set to another value refuses the
//     file with a clear line;
//   - a file with the magic but a wrong version, a truncated body, sizes
//     that do not agree or a CRC that does not match is refused by import
//     and by validation (every path form) with one clear line and status 1,
//     the engine exactly as it was.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "ostrel_alg.h"
#include "support/bccd_picture.h"
#include "support/stdout_capture.h"
#include "support/voc.h"

namespace {

using ostrel_test::image_record;
using ostrel_test::load_bccd;

const unsigned char kMagic[8] = {0x4F, 0x53, 0x54, 0xC1, 0x0D, 0x0A, 0x1A, 0x0A};

int64_t fresh_key() {
    static int64_t next = 8000000;
    return next++;
}

int count_lines(const std::string &text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void write_bytes(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

int32_t option(ostrel_alg *engine, int32_t id) {
    int32_t value = -1;
    EXPECT_EQ(ostrel_alg_getOption(engine, id, &value), 0);
    return value;
}

// An engine of one profile trained on BloodImage_00000's cells, each marked
// at its own size; extra options set before training.
ostrel_alg *trained_engine(int32_t profile, const std::vector<std::pair<int32_t, int32_t>> &options = {}) {
    ostrel_alg *engine = nullptr;
    EXPECT_EQ(ostrel_alg_create(&engine), 0);
    EXPECT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, profile), 0);
    for (const auto &o : options) EXPECT_EQ(ostrel_alg_setOption(engine, o.first, o.second), 0);
    EXPECT_EQ(ostrel_alg_setRandomSeed(engine, 1), 0);
    EXPECT_EQ(ostrel_alg_setSensitivity(engine, 80), 0);
    const ostrel_test::bccd_picture training = load_bccd("BloodImage_00000");
    std::vector<ostrel_alg_box> marked = profile == OSTREL_ALG_PROFILE_ACCURATE
                                             ? ostrel_test::annotation_boxes(training.objects, "RBC")
                                             : ostrel_test::median_size_boxes(training.objects, "RBC");
    const ostrel_alg_image image = image_record(training.pixels, fresh_key());
    EXPECT_EQ(ostrel_alg_setDetector_ptr(engine, &image, marked.data(), static_cast<int32_t>(marked.size())), 0);
    return engine;
}

// The detections (label 1) of an engine on a test picture, on a new key.
std::vector<ostrel_alg_box> detections(ostrel_alg *engine, const char *stem = "BloodImage_00003") {
    const ostrel_test::bccd_picture p = load_bccd(stem);
    const ostrel_alg_image image = image_record(p.pixels, fresh_key());
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
        EXPECT_EQ(a[i].height, b[i].height);
        EXPECT_EQ(a[i].score, b[i].score);
        EXPECT_EQ(a[i].color_main, b[i].color_main);
        EXPECT_EQ(a[i].color_second, b[i].color_second);
    }
}

class ModelFiles : public testing::Test {
protected:
    static void SetUpTestSuite() {
        accurate_ = trained_engine(OSTREL_ALG_PROFILE_ACCURATE);
        classic_ = trained_engine(OSTREL_ALG_PROFILE_CLASSIC);
        accurate_path_ = testing::TempDir() + "model_files_accurate.model";
        classic_path_ = testing::TempDir() + "model_files_classic.model";
        ASSERT_EQ(ostrel_alg_exportModel_ptr(accurate_, accurate_path_.c_str()), 0);
        ASSERT_EQ(ostrel_alg_exportModel_ptr(classic_, classic_path_.c_str()), 0);
    }
    static void TearDownTestSuite() {
        ostrel_alg_destroy(accurate_);
        ostrel_alg_destroy(classic_);
        std::remove(accurate_path_.c_str());
        std::remove(classic_path_.c_str());
    }
    static ostrel_alg *accurate_;
    static ostrel_alg *classic_;
    static std::string accurate_path_;
    static std::string classic_path_;
};
ostrel_alg *ModelFiles::accurate_ = nullptr;
ostrel_alg *ModelFiles::classic_ = nullptr;
std::string ModelFiles::accurate_path_;
std::string ModelFiles::classic_path_;

TEST_F(ModelFiles, EachProfileWritesItsOwnFormat) {
    const std::string accurate = file_bytes(accurate_path_);
    const std::string classic = file_bytes(classic_path_);
    ASSERT_GE(accurate.size(), 8u);
    EXPECT_EQ(accurate.compare(0, 8, std::string(reinterpret_cast<const char *>(kMagic), 8)), 0);
    EXPECT_EQ(accurate[8], 1);  // format version 1
    // The classic file begins with class_idx 0, as it always has.
    ASSERT_GE(classic.size(), 4u);
    EXPECT_EQ(classic.compare(0, 4, std::string(4, '\0')), 0);
    EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(accurate_, accurate_path_.c_str()), 0);
    EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(accurate_, classic_path_.c_str()), 0);
}

TEST_F(ModelFiles, AnAccurateModelRoundTripsIntoEveryEngine) {
    const std::vector<ostrel_alg_box> expected = detections(accurate_);
    ASSERT_FALSE(expected.empty());
    for (const int32_t start : {-1, OSTREL_ALG_PROFILE_CLASSIC, OSTREL_ALG_PROFILE_ACCURATE}) {
        SCOPED_TRACE(testing::Message() << "engine profile " << start);
        ostrel_alg *engine = nullptr;
        ASSERT_EQ(ostrel_alg_create(&engine), 0);
        if (start >= 0) {
            ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, start), 0);
        }
        ASSERT_EQ(ostrel_alg_setSensitivity(engine, 80), 0);
        ASSERT_EQ(ostrel_alg_importModel_ptr(engine, accurate_path_.c_str()), 0);
        EXPECT_EQ(option(engine, OSTREL_ALG_OPTION_PROFILE), OSTREL_ALG_PROFILE_ACCURATE);
        expect_same(detections(engine), expected);
        // Written again, the same bytes.
        const std::string again = testing::TempDir() + "model_files_again.model";
        ASSERT_EQ(ostrel_alg_exportModel_ptr(engine, again.c_str()), 0);
        EXPECT_EQ(file_bytes(again), file_bytes(accurate_path_));
        std::remove(again.c_str());
        ostrel_alg_destroy(engine);
    }
}

TEST_F(ModelFiles, AClassicModelRoundTripsIntoEveryEngineAndMakesItClassic) {
    const std::vector<ostrel_alg_box> expected = detections(classic_);
    ASSERT_FALSE(expected.empty());
    for (const int32_t start : {-1, OSTREL_ALG_PROFILE_CLASSIC, OSTREL_ALG_PROFILE_ACCURATE}) {
        SCOPED_TRACE(testing::Message() << "engine profile " << start);
        ostrel_alg *engine = nullptr;
        ASSERT_EQ(ostrel_alg_create(&engine), 0);
        if (start >= 0) {
            ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, start), 0);
        }
        ASSERT_EQ(ostrel_alg_setSensitivity(engine, 80), 0);
        std::string printed;
        int32_t status = 1;
        printed =
            ostrel_test::capture_stdout([&] { status = ostrel_alg_importModel_ptr(engine, classic_path_.c_str()); });
        ASSERT_EQ(status, 0);
        EXPECT_EQ(printed, "");  // a classic import says nothing, as always
        EXPECT_EQ(option(engine, OSTREL_ALG_OPTION_PROFILE), OSTREL_ALG_PROFILE_CLASSIC);
        expect_same(detections(engine), expected);
        const std::string again = testing::TempDir() + "model_files_classic_again.model";
        ASSERT_EQ(ostrel_alg_exportModel_ptr(engine, again.c_str()), 0);
        EXPECT_EQ(file_bytes(again), file_bytes(classic_path_));
        std::remove(again.c_str());
        ostrel_alg_destroy(engine);
    }
}

TEST(ModelFileOptions, TheFileRecordsTheOptionsAndTheEngineTakesTheOnesItsHostLeftAlone) {
    ostrel_alg *trained = trained_engine(OSTREL_ALG_PROFILE_ACCURATE, {{OSTREL_ALG_OPTION_ACCURATE_OVERLAP, 50},
                                                                       {OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS, 2},
                                                                       {OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, 40},
                                                                       {OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 300}});
    const std::string path = testing::TempDir() + "model_file_options.model";
    ASSERT_EQ(ostrel_alg_exportModel_ptr(trained, path.c_str()), 0);
    const std::vector<ostrel_alg_box> expected = detections(trained);

    ostrel_alg *fresh = nullptr;
    ASSERT_EQ(ostrel_alg_create(&fresh), 0);
    ASSERT_EQ(ostrel_alg_setSensitivity(fresh, 80), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(fresh, path.c_str()), 0);
    EXPECT_EQ(option(fresh, OSTREL_ALG_OPTION_ACCURATE_OVERLAP), 50);
    EXPECT_EQ(option(fresh, OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS), 2);
    EXPECT_EQ(option(fresh, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT), 40);
    EXPECT_EQ(option(fresh, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT), 300);
    EXPECT_EQ(option(fresh, OSTREL_ALG_OPTION_ACCURATE_CELLS), 100);
    expect_same(detections(fresh), expected);

    // An option the host set stays as it set it.
    ostrel_alg *own = nullptr;
    ASSERT_EQ(ostrel_alg_create(&own), 0);
    ASSERT_EQ(ostrel_alg_setOption(own, OSTREL_ALG_OPTION_ACCURATE_OVERLAP, 70), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(own, path.c_str()), 0);
    EXPECT_EQ(option(own, OSTREL_ALG_OPTION_ACCURATE_OVERLAP), 70);
    EXPECT_EQ(option(own, OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS), 2);

    // A cells option set to another value would give another window.
    ostrel_alg *other = nullptr;
    ASSERT_EQ(ostrel_alg_create(&other), 0);
    ASSERT_EQ(ostrel_alg_setOption(other, OSTREL_ALG_OPTION_ACCURATE_CELLS, 144), 0);
    int32_t status = 0;
    const std::string printed =
        ostrel_test::capture_stdout([&] { status = ostrel_alg_importModel_ptr(other, path.c_str()); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(count_lines(printed), 1) << printed;
    EXPECT_NE(printed.find("made with 100 accurate cells and this engine's accurate cells option is set to 144"),
              std::string::npos)
        << printed;
    uint8_t is_trained = 1;
    ASSERT_EQ(ostrel_alg_istraied(other, &is_trained), 0);
    EXPECT_EQ(is_trained, 0);
    EXPECT_EQ(option(other, OSTREL_ALG_OPTION_PROFILE), OSTREL_ALG_PROFILE_CLASSIC);
    EXPECT_EQ(option(other, OSTREL_ALG_OPTION_ACCURATE_OVERLAP), 30);

    for (ostrel_alg *e : {trained, fresh, own, other}) ostrel_alg_destroy(e);
    std::remove(path.c_str());
}

// Little-endian uint32 at an offset of a byte string.
uint32_t u32_at(const std::string &bytes, size_t offset) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(bytes[offset + static_cast<size_t>(i)]);
    return v;
}

void put_u32(std::string &bytes, size_t offset, uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes[offset + static_cast<size_t>(i)] = static_cast<char>((v >> (8 * i)) & 0xff);
}

struct damage {
    const char *name;
    std::string bytes;
    const char *reason;
};

// The ways an accurate file is damaged, each with the words of its refusal.
std::vector<damage> damaged_files(const std::string &good) {
    // Settings block: 56 bytes from offset 16; the class count at 72; the
    // first record's length at 76, its name length at 80 (0 here), its
    // weight count at 80 + 4 + 3*4 + 3*4 + 4*4 + 2*4 + 4 = 136.
    EXPECT_EQ(u32_at(good, 12), 56u);
    EXPECT_EQ(u32_at(good, 72), 1u);
    EXPECT_EQ(u32_at(good, 80), 0u);
    std::vector<damage> damages;
    std::string version = good;
    put_u32(version, 8, 2);
    damages.push_back({"wrong version", version, "format version is 2; this library reads version 1"});
    damages.push_back({"truncated body", good.substr(0, good.size() / 2), "more bytes than the file holds"});
    damages.push_back({"truncated header", good.substr(0, 40), "ends inside its settings"});
    damages.push_back({"no trailer", good.substr(0, good.size() - 12), "trailer"});
    std::string weights = good;
    put_u32(weights, 136, u32_at(good, 136) + 1);
    damages.push_back({"weight count", weights, "does not agree"});
    std::string record = good;
    put_u32(record, 76, u32_at(good, 76) - 4);
    damages.push_back({"record length", record, "does not agree"});
    std::string classes = good;
    put_u32(classes, 72, 0);
    damages.push_back({"no class", classes, "holds 0 classes"});
    std::string crc = good;
    crc[200] = static_cast<char>(crc[200] ^ 0x40);
    damages.push_back({"flipped byte", crc, "CRC-32 does not match"});
    std::string tail = good + "x";
    damages.push_back({"extra byte", tail, "trailer should end the file"});
    return damages;
}

TEST_F(ModelFiles, DamagedAccurateFilesAreRefusedAndTheEngineStaysAsItWas) {
    const std::vector<damage> damages = damaged_files(file_bytes(accurate_path_));
    ASSERT_EQ(damages.size(), 9u);

    ostrel_alg *engine = trained_engine(OSTREL_ALG_PROFILE_CLASSIC);
    const std::vector<ostrel_alg_box> before = detections(engine);
    const std::string path = testing::TempDir() + "model_files_damaged.model";
    for (const damage &d : damages) {
        SCOPED_TRACE(d.name);
        write_bytes(path, d.bytes);
        int32_t status = 0;
        std::string printed =
            ostrel_test::capture_stdout([&] { status = ostrel_alg_importModel_ptr(engine, path.c_str()); });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(count_lines(printed), 1) << printed;
        EXPECT_NE(printed.find("ostrel_alg::importModel: the accurate model file"), std::string::npos) << printed;
        EXPECT_NE(printed.find(d.reason), std::string::npos) << printed;
        printed =
            ostrel_test::capture_stdout([&] { status = ostrel_alg_checkModelValidation_ptr(engine, path.c_str()); });
        EXPECT_EQ(status, 1);
        EXPECT_NE(printed.find("is not valid: "), std::string::npos) << printed;
        status = -1;
        (void)ostrel_test::capture_stdout([&] { status = ostrel_alg_checkModelValidation(engine, path); });
        EXPECT_EQ(status, 1);
        (void)ostrel_test::capture_stdout([&] { status = ostrel_alg_importModel(engine, path); });
        EXPECT_EQ(status, 1);
        const std::u16string wide(path.begin(), path.end());
        (void)ostrel_test::capture_stdout([&] { status = ostrel_alg_importModel_bstr(engine, wide.c_str()); });
        EXPECT_EQ(status, 1);
        (void)ostrel_test::capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine, wide.c_str()); });
        EXPECT_EQ(status, 1);
        // The engine is as it was: classic, trained, the same detections.
        EXPECT_EQ(option(engine, OSTREL_ALG_OPTION_PROFILE), OSTREL_ALG_PROFILE_CLASSIC);
        expect_same(detections(engine), before);
    }
    ostrel_alg_destroy(engine);
    std::remove(path.c_str());
}

TEST_F(ModelFiles, DamagedAccurateFilesLeaveAnAccurateEngineAndAFreshOneAsTheyWere) {
    // All or nothing for both kinds of engine: one trained under the
    // accurate profile with options its host set keeps its profile, its
    // options and its model; one never used stays classic, untrained and at
    // the defaults (a damaged file's recorded options are never taken).
    const std::vector<damage> damages = damaged_files(file_bytes(accurate_path_));
    ostrel_alg *accurate = trained_engine(OSTREL_ALG_PROFILE_ACCURATE, {{OSTREL_ALG_OPTION_ACCURATE_OVERLAP, 45}});
    ASSERT_EQ(ostrel_alg_setOption(accurate, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 90), 0);
    const std::vector<ostrel_alg_box> before = detections(accurate);
    ostrel_alg *fresh = nullptr;
    ASSERT_EQ(ostrel_alg_create(&fresh), 0);
    int32_t defaults[4] = {};
    const int32_t ids[4] = {OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_OPTION_ACCURATE_OVERLAP,
                            OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT};
    for (int i = 0; i < 4; ++i) defaults[i] = option(fresh, ids[i]);
    const std::string path = testing::TempDir() + "model_files_damaged_accurate.model";
    for (const damage &d : damages) {
        SCOPED_TRACE(d.name);
        write_bytes(path, d.bytes);
        for (ostrel_alg *engine : {accurate, fresh}) {
            int32_t status = 0;
            const std::string printed =
                ostrel_test::capture_stdout([&] { status = ostrel_alg_importModel_ptr(engine, path.c_str()); });
            EXPECT_EQ(status, 1);
            EXPECT_EQ(count_lines(printed), 1) << printed;
            EXPECT_NE(printed.find(d.reason), std::string::npos) << printed;
        }
        EXPECT_EQ(option(accurate, OSTREL_ALG_OPTION_PROFILE), OSTREL_ALG_PROFILE_ACCURATE);
        EXPECT_EQ(option(accurate, OSTREL_ALG_OPTION_ACCURATE_OVERLAP), 45);
        EXPECT_EQ(option(accurate, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT), 90);
        expect_same(detections(accurate), before);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(option(fresh, ids[i]), defaults[i]) << "option " << ids[i];
        uint8_t trained = 1;
        ASSERT_EQ(ostrel_alg_istraied(fresh, &trained), 0);
        EXPECT_EQ(trained, 0);
    }
    ostrel_alg_destroy(accurate);
    ostrel_alg_destroy(fresh);
    std::remove(path.c_str());
}

}  // namespace
