#include "detection_report.h"

#include <cmath>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "box_io.h"
#include "color_names.h"
#include "picture.h"
#include "tool_output.h"

namespace ostrel_tool {

namespace {

std::string box_line(const std::string &prefix, const ostrel_alg_box &b) {
    return strformat("%s  %d,%d,%d,%d  score %.2f  label %d  colours %s, %s\n", prefix.c_str(), b.x, b.y, b.width,
                     b.height, rounded_score(b.score), b.label, color_name(b.color_main).c_str(),
                     color_name(b.color_second).c_str());
}

// The length of the valid UTF-8 sequence that starts at text[i] (1 to 4),
// or 0 when the bytes there are not one (overlong forms, surrogates and
// code points above U+10FFFF are not).
size_t utf8_sequence_length(const std::string &text, size_t i) {
    const auto byte = [&](size_t k) { return i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0u; };
    const auto continuation = [&](size_t k) { return (byte(k) & 0xC0u) == 0x80u; };
    const unsigned lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return continuation(1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned high = lead == 0xED ? 0x9F : 0xBF;
        return byte(1) >= low && byte(1) <= high && continuation(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;
        return byte(1) >= low && byte(1) <= high && continuation(2) && continuation(3) ? 4 : 0;
    }
    return 0;
}

std::string ms_text(double ms) {
    const double r = rounded_ms(ms);
    return r == std::floor(r) ? strformat("%.0f", r) : strformat("%.3f", r);
}

}  // namespace

double rounded_ms(double ms) { return std::round(ms * 1000.0) / 1000.0; }

std::string printable_file_name(const std::string &name) {
    std::string out;
    out.reserve(name.size());
    for (size_t i = 0; i < name.size();) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        const size_t length = utf8_sequence_length(name, i);
        // U+0080..U+009F are C2 80..C2 9F in UTF-8.
        const bool c1_control = length == 2 && c == 0xC2 && static_cast<unsigned char>(name[i + 1]) < 0xA0;
        if (length == 0 || c1_control || c < 0x20 || c == 0x7F) {
            const size_t bytes = c1_control ? 2 : 1;
            for (size_t k = 0; k < bytes; ++k) {
                const unsigned char b = static_cast<unsigned char>(name[i + k]);
                out += b == '\n' ? std::string("\\n")
                       : b == '\r' ? std::string("\\r")
                       : b == '\t' ? std::string("\\t")
                                   : strformat("\\x%02x", b);
            }
            i += bytes;
        } else if (c == '\\') {
            out += "\\\\";
            ++i;
        } else {
            out.append(name, i, length);
            i += length;
        }
    }
    return out;
}

std::string report_text(const DetectionReport &report, bool json) {
    if (json) {
        nlohmann::ordered_json line;
        line["file"] = report.file;
        if (report.frame) {
            line["frame"] = report.frame->index;
            const double ms = rounded_ms(report.frame->time_ms);
            if (ms == std::floor(ms) && std::fabs(ms) < 9e15) {
                line["time_ms"] = static_cast<int64_t>(ms);
            } else {
                line["time_ms"] = ms;
            }
        }
        line["width"] = report.width;
        line["height"] = report.height;
        line["boxes"] = boxes_to_json(report.boxes);
        for (size_t i = 0; i < report.classes.size() && i < line["boxes"].size(); ++i) {
            line["boxes"][i]["class"] = report.classes[i];
        }
        // Invalid UTF-8 in a file name is written as U+FFFD rather than
        // stopping the run.
        return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    }
    std::string prefix = printable_file_name(report.file);
    if (report.frame) {
        prefix += "  frame " + std::to_string(report.frame->index) + "  time_ms " + ms_text(report.frame->time_ms);
    }
    if (report.boxes.empty()) {
        return prefix + "  no detections\n";
    }
    std::string text;
    for (size_t i = 0; i < report.boxes.size(); ++i) {
        std::string line = box_line(prefix, report.boxes[i]);
        if (i < report.classes.size()) {
            line.insert(line.size() - 1, "  class " + printable_file_name(report.classes[i]));
        }
        text += line;
    }
    return text;
}

std::string OutputNames::name_for(const std::string &input, const std::string &extension) {
    const std::string stem = stem_of(input);
    // x.jpg, x.jpg and x-2.jpg: the third's own name was handed out already.
    for (;;) {
        const int n = ++used_[stem + extension];
        const std::string name = n == 1 ? stem + extension : stem + "-" + std::to_string(n) + extension;
        if (given_.insert(name).second) {
            return (std::filesystem::path(dir_) / name).string();
        }
    }
}

}  // namespace ostrel_tool
