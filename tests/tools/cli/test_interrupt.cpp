// The interrupt guard of batch runs: the first SIGINT or SIGTERM sets the
// flag and leaves the process running; the guard restores the old handlers.
#include <csignal>

#include <gtest/gtest.h>

#include "cli/interrupt.h"

using namespace ostrel_tool;

namespace {
volatile std::sig_atomic_t g_old_handler_calls = 0;
extern "C" void old_handler(int) { g_old_handler_calls = g_old_handler_calls + 1; }
}  // namespace

TEST(InterruptGuard, FirstSignalOnlySetsTheFlag) {
    InterruptGuard::reset();
    {
        InterruptGuard guard;
        EXPECT_FALSE(InterruptGuard::requested());
        std::raise(SIGINT);
        EXPECT_TRUE(InterruptGuard::requested());
        EXPECT_EQ(InterruptGuard::signal_number(), SIGINT);
    }
    InterruptGuard::reset();
    {
        InterruptGuard guard;
        std::raise(SIGTERM);
        EXPECT_EQ(InterruptGuard::signal_number(), SIGTERM);
    }
    InterruptGuard::reset();
}

TEST(InterruptGuard, RestoresTheHandlersBefore) {
    auto previous = std::signal(SIGINT, old_handler);
    { InterruptGuard guard; }
    std::raise(SIGINT);
    EXPECT_EQ(g_old_handler_calls, 1);
    EXPECT_FALSE(InterruptGuard::requested());
    std::signal(SIGINT, previous);
}

TEST(InterruptGuard, IgnoredSignalStaysIgnored) {
    auto previous = std::signal(SIGINT, SIG_IGN);
    InterruptGuard::reset();
    {
        InterruptGuard guard;
        std::raise(SIGINT);
        EXPECT_FALSE(InterruptGuard::requested());
    }
    std::signal(SIGINT, previous);
}
