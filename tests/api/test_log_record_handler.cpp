// The log record handler through the public header: it receives every
// message byte for byte as the plain handler (and standard output) would,
// each with the severity the library gave it where it wrote it: training
// steps as progress, the lines of a failing call as failures, the rest as
// details. Either kind of handler replaces the other.
#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"

using namespace ostrel_test;

namespace {

struct log_record {
    int32_t severity;
    std::string message;
};

struct record_log {
    std::mutex lock;
    std::vector<log_record> records;
    std::vector<std::string> messages() {
        std::lock_guard<std::mutex> hold(lock);
        std::vector<std::string> texts;
        for (const log_record &r : records) texts.push_back(r.message);
        return texts;
    }
};

void keep_record(int32_t severity, const char *message, void *user) {
    auto *log = static_cast<record_log *>(user);
    std::lock_guard<std::mutex> hold(log->lock);
    log->records.push_back({severity, message});
}

void keep_message(const char *message, void *user) {
    auto *log = static_cast<record_log *>(user);
    std::lock_guard<std::mutex> hold(log->lock);
    log->records.push_back({-1, message});
}

bool starts_with(const std::string &text, const char *prefix) { return text.rfind(prefix, 0) == 0; }

class LogRecordHandler : public testing::Test {
protected:
    void SetUp() override {
        picture_ = load_blood_picture("BloodImage_00000");
        ASSERT_FALSE(picture_.pixels.empty());
    }
    void TearDown() override { EXPECT_EQ(ostrel_alg_setLogRecordHandler(nullptr, nullptr), 0); }

    // A seeded classic training, a detection and a refused model file: what
    // they log as plain text on standard output.
    void run_session() {
        ostrel_alg *engine = nullptr;
        ASSERT_EQ(ostrel_alg_create(&engine), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine, 4), 0);
        const ostrel_alg_image image = picture_.record(1);
        ASSERT_EQ(ostrel_alg_setDetector_ptr(engine, &image, picture_.boxes.data(),
                                             static_cast<int32_t>(picture_.boxes.size())),
                  0);
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 0);
        const std::string model = temp_path("session.model");
        ASSERT_EQ(ostrel_alg_exportModel_ptr(engine, model.c_str()), 0);
        file_bytes damaged = read_bytes(model);
        damaged.back() ^= 0x5a;  // the CRC no longer matches
        write_bytes(model, damaged);
        EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(engine, model.c_str()), 1);
        std::remove(model.c_str());
        EXPECT_EQ(ostrel_alg_destroy(engine), 0);
    }

    blood_picture picture_;
};

}  // namespace

TEST_F(LogRecordHandler, SameMessagesAsStandardOutputEachWithItsSeverity) {
    std::string printed;
    printed = capture_stdout([&] { run_session(); });
    record_log log;
    const std::string unprinted = capture_stdout([&] {
        ASSERT_EQ(ostrel_alg_setLogRecordHandler(&keep_record, &log), 0);
        run_session();
    });
    EXPECT_EQ(unprinted, "");
    std::string joined;
    for (const std::string &m : log.messages()) joined += m;
    EXPECT_EQ(joined, printed);

    size_t progress = 0, failures = 0, details = 0;
    for (const log_record &r : log.records) {
        if (starts_with(r.message, "[Alg. Scc]")) {
            EXPECT_EQ(r.severity, OSTREL_ALG_LOG_PROGRESS) << r.message;
            ++progress;
        } else if (starts_with(r.message, "[CRC values ERROR]")) {
            EXPECT_EQ(r.severity, OSTREL_ALG_LOG_FAILURE) << r.message;
            ++failures;
        } else if (starts_with(r.message, "[Debug]") || starts_with(r.message, "[file size without CRC]")) {
            EXPECT_EQ(r.severity, OSTREL_ALG_LOG_DETAIL) << r.message;
            ++details;
        }
    }
    EXPECT_GT(progress, 0u);
    EXPECT_EQ(failures, 1u);
    EXPECT_GT(details, 0u);
    // Only the refused model file logs a failure: the successful calls do not.
    EXPECT_EQ(std::count_if(log.records.begin(), log.records.end(),
                            [](const log_record &r) { return r.severity == OSTREL_ALG_LOG_FAILURE; }),
              1);
}

TEST_F(LogRecordHandler, RefusalsOfTheInterfaceAndTheEngineAreFailures) {
    record_log log;
    ASSERT_EQ(ostrel_alg_setLogRecordHandler(&keep_record, &log), 0);
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    EXPECT_EQ(ostrel_alg_init(nullptr), 1);
    EXPECT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, 9), 1);
    const ostrel_alg_image image = picture_.record(1);
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 1);
    const ostrel_alg_box tiny{10, 10, 1, 1, 0.0f, 1, 0, 0};
    EXPECT_EQ(ostrel_alg_setDetector_ptr(engine, &image, &tiny, 1), 1);
    EXPECT_EQ(ostrel_alg_importModel_ptr(engine, "/nonexistent/ostrel.model"), 1);
    EXPECT_EQ(ostrel_alg_destroy(engine), 0);
    ASSERT_GE(log.records.size(), 6u);
    for (const log_record &r : log.records) {
        EXPECT_EQ(r.severity, OSTREL_ALG_LOG_FAILURE) << r.message;
    }
    EXPECT_EQ(log.records[0].message, "[Alg.Fail] ostrel_alg_init (ostrel_alg_lib line:128)\n");
}

TEST_F(LogRecordHandler, EitherKindReplacesTheOtherAndNullRestoresStandardOutput) {
    record_log records, messages;
    ASSERT_EQ(ostrel_alg_setLogHandler(&keep_message, &messages), 0);
    ASSERT_EQ(ostrel_alg_setLogRecordHandler(&keep_record, &records), 0);
    EXPECT_EQ(ostrel_alg_init(nullptr), 1);
    EXPECT_EQ(records.records.size(), 1u);
    EXPECT_TRUE(messages.records.empty());

    ASSERT_EQ(ostrel_alg_setLogHandler(&keep_message, &messages), 0);
    EXPECT_EQ(ostrel_alg_init(nullptr), 1);
    EXPECT_EQ(records.records.size(), 1u);
    EXPECT_EQ(messages.records.size(), 1u);

    ASSERT_EQ(ostrel_alg_setLogRecordHandler(&keep_record, &records), 0);
    ASSERT_EQ(ostrel_alg_setLogRecordHandler(nullptr, &records), 0);
    const std::string printed = capture_stdout([] { EXPECT_EQ(ostrel_alg_init(nullptr), 1); });
    EXPECT_EQ(printed, "[Alg.Fail] ostrel_alg_init (ostrel_alg_lib line:128)\n");
    EXPECT_EQ(records.records.size(), 1u);
    EXPECT_EQ(messages.records.size(), 1u);
}

namespace {

struct reentry {
    int calls = 0;
    int32_t refused = -1;
};

void set_from_inside(int32_t, const char *, void *user) {
    auto *r = static_cast<reentry *>(user);
    if (++r->calls == 1) {
        r->refused = ostrel_alg_setLogRecordHandler(nullptr, nullptr);
    }
}

}  // namespace

TEST_F(LogRecordHandler, SettingTheHandlerFromInsideOneIsRefused) {
    reentry r;
    ASSERT_EQ(ostrel_alg_setLogRecordHandler(&set_from_inside, &r), 0);
    EXPECT_EQ(ostrel_alg_init(nullptr), 1);
    EXPECT_EQ(r.refused, 1);
    // Still installed: the next message reaches it too.
    EXPECT_EQ(ostrel_alg_init(nullptr), 1);
    EXPECT_EQ(r.calls, 2);
}
