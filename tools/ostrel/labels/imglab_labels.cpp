#include "labels/imglab_labels.h"

#include <cmath>
#include <filesystem>
#include <sstream>

#include <pugixml.hpp>

#include "cli/tool_error.h"
#include "labels/label_text.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

namespace {

struct ImglabReader {
    const std::string &text;
    const std::string &source;

    [[noreturn]] void fail(const pugi::xml_node &node, const std::string &reason) const {
        const int line = line_of(node, text);
        throw input_error("'" + source + "'" + (line > 0 ? " line " + std::to_string(line) : "") + ": " + reason);
    }
    long long whole(const pugi::xml_node &node, const char *name) const {
        const pugi::xml_attribute a = node.attribute(name);
        if (!a) {
            fail(node, std::string("<") + node.name() + "> has no " + name + "='...'");
        }
        const auto v = parse_real(a.value());
        if (!v || *v != std::floor(*v)) {
            fail(node, std::string(name) + "='" + a.value() + "' is not a whole number");
        }
        return static_cast<long long>(*v);
    }
    bool flag(const pugi::xml_node &node, const char *name) const {
        const pugi::xml_attribute a = node.attribute(name);
        if (!a) {
            return false;
        }
        const auto f = flag_text(a.value());
        if (!f) {
            fail(node, std::string(name) + "='" + a.value() + "' is not 0 or 1");
        }
        return *f;
    }
};

}  // namespace

LabelSet parse_imglab(const std::string &text, const std::string &source) {
    pugi::xml_document document;
    parse_label_xml(document, text, source);
    const ImglabReader r{text, source};
    const pugi::xml_node root = document.child("dataset");
    if (!root) {
        throw input_error("'" + source + "' is not an imglab file: no <dataset> element");
    }
    LabelSet set;
    set.format = LabelFormat::imglab;
    set.source = source;
    for (const pugi::xml_node &image : root.child("images").children("image")) {
        LabelledPicture picture;
        const pugi::xml_attribute file = image.attribute("file");
        if (!file || std::string(file.value()).empty()) {
            r.fail(image, "<image> has no file='...'");
        }
        picture.name = file.value();
        picture.source = "'" + source + "' line " + std::to_string(line_of(image, text));
        picture.id = static_cast<int64_t>(set.pictures.size() + 1);
        if (image.attribute("width")) {
            picture.width = static_cast<int>(r.whole(image, "width"));
        }
        if (image.attribute("height")) {
            picture.height = static_cast<int>(r.whole(image, "height"));
        }
        for (const pugi::xml_node &b : image.children("box")) {
            LabelBox box;
            const long long top = r.whole(b, "top"), left = r.whole(b, "left");
            const long long width = r.whole(b, "width"), height = r.whole(b, "height");
            if (width < 1 || height < 1 || std::llabs(top) > 1000000000 || std::llabs(left) > 1000000000 ||
                width > 1000000000 || height > 1000000000) {
                r.fail(b, "width and height must be at least 1, and values within +-1e9");
            }
            box.x = static_cast<double>(left);
            box.y = static_cast<double>(top);
            box.w = static_cast<double>(width);
            box.h = static_cast<double>(height);
            box.difficult = r.flag(b, "ignore") || r.flag(b, "difficult");
            box.truncated = r.flag(b, "truncated");
            box.occluded = r.flag(b, "occluded");
            if (b.attribute("detection_score")) {
                if (auto v = parse_real(b.attribute("detection_score").value())) {
                    box.score = *v;
                }
            }
            const std::string label = child_text(b, "label").value_or("");
            box.class_name = label.empty() ? kUnlabelledClass : label;
            picture.boxes.push_back(std::move(box));
        }
        set.pictures.push_back(std::move(picture));
    }
    add_used_classes(set);
    return set;
}

LabelSet read_imglab_labels(const std::string &path) {
    LabelSet set = parse_imglab(read_label_file(path, kMaxLabelSetBytes), path);
    const fs::path folder = fs::path(path).parent_path().empty() ? fs::path(".") : fs::path(path).parent_path();
    for (auto &picture : set.pictures) {
        find_picture(picture, {folder});
    }
    return set;
}

std::string write_imglab(const LabelSet &set, const LabelWriteOptions &options) {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "ISO-8859-1";
    pugi::xml_node root = document.append_child("dataset");
    root.append_child("name").text().set("imglab dataset");
    root.append_child("comment").text().set("Written by ostrel.");
    pugi::xml_node images = root.append_child("images");
    for (const auto &p : set.pictures) {
        const std::string where = p.picture_path.empty() ? p.name : p.picture_path;
        pugi::xml_node image = images.append_child("image");
        image.append_attribute("file") = picture_name_for(where, options.base).c_str();
        if (p.width > 0 && p.height > 0) {
            image.append_attribute("width") = p.width;
            image.append_attribute("height") = p.height;
        }
        for (const auto &b : p.boxes) {
            const Rect r = rounded_rect(b);
            pugi::xml_node box = image.append_child("box");
            box.append_attribute("top") = r.y;
            box.append_attribute("left") = r.x;
            box.append_attribute("width") = r.w;
            box.append_attribute("height") = r.h;
            if (b.difficult) {
                box.append_attribute("ignore") = 1;
            }
            if (b.truncated) {
                box.append_attribute("truncated") = 1;
            }
            if (b.occluded) {
                box.append_attribute("occluded") = 1;
            }
            if (b.score) {
                box.append_attribute("detection_score") = number_text(*b.score).c_str();
            }
            box.append_child("label").text().set(b.class_name.c_str());
        }
    }
    std::ostringstream out;
    document.save(out, "  ", pugi::format_default, pugi::encoding_latin1);
    return out.str();
}

}  // namespace ostrel_tool
