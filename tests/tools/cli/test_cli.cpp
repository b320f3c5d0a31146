// The command line in-process: usage errors and input errors give their exit
// codes before any work is done.
#include <gtest/gtest.h>

#include "cli/cli.h"
#include "cli/exit_codes.h"
#include "support/test_data.h"

using namespace ostrel_tool;

namespace {
int run(std::vector<std::string> args) {
    std::vector<const char *> argv{"ostrel"};
    for (const auto &a : args) {
        argv.push_back(a.c_str());
    }
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const int code = run_cli(static_cast<int>(argv.size()), argv.data());
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    return code;
}
}  // namespace

TEST(Cli, HelpSucceeds) {
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_EQ(run({"train", "--help"}), 0);
}

TEST(Cli, UsageErrorsExitWithTwo) {
    EXPECT_EQ(run({}), to_int(ExitCode::usage));
    EXPECT_EQ(run({"nonsense"}), to_int(ExitCode::usage));
    EXPECT_EQ(run({"train", ostrel_test::data_path("bccd/images/BloodImage_00000.jpg"), "--box", "1,2,3", "--model",
                   "/tmp/ostrel_never.model"}),
              to_int(ExitCode::usage));
}

TEST(Cli, InputErrorsExitWithThree) {
    EXPECT_EQ(run({"info", "/nonexistent/model"}), to_int(ExitCode::input));
    EXPECT_EQ(run({"channels", "/nonexistent/picture.png"}), to_int(ExitCode::input));
}

TEST(Cli, ErrorIsOneLineOnStandardError) {
    const char *argv[] = {"ostrel", "info", "/nonexistent/model"};
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    run_cli(3, argv);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "ostrel: cannot open model '/nonexistent/model': no such file\n");
}
