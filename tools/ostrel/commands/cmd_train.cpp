// ostrel train: trains a detector on one or more pictures and writes the model file.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "boxes/box_io.h"
#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "cli/training_progress.h"
#include "commands/command_support.h"
#include "commands/commands.h"
#include "files/atomic_file.h"
#include "files/picture.h"
#include "files/training_set.h"
#include "labels/label_formats.h"

namespace ostrel_tool {

namespace {

struct TrainOptions {
    std::vector<std::string> images;
    std::vector<std::string> box_arguments;
    std::vector<std::string> box_files;
    std::vector<std::string> classes;  // --class, repeatable: a class each; "a,b" merges
    bool all_classes = false;          // --all-classes: every class of the labels, each its own
    std::string voc_dir;
    std::string labels;
    std::string format;
    int limit = 0;
    std::string model;
    uint32_t sensitivity = kDefaultSensitivity;
    uint32_t seed = kDefaultSeed;
    int32_t profile = kDefaultTrainingProfile;
    int width = 0;
    int height = 0;
    bool median_size = false;
};

void check_sizing_options(const TrainOptions &o) {
    if ((o.width > 0) != (o.height > 0)) {
        throw usage_error("--width and --height go together");
    }
    if (o.width > 0 && o.median_size) {
        throw usage_error("--median-size and --width/--height exclude each other");
    }
}

// One class a model learns: its name (empty: the unnamed class of a model
// of one class, as models always were) and its pictures with their boxes.
struct ClassTrainingSet {
    std::string name;
    std::vector<TrainingPicture> pictures;
};

// The pictures of one class of the labels; warns of the pictures without it.
ClassTrainingSet class_set_from_labels(const LabelSet &set, const ClassGroup &group, const std::string &path,
                                       int limit) {
    VocTrainingSet chosen = training_pictures_from_labels(set, group, limit);
    if (chosen.without_class > 0) {
        warn(strformat("%d labelled picture%s in '%s' hold%s no object of class '%s' and %s passed over",
                       chosen.without_class, chosen.without_class == 1 ? "" : "s", path.c_str(),
                       chosen.without_class == 1 ? "s" : "", group.display().c_str(),
                       chosen.without_class == 1 ? "is" : "are"));
    }
    return {group.display(), std::move(chosen.pictures)};
}

// Whether any box of the labels (crowd regions aside) is of the group.
bool labels_hold(const LabelSet &set, const ClassGroup &group) {
    for (const LabelledPicture &p : set.pictures) {
        for (const LabelBox &b : p.boxes) {
            if (group.contains(b.class_name) && !b.crowd) return true;
        }
    }
    return false;
}

// The classes to learn from the labels, from --labels in any format or
// --voc: each --class its own class (its comma-separated names merged into
// one), every class of the labels with --all-classes, or the labels' one
// class.
std::vector<ClassTrainingSet> training_sets_from_labels(const TrainOptions &o, const std::string &path,
                                                        std::optional<LabelFormat> format) {
    const LabelSet set = read_labels(path, format);
    for (const auto &note : set.notes) {
        warn(note);
    }
    std::vector<ClassGroup> groups = class_groups_of(o.classes);
    if (o.all_classes) {
        for (const std::string &name : set.classes) {
            ClassGroup group;
            group.names = {name};
            if (labels_hold(set, group)) {
                groups.push_back(group);
            } else {
                warn("class '" + name + "' of '" + path + "' has no object and is left out");
            }
        }
        if (groups.empty()) {
            throw input_error("the labels in '" + path + "' hold no object of any class");
        }
    } else if (groups.empty()) {
        if (set.classes.size() != 1) {
            std::string names;
            for (const auto &c : set.classes) {
                names += (names.empty() ? "" : ", ") + c;
            }
            throw usage_error("give the class to learn with --class NAME, or --all-classes (the labels hold " +
                              (names.empty() ? std::string("none") : names) + ")");
        }
        ClassGroup group;
        group.names = {set.classes.front()};
        groups.push_back(group);
    }
    std::vector<ClassTrainingSet> out;
    for (const ClassGroup &group : groups) {
        out.push_back(class_set_from_labels(set, group, path, o.limit));
    }
    return out;
}

// The pictures and their boxes, from IMAGE [--box ...|--boxes FILE] pairs or
// from a VOC folder. Reads every box file; no picture is read yet.
std::vector<TrainingPicture> training_set_from_options(const TrainOptions &o);

// The classes to learn and their pictures: from labels one class per
// --class (or every class with --all-classes), otherwise one class (named
// after --class with --voc).
std::vector<ClassTrainingSet> class_sets_from_options(const TrainOptions &o) {
    check_sizing_options(o);
    if (o.all_classes && !o.classes.empty()) {
        throw usage_error("--all-classes learns every class of the labels: give no --class with it");
    }
    if (o.all_classes && o.labels.empty() && o.voc_dir.empty()) {
        throw usage_error("--all-classes goes with --labels or --voc");
    }
    const bool several =
        o.all_classes || o.classes.size() > 1 || (o.classes.size() == 1 && o.classes[0].find(',') != std::string::npos);
    if (!o.labels.empty() || !o.format.empty() || (!o.voc_dir.empty() && several)) {
        if (o.labels.empty() && !o.format.empty()) {
            throw usage_error("--format names the format of --labels FILE_OR_DIR");
        }
        if (!o.labels.empty() &&
            (!o.voc_dir.empty() || !o.images.empty() || !o.box_arguments.empty() || !o.box_files.empty())) {
            throw usage_error(
                "--labels takes the pictures and their boxes from the labels: give no IMAGE, --box, "
                "--boxes or --voc with it");
        }
        if (o.labels.empty() && (!o.images.empty() || !o.box_arguments.empty() || !o.box_files.empty())) {
            throw usage_error(
                "--voc takes the pictures and their boxes from the folder: give no IMAGE, --box or "
                "--boxes with it");
        }
        std::optional<LabelFormat> format = LabelFormat::voc;
        if (!o.labels.empty()) {
            format.reset();
            if (!o.format.empty()) {
                format = format_of_name(o.format);
                if (!format) {
                    throw usage_error("--format '" + o.format + "': one of " + format_names());
                }
            }
        }
        return training_sets_from_labels(o, o.labels.empty() ? o.voc_dir : o.labels, format);
    }
    // A --voc folder's class names the model's class; --class with a box
    // file only chooses the annotation's objects, and the model's one class
    // stays unnamed, as such models always were.
    return {{o.voc_dir.empty() || o.classes.empty() ? std::string() : o.classes.front(), training_set_from_options(o)}};
}

std::vector<TrainingPicture> training_set_from_options(const TrainOptions &o) {
    if (o.classes.size() > 1) {
        throw usage_error("--boxes FILE takes one --class; several classes come from --labels or --voc");
    }
    const std::string class_name = o.classes.empty() ? std::string() : o.classes.front();
    if (!o.voc_dir.empty()) {
        if (!o.images.empty() || !o.box_arguments.empty() || !o.box_files.empty()) {
            throw usage_error(
                "--voc takes the pictures and their boxes from the folder: give no IMAGE, --box or "
                "--boxes with it");
        }
        if (class_name.empty()) {
            throw usage_error("--voc needs the object class: --class NAME");
        }
        VocTrainingSet set = training_pictures_from_voc(o.voc_dir, class_name, o.limit);
        if (set.without_class > 0) {
            warn(strformat("%d annotated picture%s in '%s' hold%s no object of class '%s' and %s passed over",
                           set.without_class, set.without_class == 1 ? "" : "s", o.voc_dir.c_str(),
                           set.without_class == 1 ? "s" : "", class_name.c_str(),
                           set.without_class == 1 ? "is" : "are"));
        }
        return std::move(set.pictures);
    }
    if (o.limit != 0) {
        throw usage_error("--limit goes with --voc or --labels");
    }
    if (o.images.empty()) {
        throw usage_error(
            "give the training picture IMAGE with its boxes, --labels FILE_OR_DIR or --voc DIR --class NAME");
    }
    if (o.images.size() > 1) {
        if (!o.box_arguments.empty()) {
            throw usage_error(
                "--box marks boxes on a single picture; with several pictures give --boxes FILE "
                "after each picture");
        }
        return pair_pictures_with_box_files(o.images, o.box_files, class_name);
    }
    if (o.box_arguments.empty() == o.box_files.empty()) {
        throw usage_error("give the marked boxes either with --box x,y,w,h (repeatable) or with --boxes FILE");
    }
    if (!o.box_files.empty()) {
        return pair_pictures_with_box_files(o.images, o.box_files, class_name);
    }
    require_box_count(o.box_arguments.size(), "--box", true);
    TrainingPicture single{o.images.front(), "--box", {}};
    for (const auto &argument : o.box_arguments) {
        single.boxes.push_back(parse_box_argument(argument));
    }
    return {single};
}

void require_inside(const std::vector<Rect> &boxes, const Picture &picture) {
    for (size_t i = 0; i < boxes.size(); ++i) {
        if (!touches_picture(boxes[i], picture.width(), picture.height())) {
            throw input_error(strformat("box %zu (%s) lies outside the %dx%d picture '%s'", i + 1,
                                        to_string(boxes[i]).c_str(), picture.width(), picture.height(),
                                        picture.path.c_str()));
        }
    }
}

// The library leaves out of training every box whose window of feature
// cells reaches past the map (the picture's edge). One such box among others
// gets a warning when the boxes are used as given (warn_each); when every box of a picture is left out nothing could be
// learnt from it, and the message says why rather than the library's bare
// failure line.
void require_boxes_within_map(const std::vector<Rect> &boxes, const Picture &picture, const FeatureMap &map,
                              bool warn_each) {
    if (map.columns == 0 || map.rows == 0) {
        return;
    }
    std::vector<size_t> left_out;
    for (size_t i = 0; i < boxes.size(); ++i) {
        if (!box_window_inside_map(boxes[i], picture.width(), picture.height(), map.columns, map.rows)) {
            left_out.push_back(i);
        }
    }
    if (left_out.empty()) {
        return;
    }
    if (left_out.size() == boxes.size()) {
        throw input_error(
            strformat("%s (%s) of '%s' reaches past the edge of the %dx%d picture and is left out "
                      "of training, so there is nothing to learn from: mark boxes that lie wholly "
                      "inside the picture",
                      boxes.size() == 1 ? "the only box" : "every box, the first", to_string(boxes.front()).c_str(),
                      picture.path.c_str(), picture.width(), picture.height()));
    }
    for (size_t i : left_out) {
        if (!warn_each) {
            break;
        }
        warn(strformat("box %llu (%s) reaches past the edge of the %dx%d picture '%s' and is left out of training",
                       static_cast<unsigned long long>(i + 1), to_string(boxes[i]).c_str(), picture.width(),
                       picture.height(), picture.path.c_str()));
    }
}

// Refuses a window the model could not hold; map is the first picture's.
void require_learnable(Size window, const Picture &picture, const FeatureMap &map) {
    if (map.columns == 0 || map.rows == 0) {
        return;
    }
    const WindowCells cells =
        window_cells(window, picture.width(), picture.height(), map.columns, map.rows, map.channels);
    const int low = OSTREL_ALG_MIN_WINDOW_WEIGHTS, high = OSTREL_ALG_MAX_WINDOW_WEIGHTS;
    if (cells.values < low || cells.values > high) {
        throw input_error(
            strformat("a %dx%d box on this %dx%d picture gives the detector a window of %dx%d feature cells "
                      "(%d values); a model holds %d to %d values: use a %s box",
                      window.w, window.h, picture.width(), picture.height(), cells.columns, cells.rows, cells.values,
                      low, high, cells.values < low ? "larger" : "smaller"));
    }
}

// Trains on one picture; its samples are added to those the engine holds.
// Returns the samples the engine holds afterwards (as the library counts them).
int train_on(Engine &engine, const Picture &picture, const std::vector<Rect> &boxes, int samples_before) {
    std::vector<ostrel_alg_box> marked;
    for (const auto &b : boxes) {
        marked.push_back(marked_box(b));
    }
    TrainingProgress progress(tool_out(), static_cast<int>(boxes.size()), "  ", samples_before);
    engine.set_progress_handler([&](const ostrel_alg_progress &step) { progress.on_progress(step); });
    const bool trained = engine.train(picture, marked);
    engine.set_progress_handler(nullptr);
    if (!trained) {
        const std::string reason = engine.last_error();
        throw ToolError(ExitCode::failed,
                        "training failed on '" + picture.path + "'" + (reason.empty() ? "" : ": " + reason));
    }
    progress.finish();
    return progress.samples();
}

// "of 106x99 px", or "of 40x80 to 106x99 px" for boxes of several sizes
// (the smallest and the largest by area).
std::string box_sizes_text(const std::vector<Rect> &boxes) {
    const auto area = [](const Rect &b) { return static_cast<int64_t>(b.w) * b.h; };
    const Rect *small = &boxes.front(), *large = &boxes.front();
    bool one_size = true;
    for (const auto &b : boxes) {
        one_size = one_size && b.w == boxes.front().w && b.h == boxes.front().h;
        small = area(b) < area(*small) ? &b : small;
        large = area(b) > area(*large) ? &b : large;
    }
    return one_size ? strformat("of %dx%d px", small->w, small->h)
                    : strformat("of %dx%d to %dx%d px", small->w, small->h, large->w, large->h);
}

// Trains the engine's current class on its pictures, one after the other.
void train_class(Engine &engine, const TrainOptions &o, const std::vector<TrainingPicture> &set) {
    const bool several = set.size() > 1;
    const bool one_size_asked = o.width > 0 || o.median_size;
    // The classic profile learns one window, the first box's; the accurate
    // profile learns every box at its own size (boxes keep their sizes
    // unless --median-size or --width/--height asks for one).
    const bool classic = o.profile == OSTREL_ALG_PROFILE_CLASSIC;

    Size window{}, first_size{};
    FeatureMap map;
    int samples = 0, changed = 0, boxes_in_all = 0;
    for (size_t k = 0; k < set.size(); ++k) {
        const Picture picture = load_picture(set[k].picture_path);
        std::vector<Rect> boxes = set[k].boxes;
        boxes_in_all += static_cast<int>(boxes.size());
        Size here;
        if (k == 0) {
            window = o.median_size ? median_size(boxes)
                     : o.width > 0 ? Size{o.width, o.height}
                                   : Size{boxes.front().w, boxes.front().h};
            first_size = {picture.width(), picture.height()};
            if (!engine.feature_map(picture, map)) {
                map = FeatureMap{};
            }
            here = window;
        } else if (classic) {
            here = scaled_window(window, first_size, {picture.width(), picture.height()}, map.columns, map.rows);
        } else {
            here = window;  // boxes in pixels: one size means the same size on every picture
        }
        if (one_size_asked) {
            for (auto &b : boxes) {
                b = placed_on(b, here, picture.width(), picture.height());
            }
        } else if (several && classic) {
            changed += fit_boxes_to(boxes, here, picture.width(), picture.height());
        }
        require_inside(boxes, picture);
        if (k == 0) {
            if (!several && classic) {
                for (const auto &b : boxes) {
                    if (b.w != window.w || b.h != window.h) {
                        warn(
                            strformat("the boxes differ in size; the detector learns one window, the first box's "
                                      "%dx%d (--median-size or --width/--height give every box one size; the "
                                      "accurate profile learns every box at its own size)",
                                      window.w, window.h));
                        break;
                    }
                }
            }
            // The accurate profile chooses its own window and says itself when a box does not fit.
            if (classic) {
                require_learnable(window, picture, map);
            }
            if (classic && !several) {
                // Boxes given one size on purpose reach over the edge where the object is cut.
                require_boxes_within_map(boxes, picture, map, !one_size_asked);
            }
            if (several) {
                const std::string sizes = classic || one_size_asked
                                              ? strformat("a window of %dx%d px from the first one", window.w, window.h)
                                              : std::string("every box at its own size");
                println(strformat("training on %zu pictures (%s profile): %s, sensitivity %u, seed %u", set.size(),
                                  profile_name(o.profile), sizes.c_str(), o.sensitivity, o.seed));
            }
        }
        if (several) {
            println(strformat("picture %zu/%zu %s (%dx%d): %zu marked box%s %s", k + 1, set.size(),
                              picture.path.c_str(), picture.width(), picture.height(), boxes.size(),
                              boxes.size() == 1 ? "" : "es", box_sizes_text(boxes).c_str()));
        } else {
            println(strformat("training on %s (%dx%d): %zu marked box%s %s, %s profile, sensitivity %u, seed %u",
                              picture.path.c_str(), picture.width(), picture.height(), boxes.size(),
                              boxes.size() == 1 ? "" : "es",
                              (classic ? strformat("of %dx%d px", window.w, window.h) : box_sizes_text(boxes)).c_str(),
                              profile_name(o.profile), o.sensitivity, o.seed));
        }
        samples = train_on(engine, picture, boxes, samples);
    }
    if (changed > 0) {
        warn(
            strformat("%d of %d boxes had another size than the %dx%d window of the first picture and were made "
                      "that size, centred on each box (as --median-size places them)",
                      changed, boxes_in_all, window.w, window.h));
    }
    uint32_t positives = 0, negatives = 0;
    if (engine.sample_counts(positives, negatives)) {
        println(
            strformat("samples: %u of the object and %u of background (shifted copies included), from %zu "
                      "picture%s",
                      positives, negatives, set.size(), several ? "s" : ""));
    }
}

int run_train(const TrainOptions &o) {
    const std::vector<ClassTrainingSet> classes = class_sets_from_options(o);
    if (classes.size() > 1 && o.profile != OSTREL_ALG_PROFILE_ACCURATE) {
        throw usage_error(
            strformat("%zu classes in one model need --profile accurate (the classic profile learns "
                      "one class); --class a,b learns several label classes as one",
                      classes.size()));
    }
    // Fails before any work when the model could not be written anyway.
    output_target(o.model, "model");

    Engine engine;
    if (!engine.set_profile(o.profile) || !engine.set_sensitivity(o.sensitivity) || !engine.set_random_seed(o.seed)) {
        throw ToolError(ExitCode::failed, "the library refused the settings: " + engine.last_error());
    }
    for (size_t k = 0; k < classes.size(); ++k) {
        const ClassTrainingSet &c = classes[k];
        // Accurate models carry their classes' names; a classic model is
        // one unnamed class.
        if (o.profile == OSTREL_ALG_PROFILE_ACCURATE && !c.name.empty() && !engine.add_class(c.name)) {
            throw ToolError(ExitCode::failed,
                            "the library refused the class name '" + c.name + "': " + engine.last_error());
        }
        if (classes.size() > 1) {
            println(strformat("class %zu/%zu %s", k + 1, classes.size(), c.name.c_str()));
        }
        train_class(engine, o, c.pictures);
    }
    export_model_atomically(engine, o.model);
    println("model written to " + o.model + " (" + profile_name(o.profile) + " profile)");
    return to_int(ExitCode::ok);
}

}  // namespace

void add_train_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<TrainOptions>();
    CLI::App *sub = app.add_subcommand(
        "train", "Train a detector on one or more pictures (or a Pascal VOC folder) and write the model file");
    sub->add_option("IMAGE", o->images,
                    "a training picture (any format OpenCV reads); several pictures each take a --boxes FILE, "
                    "in the same order");
    sub->add_option("--box", o->box_arguments,
                    "a marked box in picture pixels (repeat for more boxes; one picture only)")
        ->type_name("x,y,w,h")
        ->allow_extra_args(false)  // one box per --box, so that IMAGE may follow it
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_option("--boxes", o->box_files,
                    "the boxes of a picture: JSON ([{\"x\":..,\"y\":..,\"w\":..,\"h\":..}], [[x,y,w,h]] or a "
                    "`detect --json` line) or a Pascal VOC annotation (with --class); once per IMAGE")
        ->type_name("FILE")
        ->allow_extra_args(false)  // one file per --boxes, so that the next IMAGE may follow it
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_option("--class", o->classes,
                    "the object class to learn from the labels (--labels, --voc, a VOC --boxes file); repeat it to "
                    "learn several classes in one model (--profile accurate), or give a,b to learn several label "
                    "classes as one")
        ->type_name("NAME")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_flag("--all-classes", o->all_classes,
                  "with --labels or --voc: learn every class of the labels, each its own class in one model "
                  "(--profile accurate)");
    sub->add_option("--labels", o->labels,
                    "train on every picture of these labels that holds objects of --class: a file or folder in "
                    "any of the formats " +
                        format_names() + " (found from the content)")
        ->type_name("FILE_OR_DIR");
    sub->add_option("--format", o->format, "the format of --labels: " + format_names())->type_name("F");
    sub->add_option("--voc", o->voc_dir,
                    "train on every picture of a Pascal VOC folder that holds objects of --class (annotations in "
                    "Annotations/, annotations/ or the folder; pictures in JPEGImages/, images/ or next to them)")
        ->type_name("DIR");
    sub->add_option("--limit", o->limit, "with --voc or --labels: the first N such pictures only")
        ->check(whole_number_in(1, 2147483647))
        ->type_name("N");
    sub->add_option("--model", o->model, "where to write the model file")->type_name("OUT")->required();
    sub->add_option("--sensitivity", o->sensitivity,
                    "0..100, how readily the detector reports a box (default 80); used by auto-training")
        ->check(sensitivity_in_range())
        ->type_name("N");
    add_training_profile_option(sub, &o->profile);
    sub->add_option("--seed", o->seed, "seed of the random background samples (default 1)")->type_name("S");
    sub->add_option(
           "--width", o->width,
           "give every box this width (centred on the box; a box cut by the picture's edge keeps its inner side)")
        ->check(whole_number_in(1, kLargestBoxValue))
        ->type_name("W");
    sub->add_option("--height", o->height, "give every box this height (placed like --width)")
        ->check(whole_number_in(1, kLargestBoxValue))
        ->type_name("H");
    sub->add_flag("--median-size", o->median_size,
                  "give every box the median width and height of the (first picture's) boxes (placed like "
                  "--width): what the classic profile needs when the boxes differ in size; the accurate profile "
                  "learns every box at its own size and needs none of these three options");
    add_max_pixels_option(sub);
    sub->footer(
        "Profiles: the accurate one (the default) learns every marked box at its own size, boxes of any size\n"
        "on one picture and across pictures, and finds objects of those sizes in pixels (and a margin around\n"
        "them) on pictures of any size. --profile classic reproduces the original system exactly: it learns\n"
        "one window size, that of the first box; on one picture, boxes of other sizes are used as they are\n"
        "and a warning is printed (--median-size or --width/--height give every box one size). The model\n"
        "file records the profile; detect, eval, check and info take it from there. Everything not marked\n"
        "may become a background sample, so mark every object on the picture.\n\n"
        "Several pictures (IMAGE --boxes FILE IMAGE --boxes FILE ..., or --voc DIR --class NAME) go to the\n"
        "library one after the other, each adding its samples to the same detector. Under the classic\n"
        "profile the window comes from the first picture's boxes (with --median-size: their median; or\n"
        "--width/--height); every box of another size is made that size, centred on it, and one warning says\n"
        "how many were changed; on a picture of another size the window is scaled with the picture, so it\n"
        "covers the same feature cells. Only the first picture gets random background samples; every picture\n"
        "gets its auto-training passes.\n\n"
        "At most 1000 marked boxes a picture (a box file at most 1 MiB), counted before any is built. A box\n"
        "whose window reaches past the picture's edge is left out of training (a warning names it when the\n"
        "boxes are used as given; when every box is, train stops with exit code 3). --model is checked before\n"
        "any work: a folder, device or FIFO is refused with exit code 4 and left as it is, a symbolic link\n"
        "is written through, and a model written over another keeps that file's mode.\n\n"
        "Examples:\n"
        "  ostrel train a.jpg --boxes a.xml --class RBC --model rbc.model\n"
        "  ostrel train a.jpg --boxes a.json b.jpg --boxes b.json --model cells.model\n"
        "  ostrel train --voc data/bccd --class RBC --limit 3 --model rbc3.model\n"
        "  ostrel train --labels chess/_annotations.coco.json --class white-pawn,black-pawn --limit 1 --model p.model\n"
        "  ostrel train a.jpg --boxes a.xml --class RBC --median-size --profile classic --model rbc-classic.model\n\n"
        "--labels reads Pascal VOC folders, COCO JSON (instances_*.json), YOLO folders (images/ and labels/, or\n"
        "pictures and .txt side by side, names from data.yaml, classes.txt or obj.names), CVAT for images 1.1\n"
        "XML, Label Studio JSON exports and dlib imglab XML. A malformed label file is refused with its line\n"
        "or key (exit code 3) before any training.\n\n"
        "Classes: --class a --class b learns a and b as two classes of one model, --all-classes every class\n"
        "of the labels (at most 64), each from its own pictures (--limit N: the first N pictures holding it);\n"
        "several classes need the accurate profile (the default). --class a,b learns a and b as one class\n"
        "named \"a,b\" (say, both pawns as one). Under the accurate profile the model records each class's\n"
        "name, and detect, eval, info and check show it. A picture's objects of other classes are background\n"
        "to a class.\n"
        "  ostrel train --labels chess --class white-pawn --class black-pawn --limit 1 --model pawns.model\n"
        "  ostrel train --voc data/bccd --all-classes --limit 1 --model blood.model\n\n" +
        std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_train(*o); }; });
}

}  // namespace ostrel_tool
