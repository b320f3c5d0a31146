// Pascal VOC as a label format: one XML file per picture (voc_annotations
// reads it), a folder of them with the pictures in JPEGImages/, images/ or
// beside them, and the writer of one picture's file as LabelImg writes it.
//
// VOC corners are 1-based and inclusive: xmin 1, xmax 640 span a 640-pixel
// row, which is x 0, w 640 here. A detection's score is written as
// <score>, which readers that do not know it pass over.
#pragma once

#include <string>

#include "files/voc_annotations.h"
#include "labels/label_set.h"
#include "labels/label_writing.h"

namespace ostrel_tool {

LabelledPicture voc_picture_of(const VocAnnotation &annotation, const std::string &source);

// A VOC folder (see read_voc_folder; a picture is also found by the
// annotation's <path>) or one annotation file (its picture beside it, in
// ../JPEGImages/ or ../images/, or at its <path>).
LabelSet read_voc_labels(const std::string &path);

std::string write_voc_annotation(const LabelledPicture &picture, const LabelWriteOptions &options);

}  // namespace ostrel_tool
