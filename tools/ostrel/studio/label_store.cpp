#include "studio/label_store.h"

#include <algorithm>
#include <filesystem>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "files/atomic_file.h"
#include "files/picture.h"
#include "labels/coco_labels.h"
#include "labels/label_formats.h"
#include "labels/label_text.h"
#include "labels/voc_labels.h"
#include "labels/yolo_labels.h"
#include "studio/api_error.h"
#include "studio/safe_names.h"

namespace ostrel_tool {
namespace studio {

namespace fs = std::filesystem;

namespace {

// The studio's COCO file, named as COCO names its files (instances_NAME.json).
constexpr const char *kCocoFileName = "instances_studio.json";

const char *format_title(LabelFormat format) {
    switch (format) {
        case LabelFormat::voc: return "Pascal VOC";
        case LabelFormat::coco: return "COCO";
        case LabelFormat::yolo: return "YOLO";
        case LabelFormat::cvat: return "CVAT";
        case LabelFormat::labelstudio: return "Label Studio";
        case LabelFormat::imglab: return "imglab";
    }
    return "";
}

bool valid_utf8(const std::string &s) {
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n = 0;
        if (c >= 0x80) {
            if (c >= 0xc2 && c <= 0xdf) {
                n = 1;
            } else if (c >= 0xe0 && c <= 0xef) {
                n = 2;
            } else if (c >= 0xf0 && c <= 0xf4) {
                n = 3;
            } else {
                return false;
            }
            if (i + n >= s.size()) return false;
        }
        for (size_t k = 1; k <= n; ++k) {
            if ((static_cast<unsigned char>(s[i + k]) & 0xc0) != 0x80) return false;
        }
        i += n + 1;
    }
    return true;
}

bool is_color(const std::string &c) {
    if (c.size() != 7 || c[0] != '#') return false;
    return std::all_of(c.begin() + 1, c.end(), [](char ch) { return std::isxdigit(static_cast<unsigned char>(ch)); });
}

std::string canonical_or_empty(const std::string &path) {
    std::error_code ec;
    const fs::path c = fs::canonical(path, ec);
    return ec ? std::string() : c.string();
}

// The part of a box that lies on the picture, in whole pixels.
bool on_picture(Rect &r, int width, int height) {
    const int x0 = std::max(0, r.x), y0 = std::max(0, r.y);
    const int x1 = static_cast<int>(std::min<int64_t>(width, int64_t(r.x) + r.w));
    const int y1 = static_cast<int>(std::min<int64_t>(height, int64_t(r.y) + r.h));
    if (x1 <= x0 || y1 <= y0) return false;
    r = {x0, y0, x1 - x0, y1 - y0};
    return true;
}

}  // namespace

std::string default_class_color(size_t n) {
    // Red and amber come last: the page draws marked boxes the detector
    // missed in red, and boxes below the threshold in grey.
    static const char *palette[] = {"#2563eb", "#16a34a", "#9333ea", "#0891b2", "#db2777", "#65a30d",
                                    "#4f46e5", "#a16207", "#0d9488", "#d97706", "#475569", "#dc2626"};
    return palette[n % (sizeof(palette) / sizeof(palette[0]))];
}

void LabelStore::check_class_name(const std::string &name) {
    if (name.empty() || name.size() > 100) {
        throw ApiError(http_status::unprocessable, "a class name has 1 to 100 bytes");
    }
    if (name.front() == ' ' || name.back() == ' ') {
        throw ApiError(http_status::unprocessable, "a class name does not begin or end with a space");
    }
    for (const char c : name) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) {
            throw ApiError(http_status::unprocessable, "a class name holds no control characters or line ends");
        }
    }
    if (!valid_utf8(name)) {
        throw ApiError(http_status::unprocessable, "a class name must be UTF-8 text");
    }
}

LabelStore::LabelStore(PictureStore &store, LabelStoreSettings settings)
    : store_(store), settings_(std::move(settings)) {
    folder_kept_ = settings_.folder_labels.empty() || settings_.folder_labels_kept;
    folder_labels_ = canonical_or_empty(settings_.folder_labels.empty() ? store_.folder() : settings_.folder_labels);
    if (folder_labels_.empty()) {
        throw output_error("cannot use the label folder '" + settings_.folder_labels + "'");
    }
    if (settings_.format) {
        format_ = *settings_.format;
    } else {
        // Labels already in one of the formats the studio writes keep it.
        std::map<LabelFormat, std::vector<std::string>> found;
        try {
            found = label_sources_in(store_.folder());
        } catch (const ToolError &) {
        }
        std::vector<LabelFormat> writable;
        for (const LabelFormat f : {LabelFormat::voc, LabelFormat::yolo, LabelFormat::coco}) {
            if (found.count(f) != 0) writable.push_back(f);
        }
        format_ = writable.size() == 1 ? writable.front() : LabelFormat::voc;
    }
    read_existing();
}

std::string LabelStore::folder_of(const PictureEntry &entry) const {
    return entry.uploaded ? fs::path(entry.path).parent_path().string() : folder_labels_;
}

std::string LabelStore::file_of(const PictureEntry &entry) const {
    const std::string folder = folder_of(entry);
    if (format_ == LabelFormat::coco) {
        return (fs::path(folder) / kCocoFileName).string();
    }
    // <stem>.xml|.txt; a picture whose stem an earlier picture of the folder
    // has keeps its whole name (a.png.xml), which VOC reads back by the
    // file's <filename>.
    const std::string stem = stem_of(entry.name);
    for (const PictureEntry &other : store_.list()) {
        if (other.name == entry.name) break;
        if (other.uploaded == entry.uploaded && stem_of(other.name) == stem) {
            if (format_ == LabelFormat::yolo) {
                throw ApiError(http_status::conflict, "YOLO keeps one label file a name: '" + other.name + "' and '" +
                                                          entry.name + "' would share " + stem +
                                                          ".txt; use --labels voc or coco");
            }
            return (fs::path(folder) / (entry.name + per_picture_extension(format_))).string();
        }
    }
    return (fs::path(folder) / (stem + per_picture_extension(format_))).string();
}

void LabelStore::take(const PictureEntry &entry, const LabelledPicture &picture, bool own) {
    Record &r = records_[entry.name];
    r.own_file = own;
    r.labels.clear();
    for (const LabelBox &b : picture.boxes) {
        Rect rect = rounded_rect(b);
        if (!on_picture(rect, entry.width, entry.height)) continue;
        if (r.labels.size() >= settings_.max_boxes) {
            notes_.push_back(
                strformat("%s: only the first %zu boxes are shown", entry.name.c_str(), settings_.max_boxes));
            break;
        }
        r.labels.push_back({b.class_name.empty() ? std::string("object") : b.class_name, rect});
    }
}

void LabelStore::read_own(const std::vector<PictureEntry> &entries) {
    std::vector<std::string> names;
    if (format_ == LabelFormat::yolo) {
        for (const char *file : {"classes.txt", "obj.names", "data.yaml", "data.yml"}) {
            const fs::path path = fs::path(folder_labels_) / file;
            std::error_code ec;
            if (!fs::is_regular_file(path, ec)) continue;
            try {
                const std::string text = read_label_file(path.string(), kMaxPictureLabelBytes);
                names =
                    file[0] == 'd' ? parse_yolo_data_yaml(text, path.string()) : parse_yolo_names(text, path.string());
            } catch (const ToolError &e) {
                notes_.push_back(e.what());
            }
            break;
        }
        for (const std::string &n : names) {
            try {
                check_class_name(n);
                add_class_locked(n);
            } catch (const ApiError &) {
                notes_.push_back("class '" + n + "' of classes.txt is not a name the studio can keep");
            }
        }
    }
    if (format_ == LabelFormat::coco) {
        const std::string file = (fs::path(folder_labels_) / kCocoFileName).string();
        std::error_code ec;
        if (!fs::exists(file, ec)) return;
        try {
            const LabelSet set = read_coco_labels(file);
            add_set_classes_locked(set.classes);
            for (const LabelledPicture &p : set.pictures) {
                const std::string path = canonical_or_empty(p.picture_path);
                for (const PictureEntry &e : entries) {
                    if (!path.empty() && canonical_or_empty(e.path) == path) take(e, p, true);
                }
            }
        } catch (const ToolError &e) {
            notes_.push_back(e.what());
            for (const PictureEntry &entry : entries) {
                records_[entry.name].blocked = std::string("its label file cannot be read: ") + e.what();
            }
        }
        return;
    }
    for (const PictureEntry &entry : entries) {
        std::string file;
        try {
            file = file_of(entry);
        } catch (const ApiError &e) {
            continue;
        }
        std::error_code ec;
        const fs::file_status status = fs::symlink_status(file, ec);
        if (!fs::exists(status)) continue;
        if (fs::is_symlink(status) && !lies_inside(fs::path(folder_of(entry)), file)) {
            // Neither read nor written: it leads out of the folder.
            records_[entry.name].blocked =
                "its label file " + fs::path(file).filename().string() + " is a link that leads out of the folder";
            notes_.push_back(entry.name + ": " + records_[entry.name].blocked);
            continue;
        }
        try {
            if (format_ == LabelFormat::voc) {
                const LabelSet set = read_voc_labels(file);
                if (!set.pictures.empty()) take(entry, set.pictures.front(), true);
            } else {
                LabelledPicture p;
                p.boxes = parse_yolo_label_text(read_label_file(file, kMaxPictureLabelBytes), file, entry.width,
                                                entry.height, names);
                take(entry, p, true);
            }
        } catch (const ToolError &e) {
            notes_.push_back(e.what());
            records_[entry.name].blocked = std::string("its label file cannot be read: ") + e.what();
        }
    }
}

void LabelStore::read_others(const std::vector<PictureEntry> &entries) {
    std::map<LabelFormat, std::vector<std::string>> sources;
    try {
        sources = label_sources_in(store_.folder());
    } catch (const ToolError &e) {
        notes_.push_back(e.what());
        return;
    }
    std::map<std::string, const PictureEntry *> by_path;
    for (const PictureEntry &e : entries) {
        by_path[canonical_or_empty(e.path)] = &e;
    }
    const std::string own_coco = (fs::path(folder_labels_) / kCocoFileName).string();
    for (const auto &source : sources) {
        for (const std::string &path : source.second) {
            const bool own = source.first == format_ &&
                             (format_ == LabelFormat::coco ? canonical_or_empty(path) == canonical_or_empty(own_coco)
                                                           : canonical_or_empty(path) == folder_labels_);
            if (own) continue;
            LabelSet set;
            try {
                set = read_labels(path, source.first);
            } catch (const ToolError &e) {
                notes_.push_back(e.what());
                continue;
            }
            add_set_classes_locked(set.classes);
            for (const LabelledPicture &p : set.pictures) {
                const auto it = by_path.find(canonical_or_empty(p.picture_path));
                if (p.picture_path.empty() || it == by_path.end()) continue;
                const auto known = records_.find(it->second->name);
                if (known != records_.end() && (known->second.own_file || !known->second.labels.empty())) continue;
                take(*it->second, p, false);
            }
        }
    }
}

void LabelStore::read_existing() {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::vector<PictureEntry> entries = store_.list();
    if (!settings_.in_memory) {
        read_own(entries);
        read_others(entries);
    }
    for (auto &r : records_) {
        for (StudioLabel &l : r.second.labels) {
            try {
                check_class_name(l.class_name);
            } catch (const ApiError &) {
                notes_.push_back("a box of '" + r.first + "' has a class name the studio cannot keep: named 'object'");
                l.class_name = "object";
            }
            add_class_locked(l.class_name);
        }
    }
    if (classes_.empty()) {
        add_class_locked("object");
    }
}

void LabelStore::add_set_classes_locked(const std::vector<std::string> &classes) {
    for (const std::string &c : classes) {
        try {
            check_class_name(c);
            add_class_locked(c);
        } catch (const ApiError &) {
        }
    }
}

void LabelStore::add_class_locked(const std::string &name, const std::string &color) {
    for (const StudioClass &c : classes_) {
        if (c.name == name) return;
    }
    classes_.push_back({name, color.empty() ? default_class_color(classes_.size()) : color});
}

std::vector<StudioLabel> LabelStore::labels(const std::string &picture) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = records_.find(picture);
    return it == records_.end() ? std::vector<StudioLabel>() : it->second.labels;
}

bool LabelStore::has_labels(const std::string &picture) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = records_.find(picture);
    return it != records_.end() && !it->second.labels.empty();
}

void LabelStore::check_target(const std::string &path, const std::string &folder) const {
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(path, ec);
    if (fs::is_symlink(status) && !lies_inside(fs::path(folder), path)) {
        throw ApiError(http_status::conflict,
                       "the label file '" + fs::path(path).filename().string() +
                           "' is a link that leads out of the folder: the studio does not write through it");
    }
}

LabelledPicture LabelStore::record_of(const PictureEntry &entry, const Record &record, bool by_name) const {
    LabelledPicture p;
    p.name = entry.name;
    p.picture_path = by_name ? std::string() : entry.path;
    p.width = entry.width;
    p.height = entry.height;
    for (const StudioLabel &l : record.labels) {
        p.boxes.push_back(label_box_of(l.box, l.class_name));
    }
    return p;
}

void LabelStore::write_class_names_locked() {
    if (format_ != LabelFormat::yolo || settings_.in_memory) return;
    std::vector<std::string> names;
    for (const StudioClass &c : classes_) names.push_back(c.name);
    std::set<std::string> folders{folder_labels_};
    for (const PictureEntry &e : store_.list()) {
        if (e.uploaded && records_.count(e.name) != 0) folders.insert(folder_of(e));
    }
    for (const std::string &folder : folders) {
        const std::string path = (fs::path(folder) / "classes.txt").string();
        check_target(path, folder);
        write_file_atomically(path, write_yolo_names(names));
    }
}

void LabelStore::write_whole_set_locked(const std::string &folder) {
    if (settings_.in_memory) return;
    LabelSet set;
    set.format = LabelFormat::coco;
    for (const StudioClass &c : classes_) set.classes.push_back(c.name);
    int64_t id = 0;
    for (const PictureEntry &e : store_.list()) {
        ++id;
        const auto it = records_.find(e.name);
        if (it == records_.end() || !it->second.own_file || folder_of(e) != folder) continue;
        LabelledPicture p = record_of(e, it->second, false);
        p.id = id;
        set.pictures.push_back(p);
    }
    LabelWriteOptions options;
    options.base = folder;
    const std::string path = (fs::path(folder) / kCocoFileName).string();
    check_target(path, folder);
    write_file_atomically(path, label_set_text(set, LabelFormat::coco, options));
}

void LabelStore::write_locked(const PictureEntry &entry) {
    if (settings_.in_memory) return;
    const std::string folder = folder_of(entry);
    if (format_ == LabelFormat::coco) {
        write_whole_set_locked(folder);
        return;
    }
    const std::string path = file_of(entry);
    check_target(path, folder);
    const Record &record = records_.at(entry.name);
    const LabelledPicture picture = record_of(entry, record, false);
    if (format_ == LabelFormat::yolo) {
        std::vector<std::string> names;
        for (const StudioClass &c : classes_) names.push_back(c.name);
        write_file_atomically(path, write_yolo_label_text(picture, names));
        write_class_names_locked();
        return;
    }
    LabelWriteOptions options;
    options.base = folder;
    write_file_atomically(path, write_voc_annotation(picture, options));
}

std::string LabelStore::save(const std::string &name, const std::vector<StudioLabel> &labels) {
    const PictureEntry entry = store_.find(name);
    if (labels.size() > settings_.max_boxes) {
        throw ApiError(http_status::unprocessable,
                       strformat("%zu boxes: at most %zu a picture", labels.size(), settings_.max_boxes));
    }
    for (size_t i = 0; i < labels.size(); ++i) {
        const Rect &b = labels[i].box;
        check_class_name(labels[i].class_name);
        if (b.w < 1 || b.h < 1) {
            throw ApiError(http_status::unprocessable, strformat("box %zu has no area (%dx%d)", i + 1, b.w, b.h));
        }
        if (b.x < 0 || b.y < 0 || int64_t(b.x) + b.w > entry.width || int64_t(b.y) + b.h > entry.height) {
            throw ApiError(http_status::unprocessable,
                           strformat("box %zu (%s) does not lie inside the %dx%d picture", i + 1, to_string(b).c_str(),
                                     entry.width, entry.height));
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    Record &record = records_[name];
    if (!record.blocked.empty()) {
        throw ApiError(http_status::conflict, "the labels of '" + name + "' are not written: " + record.blocked +
                                                  " (correct or remove the file, then restart the studio)");
    }
    size_t added = 0;
    for (const StudioLabel &l : labels) {
        const bool known =
            std::any_of(classes_.begin(), classes_.end(), [&](const StudioClass &c) { return c.name == l.class_name; });
        if (!known) {
            if (classes_.size() + added >= settings_.max_classes) {
                throw ApiError(http_status::unprocessable, strformat("at most %zu classes", settings_.max_classes));
            }
            ++added;
        }
    }
    const Record before = record;
    const std::vector<StudioClass> classes_before = classes_;
    for (const StudioLabel &l : labels) add_class_locked(l.class_name);
    record.labels = labels;
    record.own_file = true;
    try {
        write_locked(entry);
    } catch (const ToolError &e) {
        record = before;
        classes_ = classes_before;
        throw ApiError(http_status::internal_error, std::string("cannot write the labels: ") + e.what());
    } catch (...) {
        record = before;
        classes_ = classes_before;
        throw;
    }
    return fs::path(file_of(entry)).filename().string();
}

std::vector<StudioClass> LabelStore::classes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return classes_;
}

void LabelStore::add_class(const std::string &name, const std::string &color) {
    check_class_name(name);
    if (!color.empty() && !is_color(color)) {
        throw ApiError(http_status::unprocessable, "a colour is written #rrggbb");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (const StudioClass &c : classes_) {
        if (c.name == name) throw ApiError(http_status::conflict, "there is a class named '" + name + "' already");
    }
    if (classes_.size() >= settings_.max_classes) {
        throw ApiError(http_status::unprocessable, strformat("at most %zu classes", settings_.max_classes));
    }
    add_class_locked(name, color);
    try {
        write_class_names_locked();
    } catch (const ToolError &e) {
        classes_.pop_back();
        throw ApiError(http_status::internal_error, std::string("cannot write the class list: ") + e.what());
    }
}

void LabelStore::update_class(const std::string &name, const std::optional<std::string> &new_name,
                              const std::optional<std::string> &color) {
    if (new_name) check_class_name(*new_name);
    if (color && !is_color(*color)) {
        throw ApiError(http_status::unprocessable, "a colour is written #rrggbb");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it =
        std::find_if(classes_.begin(), classes_.end(), [&](const StudioClass &c) { return c.name == name; });
    if (it == classes_.end()) {
        throw ApiError(http_status::not_found, "no class named '" + name + "'");
    }
    if (color) it->color = *color;
    if (!new_name || *new_name == name) return;
    for (const StudioClass &c : classes_) {
        if (c.name == *new_name)
            throw ApiError(http_status::conflict, "there is a class named '" + *new_name + "' already");
    }
    for (const auto &r : records_) {
        const bool uses = std::any_of(r.second.labels.begin(), r.second.labels.end(),
                                      [&](const StudioLabel &l) { return l.class_name == name; });
        if (uses && !r.second.blocked.empty()) {
            throw ApiError(http_status::conflict, "'" + r.first + "' uses the class and " + r.second.blocked);
        }
    }
    it->name = *new_name;
    std::set<std::string> whole_sets;
    try {
        for (const PictureEntry &e : store_.list()) {
            const auto r = records_.find(e.name);
            if (r == records_.end()) continue;
            bool changed = false;
            for (StudioLabel &l : r->second.labels) {
                if (l.class_name == name) {
                    l.class_name = *new_name;
                    changed = true;
                }
            }
            if (!changed) continue;
            r->second.own_file = true;
            if (format_ == LabelFormat::coco) {
                whole_sets.insert(folder_of(e));
            } else if (format_ == LabelFormat::voc) {
                write_locked(e);
            }
        }
        for (const std::string &folder : whole_sets) write_whole_set_locked(folder);
        write_class_names_locked();
    } catch (const ToolError &e) {
        throw ApiError(http_status::internal_error, std::string("cannot rewrite the labels: ") + e.what());
    }
}

std::map<std::string, size_t> LabelStore::class_box_counts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::map<std::string, size_t> counts;
    for (const auto &r : records_) {
        for (const StudioLabel &l : r.second.labels) ++counts[l.class_name];
    }
    return counts;
}

LabelSet LabelStore::label_set() const {
    std::lock_guard<std::mutex> lock(mutex_);
    LabelSet set;
    set.format = format_;
    for (const StudioClass &c : classes_) set.classes.push_back(c.name);
    int64_t id = 0;
    for (const PictureEntry &e : store_.list()) {
        ++id;
        const auto it = records_.find(e.name);
        if (it == records_.end()) continue;
        LabelledPicture p = record_of(e, it->second, true);
        p.id = id;
        set.pictures.push_back(p);
    }
    return set;
}

nlohmann::ordered_json LabelStore::where() const {
    std::lock_guard<std::mutex> lock(mutex_);
    nlohmann::ordered_json j;
    j["format"] = format_name(format_);
    j["format_name"] = format_title(format_);
    j["folder"] = folder_labels_;
    j["kept"] = folder_kept_ && !settings_.in_memory;
    const std::string files = format_ == LabelFormat::coco   ? std::string("in ") + kCocoFileName
                              : format_ == LabelFormat::yolo ? "as a .txt file a picture with classes.txt"
                                                             : "as an .xml file a picture";
    j["description"] = folder_kept_ ? std::string("Labels are saved as ") + format_title(format_) + ", " + files +
                                          ", next to the pictures in " + folder_labels_ +
                                          ". Labels of pictures you drop on the page stay in the session's "
                                          "temporary folder: export them to keep them."
                                    : std::string("This folder's labels are kept for this session only (") +
                                          format_title(format_) + ", " + files +
                                          " in a temporary folder): export them to keep them.";
    j["notes"] = notes_;
    return j;
}

}  // namespace studio
}  // namespace ostrel_tool
