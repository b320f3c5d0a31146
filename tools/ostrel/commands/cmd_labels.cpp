// ostrel labels: reads labels in any annotation format, says what they
// hold, prints them as the neutral record (JSON lines) or converts them to
// another format.
#include <map>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/commands.h"
#include "files/atomic_file.h"
#include "labels/label_formats.h"
#include "labels/picture_lookup.h"

namespace ostrel_tool {

namespace {

struct LabelsOptions {
    std::string source;
    std::string format;
    std::string to;
    std::string out;
    bool json = false;
};

std::optional<LabelFormat> format_option(const std::string &name, const char *option) {
    if (name.empty()) {
        return std::nullopt;
    }
    auto format = format_of_name(name);
    if (!format) {
        throw usage_error(std::string(option) + " '" + name + "': one of " + format_names());
    }
    return format;
}

// One picture as the neutral record: what `ostrel.read_labels` gives in Python.
nlohmann::ordered_json record_json(const LabelledPicture &p) {
    nlohmann::ordered_json j;
    j["name"] = p.name;
    j["picture"] = p.picture_path.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(p.picture_path);
    j["width"] = p.width;
    j["height"] = p.height;
    j["id"] = p.id;
    nlohmann::ordered_json boxes = nlohmann::ordered_json::array();
    for (const auto &b : p.boxes) {
        nlohmann::ordered_json box;
        box["class"] = b.class_name;
        box["x"] = b.x;
        box["y"] = b.y;
        box["w"] = b.w;
        box["h"] = b.h;
        box["difficult"] = b.difficult;
        box["truncated"] = b.truncated;
        box["occluded"] = b.occluded;
        box["crowd"] = b.crowd;
        box["score"] = b.score ? nlohmann::ordered_json(*b.score) : nlohmann::ordered_json(nullptr);
        box["area"] = b.area ? nlohmann::ordered_json(*b.area) : nlohmann::ordered_json(nullptr);
        boxes.push_back(box);
    }
    j["boxes"] = boxes;
    return j;
}

int run_labels(const LabelsOptions &o) {
    const auto to = format_option(o.to, "--to");
    if (to.has_value() != !o.out.empty()) {
        throw usage_error("--to FORMAT and --out go together");
    }
    if (to && !writes_file_per_picture(*to)) {
        output_target(o.out, "labels");
    }
    LabelSet set = read_labels(o.source, format_option(o.format, "--format"));
    for (const auto &note : set.notes) {
        warn(note);
    }
    if (to) {
        const std::string missing = missing_pictures_message(set);
        if (!missing.empty()) {
            throw input_error(missing + ": the converted labels would name pictures that are not there");
        }
        fill_picture_sizes(set);
        write_label_set(set, *to, o.out);
        println(strformat("%zu pictures, %zu boxes written as %s to %s", set.pictures.size(), box_count(set),
                          format_name(*to), o.out.c_str()));
        return to_int(ExitCode::ok);
    }
    if (o.json) {
        for (const auto &p : set.pictures) {
            println(record_json(p).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
        }
        return to_int(ExitCode::ok);
    }
    std::map<std::string, int> per_class;
    size_t missing = 0;
    for (const auto &p : set.pictures) {
        missing += p.picture_path.empty() ? 1 : 0;
        for (const auto &b : p.boxes) {
            ++per_class[b.class_name];
        }
    }
    println(strformat("%s: %s labels, %zu pictures (%zu not found), %zu boxes", o.source.c_str(),
                      format_name(set.format), set.pictures.size(), missing, box_count(set)));
    for (const auto &c : set.classes) {
        println(strformat("  %-24s %6d", c.c_str(), per_class[c]));
    }
    return to_int(ExitCode::ok);
}

}  // namespace

void add_labels_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<LabelsOptions>();
    CLI::App *sub = app.add_subcommand("labels", "Read labels in any annotation format: list, print or convert them");
    sub->add_option("SOURCE", o->source, "a label file or folder: " + format_names())->required();
    sub->add_option("--format", o->format, "the format of SOURCE (found from the content when left out)")
        ->type_name("F");
    sub->add_flag("--json", o->json,
                  "print each picture as one JSON line: {name, picture, width, height, id, boxes: [{class, x, y, "
                  "w, h, difficult, truncated, occluded, crowd, score, area}]}");
    sub->add_option("--to", o->to, "convert to this format: " + format_names())->type_name("F");
    sub->add_option("--out", o->out, "with --to: the file (coco, cvat, labelstudio, imglab) or folder (voc, yolo)")
        ->type_name("PATH");
    sub->footer(
        "Boxes are in pixels: x, y the top-left corner, w, h the size (VOC's 1-based corners, YOLO's\n"
        "fractions and Label Studio's percentages are converted). Pictures are named relative to the\n"
        "written file's folder where they lie below it.\n\n"
        "Examples:\n"
        "  ostrel labels data/bccd\n"
        "  ostrel labels data/bccd --to coco --out data/bccd/instances_all.json\n"
        "  ostrel labels chess/data.yaml --json | jq -c '.boxes | length'\n\n" +
        std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_labels(*o); }; });
}

}  // namespace ostrel_tool
