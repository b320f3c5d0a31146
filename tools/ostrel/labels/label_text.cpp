#include "labels/label_text.h"

#include <cctype>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/tool_error.h"
#include "cli/tool_output.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

std::string read_label_file(const std::string &path, uintmax_t max_bytes, const char *what) {
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        throw input_error(std::string("cannot open ") + what + " '" + path + "': no such file");
    }
    if (fs::is_directory(path, ec)) {
        throw input_error(std::string("cannot read ") + what + " '" + path + "': it is a folder");
    }
    if (!fs::is_regular_file(path, ec)) {
        throw input_error(std::string("cannot read ") + what + " '" + path + "': not a regular file");
    }
    const uintmax_t size = fs::file_size(path, ec);
    if (!ec && size > max_bytes) {
        throw input_error(strformat("%s '%s' has %llu bytes; at most %llu are read", what, path.c_str(),
                                    static_cast<unsigned long long>(size), static_cast<unsigned long long>(max_bytes)));
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    if (!in && !in.eof()) {
        throw input_error(std::string("cannot read ") + what + " '" + path + "'");
    }
    return content.str();
}

std::string without_utf8_bom(const std::string &text) {
    return text.rfind("\xEF\xBB\xBF", 0) == 0 ? text.substr(3) : text;
}

std::vector<std::string> text_lines(const std::string &text) {
    const std::string body = without_utf8_bom(text);
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < body.size()) {
        size_t end = body.find('\n', start);
        if (end == std::string::npos) {
            end = body.size();
        }
        std::string line = body.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

std::vector<std::string> fields_of(const std::string &line) {
    std::vector<std::string> fields;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) {
            ++i;
        }
        const size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') {
            ++i;
        }
        if (i > start) {
            fields.push_back(line.substr(start, i - start));
        }
    }
    return fields;
}

std::optional<double> parse_real(const std::string &text) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text.front()))) {
        return std::nullopt;
    }
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !std::isfinite(value) || std::fabs(value) > 1e9) {
        return std::nullopt;
    }
    // strtod reads hexadecimal and "infinity"; a label file holds decimals.
    if (text.find_first_of("xXnN") != std::string::npos) {
        return std::nullopt;
    }
    return value;
}

nlohmann::json parse_label_json(const std::string &text, const std::string &source, const std::string &place) {
    try {
        return nlohmann::json::parse(without_utf8_bom(text));
    } catch (const nlohmann::json::parse_error &e) {
        std::string reason = e.what();
        const size_t bracket = reason.find("] ");
        if (reason.rfind("[json.exception", 0) == 0 && bracket != std::string::npos) {
            reason = reason.substr(bracket + 2);
        }
        throw input_error("'" + source + "'" + (place.empty() ? "" : " " + place) + " is not valid JSON: " + reason);
    } catch (const nlohmann::json::exception &) {
        // A number beyond any double (1e888) is refused while parsing, as
        // out_of_range rather than parse_error.
        throw input_error("'" + source + "'" + (place.empty() ? "" : " " + place) +
                          " is not valid JSON: a number in it is out of range");
    }
}

std::string json_path(const std::string &parent, const std::string &key) {
    return parent.empty() ? key : parent + "." + key;
}

std::string json_path(const std::string &parent, size_t index) { return parent + "[" + std::to_string(index) + "]"; }

void JsonReader::fail(const std::string &path, const std::string &reason) const {
    throw input_error("'" + source_ + "'" + (place_.empty() ? "" : " " + place_) + ": " +
                      (path.empty() ? "" : path + ": ") + reason);
}

const nlohmann::json &JsonReader::member(const nlohmann::json &object, const std::string &path, const char *key) const {
    const nlohmann::json *found = optional_member(object, key);
    if (found == nullptr) {
        fail(json_path(path, key), "missing");
    }
    return *found;
}

const nlohmann::json *JsonReader::optional_member(const nlohmann::json &object, const char *key) const {
    if (!object.is_object()) {
        return nullptr;
    }
    const auto it = object.find(key);
    return it == object.end() || it->is_null() ? nullptr : &*it;
}

void JsonReader::require_object(const nlohmann::json &value, const std::string &path) const {
    if (!value.is_object()) {
        fail(path, "an object ({...}) expected");
    }
}

void JsonReader::require_array(const nlohmann::json &value, const std::string &path) const {
    if (!value.is_array()) {
        fail(path, "a list ([...]) expected");
    }
}

double JsonReader::number(const nlohmann::json &value, const std::string &path) const {
    if (value.is_number()) {
        const double v = value.get<double>();
        if (std::isfinite(v) && std::fabs(v) <= 1e9) {
            return v;
        }
        fail(path, "a number within +-1e9 expected");
    }
    if (value.is_string()) {
        if (auto v = parse_real(value.get<std::string>())) {
            return *v;  // some exporters write numbers as strings
        }
    }
    fail(path, "a number expected");
}

int64_t JsonReader::integer(const nlohmann::json &value, const std::string &path) const {
    const double v = number(value, path);
    if (v != std::floor(v)) {
        fail(path, "a whole number expected");
    }
    return static_cast<int64_t>(v);
}

std::string JsonReader::text(const nlohmann::json &value, const std::string &path) const {
    if (!value.is_string()) {
        fail(path, "a string expected");
    }
    return value.get<std::string>();
}

std::string JsonReader::id_text(const nlohmann::json &value, const std::string &path) const {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number_integer() || value.is_number_unsigned()) {
        return value.dump();
    }
    if (value.is_number_float()) {
        const double v = value.get<double>();
        if (std::isfinite(v) && v == std::floor(v) && std::fabs(v) < 9e15) {
            return std::to_string(static_cast<int64_t>(v));
        }
    }
    fail(path, "an id (a whole number or a string) expected");
}

bool JsonReader::flag(const nlohmann::json &value, const std::string &path) const {
    if (value.is_boolean()) {
        return value.get<bool>();
    }
    if (value.is_number()) {
        const double v = value.get<double>();
        if (v == 0.0 || v == 1.0) {
            return v == 1.0;
        }
    }
    if (value.is_string()) {
        if (auto f = flag_text(value.get<std::string>())) {
            return *f;
        }
    }
    fail(path, "0 or 1 (false or true) expected");
}

pugi::xml_encoding declared_xml_encoding(const std::string &text) {
    const std::string head = without_utf8_bom(text);
    if (head.rfind("<?xml", 0) != 0) {
        return pugi::encoding_auto;
    }
    const size_t end = head.find("?>");
    const std::string declaration =
        ascii_lowered(head.substr(0, end == std::string::npos ? std::min<size_t>(head.size(), 200) : end));
    for (const char *latin1 : {"iso-8859-1", "latin1", "latin-1", "iso8859-1"}) {
        if (declaration.find(std::string("\"") + latin1 + "\"") != std::string::npos ||
            declaration.find(std::string("'") + latin1 + "'") != std::string::npos) {
            return pugi::encoding_latin1;
        }
    }
    return pugi::encoding_auto;
}

int line_of(const pugi::xml_node &node, const std::string &text) {
    const ptrdiff_t offset = node.offset_debug();
    if (offset < 0 || static_cast<size_t>(offset) > text.size()) {
        return 0;
    }
    return 1 + static_cast<int>(std::count(text.begin(), text.begin() + offset, '\n'));
}

void parse_label_xml(pugi::xml_document &document, const std::string &text, const std::string &source) {
    const pugi::xml_parse_result parsed =
        document.load_buffer(text.data(), text.size(), pugi::parse_default, declared_xml_encoding(text));
    if (!parsed) {
        const size_t offset = std::min(static_cast<size_t>(std::max<ptrdiff_t>(parsed.offset, 0)), text.size());
        const int line = 1 + static_cast<int>(std::count(text.begin(), text.begin() + offset, '\n'));
        throw input_error("'" + source + "' is not well-formed XML: " + parsed.description() + " at line " +
                          std::to_string(line));
    }
}

std::optional<std::string> child_text(const pugi::xml_node &parent, const char *tag) {
    const pugi::xml_node child = parent.child(tag);
    if (!child) {
        return std::nullopt;
    }
    std::string text;
    for (const pugi::xml_node &piece : child.children()) {
        if (piece.type() == pugi::node_pcdata || piece.type() == pugi::node_cdata) {
            text += piece.value();
        }
    }
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::string ascii_lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::optional<bool> flag_text(const std::string &text) {
    std::string v;
    for (char c : text) {
        if (c != ' ' && c != '\t' && c != '\r' && c != '\n') {
            v += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    if (v == "1" || v == "true" || v == "yes") {
        return true;
    }
    if (v == "0" || v == "false" || v == "no") {
        return false;
    }
    return std::nullopt;
}

std::string number_text(double value) {
    if (value == std::floor(value) && std::fabs(value) < 1e15) {
        return std::to_string(static_cast<long long>(value));
    }
    char buffer[40];
    for (int digits = 6; digits <= 17; ++digits) {
        std::snprintf(buffer, sizeof buffer, "%.*g", digits, value);
        if (std::strtod(buffer, nullptr) == value) {
            break;
        }
    }
    return buffer;
}

}  // namespace ostrel_tool
