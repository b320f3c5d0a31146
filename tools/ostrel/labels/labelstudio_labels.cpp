#include "labels/labelstudio_labels.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <map>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "labels/label_text.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

std::string url_decoded(const std::string &text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// The picture's path as far as the address tells it.
std::string path_of_address(const std::string &address) {
    const size_t d = address.find("?d=");
    if (d != std::string::npos) {
        return url_decoded(address.substr(d + 3));
    }
    std::string path = address;
    const size_t query = path.find_first_of("?#");
    if (query != std::string::npos) {
        path = path.substr(0, query);
    }
    const size_t slash = path.find_last_of('/');
    return url_decoded(slash == std::string::npos ? path : path.substr(slash + 1));
}

// Uploaded files are stored as "<8 hex digits>-<name>".
std::string without_upload_prefix(const std::string &name) {
    if (name.size() > 9 && name[8] == '-' && std::all_of(name.begin(), name.begin() + 8, [](char c) {
            return std::isxdigit(static_cast<unsigned char>(c));
        })) {
        return name.substr(9);
    }
    return name;
}

// The upright box around a rectangle turned by degrees about its top-left corner.
void unrotate(LabelBox &box, double degrees) {
    const double r = degrees * 3.14159265358979323846 / 180.0;
    const double c = std::cos(r), s = std::sin(r);
    const double xs[4] = {0, box.w * c, box.w * c - box.h * s, -box.h * s};
    const double ys[4] = {0, box.w * s, box.w * s + box.h * c, box.h * c};
    const double left = *std::min_element(xs, xs + 4), right = *std::max_element(xs, xs + 4);
    const double top = *std::min_element(ys, ys + 4), bottom = *std::max_element(ys, ys + 4);
    box.x += left;
    box.y += top;
    box.w = right - left;
    box.h = bottom - top;
}

struct Region {
    double x = 0, y = 0, w = 0, h = 0, rotation = 0;
    std::vector<std::string> labels;
    std::optional<double> score;
    double original_width = 0, original_height = 0;
};

void read_region_value(const JsonReader &r, const json &value, const std::string &path, Region &region) {
    region.x = r.number(r.member(value, path, "x"), json_path(path, "x"));
    region.y = r.number(r.member(value, path, "y"), json_path(path, "y"));
    region.w = r.number(r.member(value, path, "width"), json_path(path, "width"));
    region.h = r.number(r.member(value, path, "height"), json_path(path, "height"));
    if (const json *rotation = r.optional_member(value, "rotation")) {
        region.rotation = r.number(*rotation, json_path(path, "rotation"));
    }
    if (!(region.w > 0) || !(region.h > 0)) {
        r.fail(path, "width and height must be above 0");
    }
    if (const json *labels = r.optional_member(value, "rectanglelabels")) {
        r.require_array(*labels, json_path(path, "rectanglelabels"));
        for (size_t k = 0; k < labels->size(); ++k) {
            region.labels.push_back(r.text((*labels)[k], json_path(json_path(path, "rectanglelabels"), k)));
        }
    }
}

void read_original_size(const JsonReader &r, const json &holder, const std::string &path, Region &region) {
    if (const json *w = r.optional_member(holder, "original_width")) {
        region.original_width = r.number(*w, json_path(path, "original_width"));
    }
    if (const json *h = r.optional_member(holder, "original_height")) {
        region.original_height = r.number(*h, json_path(path, "original_height"));
    }
}

// The rectangles of one result list: "rectanglelabels" results, and
// "rectangle" results labelled by a "labels" result of the same id.
std::vector<Region> regions_of(const JsonReader &r, const json &result, const std::string &path, int &others) {
    r.require_array(result, path);
    std::vector<Region> regions;
    std::map<std::string, std::vector<std::string>> labels_by_id;
    std::vector<std::pair<std::string, size_t>> unlabelled;
    for (size_t i = 0; i < result.size(); ++i) {
        const std::string item_path = json_path(path, i);
        const json &item = result[i];
        r.require_object(item, item_path);
        const json *type = r.optional_member(item, "type");
        const std::string kind = type ? r.text(*type, json_path(item_path, "type")) : std::string();
        const json *id = r.optional_member(item, "id");
        const std::string id_text = id ? r.id_text(*id, json_path(item_path, "id")) : std::string();
        if (kind == "labels") {
            const json &value = r.member(item, item_path, "value");
            if (const json *labels = r.optional_member(value, "labels")) {
                r.require_array(*labels, json_path(json_path(item_path, "value"), "labels"));
                for (const auto &l : *labels) {
                    if (l.is_string()) {
                        labels_by_id[id_text].push_back(l.get<std::string>());
                    }
                }
            }
            continue;
        }
        if (kind != "rectanglelabels" && kind != "rectangle") {
            ++others;
            continue;
        }
        Region region;
        read_region_value(r, r.member(item, item_path, "value"), json_path(item_path, "value"), region);
        read_original_size(r, item, item_path, region);
        if (const json *score = r.optional_member(item, "score")) {
            region.score = r.number(*score, json_path(item_path, "score"));
        }
        if (region.labels.empty()) {
            unlabelled.emplace_back(id_text, regions.size());
        }
        regions.push_back(std::move(region));
    }
    for (const auto &u : unlabelled) {
        const auto it = labels_by_id.find(u.first);
        if (it == labels_by_id.end() || it->second.empty()) {
            r.fail(path, "a rectangle (id '" + u.first + "') without a label");
        }
        regions[u.second].labels = it->second;
    }
    return regions;
}

std::string picture_address(const JsonReader &r, const json &data, const std::string &path) {
    r.require_object(data, path);
    if (const json *image = r.optional_member(data, "image")) {
        return r.text(*image, json_path(path, "image"));
    }
    std::string found;
    for (auto it = data.begin(); it != data.end(); ++it) {
        if (it->is_string()) {
            if (!found.empty()) {
                r.fail(path, "no \"image\" and several text fields: which one names the picture is not known");
            }
            found = it->get<std::string>();
        }
    }
    if (found.empty()) {
        r.fail(json_path(path, "image"), "missing");
    }
    return found;
}

// Boxes in pixels from regions in percent of a picture of width x height.
void add_regions(LabelledPicture &picture, const std::vector<Region> &regions) {
    for (const Region &region : regions) {
        for (const std::string &label : region.labels) {
            LabelBox box;
            box.class_name = label;
            box.x = region.x * picture.width / 100.0;
            box.y = region.y * picture.height / 100.0;
            box.w = region.w * picture.width / 100.0;
            box.h = region.h * picture.height / 100.0;
            box.score = region.score;
            if (region.rotation != 0.0) {
                unrotate(box, region.rotation);
            }
            picture.boxes.push_back(box);
        }
    }
}

// The picture's size: original_width/original_height of its regions, else
// what the lookup finds.
void size_picture(LabelledPicture &picture, const std::vector<Region> &regions, const LabelStudioPictures *lookup) {
    for (const Region &region : regions) {
        if (region.original_width > 0 && region.original_height > 0) {
            picture.width = static_cast<int>(std::lround(region.original_width));
            picture.height = static_cast<int>(std::lround(region.original_height));
        }
    }
    if (lookup != nullptr) {
        (*lookup)(picture);
    }
    if ((picture.width <= 0 || picture.height <= 0) && !regions.empty()) {
        throw input_error(picture.source + ": no original_width/original_height, and no picture '" + picture.name +
                          "' to take the size from");
    }
}

}  // namespace

bool looks_like_labelstudio(const json &value) {
    if (!value.is_array() || value.empty() || !value.front().is_object()) {
        return false;
    }
    const json &task = value.front();
    return task.contains("annotations") || task.contains("predictions") || task.contains("completions") ||
           (task.contains("data") && task["data"].is_object()) || (task.contains("image") && task.contains("label"));
}

LabelSet parse_labelstudio(const std::string &text, const std::string &source, const LabelStudioPictures *lookup) {
    const json document = parse_label_json(text, source);
    const JsonReader r(source);
    LabelSet set;
    set.format = LabelFormat::labelstudio;
    set.source = source;
    const json tasks = document.is_object() ? json::array({document}) : document;
    r.require_array(tasks, "");
    int others = 0;
    for (size_t i = 0; i < tasks.size(); ++i) {
        const std::string path = json_path("", i);
        const json &task = tasks[i];
        r.require_object(task, path);
        LabelledPicture picture;
        picture.source = "'" + source + "' " + path;
        if (const json *id = r.optional_member(task, "id")) {
            picture.id = id->is_number_integer() ? r.integer(*id, json_path(path, "id")) : static_cast<int64_t>(i + 1);
        } else {
            picture.id = static_cast<int64_t>(i + 1);
        }
        if (const json *data = r.optional_member(task, "data")) {
            picture.name = picture_address(r, *data, json_path(path, "data"));
            const json *chosen = nullptr;
            std::string chosen_path;
            for (const char *key : {"annotations", "completions"}) {
                const json *list = r.optional_member(task, key);
                if (list == nullptr || chosen != nullptr) {
                    continue;
                }
                r.require_array(*list, json_path(path, key));
                for (size_t k = 0; k < list->size(); ++k) {
                    const json &a = (*list)[k];
                    r.require_object(a, json_path(json_path(path, key), k));
                    const json *cancelled = r.optional_member(a, "was_cancelled");
                    if (cancelled &&
                        r.flag(*cancelled, json_path(json_path(json_path(path, key), k), "was_cancelled"))) {
                        continue;
                    }
                    chosen = &a;
                    chosen_path = json_path(json_path(path, key), k);
                    break;
                }
            }
            if (chosen == nullptr) {
                if (const json *predictions = r.optional_member(task, "predictions")) {
                    r.require_array(*predictions, json_path(path, "predictions"));
                    if (!predictions->empty()) {
                        chosen = &(*predictions)[0];
                        chosen_path = json_path(json_path(path, "predictions"), 0);
                        r.require_object(*chosen, chosen_path);
                    }
                }
            }
            if (chosen != nullptr) {
                const json &result = r.member(*chosen, chosen_path, "result");
                const std::vector<Region> regions = regions_of(r, result, json_path(chosen_path, "result"), others);
                size_picture(picture, regions, lookup);
                add_regions(picture, regions);
            } else if (lookup != nullptr) {
                (*lookup)(picture);
            }
        } else if (const json *image = r.optional_member(task, "image")) {
            // JSON-MIN: {"image": ..., "<from_name>": [regions], ...}
            picture.name = r.text(*image, json_path(path, "image"));
            std::vector<Region> regions;
            for (auto it = task.begin(); it != task.end(); ++it) {
                if (!it->is_array()) {
                    continue;
                }
                for (size_t k = 0; k < it->size(); ++k) {
                    const json &v = (*it)[k];
                    if (!v.is_object() || !v.contains("rectanglelabels")) {
                        continue;
                    }
                    const std::string item_path = json_path(json_path(path, it.key()), k);
                    Region region;
                    read_region_value(r, v, item_path, region);
                    read_original_size(r, v, item_path, region);
                    regions.push_back(std::move(region));
                }
            }
            size_picture(picture, regions, lookup);
            add_regions(picture, regions);
        } else {
            r.fail(json_path(path, "data"), "missing (a Label Studio task has \"data\" with the picture)");
        }
        set.pictures.push_back(std::move(picture));
    }
    if (others > 0) {
        set.notes.push_back(strformat("'%s': %d result%s other than rectangles passed over", source.c_str(), others,
                                      others == 1 ? "" : "s"));
    }
    add_used_classes(set);
    return set;
}

LabelSet read_labelstudio_labels(const std::string &path) {
    const fs::path folder = fs::path(path).parent_path().empty() ? fs::path(".") : fs::path(path).parent_path();
    const LabelStudioPictures lookup = [&folder](LabelledPicture &picture) {
        const std::string relative = path_of_address(picture.name);
        LabelledPicture probe = picture;
        for (const std::string &name : {relative, without_upload_prefix(relative)}) {
            probe.name = name;
            find_picture(probe, {folder, folder / "images"});
            if (!probe.picture_path.empty()) {
                break;
            }
        }
        picture.picture_path = probe.picture_path;
        picture.looked_in = probe.looked_in;
        if ((picture.width <= 0 || picture.height <= 0) && !picture.picture_path.empty()) {
            picture_size(picture.picture_path, picture.width, picture.height);
        }
    };
    return parse_labelstudio(read_label_file(path, kMaxLabelSetBytes), path, &lookup);
}

std::string write_labelstudio(const LabelSet &set, const LabelWriteOptions &options) {
    using ojson = nlohmann::ordered_json;
    ojson tasks = ojson::array();
    for (const auto &p : set.pictures) {
        const std::string where = p.picture_path.empty() ? p.name : p.picture_path;
        ojson result = ojson::array();
        double score_sum = 0.0;
        int n = 0;
        for (const auto &b : p.boxes) {
            nlohmann::ordered_json region;
            region["id"] = "r" + std::to_string(++n);
            region["from_name"] = "label";
            region["to_name"] = "image";
            region["type"] = "rectanglelabels";
            region["original_width"] = p.width;
            region["original_height"] = p.height;
            region["image_rotation"] = 0;
            nlohmann::ordered_json value;
            value["x"] = b.x * 100.0 / p.width;
            value["y"] = b.y * 100.0 / p.height;
            value["width"] = b.w * 100.0 / p.width;
            value["height"] = b.h * 100.0 / p.height;
            value["rotation"] = 0;
            value["rectanglelabels"] = ojson::array({b.class_name});
            region["value"] = value;
            if (b.score) {
                region["score"] = *b.score;
                score_sum += *b.score;
            }
            result.push_back(region);
        }
        nlohmann::ordered_json task;
        task["data"] = ojson::object({{"image", picture_name_for(where, options.base)}});
        if (options.predictions) {
            nlohmann::ordered_json prediction;
            prediction["model_version"] = options.model_version.empty() ? "ostrel" : options.model_version;
            prediction["score"] = n > 0 ? score_sum / n : 0.0;
            prediction["result"] = result;
            task["predictions"] = ojson::array({prediction});
        } else {
            ojson annotation;
            annotation["result"] = result;
            task["annotations"] = ojson::array({annotation});
        }
        tasks.push_back(task);
    }
    return tasks.dump(1, ' ', false, ojson::error_handler_t::replace) + "\n";
}

}  // namespace ostrel_tool
