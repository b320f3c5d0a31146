// The exported interface as a host sees it: statuses, handle checks and the
// exact failure lines, through the public header and the shared library only.
#include <dlfcn.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"

using ostrel_test::capture_stdout;

namespace {

std::string lib_fail_line(const std::string &function, int line) {
    return "[Alg.Fail] " + function + " (ostrel_alg_lib line:" + std::to_string(line) + ")\n";
}

class Engine : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ostrel_alg_create(&engine_), 0); }
    void TearDown() override { ASSERT_EQ(ostrel_alg_destroy(engine_), 0); }
    ostrel_alg *engine_ = nullptr;
};

}  // namespace

// Every function refuses a null handle with its own failure line and status 1.
TEST(NullHandle, EachFunctionLogsItsOwnLine) {
    ostrel_alg *h = nullptr;
    uint8_t flag = 0;
    uint32_t a = 0, b = 0;
    ostrel_alg_box *boxes = nullptr;
    ostrel_alg_sample *samples = nullptr;
    std::vector<ostrel_alg_box> box_list;
    std::vector<ostrel_alg_sample> sample_list;
    std::string text;
    const char *method = nullptr;
    const uint8_t *map = nullptr;
    uint8_t pixel[3] = {0, 0, 0};
    ostrel_alg_image image{1, 1, 3, pixel, 0, 0, 0};

    struct Case {
        std::string name;
        int line;
        std::function<int32_t()> call;
    };
    const std::vector<Case> cases = {
        {"ostrel_alg_destroy", 103, [&] { return ostrel_alg_destroy(h); }},
        {"ostrel_alg_init", 128, [&] { return ostrel_alg_init(h); }},
        {"ostrel_alg_setSensitivity", 154, [&] { return ostrel_alg_setSensitivity(h, 50); }},
        {"ostrel_alg_istraied", 170, [&] { return ostrel_alg_istraied(h, &flag); }},
        {"ostrel_alg_setTrainingSize", 185, [&] { return ostrel_alg_setTrainingSize(h, 1, 2, 3, 4); }},
        {"ostrel_alg_runDetector", 200, [&] { return ostrel_alg_runDetector(h, &image, box_list); }},
        {"ostrel_alg_runDetector_ptr", 213, [&] { return ostrel_alg_runDetector_ptr(h, &image, &boxes, &a); }},
        {"ostrel_alg_exportModel", 232, [&] { return ostrel_alg_exportModel(h, "m.bin"); }},
        {"ostrel_alg_importModel", 246, [&] { return ostrel_alg_importModel(h, "m.bin"); }},
        {"ostrel_alg_checkModelValidation", 260, [&] { return ostrel_alg_checkModelValidation(h, "m.bin"); }},
        {"ostrel_alg_setDetector", 275, [&] { return ostrel_alg_setDetector(h, &image, box_list); }},
        {"ostrel_alg_setDetector_ptr", 294, [&] { return ostrel_alg_setDetector_ptr(h, &image, nullptr, 0); }},
        {"ostrel_alg_getSamples", 344, [&] { return ostrel_alg_getSamples(h, sample_list); }},
        {"ostrel_alg_getSamples_ptr", 359, [&] { return ostrel_alg_getSamples_ptr(h, &samples, &a); }},
        {"ostrel_alg_removeSample", 374, [&] { return ostrel_alg_removeSample(h, 0); }},
        {"ostrel_alg_setModelId", 405, [&] { return ostrel_alg_setModelId(h, 1); }},
        {"ostrel_alg_getModelId", 419, [&] { return ostrel_alg_getModelId(h, &a); }},
        {"ostrel_alg_temp_getAddNegativeMethod", 451, [&] { return ostrel_alg_temp_getAddNegativeMethod(h, text); }},
        {"ostrel_alg_temp_getNumofSamples", 467, [&] { return ostrel_alg_temp_getNumofSamples(h, &a, &b); }},
        // Pointer forms log under their own names with the line of the operation they stand for.
        {"ostrel_alg_exportModel_ptr", 232, [&] { return ostrel_alg_exportModel_ptr(h, "m.bin"); }},
        {"ostrel_alg_importModel_ptr", 246, [&] { return ostrel_alg_importModel_ptr(h, "m.bin"); }},
        {"ostrel_alg_checkModelValidation_ptr", 260, [&] { return ostrel_alg_checkModelValidation_ptr(h, "m.bin"); }},
        {"ostrel_alg_temp_getAddNegativeMethod_ptr", 451,
         [&] { return ostrel_alg_temp_getAddNegativeMethod_ptr(h, &method); }},
        {"ostrel_alg_setRandomSeed", 483, [&] { return ostrel_alg_setRandomSeed(h, 7); }},
        {"ostrel_alg_getFeatureMap_ptr", 499,
         [&] { return ostrel_alg_getFeatureMap_ptr(h, &image, &map, &a, &b, &a); }},
    };
    for (const Case &c : cases) {
        int32_t status = -1;
        const std::string out = capture_stdout([&] { status = c.call(); });
        EXPECT_EQ(status, 1) << c.name;
        EXPECT_EQ(out, lib_fail_line(c.name, c.line)) << c.name;
    }
}

// The _bstr forms have no line of their own: they convert the path and hand
// over to the plain form, which reports the null handle.
TEST(NullHandle, Utf16FormsReportThroughThePlainForm) {
    const char16_t path[] = u"model.bin";
    std::string out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_exportModel_bstr(nullptr, path), 1); });
    EXPECT_EQ(out, lib_fail_line("ostrel_alg_exportModel", 232));
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_importModel_bstr(nullptr, path), 1); });
    EXPECT_EQ(out, lib_fail_line("ostrel_alg_importModel", 246));
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_checkModelValidation_bstr(nullptr, path), 1); });
    EXPECT_EQ(out, lib_fail_line("ostrel_alg_checkModelValidation", 260));
}

// A null path or a broken UTF-16 sequence is refused instead of being read.
TEST_F(Engine, Utf16PathThatCannotBeConvertedIsRefused) {
    const char16_t lone_high[] = {u'a', 0xD800, u'b', 0};
    const char16_t lone_low[] = {0xDC00, 0};
    for (const char16_t *path : {static_cast<const char16_t *>(nullptr), lone_high, lone_low}) {
        const std::string out =
            capture_stdout([&] { EXPECT_EQ(ostrel_alg_checkModelValidation_bstr(engine_, path), 1); });
        EXPECT_EQ(out,
                  "[Alg.Fail] ostrel_alg_checkModelValidation_bstr: the path is null or not a valid UTF-16 "
                  "string\n");
    }
}

TEST(Create, NullOutPointerIsRefused) {
    const std::string out = capture_stdout([] { EXPECT_EQ(ostrel_alg_create(nullptr), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_create: handle must not be null\n");
}

// Null out-pointers are refused with a line naming the argument.
TEST_F(Engine, NullOutPointersAreRefused) {
    uint32_t n = 0;
    std::string out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_istraied(engine_, nullptr), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_istraied: trained must not be null\n");
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_getModelId(engine_, nullptr), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_getModelId: model_id must not be null\n");
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_temp_getNumofSamples(engine_, &n, nullptr), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_temp_getNumofSamples: negatives must not be null\n");
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_getSamples_ptr(engine_, nullptr, &n), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_getSamples_ptr: samples must not be null\n");
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_runDetector_ptr(engine_, nullptr, nullptr, &n), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_runDetector_ptr: boxes must not be null\n");
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_exportModel_ptr(engine_, nullptr), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_exportModel_ptr: path must not be null\n");
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_temp_getAddNegativeMethod_ptr(engine_, nullptr), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_temp_getAddNegativeMethod_ptr: method must not be null\n");
}

// Above 100 the engine receives a huge inverted value and refuses it.
TEST_F(Engine, SensitivityAbove100IsRefused) {
    EXPECT_EQ(ostrel_alg_setSensitivity(engine_, 0), 0);
    EXPECT_EQ(ostrel_alg_setSensitivity(engine_, 100), 0);
    const std::string out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_setSensitivity(engine_, 101), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_setSensitivity: sensitivity 101 is above 100\n");
}

// Model id: unset on a fresh engine, 0 is a valid id, negatives are refused silently.
TEST_F(Engine, ModelIdPair) {
    uint32_t id = 777;
    std::string out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_getModelId(engine_, &id), 1); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(id, 777u);
    EXPECT_EQ(ostrel_alg_setModelId(engine_, 0), 0);
    EXPECT_EQ(ostrel_alg_getModelId(engine_, &id), 0);
    EXPECT_EQ(id, 0u);
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_setModelId(engine_, -5), 1); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(ostrel_alg_getModelId(engine_, &id), 0);
    EXPECT_EQ(id, 0u);
}

TEST_F(Engine, FreshEngineIsNotTrained) {
    uint8_t trained = 9;
    EXPECT_EQ(ostrel_alg_istraied(engine_, &trained), 0);
    EXPECT_EQ(trained, 0);
}

TEST_F(Engine, FreshEngineHasNoSamples) {
    ostrel_alg_sample *samples = reinterpret_cast<ostrel_alg_sample *>(0x1);
    uint32_t count = 99;
    EXPECT_EQ(ostrel_alg_getSamples_ptr(engine_, &samples, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(samples, nullptr);
    std::vector<ostrel_alg_sample> list(3);
    EXPECT_EQ(ostrel_alg_getSamples(engine_, list), 0);
    EXPECT_TRUE(list.empty());
    uint32_t positives = 5, negatives = 5;
    EXPECT_EQ(ostrel_alg_temp_getNumofSamples(engine_, &positives, &negatives), 0);
    EXPECT_EQ(positives, 0u);
    EXPECT_EQ(negatives, 0u);
}

// An index above the count, and one equal to it, is refused silently.
TEST_F(Engine, RemoveSampleOutsideTheListIsRefused) {
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(ostrel_alg_removeSample(engine_, 1), 1);
        EXPECT_EQ(ostrel_alg_removeSample(engine_, 0), 1);
    });
    EXPECT_EQ(out, "");
}

TEST_F(Engine, NegativeMethodIsBelowConf) {
    std::string method = "x";
    EXPECT_EQ(ostrel_alg_temp_getAddNegativeMethod(engine_, method), 0);
    EXPECT_EQ(method, "BELOW_CONF");
    const char *text = nullptr;
    EXPECT_EQ(ostrel_alg_temp_getAddNegativeMethod_ptr(engine_, &text), 0);
    EXPECT_STREQ(text, "BELOW_CONF");
}

// A count of 0 becomes an empty list, which set-up refuses.
TEST_F(Engine, SetDetectorWithNoBoxesIsRefused) {
    std::vector<uint8_t> pixels(8 * 8 * 3, 100);
    ostrel_alg_image image{8, 8, 3, pixels.data(), 1, 0, 0};
    const std::string expected = "[Alg. FAIL!] ostrel_alg::setDetectorWithAutoTrain (ostrel_alg line:861)\n";
    std::string out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_setDetector_ptr(engine_, &image, nullptr, 0), 1); });
    EXPECT_EQ(out, expected);
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_setDetector(engine_, &image, {}), 1); });
    EXPECT_EQ(out, expected);
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_setDetector_ptr(engine_, &image, nullptr, -3), 1); });
    EXPECT_EQ(out, "[Alg.Fail] ostrel_alg_setDetector_ptr: box count -3 is negative\n");
}

// Detection before any training or import: the engine's failure line, status 1.
TEST_F(Engine, DetectionBeforeTrainingFails) {
    std::vector<uint8_t> pixels(8 * 8 * 3, 100);
    ostrel_alg_image image{8, 8, 3, pixels.data(), 1, 0, 0};
    std::vector<ostrel_alg_box> boxes;
    const std::string expected = "[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:1135)\n";
    std::string out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_runDetector(engine_, &image, boxes), 1); });
    EXPECT_EQ(out, expected);
    EXPECT_TRUE(boxes.empty());
    ostrel_alg_box *result = nullptr;
    uint32_t count = 5;
    out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_runDetector_ptr(engine_, &image, &result, &count), 1); });
    EXPECT_EQ(out, expected);
    EXPECT_EQ(count, 0u);
}

// Export before training writes nothing and says nothing.
TEST_F(Engine, ExportBeforeTrainingFails) {
    const std::string out = capture_stdout([&] { EXPECT_EQ(ostrel_alg_exportModel_ptr(engine_, "never.bin"), 1); });
    EXPECT_EQ(out, "");
}

// The library can be loaded at run time and its functions found by name.
TEST(DynamicLoading, LibraryLoadsAndResolvesFunctions) {
    void *library = dlopen(OSTREL_ALG_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    using create_fn = int32_t (*)(ostrel_alg **);
    using destroy_fn = int32_t (*)(ostrel_alg *);
    auto create = reinterpret_cast<create_fn>(dlsym(library, "ostrel_alg_create"));
    auto destroy = reinterpret_cast<destroy_fn>(dlsym(library, "ostrel_alg_destroy"));
    ASSERT_NE(create, nullptr);
    ASSERT_NE(destroy, nullptr);
    EXPECT_EQ(dlsym(library, "_ZN10ostrel_alg4initEv"), nullptr) << "engine internals must stay hidden";
    ostrel_alg *engine = nullptr;
    EXPECT_EQ(create(&engine), 0);
    EXPECT_NE(engine, nullptr);
    EXPECT_EQ(destroy(engine), 0);
    dlclose(library);
}
