// ostrel eval: measures a model (or detections made earlier) against
// labelled pictures in any annotation format.
#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/command_support.h"
#include "commands/commands.h"
#include "evaluation/detection_files.h"
#include "evaluation/detection_quality.h"
#include "evaluation/left_out_pictures.h"
#include "evaluation/measured_classes.h"
#include "evaluation/pr_plot.h"
#include "files/atomic_file.h"
#include "files/picture.h"
#include "labels/label_formats.h"
#include "labels/voc_labels.h"

namespace ostrel_tool {

namespace {

struct EvalOptions {
    std::string model;
    std::string voc_dir;
    std::string labels;
    std::string format;
    std::string detections;
    std::vector<std::string> classes;
    std::vector<std::string> skip;
    double iou = 0.5;
    uint32_t sensitivity = kDefaultSensitivity;
    int32_t profile = kProfileOfTheFile;
    bool json = false;
    std::string plot;
};

// The most sensitive setting: the lowest confidence threshold the library
// offers. The boxes it finds beyond those of the chosen sensitivity are the
// boxes below that threshold, which the APs rank too.
constexpr uint32_t kMostSensitive = OSTREL_ALG_MAX_SENSITIVITY;

std::string class_list(const LabelSet &set) {
    std::string names;
    std::set<std::string> sorted(set.classes.begin(), set.classes.end());
    for (const auto &c : sorted) {
        names += (names.empty() ? "" : ", ") + c;
    }
    return names;
}

// The groups' names for a message: "a,b', 'c" with separator "', '".
std::string groups_text(const std::vector<ClassGroup> &groups, const std::string &separator) {
    std::string text;
    for (const ClassGroup &g : groups) {
        text += (text.empty() ? "" : separator) + g.display();
    }
    return text;
}

// Whether a labelled box of this class counts for one of the groups.
bool measured_label(const std::vector<ClassGroup> &groups, const std::string &name) {
    return std::any_of(groups.begin(), groups.end(), [&](const ClassGroup &g) { return g.contains(name); });
}

LabelSet labels_of(const EvalOptions &o) {
    if (!o.voc_dir.empty()) {
        return read_voc_labels(o.voc_dir);
    }
    std::optional<LabelFormat> format;
    if (!o.format.empty()) {
        format = format_of_name(o.format);
        if (!format) {
            throw usage_error("--format '" + o.format + "': one of " + format_names());
        }
    }
    return read_labels(o.labels, format);
}

ClassGroup chosen_class(const EvalOptions &o, const LabelSet &set) {
    const std::vector<ClassGroup> groups = class_groups_of(o.classes);
    if (!groups.empty()) {
        return merged_into_one(groups);
    }
    if (set.classes.size() == 1) {
        return ClassGroup{{set.classes.front()}};
    }
    throw usage_error("give the class the model finds with --class NAME (the labels hold " + class_list(set) + ")");
}

// The detections at the chosen sensitivity, and every box the detector
// returns at its most sensitive setting (detections down to its lowest
// threshold, and any boxes below it the library reports as label -1).
struct PictureBoxes {
    std::vector<LabelBox> detections;
    std::vector<LabelBox> ranked;
};

LabelBox box_of(const ostrel_alg_box &b, const std::string &class_name) {
    LabelBox box = label_box_of(rect_of(b), class_name);
    box.score = static_cast<double>(b.score);
    return box;
}

// Whether a box of the model's class name is measured by one of groups.
bool measured(const std::vector<ClassGroup> &groups, const std::string &name) {
    return std::any_of(groups.begin(), groups.end(),
                       [&](const ClassGroup &g) { return g.contains(name) || name == g.display(); });
}

// One detection pass over the picture at each of the two settings, every
// class of the model at once. model_classes: the model's class names when
// it has several; then each box keeps its own class name (the figures split
// the boxes by class) and boxes of classes no group measures are dropped.
// A model of one class: every box is the one group's.
PictureBoxes detect_everything(Engine &engine, const Picture &picture, uint32_t sensitivity,
                               const std::vector<ClassGroup> &groups, const std::vector<std::string> &model_classes) {
    auto detect = [&](uint32_t s) {
        if (!engine.set_sensitivity(s)) {
            throw ToolError(ExitCode::failed, "the library refused the sensitivity: " + engine.last_error());
        }
        std::vector<ostrel_alg_box> out;
        std::vector<uint32_t> classes;
        if (!engine.detect(picture, out, model_classes.empty() ? nullptr : &classes)) {
            const std::string reason = engine.last_error();
            throw ToolError(ExitCode::failed,
                            "detection failed on '" + picture.path + "'" + (reason.empty() ? "" : ": " + reason));
        }
        // Each measured box, and whether it is a detection (label 1).
        std::vector<std::pair<LabelBox, bool>> boxes;
        for (size_t i = 0; i < out.size(); ++i) {
            const std::string &name = model_classes.empty() ? groups.front().display() : model_classes[classes[i]];
            if (model_classes.empty() || measured(groups, name)) {
                boxes.emplace_back(box_of(out[i], name), out[i].label == 1);
            }
        }
        return boxes;
    };
    PictureBoxes boxes;
    const auto at_threshold = detect(sensitivity);
    for (const auto &[box, detection] : at_threshold) {
        if (detection) {
            boxes.detections.push_back(box);
        }
    }
    // The same picture key: the second run only scans the windows again.
    for (const auto &[box, detection] : sensitivity == kMostSensitive ? at_threshold : detect(kMostSensitive)) {
        boxes.ranked.push_back(box);
    }
    return boxes;
}

nlohmann::ordered_json figures_json(const QualityFigures &f) {
    nlohmann::ordered_json j;
    j["name"] = f.name;
    j["objects"] = f.objects;
    j["detections"] = f.detections;
    j["true_positives"] = f.true_positives;
    j["false_positives"] = f.false_positives;
    j["false_negatives"] = f.false_negatives;
    j["ranked"] = f.ranked;
    j["precision"] = f.precision;
    j["recall"] = f.recall;
    j["f1"] = f.f1;
    j["ap"] = f.ap;
    for (const auto &[key, value] : {std::make_pair("coco_ap", f.coco_ap), std::make_pair("coco_ap50", f.coco_ap50),
                                     std::make_pair("coco_ap75", f.coco_ap75)}) {
        if (value >= 0.0) {
            j[key] = value;
        } else {
            j[key] = nullptr;
        }
    }
    return j;
}

// The labels must hold at least one object that groups measure.
void require_objects(const LabelSet &set, const std::vector<ClassGroup> &groups, const std::string &where) {
    for (const auto &p : set.pictures) {
        for (const auto &b : p.boxes) {
            if (measured_label(groups, b.class_name)) {
                return;
            }
        }
    }
    const std::string names = class_list(set);
    throw input_error("no object of class '" + groups_text(groups, "', '") + "' in '" + where + "'" +
                      (names.empty() ? "" : " (classes there: " + names + ")"));
}

std::string coco_text(double v) { return v >= 0.0 ? strformat("%.3f", v) : std::string("-"); }

int run_eval(const EvalOptions &o) {
    if (o.voc_dir.empty() == o.labels.empty()) {
        throw usage_error("give the labelled pictures with --labels FILE_OR_DIR (or --voc DIR)");
    }
    if (o.model.empty() == o.detections.empty()) {
        throw usage_error(
            "give the model to measure with --model M, or detections made earlier with --detections FILE");
    }
    if (!o.plot.empty()) {
        output_target(o.plot, "plot");
    }
    const LabelSet set = labels_of(o);
    const std::string where = o.voc_dir.empty() ? o.labels : o.voc_dir;
    // A model of several classes, and detections made earlier whose boxes
    // name several classes, are measured class by class (the model: all in
    // one detection pass per picture); any other model or file as one
    // class.
    // Classes named on the command line are checked against the labels
    // before the model or file is read: a misspelt class is named as such
    // even when the model is the wrong file too.
    const std::vector<ClassGroup> asked = class_groups_of(o.classes);
    if (!asked.empty()) {
        require_objects(set, asked, where);
    }
    std::unique_ptr<Engine> engine;
    std::vector<std::string> model_classes;
    std::vector<std::string> named_classes_measured;  // several classes: the model's or the file's
    std::string owner;
    std::optional<DetectionFile> file;
    if (!o.model.empty()) {
        engine = std::make_unique<Engine>();
        load_model(*engine, o.model, o.profile);  // the engine takes the file's profile
        model_classes = named_classes(*engine);
        if (model_classes.size() < 2) {
            model_classes.clear();  // one class: every box is the evaluated class's
        }
        named_classes_measured = model_classes;
        owner = "the model";
    } else {
        file = read_detection_file(o.detections, set);
        if (names_several_classes(*file)) {
            if (!file->first_unnamed.empty()) {
                throw input_error("'" + o.detections + "' " + file->first_unnamed +
                                  ": a box without a class among boxes of several classes");
            }
            named_classes_measured = in_label_order(file->classes, set.classes);
            owner = "'" + o.detections + "'";
        }
    }
    const std::vector<ClassGroup> groups = named_classes_measured.empty()
                                               ? std::vector<ClassGroup>{chosen_class(o, set)}
                                               : measured_classes(o.classes, named_classes_measured, owner);
    const ClassGroup &group = groups.front();
    require_objects(set, groups, where);
    for (const auto &note : set.notes) {
        warn(note);
    }
    LeftOutPictures left_out;
    for (const auto &s : o.skip) {
        left_out.add_skip(s, set);
    }

    std::vector<EvaluatedPicture> pictures;
    std::vector<std::pair<std::string, std::string>> skipped;
    std::vector<const LabelledPicture *> used;
    for (const auto &p : set.pictures) {
        if (auto why = left_out.reason(p)) {
            skipped.emplace_back(p.picture_path.empty() ? p.name : p.picture_path, *why);
        } else {
            used.push_back(&p);
        }
    }
    if (used.empty()) {
        throw usage_error("every picture of the labels is left out (--skip): nothing to measure");
    }

    std::vector<PictureBoxes> found(used.size());
    if (!o.detections.empty()) {
        name_unnamed_boxes(*file, group.display());  // a file of one class: every box is the group's
        for (size_t i = 0; i < used.size(); ++i) {
            const long k = static_cast<long>(used[i] - set.pictures.data());
            if (!file->found[static_cast<size_t>(k)]) {
                throw input_error("'" + o.detections + "' has no detections for '" +
                                  (used[i]->picture_path.empty() ? used[i]->name : used[i]->picture_path) + "'");
            }
            for (const ScoredLabelBox &b : *file->found[static_cast<size_t>(k)]) {
                if (b.above_threshold) {
                    found[i].detections.push_back(b.box);
                }
                found[i].ranked.push_back(b.box);
            }
        }
        if (file->unmatched_lines > 0) {
            warn(strformat("%d line%s of '%s' name pictures the labels do not have; they are passed over",
                           file->unmatched_lines, file->unmatched_lines == 1 ? "" : "s", o.detections.c_str()));
        }
    } else {
        const std::string missing = missing_pictures_message(set);
        if (!missing.empty()) {
            throw input_error(missing);
        }
        for (size_t i = 0; i < used.size(); ++i) {
            const Picture picture = load_picture(used[i]->picture_path);
            found[i] = detect_everything(*engine, picture, o.sensitivity, groups, model_classes);
        }
    }
    for (size_t i = 0; i < used.size(); ++i) {
        EvaluatedPicture e;
        e.name = used[i]->picture_path.empty() ? used[i]->name : used[i]->picture_path;
        e.id = used[i]->id;
        e.labels = used[i]->boxes;
        e.detections = std::move(found[i].detections);
        e.ranked = std::move(found[i].ranked);
        pictures.push_back(std::move(e));
    }
    const QualityReport report = evaluate_detections(pictures, groups, o.iou);
    const QualityFigures &s = report.overall;

    if (o.json) {
        nlohmann::ordered_json j;
        j["labels"] = where;
        j["format"] = format_name(set.format);
        if (!o.model.empty()) {
            j["model"] = o.model;
            j["sensitivity"] = o.sensitivity;
        } else {
            j["detections"] = o.detections;
        }
        j["iou"] = o.iou;
        j["pictures"] = report.pictures.size();
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const auto &k : skipped) {
            out.push_back({{"picture", k.first}, {"reason", k.second}});
        }
        j["left_out"] = out;
        nlohmann::ordered_json classes = nlohmann::ordered_json::array();
        for (const auto &c : report.classes) {
            classes.push_back(figures_json(c));
        }
        j["classes"] = classes;
        j["overall"] = figures_json(s);
        nlohmann::ordered_json rows = nlohmann::ordered_json::array();
        for (const auto &p : report.pictures) {
            nlohmann::ordered_json row;
            row["picture"] = p.name;
            row["objects"] = p.objects;
            row["detections"] = p.detections;
            row["true_positives"] = p.true_positives;
            row["false_positives"] = p.false_positives;
            rows.push_back(row);
        }
        j["per_picture"] = rows;
        println(j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    } else {
        println(strformat("%-28s %7s %10s %4s %4s %7s", "picture", "objects", "detections", "TP", "FP", "recall"));
        for (const auto &p : report.pictures) {
            println(strformat("%-28s %7d %10d %4d %4d %6.1f%%", file_name_of(p.name).c_str(), p.objects, p.detections,
                              p.true_positives, p.false_positives,
                              p.objects > 0 ? 100.0 * p.true_positives / p.objects : 0.0));
        }
        if (report.classes.size() > 1) {
            println(strformat("%-20s %7s %10s %4s %4s %9s %6s %6s %6s %8s", "class", "objects", "detections", "TP",
                              "FP", "precision", "recall", "F1", "AP", "COCO AP"));
            for (const QualityFigures &c : report.classes) {
                println(strformat("%-20s %7d %10d %4d %4d %9.3f %6.3f %6.3f %6.3f %8s", c.name.c_str(), c.objects,
                                  c.detections, c.true_positives, c.false_positives, c.precision, c.recall, c.f1, c.ap,
                                  coco_text(c.coco_ap).c_str()));
            }
        }
        // Several classes: the counts summed, the APs averaged over the
        // classes with objects.
        const std::string measured_classes =
            report.classes.size() == 1 ? group.display() : strformat("all %zu (APs averaged)", report.classes.size());
        const std::string setting =
            o.model.empty() ? "detections " + o.detections : strformat("sensitivity %u", o.sensitivity);
        println(strformat("class %s, IoU >= %.2f, %s: %zu pictures, %d objects, %d detections",
                          measured_classes.c_str(), o.iou, setting.c_str(), report.pictures.size(), s.objects,
                          s.detections));
        println(strformat("true positives %d, false positives %d, missed %d", s.true_positives, s.false_positives,
                          s.false_negatives));
        println(strformat("precision %.3f", s.precision));
        println(strformat("recall %.3f", s.recall));
        println(strformat("F1 %.3f", s.f1));
        println(strformat("average precision %.3f (all points, IoU %.2f, %d boxes ranked%s)", s.ap, o.iou, s.ranked,
                          o.model.empty() ? "" : ", down to the threshold of sensitivity 100"));
        println(strformat("COCO AP@[.50:.95] %s, AP50 %s, AP75 %s", coco_text(s.coco_ap).c_str(),
                          coco_text(s.coco_ap50).c_str(), coco_text(s.coco_ap75).c_str()));
        for (const auto &k : skipped) {
            println("left out: " + k.first + " (" + k.second + ")");
        }
    }
    if (!o.plot.empty()) {
        write_png_atomically(o.plot, draw_precision_recall(report));
    }
    return to_int(ExitCode::ok);
}

}  // namespace

void add_eval_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<EvalOptions>();
    CLI::App *sub = app.add_subcommand("eval",
                                       "Measure a model on labelled pictures (Pascal VOC, COCO, YOLO, CVAT, "
                                       "Label Studio or imglab labels)");
    sub->add_option("--model", o->model, "the model file")->type_name("M");
    sub->add_option("--labels", o->labels,
                    "the labels: a file or a folder in any of the formats " + format_names() +
                        " (the format is found from the content; --format chooses)")
        ->type_name("FILE_OR_DIR");
    sub->add_option("--format", o->format, "the labels' format: " + format_names())->type_name("F");
    sub->add_option("--voc", o->voc_dir,
                    "a Pascal VOC folder with annotations (Annotations/, annotations/ or the folder itself) and "
                    "pictures (JPEGImages/, images/ or next to the annotations)")
        ->type_name("DIR");
    sub->add_option("--class", o->classes,
                    "the class the model finds; repeat it or give a,b to count several label classes as that one; "
                    "may be left out when the labels hold one class. A model of several classes, or detections of "
                    "several classes: each --class is measured on its own (a,b merges), by default every class of "
                    "the model or the file")
        ->type_name("NAME")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_option("--detections", o->detections,
                    "score detections made earlier instead of a model: `detect --json` lines, or a COCO results "
                    "file against COCO labels")
        ->type_name("FILE");
    sub->add_option("--skip", o->skip,
                    "leave this picture out (a path, or a file name): the training picture; repeatable")
        ->type_name("PICTURE")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_option("--iou", o->iou, "overlap (intersection over union) a detection needs to count (default 0.5)")
        ->check(real_number_in(0.0, 1.0))
        ->type_name("T");
    add_model_profile_option(sub, &o->profile);
    sub->add_option("--sensitivity", o->sensitivity, "0..100, how readily a box is reported (default 80)")
        ->check(sensitivity_in_range())
        ->type_name("N");
    sub->add_flag("--json", o->json, "print the figures as one JSON object");
    sub->add_option("--plot", o->plot, "draw the precision/recall curve into this PNG file")->type_name("FILE");
    add_max_pixels_option(sub);
    sub->footer(
        "Detections (at the sensitivity's threshold) are matched to the labelled boxes of the class by\n"
        "falling score; each box can be found once; boxes marked difficult, and crowd regions, are not\n"
        "objects and detections on them count neither way. Precision = TP / detections, recall = TP /\n"
        "objects, F1 their harmonic mean. Average precision (all points, precision made monotone) and\n"
        "COCO's AP@[.50:.95], AP50 and AP75 (as the COCO evaluation defines them: 101 recall points,\n"
        "IoU .50:.05:.95, at most 100 boxes a picture) rank every box the detector returns: the\n"
        "detections and the boxes below the threshold: all that sensitivity 100 finds (a second run).\n"
        "Pictures without labelled objects count too: what is found there is a false positive.\n\n"
        "A model of several classes is measured class by class from one detection pass per picture (per\n"
        "setting): each box counts for its own class; the overall figures sum the counts and average the\n"
        "APs over the classes that have objects. Detections made earlier whose boxes name several classes\n"
        "(`detect --json` of such a model) are measured the same way, the classes in the labels' order.\n\n"
        "A model scored on its own training picture looks better than it is: leave that picture out with\n"
        "--skip PICTURE (model files do not record their training pictures). Left-out pictures are listed.\n\n"
        "Examples:\n"
        "  ostrel eval --model rbc.model --labels data/bccd --class RBC --skip BloodImage_00000.jpg\n"
        "  ostrel eval --model pawn.model --labels chess/_annotations.coco.json --class white-pawn,black-pawn --json\n"
        "  ostrel detect --model rbc.model --json data/bccd/images > d.jsonl\n"
        "  ostrel eval --detections d.jsonl --labels data/bccd --class RBC --plot pr.png\n\n" +
        std::string(kProfileRuleHelp) + "\n\n" + std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_eval(*o); }; });
}

}  // namespace ostrel_tool
