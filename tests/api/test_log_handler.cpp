// The log handler through the public header: with a handler set, every
// message of the library reaches it exactly as it would have been printed,
// and nothing reaches standard output; a null handler restores standard
// output; a handler can be changed while other threads log.
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"

namespace {

struct message_log {
    std::mutex lock;
    std::vector<std::string> messages;
};

void record(const char *message, void *user) {
    auto *log = static_cast<message_log *>(user);
    std::lock_guard<std::mutex> hold(log->lock);
    log->messages.emplace_back(message);
}

class LogHandlerApi : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(ostrel_alg_setLogHandler(nullptr, nullptr), 0); }
    message_log log_;
};

TEST_F(LogHandlerApi, FailureLinesArriveExactlyAndNothingIsPrinted) {
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    const std::string printed = ostrel_test::capture_stdout([&] {
        ASSERT_EQ(ostrel_alg_setLogHandler(&record, &log_), 0);
        EXPECT_EQ(ostrel_alg_destroy(nullptr), 1);
        ostrel_alg_image image{640, 480, 3, nullptr, 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 1);
        EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(engine, "/nonexistent/ostrel.model"), 1);
    });
    EXPECT_EQ(printed, "");
    ASSERT_GE(log_.messages.size(), 3u);
    EXPECT_EQ(log_.messages[0], "[Alg.Fail] ostrel_alg_destroy (ostrel_alg_lib line:103)\n");
    EXPECT_EQ(log_.messages[1], "[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:1135)\n");
    for (const std::string &message : log_.messages) {
        EXPECT_FALSE(message.empty());
    }
    EXPECT_EQ(ostrel_alg_destroy(engine), 0);
}

TEST_F(LogHandlerApi, NullHandlerRestoresStandardOutput) {
    ASSERT_EQ(ostrel_alg_setLogHandler(&record, &log_), 0);
    EXPECT_EQ(ostrel_alg_init(nullptr), 1);
    ASSERT_EQ(ostrel_alg_setLogHandler(nullptr, nullptr), 0);
    const std::string printed = ostrel_test::capture_stdout([] { EXPECT_EQ(ostrel_alg_init(nullptr), 1); });
    EXPECT_EQ(printed, "[Alg.Fail] ostrel_alg_init (ostrel_alg_lib line:128)\n");
    EXPECT_EQ(log_.messages, std::vector<std::string>{"[Alg.Fail] ostrel_alg_init (ostrel_alg_lib line:128)\n"});
}

// Two handlers swapped back and forth while four threads log: no message is
// lost or cut, and every one reaches exactly one of the handlers (never
// standard output while a handler is set).
TEST_F(LogHandlerApi, ChangingTheHandlerWhileThreadsLogLosesNothing) {
    message_log first, second;
    constexpr int kThreads = 4;
    constexpr int kMessagesPerThread = 2000;
    const std::string expected = "[Alg.Fail] ostrel_alg_setSensitivity (ostrel_alg_lib line:154)\n";
    ASSERT_EQ(ostrel_alg_setLogHandler(&record, &first), 0);
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kMessagesPerThread; ++i) {
                ostrel_alg_setSensitivity(nullptr, 50);
            }
            --running;
        });
    }
    for (int swaps = 0; running > 0; ++swaps) {
        ASSERT_EQ(ostrel_alg_setLogHandler(&record, swaps % 2 == 0 ? &second : &first), 0);
    }
    for (std::thread &thread : threads) thread.join();
    ASSERT_EQ(first.messages.size() + second.messages.size(), static_cast<size_t>(kThreads * kMessagesPerThread));
    for (const message_log *log : {&first, &second}) {
        for (const std::string &message : log->messages) {
            ASSERT_EQ(message, expected);
        }
    }
}

}  // namespace

namespace {

// A handler that breaks the rules: on every message it tries to change the
// handler. The call must return 1 and change nothing, and its refusal must
// not come back to the handler (which would call again, without end).
struct changing_handler_state {
    std::vector<std::string> messages;
    std::vector<int32_t> statuses;
};

void change_handler_from_inside(const char *message, void *user) {
    auto *state = static_cast<changing_handler_state *>(user);
    state->messages.emplace_back(message);
    if (state->messages.size() > 100) {
        return;  // the test fails below rather than overflowing the stack
    }
    const int32_t status = ostrel_alg_setLogHandler(nullptr, nullptr);
    state->statuses.push_back(status);
}

TEST_F(LogHandlerApi, AHandlerThatSetsTheHandlerIsRefusedOnceWithoutRecursion) {
    changing_handler_state state;
    ASSERT_EQ(ostrel_alg_setLogHandler(&change_handler_from_inside, &state), 0);
    const std::string printed = ostrel_test::capture_stdout([] { EXPECT_EQ(ostrel_alg_init(nullptr), 1); });
    // Nothing changed: the next message still reaches this handler.
    EXPECT_EQ(ostrel_alg_init(nullptr), 1);
    ASSERT_EQ(ostrel_alg_setLogHandler(nullptr, nullptr), 0);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(state.messages, (std::vector<std::string>{"[Alg.Fail] ostrel_alg_init (ostrel_alg_lib line:128)\n",
                                                        "[Alg.Fail] ostrel_alg_init (ostrel_alg_lib line:128)\n"}));
    EXPECT_EQ(state.statuses, (std::vector<int32_t>{1, 1}));
}

// A handler that calls a failing library function on every message (also
// against the rules) ends: what the library logs from inside a handler
// reaches it one level deep, no deeper.
struct calling_handler_state {
    int calls = 0;
};

void call_library_from_inside(const char *, void *user) {
    auto *state = static_cast<calling_handler_state *>(user);
    if (++state->calls > 100) {
        return;
    }
    ostrel_alg_setSensitivity(nullptr, 50);
}

TEST_F(LogHandlerApi, AHandlerThatCallsTheLibraryOnEveryMessageEnds) {
    calling_handler_state state;
    ASSERT_EQ(ostrel_alg_setLogHandler(&call_library_from_inside, &state), 0);
    EXPECT_EQ(ostrel_alg_init(nullptr), 1);
    ASSERT_EQ(ostrel_alg_setLogHandler(nullptr, nullptr), 0);
    EXPECT_EQ(state.calls, 2);  // the message, and the one its call logged
}

}  // namespace
