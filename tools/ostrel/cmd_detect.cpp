// ostrel detect: runs a model on pictures; prints boxes or JSON lines and
// optionally writes annotated pictures.
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "atomic_file.h"
#include "box_io.h"
#include "color_names.h"
#include "command_support.h"
#include "commands.h"
#include "drawing.h"
#include "exit_codes.h"
#include "picture.h"
#include "tool_error.h"
#include "tool_output.h"

namespace ostrel_tool {

namespace {

struct DetectOptions {
    std::string model;
    std::vector<std::string> images;
    uint32_t sensitivity = kDefaultSensitivity;
    int32_t profile = OSTREL_ALG_PROFILE_CLASSIC;
    bool json = false;
    std::string draw_dir;
};

std::string box_line(const std::string &file, const ostrel_alg_box &b) {
    return strformat("%s  %d,%d,%d,%d  score %.2f  label %d  colours %s, %s", file.c_str(), b.x, b.y, b.width,
                     b.height, rounded_score(b.score), b.label, color_name(b.color_main).c_str(),
                     color_name(b.color_second).c_str());
}

// DIR/<stem>.png; a stem used before in this run gets "-2", "-3", ...
std::string drawing_path(const std::string &dir, const std::string &image, std::map<std::string, int> &used) {
    const std::string stem = stem_of(image);
    const int n = ++used[stem];
    const std::string name = n == 1 ? stem + ".png" : stem + "-" + std::to_string(n) + ".png";
    return (std::filesystem::path(dir) / name).string();
}

int run_detect(const DetectOptions &o) {
    for (const auto &image : o.images) {
        require_file(image, "picture");
    }
    Engine engine;
    if (!engine.set_profile(o.profile)) throw ToolError(ExitCode::failed, "the library refused the profile: " + engine.last_line());
    load_model(engine, o.model);
    if (!engine.set_sensitivity(o.sensitivity)) {
        throw ToolError(ExitCode::failed, "the library refused the sensitivity: " + engine.last_line());
    }
    if (!o.draw_dir.empty()) {
        make_output_folder(o.draw_dir);
    }
    std::map<std::string, int> used_names;
    for (const auto &image : o.images) {
        const Picture picture = load_picture(image);
        std::vector<ostrel_alg_box> boxes;
        if (!engine.detect(picture, boxes)) {
            const std::string reason = engine.last_line();
            throw ToolError(ExitCode::failed,
                            "detection failed on '" + image + "'" + (reason.empty() ? "" : ": " + reason));
        }
        if (o.json) {
            nlohmann::ordered_json line;
            line["file"] = image;
            line["width"] = picture.width();
            line["height"] = picture.height();
            line["boxes"] = boxes_to_json(boxes);
            println(line.dump());
        } else if (boxes.empty()) {
            println(image + "  no detections");
        } else {
            for (const auto &b : boxes) {
                println(box_line(image, b));
            }
        }
        if (!o.draw_dir.empty()) {
            cv::Mat canvas = picture.pixels.clone();
            draw_detections(canvas, boxes);
            write_png_atomically(drawing_path(o.draw_dir, image, used_names), canvas);
        }
    }
    return to_int(ExitCode::ok);
}

}  // namespace

void add_detect_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<DetectOptions>();
    CLI::App *sub = app.add_subcommand("detect", "Find the trained object in pictures");
    sub->add_option("--model", o->model, "the model file (checked, CRC included, before use)")
        ->type_name("M")
        ->required();
    sub->add_option("IMAGE", o->images, "pictures to search (any format OpenCV reads)")->required();
    add_profile_option(sub, &o->profile);
    sub->add_option("--sensitivity", o->sensitivity, "0..100, how readily a box is reported (default 80)")
        ->check(CLI::Range(0, 100))
        ->type_name("N");
    sub->add_flag("--json", o->json,
                  "print one JSON line per picture: {\"file\",\"width\",\"height\",\"boxes\":[{x,y,w,h,score,label,"
                  "color_main,color_second,color_main_name,color_second_name}]}");
    sub->add_option("--draw", o->draw_dir, "write each picture with its boxes drawn to DIR/<name>.png")
        ->type_name("DIR");
    sub->footer(
        "Each line is: file  x,y,w,h  score  label  colours main, second. Label 1 is a detection; label -1\n"
        "a box below the confidence threshold. Colour classes: dark, grey, light, red, orange, yellow,\n"
        "green, blue, purple; the second colour is none when the box has no clear second colour.\n"
        "The library's own log lines never reach standard output (see --verbose), so --json output can\n"
        "be piped into jq.\n\n" +
        std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_detect(*o); }; });
}

}  // namespace ostrel_tool
