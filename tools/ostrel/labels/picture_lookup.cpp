#include "labels/picture_lookup.h"

#include <cctype>
#include <algorithm>
#include <fstream>

#include "cli/tool_error.h"
#include "files/picture.h"
#include "files/picture_file.h"
#include "files/picture_header.h"
#include "labels/label_text.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

namespace {
// A JPEG's size lies in its first start-of-frame segment, after the
// metadata segments (an embedded thumbnail among them), which rarely take
// more than this.
constexpr size_t kHeaderBytes = 512 * 1024;
}  // namespace

bool is_picture_file_name(const fs::path &path) {
    static const char *exts[] = {".jpg", ".jpeg", ".png", ".bmp", ".tif", ".tiff", ".webp", ".ppm", ".pgm"};
    const std::string e = ascii_lowered(path.extension().string());
    return std::any_of(std::begin(exts), std::end(exts), [&](const char *x) { return e == x; });
}

void find_picture(LabelledPicture &picture, const std::vector<fs::path> &folders) {
    std::error_code ec;
    picture.looked_in.clear();
    const fs::path name = fs::path(picture.name);
    if (name.is_absolute()) {
        picture.looked_in.push_back(name.parent_path().string());
        if (fs::is_regular_file(name, ec)) {
            picture.picture_path = name.string();
            return;
        }
    }
    for (const auto &folder : folders) {
        picture.looked_in.push_back(folder.string());
        if (!name.is_absolute() && fs::is_regular_file(folder / name, ec)) {
            picture.picture_path = (folder / name).string();
            return;
        }
    }
    if (name.has_parent_path()) {
        for (const auto &folder : folders) {
            if (fs::is_regular_file(folder / name.filename(), ec)) {
                picture.picture_path = (folder / name.filename()).string();
                return;
            }
        }
    }
}

void picture_size(const std::string &path, int &width, int &height) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw input_error("cannot open picture '" + path + "'");
    }
    std::string head(kHeaderBytes, '\0');
    in.read(&head[0], static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(in.gcount()));
    const PictureHeader header = read_picture_header(head);
    if (header.format != PictureFormat::unknown && header.width > 0 && header.height > 0 && header.width <= 1000000 &&
        header.height <= 1000000) {
        width = static_cast<int>(header.width);
        height = static_cast<int>(header.height);
        return;
    }
    const Picture picture = load_picture(path);  // other formats: decoded, within the pixel limit
    width = picture.width();
    height = picture.height();
}

void fill_picture_sizes(LabelSet &set) {
    for (auto &p : set.pictures) {
        if ((p.width <= 0 || p.height <= 0) && !p.picture_path.empty()) {
            picture_size(p.picture_path, p.width, p.height);
        }
    }
}

std::string picture_name_for(const std::string &picture_path, const fs::path &base) {
    std::error_code ec;
    const fs::path relative = fs::relative(picture_path, base.empty() ? fs::path(".") : base, ec);
    if (!ec && !relative.empty()) {
        const std::string text = relative.generic_string();
        if (text.rfind("..", 0) != 0) {
            return text;
        }
    }
    return fs::path(picture_path).generic_string();
}

namespace {
std::string canonical_text(const std::string &path) {
    std::error_code ec;
    const fs::path canonical = fs::weakly_canonical(path, ec);
    return ec ? fs::path(path).lexically_normal().string() : canonical.string();
}
}  // namespace

PictureIndex::PictureIndex(const LabelSet &set) {
    for (size_t i = 0; i < set.pictures.size(); ++i) {
        const LabelledPicture &p = set.pictures[i];
        const std::string &where = p.picture_path.empty() ? p.name : p.picture_path;
        by_path_.emplace(canonical_text(where), static_cast<long>(i));
        const std::string name = fs::path(where).filename().string();
        auto it = by_name_.find(name);
        if (it == by_name_.end()) {
            by_name_.emplace(name, static_cast<long>(i));
        } else {
            it->second = -2;
        }
    }
}

long PictureIndex::find(const std::string &path) const {
    const auto it = by_path_.find(canonical_text(path));
    if (it != by_path_.end()) {
        return it->second;
    }
    const auto named = by_name_.find(fs::path(path).filename().string());
    return named != by_name_.end() && named->second >= 0 ? named->second : -1;
}

}  // namespace ostrel_tool
