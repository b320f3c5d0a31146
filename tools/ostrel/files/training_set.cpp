#include "files/training_set.h"

#include <cmath>

#include "boxes/box_io.h"
#include "cli/tool_error.h"
#include "files/voc_annotations.h"

namespace ostrel_tool {

std::vector<TrainingPicture> pair_pictures_with_box_files(const std::vector<std::string> &pictures,
                                                          const std::vector<std::string> &box_files,
                                                          const std::string &class_name) {
    if (pictures.size() != box_files.size()) {
        throw usage_error("give one --boxes FILE per picture (" + std::to_string(pictures.size()) + " picture" +
                          (pictures.size() == 1 ? "" : "s") + ", " + std::to_string(box_files.size()) + " box file" +
                          (box_files.size() == 1 ? "" : "s") + ")");
    }
    std::vector<TrainingPicture> set;
    for (size_t i = 0; i < pictures.size(); ++i) {
        TrainingPicture item;
        item.picture_path = pictures[i];
        item.boxes_source = box_files[i];
        item.boxes = read_box_file(box_files[i], class_name);
        if (item.boxes.empty()) {
            throw input_error("box file '" + box_files[i] + "' holds no box");
        }
        set.push_back(std::move(item));
    }
    return set;
}

VocTrainingSet training_pictures_from_voc(const std::string &dir, const std::string &class_name, int limit) {
    VocTrainingSet set;
    for (const VocItem &item : read_voc_folder(dir)) {
        std::vector<Rect> boxes = boxes_of_class(item.annotation, class_name);
        require_box_count(boxes.size(), "'" + item.annotation_path + "'", false);
        if (boxes.empty()) {
            ++set.without_class;
            continue;
        }
        if (limit > 0 && static_cast<int>(set.pictures.size()) >= limit) {
            continue;
        }
        set.pictures.push_back({item.picture_path, item.annotation_path, std::move(boxes)});
    }
    if (set.pictures.empty()) {
        throw input_error("no object of class '" + class_name + "' in the VOC folder '" + dir + "'");
    }
    return set;
}

VocTrainingSet training_pictures_from_labels(const LabelSet &set, const ClassGroup &group, int limit) {
    VocTrainingSet out;
    std::vector<const LabelledPicture *> chosen;
    for (const LabelledPicture &p : set.pictures) {
        std::vector<Rect> boxes;
        for (const LabelBox &b : p.boxes) {
            if (group.contains(b.class_name) && !b.crowd) {
                boxes.push_back(rounded_rect(b));
            }
        }
        require_box_count(boxes.size(), p.source, false);
        if (boxes.empty()) {
            ++out.without_class;
            continue;
        }
        if (limit > 0 && static_cast<int>(out.pictures.size()) >= limit) {
            continue;
        }
        if (p.picture_path.empty()) {
            LabelSet one;
            one.pictures.push_back(p);
            throw input_error(missing_pictures_message(one));
        }
        out.pictures.push_back({p.picture_path, p.source, std::move(boxes)});
    }
    if (out.pictures.empty()) {
        std::string names;
        for (const auto &c : set.classes) {
            names += (names.empty() ? "" : ", ") + c;
        }
        throw input_error("no object of class '" + group.display() + "' in '" + set.source + "'" +
                          (names.empty() ? "" : " (classes there: " + names + ")"));
    }
    return out;
}

namespace {

// The cells a length of `pixels` covers on a side of `side` pixels mapped to
// `cells` cells: the library maps with a single-precision factor and truncates.
int cells_of(int pixels, int side, uint32_t cells) {
    return static_cast<int>(static_cast<float>(pixels) * (static_cast<float>(cells) / static_cast<float>(side)));
}

int scaled_length(int length, int first_side, int side, uint32_t cells) {
    if (first_side == side || first_side <= 0 || side <= 0 || cells == 0) {
        return length;
    }
    const int target = cells_of(length, first_side, cells);
    int scaled = std::max(1, static_cast<int>(std::lround(static_cast<double>(length) * side / first_side)));
    // A few steps at most: one cell spans side / cells pixels.
    const int steps = side / static_cast<int>(cells) + 2;
    for (int i = 0; i < steps && cells_of(scaled, side, cells) < target; ++i) {
        ++scaled;
    }
    for (int i = 0; i < steps && scaled > 1 && cells_of(scaled, side, cells) > target; ++i) {
        --scaled;
    }
    return scaled;
}

}  // namespace

Size scaled_window(Size window, Size first_size, Size picture_size, uint32_t map_columns, uint32_t map_rows) {
    return {scaled_length(window.w, first_size.w, picture_size.w, map_columns),
            scaled_length(window.h, first_size.h, picture_size.h, map_rows)};
}

int fit_boxes_to(std::vector<Rect> &boxes, Size size, int picture_width, int picture_height) {
    int changed = 0;
    for (Rect &box : boxes) {
        if (box.w != size.w || box.h != size.h) {
            box = placed_on(box, size, picture_width, picture_height);
            ++changed;
        }
    }
    return changed;
}

}  // namespace ostrel_tool
