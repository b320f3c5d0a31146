#include "evaluation/left_out_pictures.h"

#include <filesystem>
#include <memory>

#include "cli/tool_error.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

void LeftOutPictures::add_skip(const std::string &path, const LabelSet &set) {
    const PictureIndex index(set);
    std::vector<size_t> meant;
    const bool bare_name = !fs::path(path).has_parent_path();
    for (size_t i = 0; i < set.pictures.size(); ++i) {
        const LabelledPicture &p = set.pictures[i];
        const std::string where = p.picture_path.empty() ? p.name : p.picture_path;
        if (bare_name ? fs::path(where).filename() == path : index.find(path) == static_cast<long>(i)) {
            meant.push_back(i);
        }
    }
    if (meant.empty()) {
        throw usage_error("--skip '" + path + "' names no picture of the labels");
    }
    auto names = std::make_shared<std::vector<std::string>>();
    for (size_t i : meant) {
        const LabelledPicture &p = set.pictures[i];
        names->push_back(p.picture_path.empty() ? p.name : p.picture_path);
    }
    rules_.push_back([names, path](const LabelledPicture &p) -> std::optional<std::string> {
        const std::string &where = p.picture_path.empty() ? p.name : p.picture_path;
        for (const auto &n : *names) {
            if (n == where) {
                return "--skip " + path;
            }
        }
        return std::nullopt;
    });
}

std::optional<std::string> LeftOutPictures::reason(const LabelledPicture &picture) const {
    for (const Rule &rule : rules_) {
        if (auto why = rule(picture)) {
            return why;
        }
    }
    return std::nullopt;
}

}  // namespace ostrel_tool
