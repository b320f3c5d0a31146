// The logging function: whole messages, to standard output or to the host's
// handler, exactly as printf would have printed them.
#include "common/log.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

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
