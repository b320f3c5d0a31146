// Captures what a piece of code writes to standard output, so that tests can
// compare the library's log lines exactly.
#pragma once

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace ostrel_test {

template <typename Action>
std::string capture_stdout(Action &&action) {
    testing::internal::CaptureStdout();
    std::forward<Action>(action)();
    return testing::internal::GetCapturedStdout();
}

}  // namespace ostrel_test
