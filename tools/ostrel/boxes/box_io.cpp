#include "boxes/box_io.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>
#include <sstream>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "files/voc_annotations.h"
#include "render/color_names.h"

namespace ostrel_tool {

namespace {

enum class Parsed { number, not_a_number, out_of_range };

Parsed parse_int(const std::string &field, int &value) {
    const size_t first = field.find_first_not_of(" \t");
    const size_t last = field.find_last_not_of(" \t");
    if (first == std::string::npos) {
        return Parsed::not_a_number;
    }
    const std::string digits = field.substr(first, last - first + 1);
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(digits.c_str(), &end, 10);
    if (end == digits.c_str() || *end != '\0') {
        return Parsed::not_a_number;
    }
    if (errno == ERANGE || v < -kLargestBoxValue || v > kLargestBoxValue) {
        return Parsed::out_of_range;
    }
    value = static_cast<int>(v);
    return Parsed::number;
}

Rect checked_box(int x, int y, int w, int h, const std::string &what, bool usage) {
    if (w < 1 || h < 1) {
        const std::string message = what + ": width and height must be at least 1";
        throw usage ? usage_error(message) : input_error(message);
    }
    return {x, y, w, h};
}

}  // namespace

void require_box_count(size_t count, const std::string &source, bool usage) {
    if (count > kMaxMarkedBoxes) {
        const std::string message =
            strformat("%s: %llu boxes; a picture takes at most %llu marked boxes", source.c_str(),
                      static_cast<unsigned long long>(count), static_cast<unsigned long long>(kMaxMarkedBoxes));
        throw usage ? usage_error(message) : input_error(message);
    }
}

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
    if (fields.size() != 4) {
        throw usage_error("malformed box '" + text + "': expected x,y,w,h (four integers)");
    }
    int v[4];
    for (size_t i = 0; i < 4; ++i) {
        const Parsed parsed = parse_int(fields[i], v[i]);
        if (parsed == Parsed::not_a_number) {
            throw usage_error("malformed box '" + text + "': expected x,y,w,h (four integers)");
        }
        if (parsed == Parsed::out_of_range) {
            throw usage_error(
                strformat("malformed box '%s': %s is out of range (each value lies within "
                          "-%d..%d)",
                          text.c_str(), fields[i].c_str(), kLargestBoxValue, kLargestBoxValue));
        }
    }
    return checked_box(v[0], v[1], v[2], v[3], "malformed box '" + text + "'", true);
}

namespace {

int json_int(const nlohmann::json &value, const std::string &where) {
    if (value.is_number_integer()) {
        const auto v = value.is_number_unsigned() && value.get<unsigned long long>() > 0x7fffffffffffffffull
                           ? std::numeric_limits<long long>::max()
                           : value.get<long long>();
        if (v >= -kLargestBoxValue && v <= kLargestBoxValue) {
            return static_cast<int>(v);
        }
        throw input_error(where + ": " + value.dump() + " is out of range");
    } else if (value.is_number_float()) {
        const double v = value.get<double>();
        if (std::isfinite(v) && std::fabs(v) < 1e9) {
            return static_cast<int>(std::lround(v));
        }
        throw input_error(where + ": " + value.dump() + " is out of range");
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
                           json_int(field("w", "width"), where), json_int(field("h", "height"), where), where, false);
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
    } catch (const nlohmann::json::out_of_range &) {
        // nlohmann refuses numbers beyond a double (1e400) while parsing.
        throw input_error("'" + source + "': a number in it is out of range");
    } catch (const nlohmann::json::exception &) {
        throw input_error("'" + source + "' is not valid JSON");
    }
    if (doc.is_object() && doc.contains("boxes")) {
        doc = doc.at("boxes");
    }
    if (!doc.is_array()) {
        throw input_error("'" + source + "': expected a JSON list of boxes");
    }
    require_box_count(doc.size(), "'" + source + "'", false);
    std::vector<Rect> boxes;
    boxes.reserve(doc.size());
    for (size_t i = 0; i < doc.size(); ++i) {
        boxes.push_back(json_box(doc[i], "'" + source + "', box " + std::to_string(i + 1)));
    }
    return boxes;
}

std::vector<Rect> read_box_file(const std::string &path, const std::string &class_name) {
    namespace fs = std::filesystem;
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        throw input_error("cannot open box file '" + path + "': no such file");
    }
    if (fs::is_directory(path, ec)) {
        throw input_error("cannot read box file '" + path + "': it is a folder");
    }
    if (!fs::is_regular_file(path, ec)) {
        throw input_error("cannot read box file '" + path + "': not a regular file");
    }
    const uintmax_t size = fs::file_size(path, ec);
    if (!ec && size > kMaxBoxFileBytes) {
        throw input_error(strformat(
            "box file '%s' has %llu bytes; a box file may have at most %llu (a picture "
            "takes at most %llu marked boxes)",
            path.c_str(), static_cast<unsigned long long>(size), static_cast<unsigned long long>(kMaxBoxFileBytes),
            static_cast<unsigned long long>(kMaxMarkedBoxes)));
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
        require_box_count(boxes.size(), "'" + path + "'", false);
        return boxes;
    }
    return parse_box_list_json(text, path);
}

double rounded_score(float score) { return std::round(static_cast<double>(score) * 100.0) / 100.0; }

double exact_score(float score) {
    if (!std::isfinite(score)) {
        return static_cast<double>(score);
    }
    // to_chars and from_chars: the shortest round trip, whatever the locale.
    char text[64];
    const auto written = std::to_chars(text, text + sizeof text, score);
    double value = static_cast<double>(score);
    if (written.ec == std::errc()) {
        std::from_chars(text, written.ptr, value);
    }
    return value;
}

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
