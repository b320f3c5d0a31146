#include "tool_output.h"

#include <cstdarg>
#include <vector>

namespace ostrel_tool {

void init_tool_out() { std::setvbuf(stdout, nullptr, _IOLBF, 0); }

void close_tool_out() { std::fflush(stdout); }

std::FILE *tool_out() { return stdout; }

std::string strformat(const char *format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int size = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text;
    if (size > 0) {
        std::vector<char> buffer(static_cast<size_t>(size) + 1);
        std::vsnprintf(buffer.data(), buffer.size(), format, args);
        text.assign(buffer.data(), static_cast<size_t>(size));
    }
    va_end(args);
    return text;
}

namespace {
std::function<void(const std::string &)> &result_sink() {
    static std::function<void(const std::string &)> sink;
    return sink;
}
}  // namespace

ResultSink::ResultSink(std::function<void(const std::string &text)> sink) { result_sink() = std::move(sink); }

ResultSink::~ResultSink() { result_sink() = nullptr; }

void print(const std::string &text) {
    if (result_sink()) {
        result_sink()(text);
        return;
    }
    std::fwrite(text.data(), 1, text.size(), tool_out());
}

void println(const std::string &text) {
    print(text);
    std::fputc('\n', tool_out());
}

void warn(const std::string &text) {
    std::fflush(tool_out());
    std::fprintf(stderr, "ostrel: warning: %s\n", text.c_str());
}

}  // namespace ostrel_tool
