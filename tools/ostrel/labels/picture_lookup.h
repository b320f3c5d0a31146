// Finding the pictures that label files name, and their sizes.
//
// Each format names its pictures its own way (COCO's file_name relative to
// the JSON's folder or an images/ folder beside it, VOC's <filename> in
// JPEGImages/, ...); its unit lists the folders to look in, and this unit
// takes the first that holds the picture. Formats that store coordinates
// relative to the picture (YOLO's normalised centres) need its size: it is
// read from the picture's header (JPEG, PNG, BMP), or the picture is
// decoded for other formats.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "labels/label_set.h"

namespace ostrel_tool {

// Picture file extensions the readers look for (lower case, with the dot).
bool is_picture_file_name(const std::filesystem::path &path);

// Looks for the picture name (which may hold folders) in each folder in
// turn, then for its file name alone in each; sets picture_path to the
// first regular file found and records the places looked in.
void find_picture(LabelledPicture &picture, const std::vector<std::filesystem::path> &folders);

// The size of a picture file from its header, or decoded when the header
// gives none. Throws an input error when the file cannot be read as a
// picture.
void picture_size(const std::string &path, int &width, int &height);

// Fills width and height of every found picture that has none.
void fill_picture_sizes(LabelSet &set);

// Relative path of a picture from a folder for writing into a label file:
// the path relative to base when that needs no "..", else the path as given.
std::string picture_name_for(const std::string &picture_path, const std::filesystem::path &base);

// Finds the pictures of a label set by path: the same file however it is
// spelt (the canonical path), else the same file name when only one
// picture of the set has it.
class PictureIndex {
public:
    explicit PictureIndex(const LabelSet &set);
    // The index in set.pictures, or -1.
    long find(const std::string &path) const;

private:
    std::map<std::string, long> by_path_;
    std::map<std::string, long> by_name_;  // -2 for a name several pictures have
};

}  // namespace ostrel_tool
