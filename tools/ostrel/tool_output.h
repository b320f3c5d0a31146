// The tool's own standard output.
//
// The library's log lines never reach standard output: every engine of the
// tool routes them to the library's log handler (see engine.h). The tool
// writes its results through tool_out(), which is standard output, line
// buffered, so that results and progress lines appear as they are made.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

namespace ostrel_tool {

// Makes standard output line buffered. Called once by run_cli() before
// anything is written.
void init_tool_out();
// Flushes what the tool wrote.
void close_tool_out();

std::FILE *tool_out();

// printf-style formatting into a std::string.
std::string strformat(const char *format, ...) __attribute__((format(printf, 1, 2)));

// While a ResultSink lives, print() hands its text to the sink instead of
// writing it (detect --format turns the result lines into another format).
// Used on the main thread only.
class ResultSink {
public:
    explicit ResultSink(std::function<void(const std::string &text)> sink);
    ~ResultSink();
    ResultSink(const ResultSink &) = delete;
    ResultSink &operator=(const ResultSink &) = delete;
};

// Writes text to tool_out() as it is (no newline added).
void print(const std::string &text);
// Writes text and a newline to tool_out().
void println(const std::string &text);
// Writes one line to standard error: "ostrel: warning: <text>".
void warn(const std::string &text);

}  // namespace ostrel_tool
