// The labels a person marks in the studio, kept on disk.
//
// Every change of a picture's boxes is written at once, atomically, into a
// label file of one of the tool's formats (the label units of
// tools/ostrel/labels/): Pascal VOC by default, a file per picture beside
// the pictures (<stem>.xml, as LabelImg writes them); YOLO (<stem>.txt and
// classes.txt beside the pictures) or COCO (one file, instances_studio.json,
// beside the pictures) by choice. When the folder is opened again the
// studio's own files are read back; labels other tools left in the folder
// (any format the tool reads, there or in annotations/, labels/) are shown
// for the pictures that have no file of the studio's, and can be trained
// on; the studio never rewrites another tool's whole-set file, and a
// picture's boxes from another tool are written into the studio's format
// once the person changes them.
//
// Where files go: next to the pictures of the folder; pictures dropped on
// the page live in the session's temporary folder and their labels beside
// them (gone when the studio stops; the page exports them). When the folder
// cannot be written (or is the tool's own shipped pictures) the folder's
// labels are kept in the session's folder too, and the page says so.
//
// A label file is never written outside its folder (a link that leads out
// is refused), never over a picture (label files end in .xml, .txt or
// .json, which no listed picture does), and always through the tool's
// atomic output (a temporary file renamed over the old one).
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "boxes/box_geometry.h"
#include "labels/label_set.h"
#include "studio/picture_store.h"

namespace ostrel_tool {
namespace studio {

struct StudioLabel {
    std::string class_name;
    Rect box;
};

struct StudioClass {
    std::string name;
    std::string color;  // "#rrggbb"
};

struct LabelStoreSettings {
    // The format the studio writes (voc, coco or yolo); none: the one the
    // folder's labels are in when they are in one of those, else VOC.
    std::optional<LabelFormat> format;
    // Where the folder's labels are written; empty: beside the pictures.
    // (The shipped pictures and a folder that cannot be written get the
    // session's folder.)
    std::string folder_labels;
    bool folder_labels_kept = true;  // false: folder_labels is temporary
    // Labels held in memory only: nothing is read or written (a host that
    // keeps no labels, such as the handlers' own tests).
    bool in_memory = false;
    // Boxes a picture: as many as a JSON request may carry (api_requests.h).
    size_t max_boxes = 500;
    size_t max_classes = 200;
};

class LabelStore {
public:
    // Reads the labels already there. Never throws for a label file it
    // cannot read: the problem is noted (notes()) and that picture's labels
    // are not written over.
    LabelStore(PictureStore &store, LabelStoreSettings settings);

    std::vector<StudioLabel> labels(const std::string &picture) const;
    bool has_labels(const std::string &picture) const;

    // Replaces a picture's labels and writes its label file. Classes not on
    // the list are added. Throws ApiError: 404 unknown picture, 422 a box
    // outside the picture or without area, too many boxes, a bad class name,
    // 409 a label file that could not be read when the studio started (it is
    // not written over), 500 when the file cannot be written.
    // Returns the label file's name.
    std::string save(const std::string &picture, const std::vector<StudioLabel> &labels);

    std::vector<StudioClass> classes() const;
    // Adds a class (409 when the name exists, 422 a bad name or colour).
    void add_class(const std::string &name, const std::string &color);
    // Renames a class (every label file that uses it is rewritten) and/or
    // sets its colour. 404 unknown class, 409 a name in use.
    void update_class(const std::string &name, const std::optional<std::string> &new_name,
                      const std::optional<std::string> &color);
    // Boxes of each class over every picture.
    std::map<std::string, size_t> class_box_counts() const;

    // The labels of every picture that has any record (read or saved), the
    // pictures named by file name, for export.
    LabelSet label_set() const;

    // {"format", "format_name", "folder", "kept", "description", "notes"}.
    nlohmann::ordered_json where() const;
    LabelFormat format() const { return format_; }
    const std::vector<std::string> &notes() const { return notes_; }

    // Checks a class name: not empty, at most 100 bytes, valid UTF-8, no
    // control characters (a name is one line of classes.txt). Throws 422.
    static void check_class_name(const std::string &name);

private:
    struct Record {
        std::vector<StudioLabel> labels;
        bool own_file = false;  // read from, or written to, the studio's own file
        std::string blocked;    // why its label file may not be written over ("" when it may)
    };

    std::string folder_of(const PictureEntry &entry) const;  // the label folder for a picture
    std::string file_of(const PictureEntry &entry) const;    // its label file (per-picture formats)
    void read_existing();
    void read_own(const std::vector<PictureEntry> &entries);
    void read_others(const std::vector<PictureEntry> &entries);
    void take(const PictureEntry &entry, const LabelledPicture &picture, bool own);
    void add_class_locked(const std::string &name, const std::string &color = "");
    // The classes of a label set the studio can keep; other names are passed over.
    void add_set_classes_locked(const std::vector<std::string> &classes);
    void write_locked(const PictureEntry &entry);
    void write_whole_set_locked(const std::string &folder);
    void write_class_names_locked();
    void check_target(const std::string &path, const std::string &folder) const;
    LabelledPicture record_of(const PictureEntry &entry, const Record &record, bool by_name) const;

    PictureStore &store_;
    LabelStoreSettings settings_;
    LabelFormat format_ = LabelFormat::voc;
    std::string folder_labels_;  // canonical
    bool folder_kept_ = true;
    mutable std::mutex mutex_;
    std::map<std::string, Record> records_;  // by picture name
    std::vector<StudioClass> classes_;
    std::vector<std::string> notes_;
};

// The colour of the n-th class (a palette that tells neighbours apart).
std::string default_class_color(size_t n);

}  // namespace studio
}  // namespace ostrel_tool
