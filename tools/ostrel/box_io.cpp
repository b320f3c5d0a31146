#include "box_io.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "color_names.h"
#include "tool_error.h"
#include "voc_annotations.h"

namespace ostrel_tool {

namespace {

bool parse_int(const std::string &field, int &value) {
    const size_t first = field.find_first_not_of(" \t");
    const size_t last = field.find_last_not_of(" \t");
    if (first == std::string::npos) {
        return false;
    }
    const std::string digits = field.substr(first, last - first + 1);
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(digits.c_str(), &end, 10);
    if (end == digits.c_str() || *end != '\0' || errno == ERANGE || v < std::numeric_limits<int>::min() / 2 ||
        v > std::numeric_limits<int>::max() / 2) {
        return false;
    }
    value = static_cast<int>(v);
    return true;
}

Rect checked_box(int x, int y, int w, int h, const std::string &what, bool usage) {
    if (w < 1 || h < 1) {
        const std::string message = what + ": width and height must be at least 1";
        throw usage ? usage_error(message) : input_error(message);
    }
    return {x, y, w, h};
}

}  // namespace

Rect parse_box_argument(const std::string &text) {
    std::vector<std::string> fields;
    std::string field;
    std::istringstream in(text);
    while (std::getline(in, field, ',')) {
        fields.push_back(field);
    }
    if (!text.empty() && text.back() == ',') {
        fields.push_back("");
    }
    int v[4];
    if (fields.size() != 4 || !parse_int(fields[0], v[0]) || !parse_int(fields[1], v[1]) ||
        !parse_int(fields[2], v[2]) || !parse_int(fields[3], v[3])) {
        throw usage_error("malformed box '" + text + "': expected x,y,w,h (four integers)");
    }
    return checked_box(v[0], v[1], v[2], v[3], "malformed box '" + text + "'", true);
}

namespace {

int json_int(const nlohmann::json &value, const std::string &where) {
    if (value.is_number_integer()) {
        const auto v = value.get<long long>();
        if (v >= std::numeric_limits<int>::min() / 2 && v <= std::numeric_limits<int>::max() / 2) {
            return static_cast<int>(v);
        }
    } else if (value.is_number_float()) {
        const double v = value.get<double>();
        if (std::isfinite(v) && std::fabs(v) < 1e9) {
            return static_cast<int>(std::lround(v));
        }
    }
    throw input_error(where + ": expected a number");
}

Rect json_box(const nlohmann::json &item, const std::string &where) {
    if (item.is_array()) {
        if (item.size() != 4) {
            throw input_error(where + ": expected [x, y, w, h]");
        }
        return checked_box(json_int(item[0], where), json_int(item[1], where), json_int(item[2], where),
                           json_int(item[3], where), where, false);
    }
    if (item.is_object()) {
        auto field = [&](const char *name, const char *alias) -> const nlohmann::json & {
            if (item.contains(name)) {
                return item.at(name);
            }
            if (alias != nullptr && item.contains(alias)) {
                return item.at(alias);
            }
            throw input_error(where + ": no \"" + name + "\"");
        };
        return checked_box(json_int(field("x", nullptr), where), json_int(field("y", nullptr), where),
                           json_int(field("w", "width"), where), json_int(field("h", "height"), where), where,
                           false);
    }
    throw input_error(where + ": expected a box object or [x, y, w, h]");
}

}  // namespace

std::vector<Rect> parse_box_list_json(const std::string &text, const std::string &source) {
    nlohmann::json doc;
    try {
        doc = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error &e) {
        throw input_error("'" + source + "' is not valid JSON (byte " + std::to_string(e.byte) + ")");
    }
    if (doc.is_object() && doc.contains("boxes")) {
        doc = doc.at("boxes");
    }
    if (!doc.is_array()) {
        throw input_error("'" + source + "': expected a JSON list of boxes");
    }
    std::vector<Rect> boxes;
    for (size_t i = 0; i < doc.size(); ++i) {
        boxes.push_back(json_box(doc[i], "'" + source + "', box " + std::to_string(i + 1)));
    }
    return boxes;
}

std::vector<Rect> read_box_file(const std::string &path, const std::string &class_name) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        throw input_error("cannot open box file '" + path + "': no such file");
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    if (!in) {
        throw input_error("cannot read box file '" + path + "'");
    }
    const std::string text = content.str();
    if (looks_like_xml(text)) {
        if (class_name.empty()) {
            throw usage_error("'" + path + "' is a Pascal VOC file: give the object class with --class NAME");
        }
        auto boxes = boxes_of_class(parse_voc_annotation(text, path), class_name);
        if (boxes.empty()) {
            throw input_error("'" + path + "' has no object of class '" + class_name + "'");
        }
        return boxes;
    }
    return parse_box_list_json(text, path);
}

double rounded_score(float score) { return std::round(static_cast<double>(score) * 100.0) / 100.0; }

nlohmann::ordered_json box_to_json(const ostrel_alg_box &box) {
    nlohmann::ordered_json j;
    j["x"] = box.x;
    j["y"] = box.y;
    j["w"] = box.width;
    j["h"] = box.height;
    j["score"] = rounded_score(box.score);
    j["label"] = box.label;
    j["color_main"] = box.color_main;
    j["color_second"] = box.color_second;
    j["color_main_name"] = color_name(box.color_main);
    j["color_second_name"] = color_name(box.color_second);
    return j;
}

nlohmann::ordered_json boxes_to_json(const std::vector<ostrel_alg_box> &boxes) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto &b : boxes) {
        list.push_back(box_to_json(b));
    }
    return list;
}

}  // namespace ostrel_tool
