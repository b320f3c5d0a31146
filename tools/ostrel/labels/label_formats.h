// The annotation formats together: which one a file or folder holds, the
// reader and writer for each, and the rules the commands share.
//
// The format is taken from the content where that is unambiguous: an XML
// file by its root element (<annotation> VOC, <annotations> CVAT, <dataset>
// imglab), a JSON file by its shape (COCO's object with "images"; Label
// Studio's list of tasks), .txt label files and data.yaml / classes.txt /
// obj.names for YOLO. A folder is searched (itself, annotations/,
// Annotations/, labels/) for label files of each format; one format found is
// taken, several are refused with the list, so that --format chooses.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "labels/label_set.h"
#include "labels/label_writing.h"

namespace ostrel_tool {

// The format of a file or folder. Throws an input error naming what was
// found (several formats, none, a COCO results file) otherwise.
LabelFormat detect_label_format(const std::string &path);

// Every label source a folder holds (itself, annotations/, Annotations/,
// labels/): for each format found, the files of whole-set formats and the
// folders of per-picture ones, in name order. Nothing is refused here: a
// host that takes labels from several sources (the studio) reads each.
std::map<LabelFormat, std::vector<std::string>> label_sources_in(const std::string &dir);

// Reads labels in the given format, or the detected one. Pictures are
// looked for (picture_path empty when one is not found; see
// missing_pictures_message); YOLO reads picture sizes from the pictures.
LabelSet read_labels(const std::string &path, std::optional<LabelFormat> format = std::nullopt);

// VOC and YOLO write a file per picture; the others one file for all.
bool writes_file_per_picture(LabelFormat format);
// ".xml" (VOC) or ".txt" (YOLO).
const char *per_picture_extension(LabelFormat format);

// The file of a whole-set format (COCO: the dataset file).
std::string label_set_text(const LabelSet &set, LabelFormat format, const LabelWriteOptions &options);
// One picture's file of a per-picture format; classes number YOLO's classes.
std::string picture_label_text(const LabelledPicture &picture, LabelFormat format,
                               const std::vector<std::string> &classes, const LabelWriteOptions &options);

// Writes the set: a whole-set format to the file out, a per-picture format
// into the folder out (made when missing; <picture stem>.xml|.txt, "-2",
// "-3", ... for a stem used before, and classes.txt for YOLO). Every file is
// written atomically and follows the tool's output rules.
void write_label_set(const LabelSet &set, LabelFormat format, const std::string &out);

}  // namespace ostrel_tool
