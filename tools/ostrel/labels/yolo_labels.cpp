#include "labels/yolo_labels.h"

#include <cctype>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "labels/label_text.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void refuse(const std::string &source, size_t line, const std::string &reason) {
    throw input_error("'" + source + "' line " + std::to_string(line) + ": " + reason);
}

std::string trim(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The line without a comment: '#' at the start or after a blank, outside quotes.
std::string without_comment(const std::string &line) {
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
        } else if (c == '#' && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t')) {
            return line.substr(0, i);
        }
    }
    return line;
}

// A YAML scalar as the tools write names: plain, 'single' ('' for a quote)
// or "double" (backslash escapes of quote and backslash).
std::string scalar(const std::string &raw, const std::string &source, size_t line) {
    const std::string text = trim(raw);
    if (text.empty()) {
        refuse(source, line, "an empty class name");
    }
    if (text.front() == '\'' || text.front() == '"') {
        const char q = text.front();
        if (text.size() < 2 || text.back() != q) {
            refuse(source, line, "a quoted name without its closing quote: " + text);
        }
        std::string out;
        for (size_t i = 1; i + 1 < text.size(); ++i) {
            if (q == '\'' && text[i] == '\'' && i + 2 < text.size() && text[i + 1] == '\'') {
                out += '\'';
                ++i;
            } else if (q == '"' && text[i] == '\\' && i + 2 < text.size()) {
                out += text[++i];
            } else {
                out += text[i];
            }
        }
        return out;
    }
    if (text.find_first_of("[]{}") != std::string::npos || text.front() == '&' || text.front() == '*' ||
        text.front() == '!' || text.front() == '|' || text.front() == '>') {
        refuse(source, line, "a YAML form the reader does not take: " + text);
    }
    return text;
}

// Splits a flow collection's inside at commas outside quotes.
std::vector<std::string> flow_items(const std::string &inside) {
    std::vector<std::string> items;
    std::string current;
    char quote = 0;
    for (const char c : inside) {
        if (quote != 0) {
            current += c;
            if (c == quote) {
                quote = 0;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            current += c;
        } else if (c == ',') {
            items.push_back(current);
            current.clear();
        } else {
            current += c;
        }
    }
    if (!trim(current).empty()) {
        items.push_back(current);
    }
    return items;
}

std::vector<std::string> names_from_map(const std::map<long, std::string> &by_index, const std::string &source,
                                        size_t line) {
    std::vector<std::string> names;
    long expected = 0;
    for (const auto &entry : by_index) {
        if (entry.first != expected) {
            refuse(source, line,
                   "class numbers must run 0, 1, 2, ... without a gap; " + std::to_string(expected) + " is missing");
        }
        names.push_back(entry.second);
        ++expected;
    }
    return names;
}

void add_numbered(std::map<long, std::string> &by_index, const std::string &item, const std::string &source,
                  size_t line) {
    const size_t colon = item.find(':');
    if (colon == std::string::npos) {
        refuse(source, line, "'number: name' expected: " + trim(item));
    }
    const auto key = parse_real(trim(item.substr(0, colon)));
    if (!key || *key < 0 || *key != std::floor(*key) || *key > 100000) {
        refuse(source, line, "a class number 0, 1, 2, ... expected before ':'");
    }
    if (!by_index.emplace(static_cast<long>(*key), scalar(item.substr(colon + 1), source, line)).second) {
        refuse(source, line, "class " + trim(item.substr(0, colon)) + " given twice");
    }
}

}  // namespace

std::vector<std::string> parse_yolo_data_yaml(const std::string &text, const std::string &source) {
    const std::vector<std::string> lines = text_lines(text);
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string line = without_comment(lines[i]);
        if (line.rfind("names:", 0) != 0) {
            continue;
        }
        const size_t first_line = i + 1;
        std::string rest = trim(line.substr(6));
        if (!rest.empty()) {
            // A flow collection, perhaps over several lines.
            const char open = rest.front();
            if (open != '[' && open != '{') {
                refuse(source, first_line, "names: a list [a, b] or a mapping {0: a} expected");
            }
            const char close = open == '[' ? ']' : '}';
            while (rest.find(close) == std::string::npos && i + 1 < lines.size()) {
                rest += " " + trim(without_comment(lines[++i]));
            }
            const size_t end = rest.rfind(close);
            if (end == std::string::npos || !trim(rest.substr(end + 1)).empty()) {
                refuse(source, first_line, std::string("names: no closing '") + close + "'");
            }
            const std::vector<std::string> items = flow_items(rest.substr(1, end - 1));
            if (open == '[') {
                std::vector<std::string> names;
                for (const auto &item : items) {
                    names.push_back(scalar(item, source, first_line));
                }
                return names;
            }
            std::map<long, std::string> by_index;
            for (const auto &item : items) {
                add_numbered(by_index, item, source, first_line);
            }
            return names_from_map(by_index, source, first_line);
        }
        // A block list or mapping: the indented lines that follow.
        std::vector<std::string> names;
        std::map<long, std::string> by_index;
        for (size_t k = i + 1; k < lines.size(); ++k) {
            const std::string item_line = without_comment(lines[k]);
            if (trim(item_line).empty()) {
                continue;
            }
            if (item_line.front() != ' ' && item_line.front() != '\t' && item_line.front() != '-') {
                break;
            }
            const std::string item = trim(item_line);
            if (item.front() == '-') {
                if (!by_index.empty()) {
                    refuse(source, k + 1, "names: a list item among numbered names");
                }
                names.push_back(scalar(item.substr(1), source, k + 1));
            } else {
                if (!names.empty()) {
                    refuse(source, k + 1, "names: a numbered name among list items");
                }
                add_numbered(by_index, item, source, k + 1);
            }
        }
        if (!by_index.empty()) {
            return names_from_map(by_index, source, first_line);
        }
        if (names.empty()) {
            refuse(source, first_line, "names: no class name follows");
        }
        return names;
    }
    throw input_error("'" + source + "' has no \"names:\" entry");
}

std::vector<std::string> parse_yolo_names(const std::string &text, const std::string &source) {
    std::vector<std::string> lines = text_lines(text);
    while (!lines.empty() && trim(lines.back()).empty()) {
        lines.pop_back();
    }
    std::vector<std::string> names;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string name = trim(lines[i]);
        if (name.empty()) {
            refuse(source, i + 1, "an empty class name");
        }
        names.push_back(name);
    }
    if (names.empty()) {
        throw input_error("'" + source + "' holds no class name");
    }
    return names;
}

std::vector<LabelBox> parse_yolo_label_text(const std::string &text, const std::string &source, int width, int height,
                                            const std::vector<std::string> &names) {
    if (width <= 0 || height <= 0) {
        throw input_error("'" + source + "': the picture's size is not known, so the boxes cannot be placed");
    }
    // Coordinates a hair outside 0..1 come from rounding in the tools that
    // write them; they are clamped.
    constexpr double kSlack = 1e-4;
    std::vector<LabelBox> boxes;
    const std::vector<std::string> lines = text_lines(text);
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::vector<std::string> fields = fields_of(lines[i]);
        if (fields.empty()) {
            continue;
        }
        const size_t n = fields.size();
        const bool polygon = n >= 7 && n % 2 == 1;
        if (n != 5 && n != 6 && !polygon) {
            refuse(source, i + 1,
                   strformat("5 values expected (class cx cy w h; a sixth for a confidence, or a "
                             "polygon of 3 or more points), %zu found",
                             n));
        }
        std::vector<double> v;
        for (size_t k = 0; k < n; ++k) {
            const auto number = parse_real(fields[k]);
            if (!number) {
                refuse(source, i + 1, "'" + fields[k] + "' is not a number");
            }
            v.push_back(*number);
        }
        if (v[0] < 0 || v[0] != std::floor(v[0]) || v[0] > 1e6) {
            refuse(source, i + 1, "the class '" + fields[0] + "' is not a class number 0, 1, 2, ...");
        }
        const size_t cls = static_cast<size_t>(v[0]);
        if (!names.empty() && cls >= names.size()) {
            refuse(source, i + 1,
                   strformat("class %zu, but the class names list %zu class%s (0..%zu)", cls, names.size(),
                             names.size() == 1 ? "" : "es", names.size() - 1));
        }
        const size_t coordinates = polygon ? n - 1 : 4;
        for (size_t k = 1; k <= coordinates; ++k) {
            if (v[k] < -kSlack || v[k] > 1.0 + kSlack) {
                refuse(source, i + 1,
                       "'" + fields[k] +
                           "' lies outside 0..1 (YOLO coordinates are fractions of "
                           "the picture's size)");
            }
            v[k] = std::min(1.0, std::max(0.0, v[k]));
        }
        LabelBox box;
        box.class_name = names.empty() ? std::to_string(cls) : names[cls];
        double left, top, right, bottom;
        if (polygon) {
            left = right = v[1];
            top = bottom = v[2];
            for (size_t k = 1; k + 1 < n; k += 2) {
                left = std::min(left, v[k]);
                right = std::max(right, v[k]);
                top = std::min(top, v[k + 1]);
                bottom = std::max(bottom, v[k + 1]);
            }
        } else {
            if (!(v[3] > 0.0) || !(v[4] > 0.0)) {
                refuse(source, i + 1, "width and height must be above 0");
            }
            left = v[1] - v[3] / 2;
            right = v[1] + v[3] / 2;
            top = v[2] - v[4] / 2;
            bottom = v[2] + v[4] / 2;
            if (n == 6) {
                if (v[5] < 0.0 || v[5] > 1.0) {
                    refuse(source, i + 1, "the confidence '" + fields[5] + "' lies outside 0..1");
                }
                box.score = v[5];
            }
        }
        if (!(right > left) || !(bottom > top)) {
            refuse(source, i + 1, "the polygon has no area");
        }
        box.x = left * width;
        box.y = top * height;
        box.w = (right - left) * width;
        box.h = (bottom - top) * height;
        boxes.push_back(std::move(box));
    }
    return boxes;
}

namespace {

std::vector<std::string> names_near(const fs::path &folder, std::string &names_file) {
    std::error_code ec;
    fs::path here = folder;
    for (int up = 0; up < 3 && !here.empty(); ++up) {
        for (const char *name : {"data.yaml", "data.yml", "classes.txt", "obj.names"}) {
            const fs::path candidate = here / name;
            if (fs::is_regular_file(candidate, ec)) {
                names_file = candidate.string();
                const std::string text = read_label_file(names_file, kMaxPictureLabelBytes, "class names file");
                return std::string(name).rfind("data.", 0) == 0 ? parse_yolo_data_yaml(text, names_file)
                                                                : parse_yolo_names(text, names_file);
            }
        }
        const fs::path parent = here.parent_path();
        if (parent == here) {
            break;
        }
        here = parent;
    }
    return {};
}

// The label file of a picture: its path with the last "images" folder
// replaced by "labels", else beside it.
fs::path label_file_for(const fs::path &picture) {
    std::vector<fs::path> parts(picture.begin(), picture.end());
    for (size_t i = parts.size(); i-- > 1;) {
        if (parts[i - 1] == "images" && i - 1 < parts.size() - 1) {
            fs::path swapped;
            for (size_t k = 0; k < parts.size(); ++k) {
                swapped /= (k == i - 1) ? fs::path("labels") : parts[k];
            }
            swapped.replace_extension(".txt");
            std::error_code ec;
            if (fs::is_regular_file(swapped, ec)) {
                return swapped;
            }
            break;
        }
    }
    fs::path beside = picture;
    beside.replace_extension(".txt");
    return beside;
}

bool hidden(const fs::path &path) {
    const std::string name = path.filename().string();
    return !name.empty() && name[0] == '.';
}

}  // namespace

LabelSet read_yolo_labels(const std::string &path) {
    LabelSet set;
    set.format = LabelFormat::yolo;
    set.source = path;
    std::error_code ec;
    fs::path root(path);
    std::vector<fs::path> pictures;
    if (fs::is_regular_file(root, ec)) {
        const std::string name = root.filename().string();
        if (name == "data.yaml" || name == "data.yml") {
            root = root.parent_path().empty() ? fs::path(".") : root.parent_path();
        } else {
            // One label file: its picture beside it or in the images/ folder matching labels/.
            const fs::path folder = root.parent_path().empty() ? fs::path(".") : root.parent_path();
            std::vector<fs::path> folders = {folder};
            if (folder.filename() == "labels") {
                folders.push_back(folder.parent_path() / "images");
            }
            for (const auto &f : folders) {
                for (const auto &entry : fs::directory_iterator(f, ec)) {
                    if (entry.is_regular_file() && entry.path().stem() == root.stem() &&
                        is_picture_file_name(entry.path())) {
                        pictures.push_back(entry.path());
                    }
                }
                if (!pictures.empty()) {
                    break;
                }
            }
            if (pictures.empty()) {
                throw input_error("no picture for YOLO label file '" + path + "' (looked beside it" +
                                  std::string(folders.size() > 1 ? " and in ../images" : "") + ")");
            }
            std::sort(pictures.begin(), pictures.end());
            pictures.resize(1);
        }
    } else if (!fs::is_directory(root, ec)) {
        throw input_error("cannot open YOLO labels '" + path + "': no such file or folder");
    }
    if (pictures.empty()) {
        // Links to folders are followed (a dataset's images/ is often one),
        // to a depth that ends a link loop.
        constexpr int kDeepest = 8;
        const auto options =
            fs::directory_options::skip_permission_denied | fs::directory_options::follow_directory_symlink;
        for (auto it = fs::recursive_directory_iterator(root, options, ec); it != fs::recursive_directory_iterator();
             it.increment(ec)) {
            if (it.depth() >= kDeepest) {
                it.disable_recursion_pending();
            }
            if (hidden(it->path())) {
                if (it->is_directory(ec)) {
                    it.disable_recursion_pending();
                }
                continue;
            }
            if (it->is_regular_file(ec) && is_picture_file_name(it->path())) {
                pictures.push_back(it->path());
            }
        }
        std::sort(pictures.begin(), pictures.end());
        if (pictures.empty()) {
            throw input_error("YOLO folder '" + path + "' holds no picture");
        }
    }

    std::string names_file;
    std::vector<std::string> names = names_near(fs::is_directory(root, ec) ? root : root.parent_path(), names_file);
    if (names.empty()) {
        names = names_near(label_file_for(pictures.front()).parent_path(), names_file);
    }
    if (names.empty()) {
        set.notes.push_back("no data.yaml, classes.txt or obj.names near '" + path +
                            "': classes are named by their numbers");
    }
    set.classes = names;
    for (size_t i = 0; i < names.size(); ++i) {
        set.class_ids.push_back(static_cast<int64_t>(i));
    }

    int without_labels = 0;
    for (size_t i = 0; i < pictures.size(); ++i) {
        LabelledPicture picture;
        picture.picture_path = pictures[i].string();
        picture.name = pictures[i].filename().string();
        picture.id = static_cast<int64_t>(i + 1);
        const fs::path label_file = fs::is_regular_file(root, ec) ? root : label_file_for(pictures[i]);
        picture.source = "'" + label_file.string() + "'";
        if (!fs::is_regular_file(label_file, ec)) {
            ++without_labels;
            set.pictures.push_back(std::move(picture));
            continue;
        }
        const std::string text = read_label_file(label_file.string(), kMaxPictureLabelBytes);
        picture_size(picture.picture_path, picture.width, picture.height);
        picture.boxes = parse_yolo_label_text(text, label_file.string(), picture.width, picture.height, names);
        set.pictures.push_back(std::move(picture));
    }
    if (without_labels > 0) {
        set.notes.push_back(strformat("%d picture%s in '%s' %s no label file and %s taken as showing no object",
                                      without_labels, without_labels == 1 ? "" : "s", path.c_str(),
                                      without_labels == 1 ? "has" : "have", without_labels == 1 ? "is" : "are"));
    }
    add_used_classes(set);
    if (set.class_ids.size() < set.classes.size()) {
        // Classes named by number: their ids are those numbers.
        set.class_ids.clear();
        for (const auto &name : set.classes) {
            set.class_ids.push_back(names.empty() ? std::stoll(name) : -1);
        }
    }
    return set;
}

std::string write_yolo_label_text(const LabelledPicture &picture, const std::vector<std::string> &classes) {
    if (picture.width <= 0 || picture.height <= 0) {
        throw input_error("the size of '" + picture.name + "' is not known: YOLO labels need it");
    }
    std::string text;
    for (const LabelBox &box : picture.boxes) {
        const auto it = std::find(classes.begin(), classes.end(), box.class_name);
        if (it == classes.end()) {
            throw input_error("class '" + box.class_name + "' is not among the classes written to classes.txt");
        }
        const double W = picture.width, H = picture.height;
        text += strformat("%ld %.6f %.6f %.6f %.6f", static_cast<long>(it - classes.begin()), (box.x + box.w / 2) / W,
                          (box.y + box.h / 2) / H, box.w / W, box.h / H);
        if (box.score) {
            text += strformat(" %.6f", *box.score);
        }
        text += "\n";
    }
    return text;
}

std::string write_yolo_names(const std::vector<std::string> &classes) {
    std::string text;
    for (const auto &c : classes) {
        text += c + "\n";
    }
    return text;
}

}  // namespace ostrel_tool
