// The one error type of the tool: a message for the user and the exit code
// the process ends with. Commands throw it; run_cli() prints the message as
// one line on standard error and returns the code.
#pragma once

#include <stdexcept>
#include <string>

#include "cli/exit_codes.h"

namespace ostrel_tool {

class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode code, const std::string &message) : std::runtime_error(message), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

// Shorthands for the three kinds of failure a user can cause.
inline ToolError usage_error(const std::string &message) { return ToolError(ExitCode::usage, message); }
inline ToolError input_error(const std::string &message) { return ToolError(ExitCode::input, message); }
inline ToolError output_error(const std::string &message) { return ToolError(ExitCode::output, message); }

}  // namespace ostrel_tool
