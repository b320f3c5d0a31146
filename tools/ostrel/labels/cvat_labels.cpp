#include "labels/cvat_labels.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <set>
#include <sstream>

#include <pugixml.hpp>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "labels/label_text.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

namespace {

struct CvatReader {
    const std::string &text;
    const std::string &source;

    [[noreturn]] void fail(const pugi::xml_node &node, const std::string &reason) const {
        const int line = line_of(node, text);
        throw input_error("'" + source + "'" + (line > 0 ? " line " + std::to_string(line) : "") + ": " + reason);
    }
    double number(const pugi::xml_node &node, const char *name) const {
        const pugi::xml_attribute a = node.attribute(name);
        if (!a) {
            fail(node, std::string("<") + node.name() + "> has no " + name + "=\"...\"");
        }
        const auto v = parse_real(a.value());
        if (!v) {
            fail(node, std::string(name) + "=\"" + a.value() + "\" is not a number");
        }
        return *v;
    }
};

// The upright box around a box turned by degrees about its centre (CVAT
// turns boxes about their centres).
void unrotate(LabelBox &box, double degrees) {
    const double r = degrees * 3.14159265358979323846 / 180.0;
    const double c = std::fabs(std::cos(r)), s = std::fabs(std::sin(r));
    const double cx = box.x + box.w / 2, cy = box.y + box.h / 2;
    const double w = box.w * c + box.h * s, h = box.w * s + box.h * c;
    box.x = cx - w / 2;
    box.y = cy - h / 2;
    box.w = w;
    box.h = h;
}

}  // namespace

LabelSet parse_cvat(const std::string &text, const std::string &source) {
    pugi::xml_document document;
    parse_label_xml(document, text, source);
    const CvatReader r{text, source};
    const pugi::xml_node root = document.child("annotations");
    if (!root) {
        throw input_error("'" + source + "' is not a CVAT file: no <annotations> element");
    }
    if (root.child("track")) {
        r.fail(root.child("track"), "a CVAT for video file (<track>): export the task as \"CVAT for images 1.1\"");
    }
    LabelSet set;
    set.format = LabelFormat::cvat;
    set.source = source;
    // Labels of a task, a project or a job, in their order.
    for (const pugi::xpath_node &label : root.select_nodes("meta//labels/label")) {
        const std::string name = child_text(label.node(), "name").value_or("");
        if (!name.empty() && std::find(set.classes.begin(), set.classes.end(), name) == set.classes.end()) {
            set.classes.push_back(name);
        }
    }
    int other_shapes = 0;
    std::set<int64_t> ids;
    for (const pugi::xml_node &image : root.children("image")) {
        LabelledPicture picture;
        const pugi::xml_attribute name = image.attribute("name");
        if (!name || std::string(name.value()).empty()) {
            r.fail(image, "<image> has no name=\"...\"");
        }
        picture.name = name.value();
        picture.source = "'" + source + "' line " + std::to_string(line_of(image, text));
        const double id = image.attribute("id") ? r.number(image, "id") : static_cast<double>(set.pictures.size());
        if (id < 0 || id != std::floor(id) || !ids.insert(static_cast<int64_t>(id)).second) {
            r.fail(image, "id=\"" + std::string(image.attribute("id").value()) + "\" is not a new whole number");
        }
        picture.id = static_cast<int64_t>(id);
        if (image.attribute("width")) {
            picture.width = static_cast<int>(std::lround(r.number(image, "width")));
        }
        if (image.attribute("height")) {
            picture.height = static_cast<int>(std::lround(r.number(image, "height")));
        }
        for (const pugi::xml_node &shape : image.children()) {
            if (shape.type() != pugi::node_element) {
                continue;
            }
            if (std::string(shape.name()) != "box") {
                ++other_shapes;
                continue;
            }
            LabelBox box;
            box.class_name = shape.attribute("label").value();
            if (box.class_name.empty()) {
                r.fail(shape, "<box> has no label=\"...\"");
            }
            const double xtl = r.number(shape, "xtl"), ytl = r.number(shape, "ytl");
            const double xbr = r.number(shape, "xbr"), ybr = r.number(shape, "ybr");
            if (!(xbr > xtl) || !(ybr > ytl)) {
                r.fail(shape, "xbr/ybr must lie beyond xtl/ytl");
            }
            box.x = xtl;
            box.y = ytl;
            box.w = xbr - xtl;
            box.h = ybr - ytl;
            if (shape.attribute("occluded")) {
                box.occluded = flag_text(shape.attribute("occluded").value()).value_or(false);
            }
            for (const pugi::xml_node &attribute : shape.children("attribute")) {
                const std::string key = attribute.attribute("name").value();
                const auto on = flag_text(attribute.text().get());
                if (key == "difficult") {
                    box.difficult = on.value_or(false);
                } else if (key == "crowd" || key == "iscrowd" || key == "is_crowd") {
                    box.crowd = on.value_or(false);
                } else if (key == "truncated") {
                    box.truncated = on.value_or(false);
                } else if (key == "score" || key == "confidence") {
                    if (auto v = parse_real(attribute.text().get())) {
                        box.score = *v;
                    }
                }
            }
            if (shape.attribute("rotation")) {
                const double degrees = r.number(shape, "rotation");
                if (degrees != 0.0) {
                    unrotate(box, degrees);
                }
            }
            picture.boxes.push_back(std::move(box));
        }
        set.pictures.push_back(std::move(picture));
    }
    if (other_shapes > 0) {
        set.notes.push_back(strformat("'%s': %d shape%s other than boxes (polygons, points, tags, ...) passed over",
                                      source.c_str(), other_shapes, other_shapes == 1 ? "" : "s"));
    }
    add_used_classes(set);
    return set;
}

LabelSet read_cvat_labels(const std::string &path) {
    LabelSet set = parse_cvat(read_label_file(path, kMaxLabelSetBytes), path);
    const fs::path folder = fs::path(path).parent_path().empty() ? fs::path(".") : fs::path(path).parent_path();
    for (auto &picture : set.pictures) {
        find_picture(picture, {folder / "images", folder});
    }
    return set;
}

std::string write_cvat(const LabelSet &set, const LabelWriteOptions &options) {
    bool scores = false;
    for (const auto &p : set.pictures) {
        for (const auto &b : p.boxes) {
            scores = scores || b.score.has_value();
        }
    }
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "utf-8";
    pugi::xml_node root = document.append_child("annotations");
    root.append_child("version").text().set("1.1");
    pugi::xml_node task = root.append_child("meta").append_child("task");
    task.append_child("size").text().set(static_cast<unsigned long long>(set.pictures.size()));
    task.append_child("mode").text().set("annotation");
    pugi::xml_node labels = task.append_child("labels");
    for (const auto &c : set.classes) {
        pugi::xml_node label = labels.append_child("label");
        label.append_child("name").text().set(c.c_str());
        label.append_child("type").text().set("rectangle");
        pugi::xml_node attributes = label.append_child("attributes");
        if (scores) {
            pugi::xml_node a = attributes.append_child("attribute");
            a.append_child("name").text().set("score");
            a.append_child("mutable").text().set("False");
            a.append_child("input_type").text().set("number");
            a.append_child("default_value").text().set("0");
            a.append_child("values").text().set("0\n1\n0.01");
        }
    }
    for (const auto &p : set.pictures) {
        const std::string where = p.picture_path.empty() ? p.name : p.picture_path;
        pugi::xml_node image = root.append_child("image");
        image.append_attribute("id") = static_cast<long long>(p.id);
        image.append_attribute("name") = picture_name_for(where, options.base).c_str();
        image.append_attribute("width") = p.width;
        image.append_attribute("height") = p.height;
        for (const auto &b : p.boxes) {
            pugi::xml_node box = image.append_child("box");
            box.append_attribute("label") = b.class_name.c_str();
            box.append_attribute("source") = b.score ? "auto" : "manual";
            box.append_attribute("occluded") = b.occluded ? "1" : "0";
            box.append_attribute("xtl") = strformat("%.2f", b.x).c_str();
            box.append_attribute("ytl") = strformat("%.2f", b.y).c_str();
            box.append_attribute("xbr") = strformat("%.2f", b.x + b.w).c_str();
            box.append_attribute("ybr") = strformat("%.2f", b.y + b.h).c_str();
            box.append_attribute("z_order") = "0";
            if (b.score) {
                pugi::xml_node a = box.append_child("attribute");
                a.append_attribute("name") = "score";
                a.text().set(number_text(*b.score).c_str());
            }
            if (b.difficult) {
                pugi::xml_node a = box.append_child("attribute");
                a.append_attribute("name") = "difficult";
                a.text().set("true");
            }
            if (b.crowd) {
                pugi::xml_node a = box.append_child("attribute");
                a.append_attribute("name") = "is_crowd";
                a.text().set("true");
            }
        }
    }
    std::ostringstream out;
    document.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
    return out.str();
}

}  // namespace ostrel_tool
