// ostrel check and ostrel info: the model file, validated by the library and
// read by the tool itself.
#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "command_support.h"
#include "commands.h"
#include "exit_codes.h"
#include "model_info.h"
#include "tool_error.h"
#include "tool_output.h"

namespace ostrel_tool {

namespace {

int run_check(const std::string &model) {
    require_file(model, "model");
    Engine engine;
    if (engine.check_model(model)) {
        println(model + ": valid");
        return to_int(ExitCode::ok);
    }
    std::fflush(tool_out());
    std::fprintf(stderr, "ostrel: %s: not valid: %s\n", model.c_str(),
                 model_problem(model, engine.last_line()).c_str());
    return to_int(ExitCode::failed);
}

int run_info(const std::string &model) {
    const ModelInfo info = read_model_info(model);
    println("model: " + model);
    print(describe_model(info));
    return to_int(ExitCode::ok);
}

}  // namespace

void add_check_command(CLI::App &app, CommandAction &action) {
    auto model = std::make_shared<std::string>();
    CLI::App *sub = app.add_subcommand("check", "Validate a model file (records and CRC-32) with the library");
    sub->add_option("MODEL", *model, "the model file")->required();
    sub->footer("Prints \"MODEL: valid\" and exits 0, or explains on standard error and exits 1.\n\n" +
                std::string(exit_code_help()));
    sub->callback([model, &action] { action = [model] { return run_check(*model); }; });
}

void add_info_command(CLI::App &app, CommandAction &action) {
    auto model = std::make_shared<std::string>();
    CLI::App *sub = app.add_subcommand("info", "Show what a model file holds (read by the tool, not the library)");
    sub->add_option("MODEL", *model, "the model file")->required();
    sub->footer(
        "Lists the model record (class_idx, trained_width, trained_height, input_width, input_height,\n"
        "trained_acf_scale_idx, support_vector_size, bias), the weights' range, fp_threshold, the\n"
        "false-positive filter's matrix sizes, the trailer's length L and CRC-32, the CRC computed over the\n"
        "file and whether they match, and values the library would refuse (\"problem:\" lines). Exits 0 when\n"
        "the file follows the layout, even if its CRC does not match; 3 when it does not.\n\n" +
        std::string(exit_code_help()));
    sub->callback([model, &action] { action = [model] { return run_info(*model); }; });
}

}  // namespace ostrel_tool
