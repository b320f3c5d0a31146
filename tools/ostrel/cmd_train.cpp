// ostrel train: trains a detector on one picture and writes the model file.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "box_io.h"
#include "command_support.h"
#include "commands.h"
#include "exit_codes.h"
#include "picture.h"
#include "tool_error.h"
#include "tool_output.h"
#include "training_progress.h"

namespace ostrel_tool {

namespace {

struct TrainOptions {
    std::string image;
    std::vector<std::string> box_arguments;
    std::string box_file;
    std::string class_name;
    std::string model;
    uint32_t sensitivity = kDefaultSensitivity;
    uint32_t seed = kDefaultSeed;
    int32_t profile = OSTREL_ALG_PROFILE_CLASSIC;
    int width = 0;
    int height = 0;
    bool median_size = false;
};

std::vector<Rect> boxes_from_options(const TrainOptions &o) {
    if (o.box_arguments.empty() == o.box_file.empty()) {
        throw usage_error("give the marked boxes either with --box x,y,w,h (repeatable) or with --boxes FILE");
    }
    if ((o.width > 0) != (o.height > 0)) {
        throw usage_error("--width and --height go together");
    }
    if (o.width > 0 && o.median_size) {
        throw usage_error("--median-size and --width/--height exclude each other");
    }
    std::vector<Rect> boxes;
    if (!o.box_file.empty()) {
        boxes = read_box_file(o.box_file, o.class_name);
        if (boxes.empty()) {
            throw input_error("box file '" + o.box_file + "' holds no box");
        }
    } else {
        for (const auto &argument : o.box_arguments) {
            boxes.push_back(parse_box_argument(argument));
        }
    }
    return boxes;
}

// Fails before any work when the model could not be written anyway.
void require_output_folder_of(const std::string &path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    std::error_code ec;
    if (!folder.empty() && !std::filesystem::is_directory(folder, ec)) {
        throw output_error("cannot write model '" + path + "': folder '" + folder.string() + "' does not exist");
    }
}

int run_train(const TrainOptions &o) {
    std::vector<Rect> boxes = boxes_from_options(o);
    const Picture picture = load_picture(o.image);
    require_output_folder_of(o.model);

    if (o.width > 0 || o.median_size) {
        const Size size = o.median_size ? median_size(boxes) : Size{o.width, o.height};
        for (auto &b : boxes) {
            b = placed_on(b, size, picture.width(), picture.height());
        }
    }
    for (size_t i = 0; i < boxes.size(); ++i) {
        if (!touches_picture(boxes[i], picture.width(), picture.height())) {
            throw input_error(strformat("box %zu (%s) lies outside the %dx%d picture '%s'", i + 1,
                                        to_string(boxes[i]).c_str(), picture.width(), picture.height(),
                                        o.image.c_str()));
        }
    }
    const Size learnt{boxes.front().w, boxes.front().h};
    for (const auto &b : boxes) {
        if (b.w != learnt.w || b.h != learnt.h) {
            warn(strformat("the boxes differ in size; the detector learns one window, the first box's %dx%d "
                           "(--median-size or --width/--height give every box one size)",
                           learnt.w, learnt.h));
            break;
        }
    }

    Engine engine;
    FeatureMap map;
    // The accurate profile chooses its own window and says itself when a box does not fit.
    if (o.profile == OSTREL_ALG_PROFILE_CLASSIC && engine.feature_map(picture, map) && map.columns > 0 && map.rows > 0) {
        const WindowCells cells =
            window_cells(learnt, picture.width(), picture.height(), map.columns, map.rows, map.channels);
        if (cells.values < kMinWindowValues || cells.values > kMaxWindowValues) {
            throw input_error(strformat(
                "a %dx%d box on this %dx%d picture gives the detector a window of %dx%d feature cells "
                "(%d values); a model holds %d to %d values: use a %s box",
                learnt.w, learnt.h, picture.width(), picture.height(), cells.columns, cells.rows, cells.values,
                kMinWindowValues, kMaxWindowValues, cells.values < kMinWindowValues ? "larger" : "smaller"));
        }
    }
    if (!engine.set_profile(o.profile) || !engine.set_sensitivity(o.sensitivity) || !engine.set_random_seed(o.seed)) {
        throw ToolError(ExitCode::failed, "the library refused the settings: " + engine.last_line());
    }

    println(strformat("training on %s (%dx%d): %zu marked box%s of %dx%d px, sensitivity %u, seed %u",
                      o.image.c_str(), picture.width(), picture.height(), boxes.size(), boxes.size() == 1 ? "" : "es",
                      learnt.w, learnt.h,
                      o.sensitivity, o.seed));
    std::vector<ostrel_alg_box> marked;
    for (const auto &b : boxes) {
        marked.push_back(marked_box(b));
    }
    TrainingProgress progress(tool_out(), static_cast<int>(boxes.size()));
    engine.set_line_handler([&](const std::string &line) { progress.on_library_line(line); });
    const bool trained = engine.train(picture, marked);
    engine.set_line_handler(nullptr);
    if (!trained) {
        const std::string reason = engine.last_line();
        throw ToolError(ExitCode::failed, "training failed" + (reason.empty() ? "" : ": " + reason));
    }
    progress.finish();

    export_model_atomically(engine, o.model);
    println("model written to " + o.model);
    return to_int(ExitCode::ok);
}

}  // namespace

void add_train_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<TrainOptions>();
    CLI::App *sub = app.add_subcommand("train", "Train a detector on one picture and write the model file");
    sub->add_option("IMAGE", o->image, "the training picture (any format OpenCV reads)")->required();
    sub->add_option("--box", o->box_arguments, "a marked box in picture pixels (repeat for more boxes)")
        ->type_name("x,y,w,h")
        ->allow_extra_args(false)  // one box per --box, so that IMAGE may follow it
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_option("--boxes", o->box_file,
                    "a box file: JSON ([{\"x\":..,\"y\":..,\"w\":..,\"h\":..}], [[x,y,w,h]] or a `detect --json` "
                    "line) or a Pascal VOC annotation (with --class)")
        ->type_name("FILE");
    sub->add_option("--class", o->class_name, "the object class to take from a Pascal VOC file")->type_name("NAME");
    sub->add_option("--model", o->model, "where to write the model file")->type_name("OUT")->required();
    sub->add_option("--sensitivity", o->sensitivity,
                    "0..100, how readily the detector reports a box (default 80); used by auto-training")
        ->check(CLI::Range(0, 100))
        ->type_name("N");
    add_profile_option(sub, &o->profile);
    sub->add_option("--seed", o->seed, "seed of the random background samples (default 1)")->type_name("S");
    sub->add_option("--width", o->width, "give every box this width (centred on the box; a box cut by the picture's edge keeps its inner side)")
        ->check(CLI::PositiveNumber)
        ->type_name("W");
    sub->add_option("--height", o->height, "give every box this height (placed like --width)")
        ->check(CLI::PositiveNumber)
        ->type_name("H");
    sub->add_flag("--median-size", o->median_size, "give every box the median width and height of the boxes (placed like --width)");
    sub->footer(
        "The detector learns one window size: that of the first box. Boxes of other sizes are used as\n"
        "they are and a warning is printed. Everything not marked may become a background sample, so mark\n"
        "every object on the picture.\n\n" +
        std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_train(*o); }; });
}

}  // namespace ostrel_tool
