// The ostrel command line: parses the arguments, runs the chosen command and
// turns every failure into one line on standard error and an exit code.
#pragma once

namespace ostrel_tool {

int run_cli(int argc, const char *const *argv);

}  // namespace ostrel_tool
