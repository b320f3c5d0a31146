#include "cli/cli.h"

#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/commands.h"
#include "engine/engine.h"
#include "files/picture_file.h"

namespace ostrel_tool {

namespace {

int report(const std::string &message, ExitCode code) {
    complain(message);
    return to_int(code);
}

// CLI11 messages can span lines; the tool reports one line.
std::string one_line(std::string text) {
    for (char &c : text) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

}  // namespace

int run_cli(int argc, const char *const *argv) {
    init_tool_out();
    set_max_picture_pixels(kDefaultMaxPicturePixels);  // --max-pixels of an earlier run in this process
    CLI::App app("ostrel - train a single-class object detector from a few marked boxes and run it", "ostrel");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("ostrel ") + tool_version());
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "show the library's own log lines on standard error");
    app.footer("Run `ostrel COMMAND --help` for a command's options. Start with `ostrel demo`.\n\n" +
               std::string(exit_code_help()));

    CommandAction action;
    add_demo_command(app, action);
    add_train_command(app, action);
    add_detect_command(app, action);
    add_check_command(app, action);
    add_info_command(app, action);
    add_eval_command(app, action);
    add_channels_command(app, action);
    add_labels_command(app, action);
    add_studio_command(app, action);

    int code = 0;
    // CLI11 would only say that a command is required; name the unknown word.
    if (argc > 1 && argv[1][0] != '-') {
        bool known = false;
        for (const CLI::App *sub : app.get_subcommands({})) {
            known = known || sub->check_name(argv[1]);
        }
        if (!known) {
            code = report(std::string("unknown command '") + argv[1] + "' (see `ostrel --help`)", ExitCode::usage);
            close_tool_out();
            return code;
        }
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        code = app.exit(e);
        close_tool_out();
        return code;
    } catch (const CLI::CallForAllHelp &e) {
        code = app.exit(e);
        close_tool_out();
        return code;
    } catch (const CLI::CallForVersion &e) {
        code = app.exit(e);
        close_tool_out();
        return code;
    } catch (const CLI::ParseError &e) {
        std::string where = "ostrel";
        for (const CLI::App *sub : app.get_subcommands()) {
            where += " " + sub->get_name();
        }
        code = report(one_line(e.what()) + " (see `" + where + " --help`)", ExitCode::usage);
        close_tool_out();
        return code;
    }
    set_show_library_lines(verbose);

    try {
        code = action ? action() : to_int(ExitCode::usage);
    } catch (const ToolError &e) {
        code = report(e.what(), e.code());
    } catch (const std::exception &e) {
        code = report(std::string("unexpected failure: ") + e.what(), ExitCode::failed);
    }
    std::fflush(tool_out());
    close_tool_out();
    return code;
}

}  // namespace ostrel_tool
