// ostrel check and ostrel info: the model file, validated by the library and
// read by the tool itself.
#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/command_support.h"
#include "commands/commands.h"
#include "engine/model_info.h"

namespace ostrel_tool {

namespace {

int run_check(const std::string &model, int32_t requested) {
    Engine engine;
    const ModelVerdict verdict = judge_model(engine, model, requested, true);
    if (verdict.library_accepts && verdict.contradiction.empty() && verdict.problem.empty()) {
        println(model + ": valid, a model of the " + profile_name(verdict.profile) + " profile");
        // A model with named classes lists them, as the library reads them.
        Engine reader;
        if (reader.import_model(model)) {
            const std::vector<std::string> names = named_classes(reader);
            if (!names.empty()) {
                std::string listed;
                for (const std::string &n : names) listed += (listed.empty() ? "" : ", ") + n;
                println(strformat("classes: %zu (%s)", names.size(), listed.c_str()));
            }
        }
        return to_int(ExitCode::ok);
    }
    if (verdict.library_accepts && !verdict.contradiction.empty()) {
        complain(verdict.contradiction);
    } else {
        complain(model + ": not valid: " + verdict.problem);
    }
    return to_int(ExitCode::failed);
}

int run_info(const std::string &model) {
    const ModelInfo info = read_model_info(model);
    println("model: " + model);
    print(describe_model(info));
    return to_int(info.problems.empty() && info.crc_matches() ? ExitCode::ok : ExitCode::failed);
}

}  // namespace

void add_check_command(CLI::App &app, CommandAction &action) {
    auto model = std::make_shared<std::string>();
    auto profile = std::make_shared<int32_t>(kProfileOfTheFile);
    CLI::App *sub = app.add_subcommand(
        "check", "Validate a model file with the library (records and CRC-32), then check that it can detect");
    sub->add_option("MODEL", *model, "the model file")->required();
    add_model_profile_option(sub, profile.get());
    sub->footer(
        "First the library's own validation (the records' ranges and the CRC-32), then the tool's checks of\n"
        "what the library lets pass although the model cannot detect: a classic model's trained box must\n"
        "give a window of the weights' length, its filter matrices must fit each other and the weights; an\n"
        "accurate model must load into a fresh engine; the trailer's length field must be right and nothing\n"
        "may follow the trailer. A file that does not follow the layout is judged by the tool alone, without\n"
        "the library reading it. Prints \"MODEL: valid, a model of the P profile\" (and, for a model with\n"
        "named classes, \"classes: N (a, b, ...)\") and exits 0, or gives the reason on standard error and\n"
        "exits 1; a missing file, a folder, a device or a FIFO exits 3.\n\n" +
        std::string(kProfileRuleHelp) + "\n\n" + std::string(exit_code_help()));
    sub->callback([model, profile, &action] { action = [model, profile] { return run_check(*model, *profile); }; });
}

void add_info_command(CLI::App &app, CommandAction &action) {
    auto model = std::make_shared<std::string>();
    CLI::App *sub = app.add_subcommand("info", "Show what a model file holds (read by the tool, not the library)");
    sub->add_option("MODEL", *model, "the model file")->required();
    sub->footer(
        "Prints the profile the file was made under and everything it records. A classic model (no magic\n"
        "number): the model record (class_idx, trained_width, trained_height, input_width, input_height,\n"
        "trained_acf_scale_idx, support_vector_size, bias), the weights' range, fp_threshold and the\n"
        "false-positive filter's matrix sizes. An accurate model (its own format and version): every\n"
        "setting it was written with (cells, size steps, overlap, height range, search margin, pyramid\n"
        "levels, normalisation, size prior, suppression) and, for each class, its name, window, object\n"
        "shape, the range of object heights it was taught and the calibration of its scores. Then, for\n"
        "both, the trailer's length L and CRC-32, the CRC computed over the file and whether they match, and\n"
        "\"problem:\" lines for values the library would refuse and for faults that make the model unusable\n"
        "(filter matrices that do not fit, a wrong length field, bytes after the trailer). The file is read\n"
        "block by block, each count checked against its length, so a huge or sparse file costs only what its\n"
        "records claim. Exits 0 when the file follows its layout with no problem and a matching CRC; 1 when\n"
        "it follows the layout but has a problem line or another CRC; 3 when it does not follow the layout\n"
        "or is not a regular file (a folder, a device, a FIFO).\n\n" +
        std::string(exit_code_help()));
    sub->callback([model, &action] { action = [model] { return run_info(*model); }; });
}

}  // namespace ostrel_tool
