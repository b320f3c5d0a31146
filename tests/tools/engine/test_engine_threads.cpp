// The tool's engines on several threads: each engine receives the library
// lines of its own calls only, through the library's log handler.
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "engine/engine.h"
#include "support/stdout_capture.h"

using namespace ostrel_tool;

namespace {

bool mentions(const std::vector<std::string> &lines, const std::string &text) {
    for (const std::string &line : lines) {
        if (line.find(text) != std::string::npos) return true;
    }
    return false;
}

TEST(EngineThreads, EachEngineSeesTheLinesOfItsOwnCalls) {
    constexpr int kThreads = 2;
    constexpr int kCalls = 200;
    std::vector<int> own_lines(kThreads, 0), foreign_lines(kThreads, 0);
    const std::string leaked = ostrel_test::capture_stdout([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                Engine engine;
                const std::string mine = "/nonexistent/thread" + std::to_string(t) + ".model";
                const std::string other = "/nonexistent/thread" + std::to_string(1 - t) + ".model";
                for (int i = 0; i < kCalls; ++i) {
                    engine.check_model(mine);
                    if (mentions(engine.last_lines(), mine)) ++own_lines[t];
                    if (mentions(engine.last_lines(), other)) ++foreign_lines[t];
                }
            });
        }
        for (std::thread &thread : threads) thread.join();
    });
    EXPECT_EQ(leaked, "");
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(own_lines[t], kCalls);
        EXPECT_EQ(foreign_lines[t], 0);
    }
}

}  // namespace
