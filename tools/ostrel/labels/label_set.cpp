#include "labels/label_set.h"

#include <cctype>
#include <algorithm>
#include <cmath>
#include <set>

#include "cli/tool_error.h"
#include "labels/label_text.h"

namespace ostrel_tool {

namespace {

struct FormatName {
    LabelFormat format;
    const char *name;
};
constexpr FormatName kFormatNames[] = {
    {LabelFormat::voc, "voc"},
    {LabelFormat::coco, "coco"},
    {LabelFormat::yolo, "yolo"},
    {LabelFormat::cvat, "cvat"},
    {LabelFormat::labelstudio, "labelstudio"},
    {LabelFormat::imglab, "imglab"},
};

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Edges are rounded, not the size, so that adjacent boxes stay adjacent.
long long rounded_edge(double v) { return std::llround(v); }

}  // namespace

const char *format_name(LabelFormat format) {
    for (const auto &f : kFormatNames) {
        if (f.format == format) {
            return f.name;
        }
    }
    return "?";
}

std::optional<LabelFormat> format_of_name(const std::string &name) {
    const std::string n = ascii_lowered(name);
    for (const auto &f : kFormatNames) {
        if (n == f.name) {
            return f.format;
        }
    }
    if (n == "pascal" || n == "pascal-voc" || n == "pascalvoc") {
        return LabelFormat::voc;
    }
    if (n == "label-studio" || n == "label_studio" || n == "ls") {
        return LabelFormat::labelstudio;
    }
    if (n == "dlib" || n == "dlib-xml") {
        return LabelFormat::imglab;
    }
    return std::nullopt;
}

std::string format_names() {
    std::string names;
    for (const auto &f : kFormatNames) {
        names += (names.empty() ? "" : ", ") + std::string(f.name);
    }
    return names;
}

void add_used_classes(LabelSet &set) {
    std::set<std::string> known(set.classes.begin(), set.classes.end());
    for (const auto &picture : set.pictures) {
        for (const auto &box : picture.boxes) {
            if (known.insert(box.class_name).second) {
                set.classes.push_back(box.class_name);
            }
        }
    }
}

Rect rounded_rect(const LabelBox &box) {
    const long long left = rounded_edge(box.x);
    const long long top = rounded_edge(box.y);
    const long long right = std::max(rounded_edge(box.x + box.w), left + 1);
    const long long bottom = std::max(rounded_edge(box.y + box.h), top + 1);
    return {static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
            static_cast<int>(bottom - top)};
}

LabelBox label_box_of(const Rect &rect, const std::string &class_name) {
    LabelBox box;
    box.class_name = class_name;
    box.x = rect.x;
    box.y = rect.y;
    box.w = rect.w;
    box.h = rect.h;
    return box;
}

size_t box_count(const LabelSet &set) {
    size_t n = 0;
    for (const auto &p : set.pictures) {
        n += p.boxes.size();
    }
    return n;
}

std::string missing_pictures_message(const LabelSet &set) {
    std::vector<const LabelledPicture *> missing;
    for (const auto &p : set.pictures) {
        if (p.picture_path.empty()) {
            missing.push_back(&p);
        }
    }
    if (missing.empty()) {
        return {};
    }
    const LabelledPicture &first = *missing.front();
    std::string places;
    for (const auto &place : first.looked_in) {
        places += (places.empty() ? "" : ", ") + place;
    }
    std::string message = "no picture for '" + first.name + "' (labels " + first.source +
                          (places.empty() ? "" : "; looked in: " + places) + ")";
    if (missing.size() > 1) {
        message += " and for " + std::to_string(missing.size() - 1) + " more of the " +
                   std::to_string(set.pictures.size()) + " pictures";
    }
    return message;
}

std::string ClassGroup::display() const {
    std::string text;
    for (const auto &n : names) {
        text += (text.empty() ? "" : ",") + n;
    }
    return text;
}

bool ClassGroup::contains(const std::string &name) const {
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::vector<ClassGroup> class_groups_of(const std::vector<std::string> &values) {
    std::vector<ClassGroup> groups;
    for (const auto &value : values) {
        ClassGroup group;
        size_t start = 0;
        while (true) {
            const size_t comma = value.find(',', start);
            const std::string name =
                trimmed(value.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
            if (name.empty()) {
                throw usage_error("--class '" + value + "' holds an empty class name");
            }
            if (!group.contains(name)) {
                group.names.push_back(name);
            }
            if (comma == std::string::npos) {
                break;
            }
            start = comma + 1;
        }
        groups.push_back(std::move(group));
    }
    return groups;
}

ClassGroup merged_into_one(const std::vector<ClassGroup> &groups) {
    ClassGroup one;
    for (const auto &g : groups) {
        for (const auto &n : g.names) {
            if (!one.contains(n)) {
                one.names.push_back(n);
            }
        }
    }
    return one;
}

}  // namespace ostrel_tool
