#include "tool_output.h"

#include <unistd.h>

#include <cstdarg>
#include <vector>

namespace ostrel_tool {

namespace {
std::FILE *g_tool_out = nullptr;
}

void init_tool_out() {
    if (g_tool_out != nullptr) {
        return;
    }
    std::fflush(stdout);
    const int fd = ::dup(STDOUT_FILENO);
    if (fd < 0) {
        return;  // keep writing to stdout; only the separation is lost
    }
    g_tool_out = ::fdopen(fd, "w");
    if (g_tool_out == nullptr) {
        ::close(fd);
        return;
    }
    std::setvbuf(g_tool_out, nullptr, _IOLBF, 0);
}

void close_tool_out() {
    if (g_tool_out != nullptr) {
        std::fclose(g_tool_out);
        g_tool_out = nullptr;
    }
}

std::FILE *tool_out() { return g_tool_out != nullptr ? g_tool_out : stdout; }

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

void print(const std::string &text) { std::fwrite(text.data(), 1, text.size(), tool_out()); }

void println(const std::string &text) {
    print(text);
    std::fputc('\n', tool_out());
}

void warn(const std::string &text) {
    std::fflush(tool_out());
    std::fprintf(stderr, "ostrel: warning: %s\n", text.c_str());
}

}  // namespace ostrel_tool
