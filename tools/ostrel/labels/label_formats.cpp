#include "labels/label_formats.h"

#include <cctype>
#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include <pugixml.hpp>

#include "cli/tool_error.h"
#include "files/atomic_file.h"
#include "files/picture.h"
#include "labels/coco_labels.h"
#include "labels/cvat_labels.h"
#include "labels/imglab_labels.h"
#include "labels/label_text.h"
#include "labels/labelstudio_labels.h"
#include "labels/picture_lookup.h"
#include "labels/voc_labels.h"
#include "labels/yolo_labels.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

namespace {

enum class FileKind { none, voc, coco, coco_results, yolo, cvat, labelstudio, imglab };

// The root element of an XML label file.
FileKind xml_kind(const std::string &path) {
    pugi::xml_document document;
    std::string text;
    try {
        text = read_label_file(path, kMaxLabelSetBytes);
    } catch (const ToolError &) {
        return FileKind::none;
    }
    if (!document.load_buffer(text.data(), text.size(), pugi::parse_default, declared_xml_encoding(text))) {
        return FileKind::none;
    }
    const std::string root = document.document_element().name();
    if (root == "annotation") {
        return FileKind::voc;
    }
    if (root == "annotations") {
        return FileKind::cvat;
    }
    if (root == "dataset") {
        return FileKind::imglab;
    }
    return FileKind::none;
}

FileKind json_kind(const std::string &path) {
    nlohmann::json value;
    try {
        value = nlohmann::json::parse(without_utf8_bom(read_label_file(path, kMaxLabelSetBytes)));
    } catch (const std::exception &) {
        return FileKind::none;
    }
    if (looks_like_coco_dataset(value)) {
        return FileKind::coco;
    }
    if (looks_like_coco_results(value)) {
        return FileKind::coco_results;
    }
    if (looks_like_labelstudio(value)) {
        return FileKind::labelstudio;
    }
    return FileKind::none;
}

FileKind file_kind(const fs::path &path) {
    const std::string ext = ascii_lowered(path.extension().string());
    const std::string name = ascii_lowered(path.filename().string());
    if (ext == ".xml") {
        return xml_kind(path.string());
    }
    if (ext == ".json") {
        return json_kind(path.string());
    }
    if (name == "data.yaml" || name == "data.yml" || name == "classes.txt" || name == "obj.names") {
        return FileKind::yolo;
    }
    if (ext == ".txt") {
        return FileKind::yolo;
    }
    // Another name: the first character tells XML from JSON.
    std::string head;
    try {
        head = without_utf8_bom(read_label_file(path.string(), kMaxLabelSetBytes));
    } catch (const ToolError &) {
        return FileKind::none;
    }
    const size_t first = head.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return FileKind::none;
    }
    if (head[first] == '<' || head.rfind("\xFF\xFE", 0) == 0 || head.rfind("\xFE\xFF", 0) == 0) {
        return xml_kind(path.string());
    }
    if (head[first] == '{' || head[first] == '[') {
        return json_kind(path.string());
    }
    return FileKind::none;
}

LabelFormat format_of_kind(FileKind kind) {
    switch (kind) {
        case FileKind::voc: return LabelFormat::voc;
        case FileKind::coco: return LabelFormat::coco;
        case FileKind::yolo: return LabelFormat::yolo;
        case FileKind::cvat: return LabelFormat::cvat;
        case FileKind::labelstudio: return LabelFormat::labelstudio;
        default: return LabelFormat::imglab;
    }
}

std::vector<fs::path> sorted_files(const fs::path &folder) {
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(folder, ec)) {
        if (entry.is_regular_file(ec) && entry.path().filename().string()[0] != '.') {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// What a folder holds: label files by format (the file for whole-set
// formats, the folder for per-picture ones).
std::map<LabelFormat, std::vector<std::string>> formats_in(const fs::path &dir) {
    std::map<LabelFormat, std::vector<std::string>> found;
    std::error_code ec;
    std::vector<fs::path> folders = {dir};
    for (const char *sub : {"annotations", "Annotations", "labels"}) {
        if (fs::is_directory(dir / sub, ec)) {
            folders.push_back(dir / sub);
        }
    }
    bool pictures_here = false;
    for (const auto &folder : folders) {
        int xml_seen = 0;
        for (const auto &file : sorted_files(folder)) {
            const std::string ext = ascii_lowered(file.extension().string());
            const std::string name = ascii_lowered(file.filename().string());
            pictures_here = pictures_here || (folder == dir && is_picture_file_name(file));
            FileKind kind = FileKind::none;
            if (ext == ".xml") {
                // A folder of VOC files: the first few tell.
                if (xml_seen++ >= 3 && name != "annotations.xml") {
                    continue;
                }
                kind = xml_kind(file.string());
            } else if (ext == ".json") {
                kind = json_kind(file.string());
            } else if (name == "data.yaml" || name == "data.yml" || name == "classes.txt" || name == "obj.names" ||
                       (ext == ".txt" && ascii_lowered(folder.filename().string()) == "labels")) {
                kind = FileKind::yolo;
            }
            if (kind == FileKind::none || kind == FileKind::coco_results) {
                continue;
            }
            const LabelFormat format = format_of_kind(kind);
            const std::string where =
                (format == LabelFormat::voc || format == LabelFormat::yolo) ? folder.string() : file.string();
            auto &places = found[format];
            if (std::find(places.begin(), places.end(), where) == places.end()) {
                places.push_back(where);
            }
        }
    }
    // Pictures with .txt files of the same name beside them: YOLO too.
    if (pictures_here && found.count(LabelFormat::yolo) == 0) {
        for (const auto &file : sorted_files(dir)) {
            if (is_picture_file_name(file)) {
                fs::path txt = file;
                txt.replace_extension(".txt");
                if (fs::is_regular_file(txt, ec)) {
                    found[LabelFormat::yolo].push_back(dir.string());
                    break;
                }
            }
        }
    }
    return found;
}

std::string list_of(const std::map<LabelFormat, std::vector<std::string>> &found) {
    std::string text;
    for (const auto &f : found) {
        text += (text.empty() ? "" : "; ") + std::string(format_name(f.first)) + ": " + f.second.front() +
                (f.second.size() > 1 ? " and " + std::to_string(f.second.size() - 1) + " more" : "");
    }
    return text;
}

// The one file of a whole-set format in a folder, or the folder itself.
std::string label_path_in(const std::string &dir, LabelFormat format) {
    if (writes_file_per_picture(format)) {
        return dir;
    }
    const auto found = formats_in(dir);
    const auto it = found.find(format);
    if (it == found.end()) {
        throw input_error("'" + dir + "' holds no " + format_name(format) + " label file");
    }
    if (it->second.size() > 1) {
        throw input_error("'" + dir + "' holds several " + format_name(format) + " label files (" + it->second[0] +
                          ", " + it->second[1] + "): give the one to read");
    }
    return it->second.front();
}

}  // namespace

std::map<LabelFormat, std::vector<std::string>> label_sources_in(const std::string &dir) { return formats_in(dir); }

LabelFormat detect_label_format(const std::string &path) {
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        throw input_error("cannot open labels '" + path + "': no such file or folder");
    }
    if (fs::is_directory(path, ec)) {
        const auto found = formats_in(path);
        if (found.empty()) {
            throw input_error("found no labels in '" + path + "' (looked for VOC, CVAT and imglab XML, COCO and " +
                              "Label Studio JSON, YOLO .txt with data.yaml or classes.txt, there and in " +
                              "annotations/ and labels/)");
        }
        if (found.size() > 1) {
            throw input_error("'" + path + "' holds labels in several formats (" + list_of(found) +
                              "): choose one with --format");
        }
        return found.begin()->first;
    }
    const FileKind kind = file_kind(path);
    if (kind == FileKind::none) {
        // A JSON or XML file that is not well-formed: say where.
        const std::string text = read_label_file(path, kMaxLabelSetBytes);
        const std::string body = without_utf8_bom(text);
        const size_t first = body.find_first_not_of(" \t\r\n");
        if (first != std::string::npos && (body[first] == '{' || body[first] == '[')) {
            parse_label_json(text, path);
        } else if (first != std::string::npos && body[first] == '<') {
            pugi::xml_document document;
            parse_label_xml(document, text, path);
        }
    }
    if (kind == FileKind::coco_results) {
        throw input_error("'" + path + "' is a COCO results file (detections): give it to `ostrel eval " +
                          "--detections` with the labels it answers");
    }
    if (kind == FileKind::none) {
        throw input_error("'" + path + "' is not a label file of a known format (" + format_names() +
                          "); --format names the format");
    }
    return format_of_kind(kind);
}

LabelSet read_labels(const std::string &path, std::optional<LabelFormat> format) {
    const LabelFormat f = format ? *format : detect_label_format(path);
    std::error_code ec;
    const std::string file = fs::is_directory(path, ec) ? label_path_in(path, f) : path;
    switch (f) {
        case LabelFormat::voc: return read_voc_labels(file);
        case LabelFormat::coco: return read_coco_labels(file);
        case LabelFormat::yolo: return read_yolo_labels(file);
        case LabelFormat::cvat: return read_cvat_labels(file);
        case LabelFormat::labelstudio: return read_labelstudio_labels(file);
        case LabelFormat::imglab: return read_imglab_labels(file);
    }
    throw input_error("unknown label format");
}

bool writes_file_per_picture(LabelFormat format) { return format == LabelFormat::voc || format == LabelFormat::yolo; }

const char *per_picture_extension(LabelFormat format) { return format == LabelFormat::yolo ? ".txt" : ".xml"; }

std::string label_set_text(const LabelSet &set, LabelFormat format, const LabelWriteOptions &options) {
    switch (format) {
        case LabelFormat::coco: return write_coco_dataset(set, options);
        case LabelFormat::cvat: return write_cvat(set, options);
        case LabelFormat::labelstudio: return write_labelstudio(set, options);
        case LabelFormat::imglab: return write_imglab(set, options);
        default: throw input_error(std::string(format_name(format)) + " writes a file per picture");
    }
}

std::string picture_label_text(const LabelledPicture &picture, LabelFormat format,
                               const std::vector<std::string> &classes, const LabelWriteOptions &options) {
    if (format == LabelFormat::yolo) {
        return write_yolo_label_text(picture, classes);
    }
    return write_voc_annotation(picture, options);
}

void write_label_set(const LabelSet &set, LabelFormat format, const std::string &out) {
    LabelWriteOptions options;
    if (!writes_file_per_picture(format)) {
        output_target(out, "labels");
        options.base = fs::path(out).parent_path();
        write_file_atomically(out, label_set_text(set, format, options));
        return;
    }
    make_output_folder(out);
    options.base = out;
    std::map<std::string, int> used;
    for (const auto &p : set.pictures) {
        const std::string stem = stem_of(p.picture_path.empty() ? p.name : p.picture_path);
        const int n = ++used[stem];
        const std::string name = (n == 1 ? stem : stem + "-" + std::to_string(n)) + per_picture_extension(format);
        write_file_atomically((fs::path(out) / name).string(), picture_label_text(p, format, set.classes, options));
    }
    if (format == LabelFormat::yolo) {
        write_file_atomically((fs::path(out) / "classes.txt").string(), write_yolo_names(set.classes));
    }
}

}  // namespace ostrel_tool
