#include "studio/safe_names.h"

#include <algorithm>
#include <cctype>

namespace ostrel_tool {
namespace studio {

namespace fs = std::filesystem;

bool is_plain_file_name(const std::string &name) {
    if (name.empty() || name.size() > 255 || name == "." || name == ".." || name.front() == '.') {
        return false;
    }
    for (const char c : name) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '/' || c == '\\' || u < 0x20 || u == 0x7f) {
            return false;
        }
    }
    return true;
}

namespace {

// The length of the well-formed UTF-8 character at s[i], 0 when there is none.
size_t utf8_length_at(const std::string &s, size_t i) {
    const auto byte = [&](size_t k) { return k < s.size() ? static_cast<unsigned char>(s[k]) : 0u; };
    const unsigned c = byte(i);
    const auto continuation = [&](size_t k, unsigned low, unsigned high) {
        const unsigned b = byte(k);
        return k < s.size() && b >= low && b <= high;
    };
    if (c < 0x80) return 1;
    if (c >= 0xc2 && c <= 0xdf) return continuation(i + 1, 0x80, 0xbf) ? 2 : 0;
    if (c >= 0xe0 && c <= 0xef) {
        const unsigned low = c == 0xe0 ? 0xa0 : 0x80;   // no overlong forms
        const unsigned high = c == 0xed ? 0x9f : 0xbf;  // no surrogates
        return continuation(i + 1, low, high) && continuation(i + 2, 0x80, 0xbf) ? 3 : 0;
    }
    if (c >= 0xf0 && c <= 0xf4) {
        const unsigned low = c == 0xf0 ? 0x90 : 0x80;
        const unsigned high = c == 0xf4 ? 0x8f : 0xbf;  // nothing above U+10FFFF
        return continuation(i + 1, low, high) && continuation(i + 2, 0x80, 0xbf) && continuation(i + 3, 0x80, 0xbf) ? 4
                                                                                                                    : 0;
    }
    return 0;
}

}  // namespace

std::string ascii_lower(std::string text) {
    for (char &c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

bool is_utf8(const std::string &text) {
    for (size_t i = 0; i < text.size();) {
        const size_t n = utf8_length_at(text, i);
        if (n == 0) return false;
        i += n;
    }
    return true;
}

std::string listing_name(const std::string &file_name) {
    if (is_utf8(file_name)) {
        return file_name;
    }
    static const char hex[] = "0123456789ABCDEF";
    std::string name;
    for (size_t i = 0; i < file_name.size();) {
        const size_t n = utf8_length_at(file_name, i);
        if (n == 0 || file_name[i] == '%') {
            const unsigned char b = static_cast<unsigned char>(file_name[i]);
            name += '%';
            name += hex[b >> 4];
            name += hex[b & 15];
            ++i;
        } else {
            name.append(file_name, i, n);
            i += n;
        }
    }
    return name;
}

std::string lower_extension(const std::string &name) {
    const size_t dot = name.find_last_of('.');
    if (dot == std::string::npos || dot == 0 || name.find_first_of("/\\", dot) != std::string::npos) {
        return {};
    }
    return ascii_lower(name.substr(dot));
}

std::string upload_file_name(const std::string &suggested, const std::string &extension) {
    std::string base = suggested;
    const size_t slash = base.find_last_of("/\\");
    if (slash != std::string::npos) {
        base = base.substr(slash + 1);
    }
    for (char &c : base) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (!(std::isalnum(u) || c == '.' || c == '-' || c == '_' || c == ' ') || u >= 0x80) {
            c = '_';
        }
    }
    const size_t start = base.find_first_not_of(". ");
    base = start == std::string::npos ? std::string() : base.substr(start);

    std::string ext = lower_extension(base);
    std::string stem = ext.empty() ? base : base.substr(0, base.size() - ext.size());
    const bool same_format = ext == extension || (extension == ".jpg" && ext == ".jpeg");
    if (!same_format) {
        // A name like "cells.png" for JPEG bytes keeps "cells.png" as its stem
        // part, so the person still recognises it.
        stem = base;
        ext = extension;
    }
    if (stem.size() > 80) {
        stem.resize(80);
    }
    while (!stem.empty() && (stem.back() == ' ' || stem.back() == '.')) {
        stem.pop_back();
    }
    if (stem.empty()) {
        stem = "picture";
    }
    return stem + ext;
}

bool lies_inside(const fs::path &canonical_folder, const fs::path &path) {
    std::error_code ec;
    const fs::path resolved = fs::canonical(path, ec);
    if (ec) {
        return false;
    }
    auto f = canonical_folder.begin();
    auto p = resolved.begin();
    for (; f != canonical_folder.end(); ++f, ++p) {
        if (p == resolved.end() || *f != *p) {
            return false;
        }
    }
    return p != resolved.end();  // strictly below the folder, not the folder itself
}

}  // namespace studio
}  // namespace ostrel_tool
