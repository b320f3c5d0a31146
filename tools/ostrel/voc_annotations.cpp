#include "voc_annotations.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "tool_error.h"

namespace ostrel_tool {

namespace {

namespace fs = std::filesystem;

std::string without_comments(const std::string &xml) {
    std::string out;
    size_t pos = 0;
    for (;;) {
        const size_t start = xml.find("<!--", pos);
        if (start == std::string::npos) {
            out.append(xml, pos, std::string::npos);
            return out;
        }
        out.append(xml, pos, start - pos);
        const size_t end = xml.find("-->", start + 4);
        if (end == std::string::npos) {
            return out;
        }
        pos = end + 3;
    }
}

// Finds the next element <tag ...>inner</tag> (or <tag/>) at or after pos.
// Nested elements of the same tag are not expected in VOC files.
struct Element {
    std::string inner;
    size_t end = 0;  // position after the closing tag
};

std::optional<Element> next_element(const std::string &xml, const std::string &tag, size_t pos) {
    const std::string open = "<" + tag;
    for (;;) {
        const size_t start = xml.find(open, pos);
        if (start == std::string::npos) {
            return std::nullopt;
        }
        const size_t after = start + open.size();
        if (after >= xml.size()) {
            return std::nullopt;
        }
        const char c = xml[after];
        if (c != '>' && c != '/' && c != ' ' && c != '\t' && c != '\n' && c != '\r') {
            pos = after;  // a longer tag name that starts with tag
            continue;
        }
        const size_t head_end = xml.find('>', after);
        if (head_end == std::string::npos) {
            return std::nullopt;
        }
        if (xml[head_end - 1] == '/') {
            return Element{"", head_end + 1};
        }
        const std::string close = "</" + tag + ">";
        const size_t close_pos = xml.find(close, head_end + 1);
        if (close_pos == std::string::npos) {
            return std::nullopt;
        }
        return Element{xml.substr(head_end + 1, close_pos - head_end - 1), close_pos + close.size()};
    }
}

std::string decode_entities(const std::string &text) {
    static const std::pair<const char *, char> entities[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}};
    std::string out;
    for (size_t i = 0; i < text.size();) {
        bool replaced = false;
        if (text[i] == '&') {
            for (const auto &e : entities) {
                const size_t n = std::char_traits<char>::length(e.first);
                if (text.compare(i, n, e.first) == 0) {
                    out.push_back(e.second);
                    i += n;
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced) {
            out.push_back(text[i++]);
        }
    }
    return out;
}

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return {};
    }
    const size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

std::optional<std::string> child_text(const std::string &xml, const std::string &tag) {
    auto element = next_element(xml, tag, 0);
    if (!element) {
        return std::nullopt;
    }
    return trimmed(decode_entities(element->inner));
}

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

}  // namespace

bool looks_like_xml(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t\r\n\xEF\xBB\xBF");
    return first != std::string::npos && text[first] == '<';
}

VocAnnotation parse_voc_annotation(const std::string &raw, const std::string &source) {
    const std::string xml = without_comments(raw);
    auto root = next_element(xml, "annotation", 0);
    if (!root) {
        throw input_error("'" + source + "' is not a Pascal VOC annotation: no <annotation> element");
    }
    VocAnnotation annotation;
    const std::string &body = root->inner;
    if (auto filename = child_text(body, "filename")) {
        annotation.filename = *filename;
    }
    if (auto size = next_element(body, "size", 0)) {
        auto w = parse_number(child_text(size->inner, "width").value_or(""));
        auto h = parse_number(child_text(size->inner, "height").value_or(""));
        annotation.width = w ? rounded(*w) : 0;
        annotation.height = h ? rounded(*h) : 0;
    }
    size_t pos = 0;
    int index = 0;
    while (auto object = next_element(body, "object", pos)) {
        pos = object->end;
        ++index;
        const std::string where = "'" + source + "', object " + std::to_string(index);
        VocObject obj;
        obj.name = child_text(object->inner, "name").value_or("");
        if (obj.name.empty()) {
            throw input_error(where + ": no <name>");
        }
        obj.difficult = child_text(object->inner, "difficult").value_or("0") == "1";
        obj.truncated = child_text(object->inner, "truncated").value_or("0") == "1";
        auto bndbox = next_element(object->inner, "bndbox", 0);
        if (!bndbox) {
            throw input_error(where + ": no <bndbox>");
        }
        double v[4];
        const char *names[4] = {"xmin", "ymin", "xmax", "ymax"};
        for (int i = 0; i < 4; ++i) {
            auto text = child_text(bndbox->inner, names[i]);
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

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

bool is_picture_extension(const fs::path &p) {
    static const char *exts[] = {".jpg", ".jpeg", ".png", ".bmp", ".tif", ".tiff", ".webp", ".ppm", ".pgm"};
    const std::string e = lower(p.extension().string());
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

std::vector<VocItem> read_voc_folder(const std::string &dir) {
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        throw input_error("cannot open VOC folder '" + dir + "': no such folder");
    }
    const fs::path base(dir);
    const fs::path annotations = first_existing_dir(base, {"Annotations", "annotations"}).value_or(base);
    const fs::path pictures = first_existing_dir(base, {"JPEGImages", "images", "Images"}).value_or(annotations);

    std::vector<fs::path> xml_files;
    for (const auto &entry : fs::directory_iterator(annotations, ec)) {
        if (entry.is_regular_file() && lower(entry.path().extension().string()) == ".xml") {
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
                if (entry.is_regular_file() && entry.path().stem() == xml.stem() && is_picture_extension(entry.path())) {
                    picture = entry.path();
                    break;
                }
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
