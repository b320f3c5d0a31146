// ostrel demo: the whole job on pictures shipped with the project. Learn red
// blood cells from one annotated BCCD picture, find them in three others,
// score the result against the annotations, write pictures and JSON, and
// show that the exported model gives the same detections after a reload.
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <opencv2/core.hpp>

#include "boxes/box_io.h"
#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "cli/training_progress.h"
#include "commands/command_support.h"
#include "commands/commands.h"
#include "engine/model_info.h"
#include "evaluation/metrics.h"
#include "files/atomic_file.h"
#include "files/picture.h"
#include "files/voc_annotations.h"
#include "render/channel_mosaic.h"
#include "render/color_names.h"
#include "render/drawing.h"

namespace ostrel_tool {

namespace {

namespace fs = std::filesystem;

// The demo's fixed choices.
constexpr const char *kClass = "RBC";
constexpr const char *kTrainingPicture = "BloodImage_00000";
const char *const kTestPictures[] = {"BloodImage_00001", "BloodImage_00002", "BloodImage_00003"};
// A detection finds an annotated cell when they overlap this much
// (intersection over union): the usual criterion, and the looser one the
// library itself uses to match detections to marked boxes. Detections are
// boxes of the trained size on a grid of window positions, so they often sit
// a few pixels off a cell; the looser figure shows how many cells were hit.
constexpr double kMatchIou = 0.5;
constexpr double kLooseMatchIou = 0.3;
constexpr uint32_t kSeed = 1;
constexpr const char *kModelName = "rbc.model";
constexpr const char *kJsonName = "detections.json";

struct DemoOptions {
    std::string out_dir = "out/demo";
    std::string data_dir = shipped_data_folder();
    uint32_t sensitivity = kDefaultSensitivity;
    int32_t profile = kDefaultTrainingProfile;
};

struct AnnotatedPicture {
    Picture picture;
    std::vector<VocObject> cells;
};

AnnotatedPicture load_annotated(const fs::path &bccd, const std::string &stem) {
    const fs::path xml = bccd / "annotations" / (stem + ".xml");
    const VocAnnotation annotation = read_voc_annotation(xml.string());
    const std::string file = annotation.filename.empty() ? stem + ".jpg" : annotation.filename;
    AnnotatedPicture a{load_picture((bccd / "images" / file).string()), objects_of_class(annotation, kClass)};
    if (a.cells.empty()) {
        throw input_error("annotation '" + xml.string() + "' has no " + kClass + " object");
    }
    return a;
}

bool same_boxes(const std::vector<ostrel_alg_box> &a, const std::vector<ostrel_alg_box> &b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].x != b[i].x || a[i].y != b[i].y || a[i].width != b[i].width || a[i].height != b[i].height ||
            a[i].score != b[i].score || a[i].label != b[i].label || a[i].color_main != b[i].color_main ||
            a[i].color_second != b[i].color_second) {
            return false;
        }
    }
    return true;
}

void print_table(const std::vector<ostrel_alg_box> &boxes) {
    println(strformat("    %3s %5s %5s %5s %5s  %5s  %5s  %s", "#", "x", "y", "w", "h", "score", "label", "colours"));
    int n = 0;
    for (const auto &b : boxes) {
        if (b.label != 1) {
            continue;
        }
        println(strformat("    %3d %5d %5d %5d %5d  %5.2f  %5d  %s, %s", ++n, b.x, b.y, b.width, b.height,
                          rounded_score(b.score), b.label, color_name(b.color_main).c_str(),
                          color_name(b.color_second).c_str()));
    }
}

std::string plural(int n, const char *one, const char *many) { return std::to_string(n) + " " + (n == 1 ? one : many); }

int run_demo(const DemoOptions &o) {
    const auto started = std::chrono::steady_clock::now();
    const fs::path bccd = fs::path(o.data_dir) / "bccd";
    std::error_code ec;
    if (!fs::is_directory(bccd / "annotations", ec) || !fs::is_directory(bccd / "images", ec)) {
        throw input_error("the demo pictures are not in '" + bccd.string() +
                          "' (give the repository's data folder with --data DIR)");
    }
    const fs::path out(o.out_dir);
    make_output_folder(out.string());
    // The files of fixed names are checked before any work (those named
    // after the pictures when they are written).
    for (const char *name : {"training.png", "channels.png", kModelName, kJsonName}) {
        output_target((out / name).string());
    }

    println("ostrel demo: learn red blood cells from one picture, then find them in three others");
    println("pictures: " + bccd.string() + " (BCCD dataset, MIT licence, see its LICENSE file)");
    println("");

    // 1. Mark every annotated cell. The accurate profile learns each box at
    //    its own size, so the annotations are marked as they are. The
    //    classic profile learns one window size: every cell gets the median
    //    annotated size, centred on its annotation; a cell cut by the
    //    picture's edge keeps its inner side and its box reaches over the
    //    edge, where the rest of the cell would be. Whatever is not marked is
    //    background, so every cell is marked.
    const bool classic = o.profile == OSTREL_ALG_PROFILE_CLASSIC;
    AnnotatedPicture training = load_annotated(bccd, kTrainingPicture);
    std::vector<Rect> annotated;
    for (const auto &c : training.cells) {
        annotated.push_back(c.box);
    }
    const Size box_size = median_size(annotated);
    std::vector<Rect> marked;
    std::vector<ostrel_alg_box> marked_records;
    for (const auto &a : annotated) {
        marked.push_back(classic ? placed_on(a, box_size, training.picture.width(), training.picture.height()) : a);
        marked_records.push_back(marked_box(marked.back()));
    }
    const std::string cells_text =
        plural(static_cast<int>(marked.size()), "annotated red blood cell", "annotated red blood cells");
    if (classic) {
        println(strformat("1. Marking   %s (%dx%d): %s, each marked with a %dx%d box",
                          file_name_of(training.picture.path).c_str(), training.picture.width(),
                          training.picture.height(), cells_text.c_str(), box_size.w, box_size.h));
        println(
            "            (the median annotated size) centred on each annotation; the rest of the picture is "
            "background");
    } else {
        println(strformat("1. Marking   %s (%dx%d): %s, each marked with its annotated box (median %dx%d);",
                          file_name_of(training.picture.path).c_str(), training.picture.width(),
                          training.picture.height(), cells_text.c_str(), box_size.w, box_size.h));
        println("            the rest of the picture is background");
    }

    // 2. Train with a fixed seed, one progress line per training.
    println(strformat("2. Training  %s profile%s, sensitivity %u, seed %u", profile_name(o.profile),
                      classic ? " (the original system, exactly)" : " (--profile classic shows the original system)",
                      o.sensitivity, kSeed));
    Engine engine;
    if (!engine.set_profile(o.profile) || !engine.set_sensitivity(o.sensitivity) || !engine.set_random_seed(kSeed)) {
        throw ToolError(ExitCode::failed, "the library refused the settings: " + engine.last_error());
    }
    TrainingProgress progress(tool_out(), static_cast<int>(marked.size()), "            ");
    engine.set_progress_handler([&](const ostrel_alg_progress &step) { progress.on_progress(step); });
    const bool trained = engine.train(training.picture, marked_records);
    engine.set_progress_handler(nullptr);
    if (!trained) {
        const std::string reason = engine.last_error();
        throw ToolError(ExitCode::failed, "training failed" + (reason.empty() ? "" : ": " + reason));
    }
    progress.finish();
    const double training_seconds = progress.seconds();

    {
        cv::Mat canvas = training.picture.pixels.clone();
        draw_marked_boxes(canvas, marked);
        write_png_atomically((out / "training.png").string(), canvas);
        FeatureMap map;
        if (engine.feature_map(training.picture, map)) {
            const FeatureMapView view{map.bytes.data(), map.channels, map.columns, map.rows};
            write_png_atomically((out / "channels.png").string(), channel_mosaic(view, 2, true));
        }
    }

    // 3. Detect on three pictures the detector has not seen.
    println(
        strformat("3. Detecting on %zu other pictures (a detection finds an annotated cell when their overlap, "
                  "IoU, is at least %.1f, or the looser %.1f)",
                  std::size(kTestPictures), kMatchIou, kLooseMatchIou));
    std::vector<AnnotatedPicture> tests;
    std::vector<std::vector<ostrel_alg_box>> results;
    std::vector<PictureMatch> matches;
    std::vector<PictureMatch> loose_matches;
    nlohmann::ordered_json pictures_json = nlohmann::ordered_json::array();
    for (const char *stem : kTestPictures) {
        tests.push_back(load_annotated(bccd, stem));
        const AnnotatedPicture &t = tests.back();
        std::vector<ostrel_alg_box> boxes;
        if (!engine.detect(t.picture, boxes)) {
            const std::string reason = engine.last_error();
            throw ToolError(ExitCode::failed,
                            "detection failed on '" + t.picture.path + "'" + (reason.empty() ? "" : ": " + reason));
        }
        std::vector<ScoredBox> detections;
        for (const auto &b : detections_only(boxes)) {
            detections.push_back({rect_of(b), b.score});
        }
        std::vector<LabelledBox> labelled;
        for (const auto &c : t.cells) {
            labelled.push_back({c.box, c.difficult});
        }
        const PictureMatch m = match_detections(detections, labelled, kMatchIou);
        const PictureMatch loose = match_detections(detections, labelled, kLooseMatchIou);
        const int below = static_cast<int>(boxes.size() - detections.size());
        println("");
        println(strformat("  %s: %s; annotated cells found: %d of %d at IoU >= %.1f, %d at IoU >= %.1f",
                          file_name_of(t.picture.path).c_str(),
                          plural(static_cast<int>(detections.size()), "detection", "detections").c_str(),
                          m.true_positives, m.objects, kMatchIou, loose.true_positives, kLooseMatchIou));
        print_table(boxes);
        if (below > 0) {
            println(strformat("    and %s below the confidence threshold (label -1; in the JSON file, drawn thin)",
                              plural(below, "box", "boxes").c_str()));
        }
        cv::Mat canvas = t.picture.pixels.clone();
        draw_detections(canvas, boxes);
        write_png_atomically((out / (stem_of(t.picture.path) + ".png")).string(), canvas);

        nlohmann::ordered_json pj;
        pj["file"] = t.picture.path;
        pj["width"] = t.picture.width();
        pj["height"] = t.picture.height();
        pj["annotated_cells"] = m.objects;
        pj["cells_found"] = m.true_positives;
        pj["recall"] = m.objects > 0 ? static_cast<double>(m.true_positives) / m.objects : 0.0;
        pj["cells_found_loose"] = loose.true_positives;
        pj["boxes"] = boxes_to_json(boxes);
        pictures_json.push_back(pj);
        results.push_back(std::move(boxes));
        matches.push_back(m);
        loose_matches.push_back(loose);
    }
    const QualitySummary quality = summarise(matches);
    const QualitySummary loose_quality = summarise(loose_matches);

    // 4. Export (through a temporary file), validate, describe.
    const std::string model_path = (out / kModelName).string();
    export_model_atomically(engine, model_path);
    const ModelInfo info = read_model_info(model_path);
    println("");
    println(strformat("4. Model     %s: %llu bytes, valid (CRC-32 0x%08x over %llu bytes), window %dx%d px",
                      model_path.c_str(), static_cast<unsigned long long>(info.file_size), info.stored_crc,
                      static_cast<unsigned long long>(info.content_length), info.trained_width, info.trained_height));

    // 5. A fresh engine imports the file and detects again on new copies of
    //    the pictures (new keys, so the features are computed afresh). Its
    //    profile is never set: the file decides. Only
    //    detections are compared: an engine that trained itself also reports
    //    boxes below the threshold, an imported one does not.
    Engine reloaded;
    load_model(reloaded, model_path);
    if (!reloaded.set_sensitivity(o.sensitivity)) {
        throw ToolError(ExitCode::failed, "the library refused the sensitivity: " + reloaded.last_error());
    }
    bool identical = true;
    int compared = 0;
    for (size_t i = 0; i < tests.size(); ++i) {
        const Picture copy = picture_from_pixels(tests[i].picture.pixels.clone(), tests[i].picture.path);
        std::vector<ostrel_alg_box> again;
        if (!reloaded.detect(copy, again)) {
            const std::string reason = reloaded.last_error();
            throw ToolError(ExitCode::failed,
                            "detection with the reloaded model failed" + (reason.empty() ? "" : ": " + reason));
        }
        const auto before = detections_only(results[i]);
        const auto after = detections_only(again);
        const bool same = same_boxes(before, after);
        pictures_json[i]["same_after_reload"] = same;
        identical = identical && same;
        compared += static_cast<int>(before.size());
    }
    println(strformat("5. Reload    a fresh engine imported %s: %s", kModelName,
                      identical
                          ? strformat("the same %d detections on all %zu pictures", compared, tests.size()).c_str()
                          : "the detections DIFFER"));

    nlohmann::ordered_json doc;
    doc["training"] = {{"file", training.picture.path},
                       {"width", training.picture.width()},
                       {"height", training.picture.height()},
                       {"class", kClass},
                       {"profile", profile_name(o.profile)},
                       {"box_width", box_size.w},
                       {"box_height", box_size.h},
                       {"marked_boxes", nlohmann::ordered_json::array()},
                       {"sensitivity", o.sensitivity},
                       {"seed", kSeed},
                       {"trainings", progress.trainings()},
                       {"seconds", training_seconds}};
    for (const auto &m : marked) {
        doc["training"]["marked_boxes"].push_back({m.x, m.y, m.w, m.h});
    }
    doc["match_iou"] = kMatchIou;
    doc["loose_match_iou"] = kLooseMatchIou;
    doc["pictures"] = pictures_json;
    doc["recall"] = quality.recall;
    doc["recall_loose"] = loose_quality.recall;
    doc["model"] = {{"file", model_path},
                    {"bytes", info.file_size},
                    {"crc32", strformat("0x%08x", info.stored_crc)},
                    {"valid", true},
                    {"same_after_reload", identical}};
    write_file_atomically((out / kJsonName).string(), doc.dump(2) + "\n");

    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    println("");
    const std::string how_trained =
        classic ? "one training on the marked boxes and random background, then " +
                      plural(progress.passes(), "auto-training pass", "auto-training passes") +
                      " in which it ran itself on the same picture and learnt its own mistakes as background"
                : "the accurate profile learnt every marked cell at its own size, and the background from every "
                  "window of the picture at every searched size, then " +
                      plural(progress.passes(), "round", "rounds") +
                      " in which it mined the background windows it got wrong";
    println(strformat(
        "Summary: from %zu boxes marked on one picture the library trained a red-blood-cell detector in %.2f s: "
        "%s. On %zu pictures it had never seen it reported %d "
        "detections and found %d of the %d annotated cells at IoU %.1f (recall %.0f%%; %.0f%% at IoU %.1f). The BCCD "
        "annotations "
        "leave some cells out, so a detection on an unannotated cell is not counted as an error and precision "
        "is not scored here (ostrel eval scores it on folders you label completely). The model file of %llu "
        "bytes (%s profile, recorded in the file) passed validation, and a fresh engine that imported it %s.",
        marked.size(), training_seconds, how_trained.c_str(), tests.size(), quality.detections, quality.true_positives,
        quality.objects, kMatchIou, 100.0 * quality.recall, 100.0 * loose_quality.recall, kLooseMatchIou,
        static_cast<unsigned long long>(info.file_size), profile_name(o.profile),
        identical ? "gave exactly the same detections" : "gave DIFFERENT detections"));
    println("");
    println("Files in " + out.string() + ":");
    println("  training.png            the training picture with the marked boxes (blue)");
    println("  channels.png            the ten feature channels of the training picture");
    for (const auto &t : tests) {
        println(strformat("  %-23s detections (green, with score), boxes below the threshold (thin amber)",
                          (stem_of(t.picture.path) + ".png").c_str()));
    }
    println(strformat("  %-23s every box, score, label and colour, recall per picture", kJsonName));
    println(strformat("  %-23s the model (ostrel info/check/detect read it)", kModelName));
    println(strformat("Done in %.1f s.", seconds));
    return identical ? to_int(ExitCode::ok) : to_int(ExitCode::failed);
}

}  // namespace

void add_demo_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<DemoOptions>();
    CLI::App *sub = app.add_subcommand("demo",
                                       "Train on a shipped blood-cell picture, detect on three others, "
                                       "export and reload the model");
    sub->add_option("--out", o->out_dir, "folder for the pictures, the JSON file and the model (default out/demo)")
        ->type_name("DIR");
    sub->add_option(
           "--data", o->data_dir,
           "the repository's data folder (default: the one installed with the tool, else the one it was built from)")
        ->type_name("DIR");
    add_training_profile_option(sub, &o->profile);
    sub->add_option("--sensitivity", o->sensitivity, "0..100, how readily a box is reported (default 80)")
        ->check(sensitivity_in_range())
        ->type_name("N");
    add_max_pixels_option(sub);
    sub->footer(
        "The demo runs the accurate profile unless --profile classic, which shows the original system\n"
        "exactly (one window size, auto-training passes). The reloaded engine takes the profile from the\n"
        "model file.\n\n" +
        std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_demo(*o); }; });
}

}  // namespace ostrel_tool
