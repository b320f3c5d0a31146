// ostrel studio in a build without an HTTP server library: the command
// exists and says why it cannot run.
#include <CLI/CLI.hpp>

#include "cli/tool_error.h"
#include "commands/commands.h"

namespace ostrel_tool {

void add_studio_command(CLI::App &app, CommandAction &action) {
    CLI::App *sub = app.add_subcommand("studio", "Mark boxes, train and see detections in the web browser");
    sub->allow_extras();
    sub->callback([&action] {
        action = []() -> int {
            throw ToolError(ExitCode::failed, "this build of ostrel has no studio (built without cpp-httplib)");
        };
    });
}

}  // namespace ostrel_tool
