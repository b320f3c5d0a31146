// The tool's own standard output.
//
// The library prints its log lines to standard output (file descriptor 1).
// Around every library call the tool points descriptor 1 at a pipe (see
// library_output.h) so that those lines never mix with results. The tool
// itself therefore writes through tool_out(), a stream on a duplicate of the
// original descriptor 1 that the redirection does not touch.
#pragma once

#include <cstdio>
#include <string>

namespace ostrel_tool {

// Makes tool_out() a line-buffered stream on a duplicate of descriptor 1.
// Called once by run_cli(); before that (in unit tests) tool_out() is stdout.
void init_tool_out();
// Flushes and closes the duplicate; tool_out() is stdout again afterwards.
void close_tool_out();

std::FILE *tool_out();

// printf-style formatting into a std::string.
std::string strformat(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Writes text to tool_out() as it is (no newline added).
void print(const std::string &text);
// Writes text and a newline to tool_out().
void println(const std::string &text);
// Writes one line to standard error: "ostrel: warning: <text>".
void warn(const std::string &text);

}  // namespace ostrel_tool
