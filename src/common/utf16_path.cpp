#include "common/utf16_path.h"

#include <cstdint>

#if defined(_WIN32)
#include <malloc.h>
#include <windows.h>
#endif

namespace ostrel {

namespace {

bool is_high_surrogate(uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool is_low_surrogate(uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// Counts the units before the terminator and checks that every surrogate has
// its other half. The count stops one past the limit, so that an unending or
// huge string is never read further than that.
Utf16PathResult measure(const ostrel_alg_utf16 *path, size_t *units) {
    size_t n = 0;
    while (path[n] != 0) {
        if (++n > kMaxUtf16PathUnits) {
            return Utf16PathResult::too_long;
        }
    }
    for (size_t i = 0; i < n; ++i) {
        const uint32_t unit = static_cast<uint16_t>(path[i]);
        if (is_high_surrogate(unit)) {
            if (i + 1 >= n || !is_low_surrogate(static_cast<uint16_t>(path[i + 1]))) {
                return Utf16PathResult::invalid_utf16;
            }
            ++i;
        } else if (is_low_surrogate(unit)) {
            return Utf16PathResult::invalid_utf16;
        }
    }
    *units = n;
    return Utf16PathResult::converted;
}

#if defined(_WIN32)

// Not inlined: the stack buffer is released when this returns.
__attribute__((noinline)) Utf16PathResult to_thread_code_page(const ostrel_alg_utf16 *path, size_t units,
                                                              std::string *out) {
    const size_t with_terminator = units + 1;
    const int capacity = static_cast<int>(2 * with_terminator);
    char *buffer = static_cast<char *>(_alloca((static_cast<size_t>(capacity) + 15) & ~static_cast<size_t>(15)));
    buffer[0] = '\0';
    const int written = WideCharToMultiByte(CP_THREAD_ACP, 0, path, -1, buffer, capacity, nullptr, nullptr);
    if (written <= 0) {
        return Utf16PathResult::conversion_failed;
    }
    out->assign(buffer, static_cast<size_t>(written - 1));  // without the terminator
    return Utf16PathResult::converted;
}

#else

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

// The path has been checked: every surrogate is paired.
Utf16PathResult to_utf8(const ostrel_alg_utf16 *path, size_t units, std::string *out) {
    out->reserve(units);
    for (size_t i = 0; i < units; ++i) {
        const uint32_t unit = static_cast<uint16_t>(path[i]);
        if (is_high_surrogate(unit)) {
            const uint32_t low = static_cast<uint16_t>(path[++i]);
            append_utf8(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00), out);
        } else {
            append_utf8(unit, out);
        }
    }
    return Utf16PathResult::converted;
}

#endif

}  // namespace

Utf16PathResult utf16_path_to_narrow(const ostrel_alg_utf16 *path, std::string *out) {
    out->clear();
    if (path == nullptr) {
        return Utf16PathResult::null_path;
    }
    size_t units = 0;
    const Utf16PathResult checked = measure(path, &units);
    if (checked != Utf16PathResult::converted) {
        return checked;
    }
#if defined(_WIN32)
    const Utf16PathResult result = to_thread_code_page(path, units, out);
#else
    const Utf16PathResult result = to_utf8(path, units, out);
#endif
    if (result != Utf16PathResult::converted) {
        out->clear();
    }
    return result;
}

}  // namespace ostrel
