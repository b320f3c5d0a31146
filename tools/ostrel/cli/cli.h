// The ostrel command line: parses the arguments, runs the chosen command and
// turns every failure into one line on standard error and an exit code.
#pragma once

namespace ostrel_tool {

int run_cli(int argc, const char *const *argv);

// The tool's version (the project's, from the public header at build time):
// what `ostrel --version` prints after the name and the studio's page shows.
const char *tool_version();

}  // namespace ostrel_tool
