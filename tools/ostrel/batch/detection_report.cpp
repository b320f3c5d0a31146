#include "batch/detection_report.h"

#include <cmath>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "boxes/box_io.h"
#include "cli/tool_output.h"
#include "files/picture.h"
#include "render/color_names.h"

namespace ostrel_tool {

namespace {

std::string box_line(const std::string &prefix, const ostrel_alg_box &b) {
    return strformat("%s  %d,%d,%d,%d  score %.2f  label %d  colours %s, %s\n", prefix.c_str(), b.x, b.y, b.width,
                     b.height, rounded_score(b.score), b.label, color_name(b.color_main).c_str(),
                     color_name(b.color_second).c_str());
}

std::string ms_text(double ms) {
    const double r = rounded_ms(ms);
    return r == std::floor(r) ? strformat("%.0f", r) : strformat("%.3f", r);
}

}  // namespace

double rounded_ms(double ms) { return std::round(ms * 1000.0) / 1000.0; }

std::string printable_file_name(const std::string &name) { return printable_text(name, true); }

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
