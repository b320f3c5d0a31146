#include "studio/web_assets.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "cli/tool_error.h"

#ifndef OSTREL_STUDIO_SOURCE_WEB_DIR
#define OSTREL_STUDIO_SOURCE_WEB_DIR ""
#endif

namespace ostrel_tool {
namespace studio {

namespace fs = std::filesystem;

WebAssets::WebAssets(const std::string &folder) {
    static const std::pair<const char *, const char *> files[] = {
        {"index.html", "text/html; charset=utf-8"},
        {"studio.css", "text/css; charset=utf-8"},
        {"studio.js", "text/javascript; charset=utf-8"},
        {"viewer.js", "text/javascript; charset=utf-8"},
        {"icon.svg", "image/svg+xml"},
    };
    for (const auto &f : files) {
        const fs::path path = fs::path(folder) / f.first;
        std::ifstream in(path, std::ios::binary);
        std::ostringstream content;
        content << in.rdbuf();
        if (!in) {
            throw input_error("the studio's page file '" + path.string() + "' cannot be read");
        }
        assets_["/" + std::string(f.first)] = {f.second, content.str()};
    }
}

const WebAsset *WebAssets::find(const std::string &path) const {
    const auto it = assets_.find(path == "/" ? "/index.html" : path);
    return it == assets_.end() ? nullptr : &it->second;
}

std::string find_web_folder() {
    std::vector<fs::path> candidates;
    if (const char *env = std::getenv("OSTREL_STUDIO_WEB")) {
        candidates.emplace_back(env);
    }
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        candidates.push_back(exe.parent_path().parent_path() / "share" / "ostrel" / "studio");
    }
    candidates.emplace_back(OSTREL_STUDIO_SOURCE_WEB_DIR);
    for (const fs::path &c : candidates) {
        if (!c.empty() && fs::is_regular_file(c / "index.html", ec)) {
            return c.string();
        }
    }
    return {};
}

}  // namespace studio
}  // namespace ostrel_tool
