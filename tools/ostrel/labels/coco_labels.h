// COCO object detection files: the dataset file (instances_*.json: images,
// annotations, categories) as labels, and the results file (a list of
// {image_id, category_id, bbox, score}) as detections.
//
// bbox is [x, y, width, height] in pixels with x, y the top-left corner,
// as here. Category ids are the file's own (they start at 0 or 1, or
// anywhere); class names come from "categories". iscrowd 1 marks a crowd
// region; "area" is kept for the evaluation's area rules. Pictures are
// found by file_name relative to the JSON's folder, an images/ folder
// beside it, the folder above it, and, for annotations/instances_NAME.json,
// the folder NAME/ beside annotations/ (COCO's own layout).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "labels/label_set.h"
#include "labels/label_writing.h"

namespace ostrel_tool {

// Reads the text of a COCO dataset file (no picture is looked for). Picture
// ids are the file's ids; classes and class_ids the categories in file order.
LabelSet parse_coco(const std::string &text, const std::string &source);

// Reads the file and looks for every picture.
LabelSet read_coco_labels(const std::string &path);

// The dataset file of a label set: images with ids, annotations (with
// "score" where a box has one), categories numbered by class_ids or from 1.
std::string write_coco_dataset(const LabelSet &set, const LabelWriteOptions &options);

// The results file of detections: one entry per box, {image_id,
// category_id, bbox, score}, image ids and category ids from ids_from
// (a COCO dataset: pictures matched by file, else by file name; classes by
// name) when given, else the pictures' ids and classes numbered from 1.
// Throws an input error when ids_from lacks a picture or class.
std::string write_coco_results(const LabelSet &detections, const LabelSet *ids_from);

// Reads a results file against the dataset it answers: a set with the
// dataset's pictures (their paths and ids) whose boxes are the results with
// their scores, in file order. Refuses an image_id or category_id the
// dataset does not have.
LabelSet parse_coco_results(const std::string &text, const std::string &source, const LabelSet &dataset);

// True when the JSON text is a COCO dataset (an object with "images" and
// "annotations" or "categories"), or a results list.
bool looks_like_coco_dataset(const nlohmann::json &json);
bool looks_like_coco_results(const nlohmann::json &json);

}  // namespace ostrel_tool
