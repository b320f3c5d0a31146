// ostrel eval: measures a model on a labelled Pascal VOC folder.
#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "command_support.h"
#include "commands.h"
#include "exit_codes.h"
#include "metrics.h"
#include "picture.h"
#include "tool_error.h"
#include "tool_output.h"
#include "voc_annotations.h"

namespace ostrel_tool {

namespace {

struct EvalOptions {
    std::string model;
    std::string voc_dir;
    std::string class_name;
    double iou = 0.5;
    uint32_t sensitivity = kDefaultSensitivity;
    int32_t profile = kProfileOfTheFile;
};

int run_eval(const EvalOptions &o) {
    const std::vector<VocItem> items = read_voc_folder(o.voc_dir);
    int objects = 0;
    std::set<std::string> classes;
    for (const auto &item : items) {
        for (const auto &obj : item.annotation.objects) {
            classes.insert(obj.name);
            objects += obj.name == o.class_name ? 1 : 0;
        }
    }
    if (objects == 0) {
        std::string names;
        for (const auto &c : classes) {
            names += (names.empty() ? "" : ", ") + c;
        }
        throw input_error("no object of class '" + o.class_name + "' in '" + o.voc_dir + "'" +
                          (names.empty() ? "" : " (classes there: " + names + ")"));
    }

    Engine engine;
    load_model(engine, o.model, o.profile);  // the engine takes the file's profile
    if (!engine.set_sensitivity(o.sensitivity)) {
        throw ToolError(ExitCode::failed, "the library refused the sensitivity: " + engine.last_line());
    }
    println(strformat("%-28s %7s %10s %4s %4s %7s", "picture", "objects", "detections", "TP", "FP", "recall"));
    std::vector<PictureMatch> matches;
    for (const auto &item : items) {
        const Picture picture = load_picture(item.picture_path);
        std::vector<ostrel_alg_box> boxes;
        if (!engine.detect(picture, boxes)) {
            const std::string reason = engine.last_line();
            throw ToolError(ExitCode::failed, "detection failed on '" + item.picture_path + "'" +
                                                  (reason.empty() ? "" : ": " + reason));
        }
        std::vector<ScoredBox> detections;
        for (const auto &b : detections_only(boxes)) {
            detections.push_back({rect_of(b), b.score});
        }
        std::vector<LabelledBox> labelled;
        for (const auto &obj : objects_of_class(item.annotation, o.class_name)) {
            labelled.push_back({obj.box, obj.difficult});
        }
        const PictureMatch m = match_detections(detections, labelled, o.iou);
        println(strformat("%-28s %7d %10d %4d %4d %6.1f%%", file_name_of(item.picture_path).c_str(), m.objects,
                          m.detections, m.true_positives, m.false_positives,
                          m.objects > 0 ? 100.0 * m.true_positives / m.objects : 0.0));
        matches.push_back(m);
    }
    const QualitySummary s = summarise(matches);
    println(strformat("class %s, IoU >= %.2f, sensitivity %u: %d pictures, %d objects, %d detections", o.class_name.c_str(),
                      o.iou, o.sensitivity, s.pictures, s.objects, s.detections));
    println(strformat("true positives %d, false positives %d, missed %d", s.true_positives, s.false_positives,
                      s.false_negatives));
    println(strformat("precision %.3f", s.precision));
    println(strformat("recall %.3f", s.recall));
    println(strformat("F1 %.3f", s.f1));
    println(strformat("average precision %.3f", s.average_precision));
    return to_int(ExitCode::ok);
}

}  // namespace

void add_eval_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<EvalOptions>();
    CLI::App *sub = app.add_subcommand("eval", "Measure a model on a labelled Pascal VOC folder");
    sub->add_option("--model", o->model, "the model file")->type_name("M")->required();
    sub->add_option("--voc", o->voc_dir,
                    "folder with annotations (Annotations/, annotations/ or the folder itself) and pictures "
                    "(JPEGImages/, images/ or next to the annotations)")
        ->type_name("DIR")
        ->required();
    sub->add_option("--class", o->class_name, "the object class the model was trained for")
        ->type_name("NAME")
        ->required();
    sub->add_option("--iou", o->iou, "overlap (intersection over union) a detection needs to count (default 0.5)")
        ->check(real_number_in(0.0, 1.0))
        ->type_name("T");
    add_model_profile_option(sub, &o->profile);
    sub->add_option("--sensitivity", o->sensitivity, "0..100, how readily a box is reported (default 80)")
        ->check(whole_number_in(0, 100))
        ->type_name("N");
    add_max_pixels_option(sub);
    sub->footer(
        "Detections (label 1) are matched to the labelled boxes of the class by falling score; each box can\n"
        "be found once; boxes marked difficult are ignored. Precision = TP / detections, recall = TP /\n"
        "objects, F1 their harmonic mean, average precision the area under the precision/recall curve\n"
        "(all points, precision made monotone) over all pictures.\n\n" + std::string(kProfileRuleHelp) + "\n\n" +
        std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_eval(*o); }; });
}

}  // namespace ostrel_tool
