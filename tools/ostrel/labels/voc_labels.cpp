#include "labels/voc_labels.h"

#include <cmath>
#include <filesystem>
#include <sstream>

#include <pugixml.hpp>

#include "cli/tool_error.h"
#include "files/picture.h"
#include "labels/label_text.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

LabelledPicture voc_picture_of(const VocAnnotation &annotation, const std::string &source) {
    LabelledPicture picture;
    picture.name = annotation.filename;
    picture.source = "'" + source + "'";
    picture.width = annotation.width;
    picture.height = annotation.height;
    for (const VocObject &object : annotation.objects) {
        LabelBox box = label_box_of(object.box, object.name);
        box.difficult = object.difficult;
        box.truncated = object.truncated;
        box.occluded = object.occluded;
        box.score = object.score;
        picture.boxes.push_back(std::move(box));
    }
    return picture;
}

LabelSet read_voc_labels(const std::string &path) {
    LabelSet set;
    set.format = LabelFormat::voc;
    set.source = path;
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) {  // a folder; read_voc_folder says what is wrong otherwise
        for (const VocItem &item : read_voc_folder(path, true)) {
            LabelledPicture picture = voc_picture_of(item.annotation, item.annotation_path);
            if (picture.name.empty()) {
                picture.name = file_name_of(item.picture_path);
            }
            picture.picture_path = item.picture_path;
            set.pictures.push_back(std::move(picture));
        }
    } else {
        const VocAnnotation annotation = read_voc_annotation(path);
        LabelledPicture picture = voc_picture_of(annotation, path);
        const fs::path folder = fs::path(path).parent_path();
        const fs::path parent = folder.parent_path();
        if (picture.name.empty()) {
            picture.name = stem_of(path) + ".jpg";
        }
        find_picture(picture, {folder.empty() ? fs::path(".") : folder, parent / "JPEGImages", parent / "images"});
        if (picture.picture_path.empty() && !annotation.path.empty()) {
            const fs::path recorded(annotation.path);
            const fs::path candidate = recorded.is_absolute() ? recorded : folder / recorded;
            if (fs::is_regular_file(candidate, ec)) {
                picture.picture_path = candidate.string();
            }
        }
        set.pictures.push_back(std::move(picture));
    }
    for (size_t i = 0; i < set.pictures.size(); ++i) {
        set.pictures[i].id = static_cast<int64_t>(i + 1);
    }
    add_used_classes(set);
    return set;
}

namespace {
void add_text(pugi::xml_node parent, const char *tag, const std::string &text) {
    parent.append_child(tag).append_child(pugi::node_pcdata).set_value(text.c_str());
}
}  // namespace

std::string write_voc_annotation(const LabelledPicture &picture, const LabelWriteOptions &options) {
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("annotation");
    const std::string where = picture.picture_path.empty() ? picture.name : picture.picture_path;
    const fs::path folder = fs::path(where).parent_path();
    add_text(root, "folder", folder.filename().string());
    add_text(root, "filename", fs::path(where).filename().string());
    add_text(root, "path", picture_name_for(where, options.base));
    add_text(root.append_child("source"), "database", "Unknown");
    pugi::xml_node size = root.append_child("size");
    add_text(size, "width", std::to_string(picture.width));
    add_text(size, "height", std::to_string(picture.height));
    add_text(size, "depth", "3");
    add_text(root, "segmented", "0");
    for (const LabelBox &box : picture.boxes) {
        const Rect r = rounded_rect(box);
        pugi::xml_node object = root.append_child("object");
        add_text(object, "name", box.class_name);
        add_text(object, "pose", "Unspecified");
        add_text(object, "truncated", box.truncated ? "1" : "0");
        add_text(object, "difficult", box.difficult ? "1" : "0");
        if (box.occluded) {
            add_text(object, "occluded", "1");
        }
        if (box.score) {
            add_text(object, "score", number_text(*box.score));
        }
        pugi::xml_node bndbox = object.append_child("bndbox");
        add_text(bndbox, "xmin", std::to_string(static_cast<long long>(r.x) + 1));
        add_text(bndbox, "ymin", std::to_string(static_cast<long long>(r.y) + 1));
        add_text(bndbox, "xmax", std::to_string(static_cast<long long>(r.x) + r.w));
        add_text(bndbox, "ymax", std::to_string(static_cast<long long>(r.y) + r.h));
    }
    std::ostringstream out;
    document.save(out, "\t", pugi::format_default | pugi::format_no_declaration, pugi::encoding_utf8);
    return out.str();
}

}  // namespace ostrel_tool
