// What every annotation reader shares: reading a label file within a size
// limit, byte-order marks and Windows line ends, numbers, and parsing JSON
// (nlohmann-json) and XML (pugixml) with messages that name the file and
// the line or key.
//
// Every refusal is an input error (exit code 3), one line:
//   "'labels.json': images[3].file_name: missing"
//   "'a.txt' line 4: 5 values expected (class cx cy w h), 3 found"
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <pugixml.hpp>

namespace ostrel_tool {

// A label file that describes a whole set (COCO, CVAT, Label Studio,
// imglab) may have at most this many bytes; a per-picture file (VOC, YOLO)
// at most kMaxPictureLabelBytes. Larger files are refused unread.
constexpr uintmax_t kMaxLabelSetBytes = 512ull * 1024 * 1024;
constexpr uintmax_t kMaxPictureLabelBytes = 16ull * 1024 * 1024;

// Reads a whole file; refuses a missing file, a folder, a device or FIFO
// and a file above max_bytes before reading it. what names it in messages
// ("label file").
std::string read_label_file(const std::string &path, uintmax_t max_bytes, const char *what = "label file");

// The text without a UTF-8 byte-order mark.
std::string without_utf8_bom(const std::string &text);

// The lines of a text (UTF-8 BOM dropped), each without its '\n' or "\r\n".
std::vector<std::string> text_lines(const std::string &text);

// Splits a line at runs of spaces and tabs.
std::vector<std::string> fields_of(const std::string &line);

// A finite number written in full (no trailing characters), within +-1e9;
// nothing otherwise.
std::optional<double> parse_real(const std::string &text);

// Parses JSON; refuses malformed text as "'<source>' is not valid JSON: <reason> at line L, column C".
// place, when given, follows the quoted source ("'d.jsonl' line 3").
nlohmann::json parse_label_json(const std::string &text, const std::string &source, const std::string &place = "");

// Key paths in JSON messages: "images[3].file_name".
std::string json_path(const std::string &parent, const std::string &key);
std::string json_path(const std::string &parent, size_t index);

// Typed reads of JSON members that refuse with "'source': path: reason".
// A missing member gives nothing from the optional_ forms.
class JsonReader {
public:
    explicit JsonReader(std::string source, std::string place = "")
        : source_(std::move(source)), place_(std::move(place)) {}
    const std::string &source() const { return source_; }

    [[noreturn]] void fail(const std::string &path, const std::string &reason) const;

    const nlohmann::json &member(const nlohmann::json &object, const std::string &path, const char *key) const;
    const nlohmann::json *optional_member(const nlohmann::json &object, const char *key) const;
    void require_object(const nlohmann::json &value, const std::string &path) const;
    void require_array(const nlohmann::json &value, const std::string &path) const;
    double number(const nlohmann::json &value, const std::string &path) const;
    int64_t integer(const nlohmann::json &value, const std::string &path) const;
    std::string text(const nlohmann::json &value, const std::string &path) const;
    // An id that tools write as a number or as a string: the number's text
    // or the string.
    std::string id_text(const nlohmann::json &value, const std::string &path) const;
    // 0/1, true/false.
    bool flag(const nlohmann::json &value, const std::string &path) const;

private:
    std::string source_;
    std::string place_;
};

// Parses XML as the readers take it: byte-order marks, UTF-16, and 8-bit
// files that declare ISO-8859-1 (as dlib's imglab writes them). Refuses
// malformed XML with the line.
void parse_label_xml(pugi::xml_document &document, const std::string &text, const std::string &source);

// The 8-bit encoding an XML declaration names, when pugixml cannot know it
// from the first bytes (ISO-8859-1 and its spellings); encoding_auto
// otherwise.
pugi::xml_encoding declared_xml_encoding(const std::string &text);

// The 1-based line of a node in the text it was parsed from (UTF-8 texts;
// 0 when unknown).
int line_of(const pugi::xml_node &node, const std::string &text);

// The trimmed text of a direct child element (text and CDATA pieces), or
// nothing when there is no such child.
std::optional<std::string> child_text(const pugi::xml_node &parent, const char *tag);

// The text in lower case, byte by byte (std::tolower): for file extensions,
// names and keywords compared without regard to case.
std::string ascii_lowered(std::string text);

// "0"/"1", "true"/"false", "yes"/"no" (any case); nothing for anything else.
std::optional<bool> flag_text(const std::string &text);

// Numbers in output files: the shortest text that reads back as the same
// double ("12", "0.5", "0.123456789").
std::string number_text(double value);

}  // namespace ostrel_tool
