#include "evaluation/detection_files.h"

#include <algorithm>

#include "cli/tool_error.h"
#include "labels/coco_labels.h"
#include "labels/label_text.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace {

void note_class(DetectionFile &file, const std::string &name) {
    if (std::find(file.classes.begin(), file.classes.end(), name) == file.classes.end()) {
        file.classes.push_back(name);
    }
}

}  // namespace

bool names_several_classes(const DetectionFile &file) { return file.classes.size() >= 2; }

void name_unnamed_boxes(DetectionFile &file, const std::string &class_name) {
    for (auto &picture : file.found) {
        if (picture) {
            for (ScoredLabelBox &b : *picture) {
                if (!b.class_named) {
                    b.box.class_name = class_name;
                }
            }
        }
    }
}

DetectionFile read_detection_file(const std::string &path, const LabelSet &labels) {
    const std::string text = read_label_file(path, kMaxLabelSetBytes, "detections file");
    DetectionFile file;
    file.found.resize(labels.pictures.size());
    const std::string body = without_utf8_bom(text);
    const size_t first = body.find_first_not_of(" \t\r\n");
    if (first != std::string::npos && body[first] == '[') {
        if (labels.format != LabelFormat::coco) {
            throw input_error("'" + path + "' is a COCO results file: score it against COCO labels");
        }
        const LabelSet results = parse_coco_results(text, path, labels);
        for (size_t i = 0; i < results.pictures.size(); ++i) {
            std::vector<ScoredLabelBox> boxes;
            for (const LabelBox &b : results.pictures[i].boxes) {
                note_class(file, b.class_name);
                boxes.push_back({b, true});
            }
            file.found[i] = std::move(boxes);
        }
        return file;
    }
    const PictureIndex index(labels);
    const std::vector<std::string> lines = text_lines(text);
    for (size_t n = 0; n < lines.size(); ++n) {
        if (lines[n].find_first_not_of(" \t") == std::string::npos) {
            continue;
        }
        const std::string place = "line " + std::to_string(n + 1);
        const nlohmann::json line = parse_label_json(lines[n], path, place);
        const JsonReader r(path, place);
        r.require_object(line, "");
        if (line.contains("frame")) {
            r.fail("frame", "a video frame: detections of videos cannot be scored against labels");
        }
        const std::string picture = r.text(r.member(line, "", "file"), "file");
        const nlohmann::json &boxes = r.member(line, "", "boxes");
        r.require_array(boxes, "boxes");
        const long i = index.find(picture);
        if (i < 0) {
            ++file.unmatched_lines;
            continue;
        }
        std::vector<ScoredLabelBox> found;
        for (size_t k = 0; k < boxes.size(); ++k) {
            const std::string p = json_path("boxes", k);
            const nlohmann::json &b = boxes[k];
            r.require_object(b, p);
            ScoredLabelBox s;
            s.box.x = r.number(r.member(b, p, "x"), json_path(p, "x"));
            s.box.y = r.number(r.member(b, p, "y"), json_path(p, "y"));
            s.box.w = r.number(r.member(b, p, "w"), json_path(p, "w"));
            s.box.h = r.number(r.member(b, p, "h"), json_path(p, "h"));
            s.box.score = r.number(r.member(b, p, "score"), json_path(p, "score"));
            if (const nlohmann::json *label = r.optional_member(b, "label")) {
                s.above_threshold = r.integer(*label, json_path(p, "label")) == 1;
            }
            const nlohmann::json *cls = r.optional_member(b, "class");
            if (cls) {
                s.box.class_name = r.text(*cls, json_path(p, "class"));
                note_class(file, s.box.class_name);
            } else {
                s.class_named = false;
                if (file.first_unnamed.empty()) {
                    file.first_unnamed = place + ", " + p;
                }
            }
            found.push_back(std::move(s));
        }
        auto &slot = file.found[static_cast<size_t>(i)];
        if (!slot) {
            slot = std::move(found);
        } else {
            slot->insert(slot->end(), found.begin(), found.end());
        }
    }
    return file;
}

}  // namespace ostrel_tool
