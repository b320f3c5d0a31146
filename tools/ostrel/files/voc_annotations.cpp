#include "files/voc_annotations.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include <pugixml.hpp>

#include "cli/tool_error.h"
#include "labels/label_text.h"

namespace ostrel_tool {

namespace {

namespace fs = std::filesystem;

// Annotation files are read with pugixml (Debian's libpugixml): it handles
// what labelling tools write and a tag scanner gets wrong - attributes on
// elements, entities and character references, CDATA sections, comments,
// byte-order marks and UTF-16, and Latin-1 files that say so in their
// declaration - and it reports malformed XML with an offset.

std::optional<double> parse_number(const std::string &text) {
    if (text.empty()) {
        return std::nullopt;
    }
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !std::isfinite(value) || std::fabs(value) > 1e9) {
        return std::nullopt;
    }
    return value;
}

int rounded(double v) { return static_cast<int>(std::lround(v)); }

// <difficult> and <truncated> hold 0/1 in VOC itself; some tools write
// true/false instead.
bool flag_value(const std::optional<std::string> &text) {
    if (!text) {
        return false;
    }
    const std::string v = ascii_lowered(*text);
    if (v == "true" || v == "yes") {
        return true;
    }
    const auto number = parse_number(v);
    return number && *number != 0.0;
}

}  // namespace

bool looks_like_xml(const std::string &text) {
    // UTF-16 files start with a byte-order mark and '<' as two bytes.
    if (text.rfind("\xFF\xFE<", 0) == 0 || text.rfind(std::string("\xFE\xFF\0<", 4), 0) == 0) {
        return true;
    }
    const size_t first = text.find_first_not_of(" \t\r\n\xEF\xBB\xBF");
    return first != std::string::npos && text[first] == '<';
}

VocAnnotation parse_voc_annotation(const std::string &xml, const std::string &source) {
    pugi::xml_document document;
    const pugi::xml_parse_result parsed =
        document.load_buffer(xml.data(), xml.size(), pugi::parse_default, declared_xml_encoding(xml));
    if (!parsed) {
        throw input_error("'" + source + "' is not well-formed XML: " + parsed.description() + " at byte " +
                          std::to_string(parsed.offset));
    }
    const pugi::xml_node root = document.child("annotation");
    if (!root) {
        throw input_error("'" + source + "' is not a Pascal VOC annotation: no <annotation> element");
    }
    VocAnnotation annotation;
    if (auto filename = child_text(root, "filename")) {
        annotation.filename = *filename;
    }
    if (auto path = child_text(root, "path")) {
        annotation.path = *path;
    }
    if (const pugi::xml_node size = root.child("size")) {
        auto w = parse_number(child_text(size, "width").value_or(""));
        auto h = parse_number(child_text(size, "height").value_or(""));
        annotation.width = w ? rounded(*w) : 0;
        annotation.height = h ? rounded(*h) : 0;
    }
    int index = 0;
    for (const pugi::xml_node &object : root.children("object")) {
        ++index;
        const std::string where = "'" + source + "', object " + std::to_string(index);
        VocObject obj;
        obj.name = child_text(object, "name").value_or("");
        if (obj.name.empty()) {
            throw input_error(where + ": no <name>");
        }
        obj.difficult = flag_value(child_text(object, "difficult"));
        obj.truncated = flag_value(child_text(object, "truncated"));
        obj.occluded = flag_value(child_text(object, "occluded"));
        for (const char *tag : {"score", "confidence"}) {
            if (auto text = child_text(object, tag)) {
                if (auto number = parse_number(*text)) {
                    obj.score = *number;
                    break;
                }
            }
        }
        const pugi::xml_node bndbox = object.child("bndbox");
        if (!bndbox) {
            throw input_error(where + ": no <bndbox>");
        }
        double v[4];
        const char *names[4] = {"xmin", "ymin", "xmax", "ymax"};
        for (int i = 0; i < 4; ++i) {
            auto text = child_text(bndbox, names[i]);
            auto number = text ? parse_number(*text) : std::nullopt;
            if (!number) {
                throw input_error(where + ": <" + names[i] + "> is missing or not a number");
            }
            v[i] = *number;
        }
        const int xmin = rounded(v[0]), ymin = rounded(v[1]), xmax = rounded(v[2]), ymax = rounded(v[3]);
        if (xmax < xmin || ymax < ymin) {
            throw input_error(where + ": xmax/ymax lie before xmin/ymin");
        }
        obj.box.x = std::max(xmin - 1, 0);
        obj.box.y = std::max(ymin - 1, 0);
        obj.box.w = xmax - obj.box.x;
        obj.box.h = ymax - obj.box.y;
        annotation.objects.push_back(obj);
    }
    return annotation;
}

namespace {
std::string read_text_file(const std::string &path, const char *what) {
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        throw input_error(std::string("cannot open ") + what + " '" + path + "': no such file");
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw input_error(std::string("cannot read ") + what + " '" + path + "'");
    }
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}
}  // namespace

VocAnnotation read_voc_annotation(const std::string &path) {
    return parse_voc_annotation(read_text_file(path, "annotation file"), path);
}

std::vector<VocObject> objects_of_class(const VocAnnotation &annotation, const std::string &name) {
    std::vector<VocObject> out;
    for (const auto &o : annotation.objects) {
        if (o.name == name) {
            out.push_back(o);
        }
    }
    return out;
}

std::vector<Rect> boxes_of_class(const VocAnnotation &annotation, const std::string &name) {
    std::vector<Rect> out;
    for (const auto &o : objects_of_class(annotation, name)) {
        out.push_back(o.box);
    }
    return out;
}

namespace {

bool is_picture_extension(const fs::path &p) {
    static const char *exts[] = {".jpg", ".jpeg", ".png", ".bmp", ".tif", ".tiff", ".webp", ".ppm", ".pgm"};
    const std::string e = ascii_lowered(p.extension().string());
    return std::any_of(std::begin(exts), std::end(exts), [&](const char *x) { return e == x; });
}

std::optional<fs::path> first_existing_dir(const fs::path &base, std::initializer_list<const char *> names) {
    std::error_code ec;
    for (const char *n : names) {
        if (fs::is_directory(base / n, ec)) {
            return base / n;
        }
    }
    return std::nullopt;
}

}  // namespace

std::vector<VocItem> read_voc_folder(const std::string &dir, bool use_path_element) {
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        throw input_error("cannot open VOC folder '" + dir + "': no such folder");
    }
    const fs::path base(dir);
    const fs::path annotations = first_existing_dir(base, {"Annotations", "annotations"}).value_or(base);
    const fs::path pictures = first_existing_dir(base, {"JPEGImages", "images", "Images"}).value_or(annotations);

    std::vector<fs::path> xml_files;
    for (const auto &entry : fs::directory_iterator(annotations, ec)) {
        if (entry.is_regular_file() && ascii_lowered(entry.path().extension().string()) == ".xml") {
            xml_files.push_back(entry.path());
        }
    }
    if (xml_files.empty()) {
        throw input_error("VOC folder '" + dir + "' holds no annotation (.xml) file");
    }
    std::sort(xml_files.begin(), xml_files.end());

    std::vector<VocItem> items;
    for (const auto &xml : xml_files) {
        VocItem item;
        item.annotation_path = xml.string();
        item.annotation = read_voc_annotation(item.annotation_path);
        std::optional<fs::path> picture;
        if (!item.annotation.filename.empty() && fs::is_regular_file(pictures / item.annotation.filename, ec)) {
            picture = pictures / item.annotation.filename;
        } else {
            for (const auto &entry : fs::directory_iterator(pictures, ec)) {
                if (entry.is_regular_file() && entry.path().stem() == xml.stem() &&
                    is_picture_extension(entry.path())) {
                    picture = entry.path();
                    break;
                }
            }
        }
        if (!picture && use_path_element && !item.annotation.path.empty()) {
            const fs::path recorded(item.annotation.path);
            const fs::path candidate = recorded.is_absolute() ? recorded : xml.parent_path() / recorded;
            if (fs::is_regular_file(candidate, ec)) {
                picture = candidate;
            }
        }
        if (!picture) {
            throw input_error("no picture for annotation '" + item.annotation_path + "' in '" + pictures.string() +
                              "'");
        }
        item.picture_path = picture->string();
        items.push_back(std::move(item));
    }
    return items;
}

}  // namespace ostrel_tool
