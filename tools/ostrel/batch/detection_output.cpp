#include "batch/detection_output.h"

#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "boxes/box_io.h"
#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "files/atomic_file.h"
#include "files/picture.h"
#include "labels/coco_labels.h"
#include "labels/label_formats.h"
#include "labels/label_text.h"
#include "labels/yolo_labels.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

namespace {

// Whether two paths are the same file (through links, however spelt).
bool same_file(const std::string &a, const std::string &b) {
    std::error_code ec;
    return fs::exists(a, ec) && fs::exists(b, ec) && fs::equivalent(a, b, ec);
}

void problem(const std::string &message) { complain(message); }

}  // namespace

struct DetectionOutput::State {
    DetectionOutputOptions o;
    bool jsonl = false;
    LabelFormat format = LabelFormat::coco;
    LabelSet run;  // whole-run formats: every picture's detections
    std::string jsonl_text;
    std::map<std::string, int> used_names;
    std::set<std::string> videos_passed_over;
    std::unique_ptr<LabelSet> ids;
    int failed_outputs = 0;

    void refuse_inputs(const std::string &path) const {
        for (const auto &input : o.inputs) {
            if (same_file(path, input)) {
                throw output_error("cannot write '" + path + "': it is an input of this run ('" + input + "')");
            }
        }
    }
};

DetectionOutput::DetectionOutput(DetectionOutputOptions options) : state_(std::make_unique<State>()) {
    State &s = *state_;
    s.o = std::move(options);
    s.jsonl = s.o.format == "jsonl" || s.o.format == "json";
    if (!s.jsonl) {
        const auto format = format_of_name(s.o.format);
        if (!format) {
            throw usage_error("--format '" + s.o.format + "': one of jsonl, " + format_names());
        }
        s.format = *format;
    }
    if (s.o.classes.empty()) {
        s.o.classes = {"object"};
    }
    s.run.format = s.format;
    s.run.classes = s.o.classes;
    if (!s.o.image_ids.empty()) {
        if (s.jsonl || s.format != LabelFormat::coco) {
            throw usage_error("--image-ids goes with --format coco");
        }
        s.ids = std::make_unique<LabelSet>(read_labels(s.o.image_ids, LabelFormat::coco));
    }
    if (!s.jsonl && writes_file_per_picture(s.format)) {
        if (s.o.out.empty()) {
            throw usage_error(std::string("--format ") + format_name(s.format) +
                              " writes a file per picture: give the folder with --out DIR");
        }
        make_output_folder(s.o.out);
        std::error_code ec;
        if (!fs::is_directory(s.o.out, ec)) {
            throw output_error("cannot write into '" + s.o.out + "': not a folder");
        }
    } else if (!s.o.out.empty()) {
        output_target(s.o.out, "detections");
        s.refuse_inputs(s.o.out);
    }
}

DetectionOutput::~DetectionOutput() = default;

void DetectionOutput::take(const DetectionReport &report) {
    State &s = *state_;
    if (s.jsonl) {
        std::string out;
        if (s.o.class_given && report.classes.empty()) {
            DetectionReport named = report;
            named.classes.assign(named.boxes.size(), s.o.classes.front());
            out = report_text(named, true);
        } else {
            out = report_text(report, true);
        }
        if (s.o.out.empty()) {
            std::fwrite(out.data(), 1, out.size(), tool_out());
        } else {
            s.jsonl_text += out;
        }
        return;
    }
    const std::string &file = report.file;
    if (report.frame) {
        if (s.videos_passed_over.insert(file).second) {
            problem("video '" + file + "': --format " + std::string(format_name(s.format)) +
                    " describes pictures; the frames are passed over (--format jsonl writes them)");
        }
        return;
    }
    LabelledPicture picture;
    picture.picture_path = file;
    picture.name = file_name_of(file);
    picture.width = report.width;
    picture.height = report.height;
    picture.id = static_cast<int64_t>(s.run.pictures.size() + 1);
    for (size_t i = 0; i < report.boxes.size(); ++i) {
        const ostrel_alg_box &b = report.boxes[i];
        if (b.label != 1) {
            continue;  // boxes below the threshold are not detections
        }
        // A model with named classes gives each box its own.
        LabelBox box = label_box_of(rect_of(b), i < report.classes.size() ? report.classes[i] : s.o.classes.front());
        box.score = exact_score(b.score);
        picture.boxes.push_back(box);
    }
    if (!writes_file_per_picture(s.format)) {
        s.run.pictures.push_back(std::move(picture));
        return;
    }
    const std::string stem = stem_of(file);
    const int n = ++s.used_names[stem];
    const std::string name = (n == 1 ? stem : stem + "-" + std::to_string(n)) + per_picture_extension(s.format);
    const std::string path = (fs::path(s.o.out) / name).string();
    try {
        s.refuse_inputs(path);
        if (same_file(path, file)) {
            throw output_error("cannot write '" + path + "': it is the picture it describes");
        }
        LabelWriteOptions options;
        options.base = s.o.out;
        write_file_atomically(path, picture_label_text(picture, s.format, s.o.classes, options));
    } catch (const ToolError &e) {
        problem(e.what());
        ++s.failed_outputs;
    }
}

int DetectionOutput::finish(int batch_code) {
    State &s = *state_;
    try {
        std::string text;
        if (s.jsonl) {
            text = s.jsonl_text;
        } else if (writes_file_per_picture(s.format)) {
            if (s.format == LabelFormat::yolo) {
                const std::string names = (fs::path(s.o.out) / "classes.txt").string();
                s.refuse_inputs(names);
                write_file_atomically(names, write_yolo_names(s.o.classes));
            }
        } else if (s.format == LabelFormat::coco) {
            text = write_coco_results(s.run, s.ids.get());
        } else {
            LabelWriteOptions options;
            options.base = s.o.out.empty() ? fs::path() : fs::path(s.o.out).parent_path();
            options.predictions = true;
            options.model_version = "ostrel " + file_name_of(s.o.model);
            text = label_set_text(s.run, s.format, options);
        }
        if (!s.jsonl && writes_file_per_picture(s.format)) {
            // written already
        } else if (s.o.out.empty()) {
            std::fwrite(text.data(), 1, text.size(), tool_out());
        } else {
            write_file_atomically(s.o.out, text);
        }
    } catch (const ToolError &e) {
        problem(e.what());
        ++s.failed_outputs;
    }
    if (batch_code == to_int(ExitCode::interrupted)) {
        return batch_code;
    }
    if (s.failed_outputs > 0) {
        return to_int(ExitCode::output);
    }
    if (!s.videos_passed_over.empty() && batch_code == to_int(ExitCode::ok)) {
        return to_int(ExitCode::input);
    }
    return batch_code;
}

}  // namespace ostrel_tool
