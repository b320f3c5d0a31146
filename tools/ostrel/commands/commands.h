// The sub-commands of ostrel. Each add_*_command registers its options on
// the application and, when chosen, sets action to the code that runs it.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace ostrel_tool {

using CommandAction = std::function<int()>;

void add_train_command(CLI::App &app, CommandAction &action);
void add_detect_command(CLI::App &app, CommandAction &action);
void add_check_command(CLI::App &app, CommandAction &action);
void add_info_command(CLI::App &app, CommandAction &action);
void add_eval_command(CLI::App &app, CommandAction &action);
void add_channels_command(CLI::App &app, CommandAction &action);
void add_demo_command(CLI::App &app, CommandAction &action);
void add_studio_command(CLI::App &app, CommandAction &action);
void add_labels_command(CLI::App &app, CommandAction &action);

}  // namespace ostrel_tool
