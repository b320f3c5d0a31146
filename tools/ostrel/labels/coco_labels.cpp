#include "labels/coco_labels.h"

#include <cmath>
#include <filesystem>
#include <map>
#include <set>

#include "cli/tool_error.h"
#include "labels/label_text.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

// COCO bboxes of the results of any detector: x, y, w, h, w and h above 0.
void read_bbox(const JsonReader &r, const json &entry, const std::string &path, LabelBox &box) {
    const std::string where = json_path(path, "bbox");
    const json &bbox = r.member(entry, path, "bbox");
    if (!bbox.is_array() || bbox.size() != 4) {
        r.fail(where, "[x, y, width, height] expected");
    }
    box.x = r.number(bbox[0], json_path(where, 0));
    box.y = r.number(bbox[1], json_path(where, 1));
    box.w = r.number(bbox[2], json_path(where, 2));
    box.h = r.number(bbox[3], json_path(where, 3));
    if (!(box.w > 0.0) || !(box.h > 0.0)) {
        r.fail(where, "width and height must be above 0");
    }
}

std::string split_of(const fs::path &json_file) {
    const std::string stem = json_file.stem().string();
    const std::string prefix = "instances_";
    return stem.rfind(prefix, 0) == 0 ? stem.substr(prefix.size()) : std::string();
}

}  // namespace

bool looks_like_coco_dataset(const json &value) {
    return value.is_object() && value.contains("images") &&
           (value.contains("annotations") || value.contains("categories"));
}

bool looks_like_coco_results(const json &value) {
    return value.is_array() && !value.empty() && value.front().is_object() && value.front().contains("image_id") &&
           value.front().contains("bbox");
}

LabelSet parse_coco(const std::string &text, const std::string &source) {
    const json document = parse_label_json(text, source);
    const JsonReader r(source);
    if (!document.is_object()) {
        r.fail("", "a COCO file is an object with \"images\", \"annotations\" and \"categories\"");
    }
    LabelSet set;
    set.format = LabelFormat::coco;
    set.source = source;

    std::map<int64_t, std::string> category_names;
    if (const json *categories = r.optional_member(document, "categories")) {
        r.require_array(*categories, "categories");
        for (size_t i = 0; i < categories->size(); ++i) {
            const std::string path = json_path("categories", i);
            const json &c = (*categories)[i];
            r.require_object(c, path);
            const int64_t id = r.integer(r.member(c, path, "id"), json_path(path, "id"));
            const std::string name = r.text(r.member(c, path, "name"), json_path(path, "name"));
            if (!category_names.emplace(id, name).second) {
                r.fail(json_path(path, "id"), "category id " + std::to_string(id) + " given twice");
            }
            set.classes.push_back(name);
            set.class_ids.push_back(id);
        }
    }

    const json &images = r.member(document, "", "images");
    r.require_array(images, "images");
    std::map<std::string, size_t> picture_of_id;
    for (size_t i = 0; i < images.size(); ++i) {
        const std::string path = json_path("images", i);
        const json &image = images[i];
        r.require_object(image, path);
        const json &id_value = r.member(image, path, "id");
        const std::string id = r.id_text(id_value, json_path(path, "id"));
        LabelledPicture picture;
        picture.name = r.text(r.member(image, path, "file_name"), json_path(path, "file_name"));
        picture.source = "'" + source + "' " + path;
        picture.id = id_value.is_string() ? static_cast<int64_t>(i + 1) : r.integer(id_value, json_path(path, "id"));
        for (const char *key : {"width", "height"}) {
            if (const json *v = r.optional_member(image, key)) {
                const int64_t n = r.integer(*v, json_path(path, key));
                if (n < 0 || n > 1000000) {
                    r.fail(json_path(path, key), "0..1000000 expected");
                }
                (std::string(key) == "width" ? picture.width : picture.height) = static_cast<int>(n);
            }
        }
        if (!picture_of_id.emplace(id, set.pictures.size()).second) {
            r.fail(json_path(path, "id"), "image id " + id + " given twice");
        }
        set.pictures.push_back(std::move(picture));
    }

    if (const json *annotations = r.optional_member(document, "annotations")) {
        r.require_array(*annotations, "annotations");
        for (size_t i = 0; i < annotations->size(); ++i) {
            const std::string path = json_path("annotations", i);
            const json &a = (*annotations)[i];
            r.require_object(a, path);
            const std::string image_id = r.id_text(r.member(a, path, "image_id"), json_path(path, "image_id"));
            const auto picture = picture_of_id.find(image_id);
            if (picture == picture_of_id.end()) {
                r.fail(json_path(path, "image_id"), "no image has id " + image_id);
            }
            const int64_t category = r.integer(r.member(a, path, "category_id"), json_path(path, "category_id"));
            const auto name = category_names.find(category);
            if (name == category_names.end()) {
                r.fail(json_path(path, "category_id"), "no category has id " + std::to_string(category));
            }
            LabelBox box;
            box.class_name = name->second;
            read_bbox(r, a, path, box);
            if (const json *crowd = r.optional_member(a, "iscrowd")) {
                box.crowd = r.flag(*crowd, json_path(path, "iscrowd"));
            }
            if (const json *area = r.optional_member(a, "area")) {
                box.area = r.number(*area, json_path(path, "area"));
            }
            if (const json *score = r.optional_member(a, "score")) {
                box.score = r.number(*score, json_path(path, "score"));
            }
            set.pictures[picture->second].boxes.push_back(std::move(box));
        }
    }
    return set;
}

LabelSet read_coco_labels(const std::string &path) {
    LabelSet set = parse_coco(read_label_file(path, kMaxLabelSetBytes), path);
    const fs::path folder = fs::path(path).parent_path().empty() ? fs::path(".") : fs::path(path).parent_path();
    std::vector<fs::path> folders = {folder, folder / "images", folder.parent_path(), folder.parent_path() / "images"};
    const std::string split = split_of(path);
    if (!split.empty()) {
        folders.push_back(folder.parent_path() / split);
        folders.push_back(folder.parent_path() / "images" / split);
    }
    for (auto &picture : set.pictures) {
        find_picture(picture, folders);
    }
    return set;
}

namespace {

int64_t category_id_of(const LabelSet &set, const std::string &name) {
    for (size_t i = 0; i < set.classes.size(); ++i) {
        if (set.classes[i] == name) {
            return i < set.class_ids.size() ? set.class_ids[i] : static_cast<int64_t>(i + 1);
        }
    }
    return -1;
}

// Whole pixels as whole numbers (12, not 12.0).
json coordinate(double v) {
    if (v == std::floor(v) && std::fabs(v) < 1e15) {
        return static_cast<int64_t>(v);
    }
    return v;
}

json bbox_of(const LabelBox &box) {
    return json::array({coordinate(box.x), coordinate(box.y), coordinate(box.w), coordinate(box.h)});
}

}  // namespace

std::string write_coco_dataset(const LabelSet &set, const LabelWriteOptions &options) {
    json images = json::array();
    json annotations = json::array();
    int64_t annotation_id = 0;
    for (const LabelledPicture &p : set.pictures) {
        const std::string where = p.picture_path.empty() ? p.name : p.picture_path;
        json entry;
        entry["id"] = p.id;
        entry["file_name"] = picture_name_for(where, options.base);
        entry["width"] = p.width;
        entry["height"] = p.height;
        images.push_back(entry);
        for (const LabelBox &box : p.boxes) {
            json a;
            a["id"] = ++annotation_id;
            a["image_id"] = p.id;
            a["category_id"] = category_id_of(set, box.class_name);
            a["bbox"] = bbox_of(box);
            a["area"] = coordinate(box.area ? *box.area : box.w * box.h);
            a["iscrowd"] = box.crowd ? 1 : 0;
            if (box.score) {
                a["score"] = *box.score;
            }
            annotations.push_back(a);
        }
    }
    json categories = json::array();
    for (size_t i = 0; i < set.classes.size(); ++i) {
        categories.push_back(
            {{"id", category_id_of(set, set.classes[i])}, {"name", set.classes[i]}, {"supercategory", "none"}});
    }
    nlohmann::ordered_json document;
    document["info"] = {{"description", "written by ostrel"}};
    document["images"] = images;
    document["annotations"] = annotations;
    document["categories"] = categories;
    return document.dump(1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string write_coco_results(const LabelSet &detections, const LabelSet *ids_from) {
    const std::unique_ptr<PictureIndex> index = ids_from ? std::make_unique<PictureIndex>(*ids_from) : nullptr;
    nlohmann::ordered_json results = nlohmann::ordered_json::array();
    for (const LabelledPicture &p : detections.pictures) {
        int64_t image_id = p.id;
        if (ids_from != nullptr) {
            const std::string &where = p.picture_path.empty() ? p.name : p.picture_path;
            const long i = index->find(where);
            if (i < 0) {
                throw input_error("'" + ids_from->source + "' has no image for '" + where + "'");
            }
            image_id = ids_from->pictures[static_cast<size_t>(i)].id;
        }
        for (const LabelBox &box : p.boxes) {
            const int64_t category = category_id_of(ids_from != nullptr ? *ids_from : detections, box.class_name);
            if (category < 0) {
                throw input_error("'" + (ids_from ? ids_from->source : std::string("the detections")) +
                                  "' has no category '" + box.class_name + "'");
            }
            nlohmann::ordered_json entry;
            entry["image_id"] = image_id;
            entry["category_id"] = category;
            entry["bbox"] = bbox_of(box);
            entry["score"] = box.score.value_or(1.0);
            results.push_back(entry);
        }
    }
    return results.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

LabelSet parse_coco_results(const std::string &text, const std::string &source, const LabelSet &dataset) {
    const json document = parse_label_json(text, source);
    const JsonReader r(source);
    r.require_array(document, "");
    LabelSet set;
    set.format = LabelFormat::coco;
    set.source = source;
    set.classes = dataset.classes;
    set.class_ids = dataset.class_ids;
    set.pictures = dataset.pictures;
    std::map<int64_t, size_t> picture_of_id;
    for (size_t i = 0; i < set.pictures.size(); ++i) {
        set.pictures[i].boxes.clear();
        picture_of_id.emplace(set.pictures[i].id, i);
    }
    std::map<int64_t, std::string> names;
    for (size_t i = 0; i < dataset.classes.size(); ++i) {
        names.emplace(i < dataset.class_ids.size() ? dataset.class_ids[i] : static_cast<int64_t>(i + 1),
                      dataset.classes[i]);
    }
    for (size_t i = 0; i < document.size(); ++i) {
        const std::string path = json_path("", i);
        const json &entry = document[i];
        r.require_object(entry, path);
        const int64_t image_id = r.integer(r.member(entry, path, "image_id"), json_path(path, "image_id"));
        const auto picture = picture_of_id.find(image_id);
        if (picture == picture_of_id.end()) {
            r.fail(json_path(path, "image_id"),
                   "'" + dataset.source + "' has no image of id " + std::to_string(image_id));
        }
        const int64_t category = r.integer(r.member(entry, path, "category_id"), json_path(path, "category_id"));
        const auto name = names.find(category);
        if (name == names.end()) {
            r.fail(json_path(path, "category_id"),
                   "'" + dataset.source + "' has no category of id " + std::to_string(category));
        }
        LabelBox box;
        box.class_name = name->second;
        read_bbox(r, entry, path, box);
        box.score = r.number(r.member(entry, path, "score"), json_path(path, "score"));
        set.pictures[picture->second].boxes.push_back(std::move(box));
    }
    return set;
}

}  // namespace ostrel_tool
