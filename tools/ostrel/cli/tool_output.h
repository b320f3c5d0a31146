// The tool's own standard output.
//
// The library's log lines never reach standard output: every engine of the
// tool routes them to the library's log handler (see engine.h). The tool
// writes its results through tool_out(), which is standard output, line
// buffered, so that results and progress lines appear as they are made.
#pragma once

#include <cstdio>
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

// Writes text to tool_out() as it is (no newline added).
void print(const std::string &text);
// Writes text and a newline to tool_out().
void println(const std::string &text);
// Text that stays one line wherever the tool writes it: control characters
// (C0, DEL and C1) and bytes that are not UTF-8 become escapes (\n, \r, \t,
// \xHH); everything else is written as it is. With escape_backslashes a
// backslash becomes \\ too, so that no name can pass for an escape (file
// names in the detection lines); messages keep theirs, as Windows paths
// hold them.
std::string printable_text(const std::string &text, bool escape_backslashes);

// Writes one line to standard error: "ostrel: <text>", with text made
// printable (above), so that a file name in a message can never start a
// line of its own or send the terminal a control sequence. Flushes the
// tool's standard output first, so the order of the two streams is kept.
void complain(const std::string &text);

// Writes one line to standard error: "ostrel: warning: <text>" (as complain).
void warn(const std::string &text);

}  // namespace ostrel_tool
