// ostrel detect: runs a model on pictures, folders, videos and lists of
// them, on every core; prints boxes or JSON lines in input order and
// optionally writes annotated pictures and videos. The batch work itself
// lives in batch_detection (inputs, pool, ordered output, progress,
// interrupt); this unit holds the command line.
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "batch/batch_detection.h"
#include "batch/detection_output.h"
#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/command_support.h"
#include "commands/commands.h"
#include "files/video_frames.h"

namespace ostrel_tool {

namespace {

struct DetectArguments {
    BatchDetectOptions batch;
    std::string start;
    std::string end;
    DetectionOutputOptions output;  // --format, --out, --class, --image-ids
};

// --format: the batch hands every detection (boxes, unrounded scores,
// classes, picture size) to a DetectionOutput, which writes it in the
// format asked for.
int run_detect_into_format(DetectArguments &a) {
    if (a.batch.json) {
        throw usage_error("--json prints the JSON lines; --format jsonl is the same, --format writes other forms");
    }
    DetectionOutputOptions &o = a.output;
    // A model with named classes names them itself: the formats number its
    // classes in its order.
    {
        Engine engine;
        load_model(engine, a.batch.model, a.batch.profile);  // the engine takes the file's profile
        const std::vector<std::string> names = named_classes(engine);
        if (!names.empty()) {
            if (o.class_given && o.classes != names) {
                std::string listed;
                for (const std::string &n : names) listed += (listed.empty() ? "" : ", ") + n;
                throw usage_error("the model names its classes (" + listed +
                                  "): give no --class, or the same names in that order");
            }
            o.classes = names;
        }
    }
    o.model = a.batch.model;
    o.inputs = a.batch.inputs;
    o.inputs.insert(o.inputs.end(), a.batch.lists.begin(), a.batch.lists.end());
    o.inputs.push_back(a.batch.model);
    DetectionOutput output(o);
    a.batch.take_report = [&output](const DetectionReport &report) { output.take(report); };
    const int code = run_batch_detection(a.batch);
    a.batch.take_report = nullptr;
    return output.finish(code);
}

int run_detect(DetectArguments &a) {
    if (a.batch.inputs.empty() && a.batch.lists.empty()) {
        throw usage_error("give the pictures, folders or videos to search (INPUT ...) or --list FILE");
    }
    if (!a.start.empty()) {
        a.batch.frames.start = parse_video_point(a.start, "--start");
    }
    if (!a.end.empty()) {
        a.batch.frames.end = parse_video_point(a.end, "--end");
    }
    const auto &start = a.batch.frames.start;
    const auto &end = a.batch.frames.end;
    if (start && end && start->is_time == end->is_time &&
        (start->is_time ? end->ms <= start->ms : end->frame <= start->frame)) {
        throw usage_error("--end " + a.end + " does not come after --start " + a.start + ": no frame would be taken");
    }
    if (!a.output.format.empty()) {
        return run_detect_into_format(a);
    }
    if (!a.output.out.empty() || a.output.class_given || !a.output.image_ids.empty()) {
        throw usage_error("--out, --class and --image-ids go with --format");
    }
    return run_batch_detection(a.batch);
}

}  // namespace

void add_detect_command(CLI::App &app, CommandAction &action) {
    auto a = std::make_shared<DetectArguments>();
    BatchDetectOptions &o = a->batch;
    CLI::App *sub = app.add_subcommand("detect", "Find the trained object in pictures, folders and videos");
    sub->add_option("--model", o.model, "the model file (checked, CRC included, before use)")
        ->type_name("M")
        ->required();
    sub->add_option("INPUT", o.inputs,
                    "pictures (any format OpenCV reads), folders of pictures and videos, videos (.mp4, .avi, "
                    ".mkv, .mov, .webm, ...)");
    sub->add_option("--list", o.lists, "a file with one input path a line (- for standard input); repeatable")
        ->type_name("FILE")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_flag("-r,--recursive", o.recursive, "search folders in their sub-folders too");
    add_model_profile_option(sub, &o.profile);
    sub->add_option("--sensitivity", o.sensitivity, "0..100, how readily a box is reported (default 80)")
        ->check(sensitivity_in_range())
        ->type_name("N");
    sub->add_flag("--json", o.json,
                  "print one JSON line per picture or frame: {\"file\",[\"frame\",\"time_ms\",]\"width\",\"height\","
                  "\"boxes\":[{x,y,w,h,score,label,color_main,color_second,color_main_name,color_second_name}]}");
    sub->add_option("--format", a->output.format,
                    "write the detections as jsonl (the --json lines), coco (a COCO results file), labelstudio "
                    "(predictions to import), cvat or imglab (one file), or voc or yolo (a file per picture in "
                    "--out DIR)")
        ->type_name("F");
    sub->add_option("--out", a->output.out,
                    "with --format: the file (jsonl, coco, labelstudio, cvat, imglab; default standard output) or "
                    "the folder (voc, yolo)")
        ->type_name("PATH");
    sub->add_option("--class", a->output.classes,
                    "with --format: the name of the class the model finds (default \"object\"); jsonl lines get "
                    "it as \"class\" only when given. A model with named classes (ostrel train --profile accurate "
                    "with --class or --all-classes) names each box's class itself")
        ->type_name("NAME")
        ->each([a](const std::string &) { a->output.class_given = true; });
    sub->add_option("--image-ids", a->output.image_ids,
                    "with --format coco: take image_id and category_id from this COCO labels file (pictures by "
                    "file, classes by name), so that the results can be scored against it")
        ->type_name("COCO_FILE");
    sub->add_option("--draw", o.draw_dir,
                    "write each picture with its boxes drawn to DIR/<name>.png, each video to DIR/<name>.mp4")
        ->type_name("DIR");
    sub->add_option("-j,--jobs", o.jobs, "threads, each with its own engine (default: one per core)")
        ->check(whole_number_in(1, 256))
        ->type_name("N");
    sub->add_option("--every", o.frames.every, "videos: take every Nth frame (default 1: every frame)")
        ->check(whole_number_in(1, 1000000))
        ->type_name("N");
    sub->add_option("--start", a->start, "videos: start at this frame (120), second (4.5s) or time (1:30)")
        ->type_name("AT");
    sub->add_option("--end", a->end, "videos: stop before this frame, second or time")->type_name("AT");
    sub->add_flag("--summary", o.summary,
                  "print pictures, detections, failures, time and pictures per second at the end (standard "
                  "error; always on a terminal)");
    sub->add_flag("--progress", o.progress,
                  "show the progress line on standard error also when it is not a terminal (a line every 5 s)");
    add_max_pixels_option(sub);
    sub->footer(
        "Each line is: file  x,y,w,h  score  label  colours main, second (a video frame adds \"frame N\n"
        "time_ms T\" after the file). Label 1 is a detection; label -1 a box below the confidence threshold.\n"
        "In the file name, a backslash is written \\\\, a line end \\n, \\r or \\t, other control characters\n"
        "and bytes that are not UTF-8 \\xHH, so that a name never starts a line of its own.\n"
        "Colour classes: dark, grey, light, red, orange, yellow, green, blue, purple; the second colour is\n"
        "none when the box has no clear second colour. The library's own log lines never reach standard\n"
        "output (see --verbose), so --json output can be piped into jq.\n"
        "A model with named classes (several in one model, trained with --class a --class b or --all-classes\n"
        "under the accurate profile) adds \"  class NAME\" to each line, \"class\" to each JSON box, the name to\n"
        "each drawn box, and its class to every --format; one detection pass searches every class.\n\n"
        "Inputs are taken in order: the INPUT arguments, then the lines of each --list. A folder gives its\n"
        "pictures and videos sorted by name (names starting with '.' left out; other files passed over with\n"
        "one warning). A file with a video extension is read frame by frame; a frame's time is its index\n"
        "divided by the frame rate. Results come in input order, the same with any --jobs. An input that\n"
        "cannot be read is reported on standard error and skipped; the others are done and the exit code\n"
        "is then 3. A --list line holding a NUL byte is reported with its line number and skipped.\n"
        "Ctrl-C stops handing out work, lets the running pictures finish and exits with 130; a second\n"
        "Ctrl-C ends at once.\n\n"
        "A drawing never replaces a file the run did not write: when DIR/<name>.png is an input of the run\n"
        "(the same file, however spelt) or exists already (another picture, an earlier run's drawing), the\n"
        "drawing takes the next free name and a warning says so. A folder, device or FIFO in the way of a\n"
        "drawing is refused (exit code 4) and left as it is. Pictures above --max-pixels are\n"
        "refused from their header (JPEG, PNG, BMP) before decoding, a JPEG cut short is refused; both are\n"
        "reported and skipped. Pictures may have any size: an accurate model searches objects of the\n"
        "sizes in pixels it was taught (and a margin around them) on every picture.\n\n" +
        std::string(kProfileRuleHelp) +
        "\n\n"
        "Examples:\n"
        "  ostrel detect --model rbc.model --json --summary data/bccd/images > cells.jsonl\n"
        "  find /data -name '*.jpg' | ostrel detect --model rbc.model --list - --draw out\n"
        "  ostrel detect --model car.model --every 5 --start 1:00 --end 2:00 --json --draw out street.mp4\n"
        "  ostrel detect --model rbc.model --class RBC --format labelstudio --out tasks.json data/bccd/images\n"
        "  ostrel detect --model rbc.model --class RBC --format yolo --out labels data/bccd/images\n\n"
        "--format writes the detections (label 1) for other tools, each score as the library gives it (the\n"
        "text and JSON lines round to two decimals; jsonl is the JSON lines); the whole-run files (jsonl, coco,\n"
        "labelstudio, cvat, imglab) when the run ends, on standard output or into --out FILE, the\n"
        "per-picture files (voc, yolo) into --out DIR as the results come. Video frames are written by\n"
        "jsonl only. No output replaces the model, an input or a list of the run.\n\n" +
        std::string(exit_code_help()));
    sub->callback([a, &action] { action = [a] { return run_detect(*a); }; });
}

}  // namespace ostrel_tool
