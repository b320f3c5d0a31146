#include "safe_names.h"

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

std::string lower_extension(const std::string &name) {
    const size_t dot = name.find_last_of('.');
    if (dot == std::string::npos || dot == 0 || name.find_first_of("/\\", dot) != std::string::npos) {
        return {};
    }
    std::string ext = name.substr(dot);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
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
