#include "cli/tool_output.h"

#include <cstdarg>
#include <vector>

namespace ostrel_tool {

namespace {

// The length of the valid UTF-8 sequence that starts at text[i] (1 to 4),
// or 0 when the bytes there are not one (overlong forms, surrogates and
// code points above U+10FFFF are not).
size_t utf8_sequence_length(const std::string &text, size_t i) {
    const auto byte = [&](size_t k) { return i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0u; };
    const auto continuation = [&](size_t k) { return (byte(k) & 0xC0u) == 0x80u; };
    const unsigned lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return continuation(1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned high = lead == 0xED ? 0x9F : 0xBF;
        return byte(1) >= low && byte(1) <= high && continuation(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;
        return byte(1) >= low && byte(1) <= high && continuation(2) && continuation(3) ? 4 : 0;
    }
    return 0;
}

}  // namespace

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

void print(const std::string &text) { std::fwrite(text.data(), 1, text.size(), tool_out()); }

void println(const std::string &text) {
    print(text);
    std::fputc('\n', tool_out());
}

std::string printable_text(const std::string &text, bool escape_backslashes) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t length = utf8_sequence_length(text, i);
        // U+0080..U+009F are C2 80..C2 9F in UTF-8.
        const bool c1_control = length == 2 && c == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        if (length == 0 || c1_control || c < 0x20 || c == 0x7F) {
            const size_t bytes = c1_control ? 2 : 1;
            for (size_t k = 0; k < bytes; ++k) {
                const unsigned char b = static_cast<unsigned char>(text[i + k]);
                out += b == '\n'   ? std::string("\\n")
                       : b == '\r' ? std::string("\\r")
                       : b == '\t' ? std::string("\\t")
                                   : strformat("\\x%02x", b);
            }
            i += bytes;
        } else if (c == '\\' && escape_backslashes) {
            out += "\\\\";
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
    return out;
}

void complain(const std::string &text) {
    std::fflush(tool_out());
    const std::string line = "ostrel: " + printable_text(text, false) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

void warn(const std::string &text) { complain("warning: " + text); }

}  // namespace ostrel_tool
