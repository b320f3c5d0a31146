#include "common/utf16_path.h"

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace ostrel {

namespace {

// Longest path, in UTF-16 units with its terminator, that is converted.
constexpr size_t kMaxPathUnits = 0x40000000;

void append_utf8(uint32_t code_point, std::string *out) {
    if (code_point < 0x80) {
        out->push_back(static_cast<char>(code_point));
    } else if (code_point < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (code_point >> 6)));
        out->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
    } else if (code_point < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (code_point >> 12)));
        out->push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
    } else {
        out->push_back(static_cast<char>(0xF0 | (code_point >> 18)));
        out->push_back(static_cast<char>(0x80 | ((code_point >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
    }
}

}  // namespace

bool utf16_path_to_narrow(const ostrel_alg_utf16 *path, std::string *out) {
    out->clear();
    if (path == nullptr) {
        return false;
    }
    size_t units = 0;
    while (path[units] != 0) {
        if (++units + 1 >= kMaxPathUnits) {
            return false;
        }
    }
#if defined(_WIN32)
    const int capacity = static_cast<int>(2 * (units + 1));
    std::string converted(static_cast<size_t>(capacity), '\0');
    const int written = WideCharToMultiByte(3 /* CP_THREAD_ACP */, 0, path, -1, &converted[0], capacity, nullptr,
                                            nullptr);
    if (written <= 0) {
        return false;
    }
    converted.resize(static_cast<size_t>(written - 1));  // drop the terminator
    *out = std::move(converted);
    return true;
#else
    std::string converted;
    converted.reserve(units);
    for (size_t i = 0; i < units; ++i) {
        const uint32_t unit = static_cast<uint16_t>(path[i]);
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            const uint32_t low = (i + 1 < units) ? static_cast<uint16_t>(path[i + 1]) : 0;
            if (low < 0xDC00 || low > 0xDFFF) {
                return false;  // high surrogate without its low half
            }
            append_utf8(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00), &converted);
            ++i;
        } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
            return false;  // low surrogate without its high half
        } else {
            append_utf8(unit, &converted);
        }
    }
    *out = std::move(converted);
    return true;
#endif
}

}  // namespace ostrel
