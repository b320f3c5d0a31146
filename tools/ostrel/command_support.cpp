#include "command_support.h"

#include <filesystem>
#include <map>

#include "atomic_file.h"
#include "model_info.h"
#include "tool_error.h"
#include "tool_output.h"

namespace ostrel_tool {

void add_profile_option(CLI::App *command, int32_t *profile) {
    command->add_option("--profile", *profile, "classic (default) or accurate: how the detector learns and searches")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, int32_t>{{"classic", OSTREL_ALG_PROFILE_CLASSIC}, {"accurate", OSTREL_ALG_PROFILE_ACCURATE}}))
        ->type_name("NAME");
}

void require_file(const std::string &path, const char *what) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        throw input_error(std::string("cannot open ") + what + " '" + path + "': no such file");
    }
    if (!std::filesystem::is_regular_file(path, ec)) {
        throw input_error(std::string("cannot read ") + what + " '" + path + "': not a regular file");
    }
}

std::string model_problem(const std::string &path, const std::string &library_line) {
    try {
        const ModelInfo info = read_model_info(path);
        if (!info.problems.empty()) {
            return info.problems.front();
        }
        if (!info.crc_matches()) {
            return strformat("CRC mismatch (stored 0x%08x, computed 0x%08x)", info.stored_crc, info.computed_crc);
        }
    } catch (const std::exception &e) {
        // "'<path>' is not a model file: ..." names the fault; drop the path.
        std::string text = e.what();
        const std::string prefix = "'" + path + "' is not a model file: ";
        return text.rfind(prefix, 0) == 0 ? "not a model file: " + text.substr(prefix.size()) : text;
    }
    return library_line.empty() ? "the library refuses it" : "the library reports: " + library_line;
}

void load_model(Engine &engine, const std::string &path) {
    require_file(path, "model");
    if (!engine.check_model(path)) {
        throw input_error("model '" + path + "' is not valid: " + model_problem(path, engine.last_line()));
    }
    if (!engine.import_model(path)) {
        const std::string reason = engine.last_line();
        throw ToolError(ExitCode::failed,
                        "the library could not load model '" + path + "'" + (reason.empty() ? "" : ": " + reason));
    }
}

void export_model_atomically(Engine &engine, const std::string &path) {
    const std::filesystem::path target(path);
    if (!target.parent_path().empty()) {
        std::error_code ec;
        if (!std::filesystem::is_directory(target.parent_path(), ec)) {
            throw output_error("cannot write model '" + path + "': folder '" + target.parent_path().string() +
                               "' does not exist");
        }
    }
    TemporaryFile temporary(temporary_name_for(path));
    if (!engine.export_model(temporary.path())) {
        const std::string reason = engine.last_line();
        throw ToolError(ExitCode::failed,
                        "the library could not export the model" + (reason.empty() ? "" : ": " + reason));
    }
    if (!engine.check_model(temporary.path())) {
        throw ToolError(ExitCode::failed, "the exported model does not validate: " +
                                              model_problem(temporary.path(), engine.last_line()));
    }
    commit_temporary(temporary.path(), path);
    temporary.release();
}

WindowCells window_cells(Size box, int picture_width, int picture_height, uint32_t map_columns, uint32_t map_rows,
                         uint32_t channels) {
    WindowCells w;
    if (picture_width <= 0 || picture_height <= 0) {
        return w;
    }
    // The library maps sizes with single-precision factors and truncates.
    const float sx = static_cast<float>(map_columns) / static_cast<float>(picture_width);
    const float sy = static_cast<float>(map_rows) / static_cast<float>(picture_height);
    w.columns = static_cast<int>(static_cast<float>(box.w) * sx);
    w.rows = static_cast<int>(static_cast<float>(box.h) * sy);
    w.values = static_cast<int>(channels) * w.columns * w.rows;
    return w;
}

std::vector<ostrel_alg_box> detections_only(const std::vector<ostrel_alg_box> &boxes) {
    std::vector<ostrel_alg_box> out;
    for (const auto &b : boxes) {
        if (b.label == 1) {
            out.push_back(b);
        }
    }
    return out;
}

}  // namespace ostrel_tool
