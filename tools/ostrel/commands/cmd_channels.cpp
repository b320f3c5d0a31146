// ostrel channels: shows the channel feature map the detector computes for
// a picture.
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/command_support.h"
#include "commands/commands.h"
#include "engine/engine.h"
#include "files/atomic_file.h"
#include "files/picture.h"
#include "render/channel_mosaic.h"

namespace ostrel_tool {

namespace {

struct ChannelsOptions {
    std::string image;
    std::string png;
    std::string raw;
    int scale = 2;
    bool stretch = false;
};

int run_channels(const ChannelsOptions &o) {
    // Both outputs are checked before any work.
    if (!o.raw.empty()) {
        output_target(o.raw, "raw map");
    }
    if (!o.png.empty()) {
        output_target(o.png, "mosaic");
    }
    const Picture picture = load_picture(o.image);
    Engine engine;
    FeatureMap map;
    if (!engine.feature_map(picture, map)) {
        const std::string reason = engine.last_error();
        throw ToolError(ExitCode::failed,
                        "the library could not compute the feature map" + (reason.empty() ? "" : ": " + reason));
    }
    const FeatureMapView view{map.bytes.data(), map.channels, map.columns, map.rows};
    // Write both files before printing, so that the description line means
    // every requested file is in place.
    if (!o.raw.empty()) {
        write_file_atomically(o.raw, map.bytes.data(), map.bytes.size());
    }
    if (!o.png.empty()) {
        write_png_atomically(o.png, channel_mosaic(view, o.scale, o.stretch));
    }
    // The library hands out the scale-0 map without its border padding.
    println(map_description(view, false).dump());
    return to_int(ExitCode::ok);
}

}  // namespace

void add_channels_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<ChannelsOptions>();
    CLI::App *sub = app.add_subcommand("channels", "Show the channel feature map the detector sees in a picture");
    sub->add_option("IMAGE", o->image, "the picture")->required();
    sub->add_option("--png", o->png, "write a mosaic of the channel planes (PNG)")->type_name("OUT");
    sub->add_option("--raw", o->raw, "write the map's bytes in the library's storage order")->type_name("OUT");
    sub->add_option("--scale", o->scale, "enlarge every cell this many times in the mosaic (default 2)")
        ->check(whole_number_in(1, 16))
        ->type_name("N");
    sub->add_flag("--stretch", o->stretch, "scale each plane of the mosaic so that its largest value is white");
    add_max_pixels_option(sub);
    sub->footer(
        "Prints one JSON line {\"channels\":C,\"columns\":W,\"rows\":H,\"padded\":false} describing the map:\n"
        "the unpadded map of scale 0, C planes of W x H cells. Channels 0..2 are L, a, b; 3 the gradient\n"
        "magnitude; 4..9 the six orientation histograms. In the raw file, channel c at column x, row y is\n"
        "byte c*W*H + x*H + y (each plane stored column by column).\n\n" +
        std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_channels(*o); }; });
}

}  // namespace ostrel_tool
