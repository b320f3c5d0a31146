// The logging function: whole messages, to standard output or to the host's
// handler, exactly as printf would have printed them, each with the severity
// its writer gives it.
#include "common/log.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/failure.h"
#include "common/progress.h"
#include "support/stdout_capture.h"

namespace {

struct recorded {
    std::vector<std::string> messages;
};

void record(const char *message, void *user) { static_cast<recorded *>(user)->messages.emplace_back(message); }

// Installs a recording handler for one test and always removes it.
class LogHandler : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(ostrel::set_log_handler(&record, &seen)); }
    void TearDown() override { ostrel::set_log_handler(nullptr, nullptr); }
    recorded seen;
};

TEST(Log, WithoutAHandlerPrintsToStandardOutput) {
    const std::string out = ostrel_test::capture_stdout([] {
        ostrel::log("[Alg. FAIL!] %s (%s line:%d)\n", "ostrel_alg::runDetector", "ostrel_alg", 1135);
        ostrel::log("%s", "no line end");
    });
    EXPECT_EQ(out, "[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:1135)\nno line end");
}

TEST_F(LogHandler, ReceivesEachMessageWholeAndNothingIsPrinted) {
    const std::string out = ostrel_test::capture_stdout([] {
        ostrel::log("[Alg. FAIL!] %s (%s line:%d)\n", "ostrel_alg::runDetector", "ostrel_alg", 1135);
        ostrel::log("%s", "[SVM model values wrong] vector is nullptr !!!!!");
        ostrel::log("\n");
    });
    EXPECT_EQ(out, "");
    ASSERT_EQ(seen.messages.size(), 3u);
    EXPECT_EQ(seen.messages[0], "[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:1135)\n");
    EXPECT_EQ(seen.messages[1], "[SVM model values wrong] vector is nullptr !!!!!");
    EXPECT_EQ(seen.messages[2], "\n");
}

TEST_F(LogHandler, LongMessagesArriveWhole) {
    const std::string long_text(5000, 'x');
    ostrel::log("[Debug] %s|%d\n", long_text.c_str(), 7);
    ASSERT_EQ(seen.messages.size(), 1u);
    EXPECT_EQ(seen.messages[0], "[Debug] " + long_text + "|7\n");
}

TEST_F(LogHandler, NullHandlerRestoresStandardOutput) {
    ostrel::log("to the handler\n");
    ASSERT_TRUE(ostrel::set_log_handler(nullptr, nullptr));
    const std::string out = ostrel_test::capture_stdout([] { ostrel::log("to standard output\n"); });
    EXPECT_EQ(out, "to standard output\n");
    EXPECT_EQ(seen.messages, std::vector<std::string>{"to the handler\n"});
}

// A handler that logs or changes the handler (both against the rules) must
// not hang: its own messages reach it, and the change is refused.
struct reentrant {
    std::vector<std::string> messages;
    bool change_refused = false;
};

void reenter(const char *message, void *user) {
    auto *state = static_cast<reentrant *>(user);
    state->messages.emplace_back(message);
    if (state->messages.size() == 1) {
        ostrel::log("nested\n");
        state->change_refused = !ostrel::set_log_handler(nullptr, nullptr);
    }
}

TEST(Log, AHandlerThatCallsBackDoesNotHang) {
    reentrant state;
    ASSERT_TRUE(ostrel::set_log_handler(&reenter, &state));
    ostrel::log("outer\n");
    ostrel::set_log_handler(nullptr, nullptr);
    EXPECT_TRUE(state.change_refused);
    EXPECT_EQ(state.messages, (std::vector<std::string>{"outer\n", "nested\n"}));
}

}  // namespace

namespace {

struct severity_record {
    std::vector<std::pair<int32_t, std::string>> messages;
};

void record_with_severity(int32_t severity, const char *message, void *user) {
    static_cast<severity_record *>(user)->messages.emplace_back(severity, message);
}

}  // namespace

// Each writer gives its own severity: log() details, the failure units
// failures (noted or not), log_progress() the steps of a training; the text
// is the same as without a record handler.
TEST(Log, EachWriterGivesItsSeverity) {
    severity_record seen;
    ASSERT_TRUE(ostrel::set_log_record_handler(&record_with_severity, &seen));
    {
        const ostrel::failure_scope call;
        ostrel::log("[Debug] %d\n", 1);
        ostrel::log_progress("[Alg. Scc] %s\n", "step");
        ostrel::log_failure("[file read FAIL!] %s\n", "x");
        ostrel::fail(OSTREL_ALG_ERR_BAD_ARGUMENT, "[Alg.Fail] %s\n", "y");
        ostrel::fail_at(OSTREL_ALG_ERR_FAILED, "ostrel_alg::op", 7);
    }
    ostrel::set_log_record_handler(nullptr, nullptr);
    const std::vector<std::pair<int32_t, std::string>> expected = {
        {OSTREL_ALG_LOG_DETAIL, "[Debug] 1\n"},
        {OSTREL_ALG_LOG_PROGRESS, "[Alg. Scc] step\n"},
        {OSTREL_ALG_LOG_FAILURE, "[file read FAIL!] x\n"},
        {OSTREL_ALG_LOG_FAILURE, "[Alg.Fail] y\n"},
        {OSTREL_ALG_LOG_FAILURE, "[Alg. FAIL!] ostrel_alg::op (ostrel_alg line:7)\n"},
    };
    EXPECT_EQ(seen.messages, expected);
}

// One destination: a plain handler replaces a record handler and the reverse.
TEST(Log, EitherHandlerReplacesTheOther) {
    severity_record with_severity;
    recorded plain;
    ASSERT_TRUE(ostrel::set_log_record_handler(&record_with_severity, &with_severity));
    ASSERT_TRUE(ostrel::set_log_handler(&record, &plain));
    ostrel::log("a\n");
    ASSERT_TRUE(ostrel::set_log_record_handler(&record_with_severity, &with_severity));
    ostrel::log("b\n");
    ostrel::set_log_record_handler(nullptr, nullptr);
    EXPECT_EQ(plain.messages, std::vector<std::string>{"a\n"});
    ASSERT_EQ(with_severity.messages.size(), 1u);
    EXPECT_EQ(with_severity.messages[0].second, "b\n");
}
