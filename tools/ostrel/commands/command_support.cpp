#include "commands/command_support.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "ostrel_alg.h"

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "engine/model_info.h"
#include "engine/model_usability.h"
#include "files/atomic_file.h"
#include "files/picture_file.h"

#ifndef OSTREL_DATA_DIR
#define OSTREL_DATA_DIR "data"
#endif

namespace ostrel_tool {

const char *profile_name(int32_t profile) { return profile == OSTREL_ALG_PROFILE_ACCURATE ? "accurate" : "classic"; }

const char *const kProfileRuleHelp =
    "A model file records the profile it was made under, and the file decides: detect, eval, check and\n"
    "info read it from the file and need no --profile. A --profile that contradicts the file is refused\n"
    "with one line (exit code 1).";

namespace {

CLI::Option *add_profile_names(CLI::App *command, int32_t *profile, const std::string &help) {
    return command->add_option("--profile", *profile, help)
        ->transform(CLI::CheckedTransformer(std::map<std::string, int32_t>{{"classic", OSTREL_ALG_PROFILE_CLASSIC},
                                                                           {"accurate", OSTREL_ALG_PROFILE_ACCURATE}}))
        ->type_name("NAME");
}

}  // namespace

void add_training_profile_option(CLI::App *command, int32_t *profile) {
    *profile = kDefaultTrainingProfile;
    add_profile_names(command, profile,
                      std::string("accurate or classic: how the detector learns and searches (default ") +
                          profile_name(kDefaultTrainingProfile) +
                          "; classic reproduces the original system exactly); the model file records it");
}

void add_model_profile_option(CLI::App *command, int32_t *profile) {
    *profile = kProfileOfTheFile;
    add_profile_names(command, profile,
                      "not needed: the model file says its profile; given, it must agree with the file "
                      "(a contradiction is refused)");
}

CLI::Validator sensitivity_in_range() {
    return whole_number_in(OSTREL_ALG_MIN_SENSITIVITY, OSTREL_ALG_MAX_SENSITIVITY);
}

CLI::Validator whole_number_in(long long lo, long long hi) {
    const std::string range = std::to_string(lo) + ".." + std::to_string(hi);
    return CLI::Validator(
        [lo, hi, range](std::string &text) -> std::string {
            char *end = nullptr;
            errno = 0;
            const long long v = std::strtoll(text.c_str(), &end, 10);
            if (text.empty() || end == text.c_str() || *end != '\0') {
                return "'" + text + "' is not a number (a whole number " + range + " is expected)";
            }
            if (errno == ERANGE || v < lo || v > hi) {
                return "'" + text + "' is not in " + range;
            }
            return std::string();
        },
        range);
}

CLI::Validator real_number_in(double lo, double hi) {
    const std::string range = strformat("%g..%g", lo, hi);
    return CLI::Validator(
        [lo, hi, range](std::string &text) -> std::string {
            char *end = nullptr;
            const double v = std::strtod(text.c_str(), &end);
            if (text.empty() || end == text.c_str() || *end != '\0' || !std::isfinite(v)) {
                return "'" + text + "' is not a number (a number " + range + " is expected)";
            }
            if (v < lo || v > hi) {
                return "'" + text + "' is not in " + range;
            }
            return std::string();
        },
        range);
}

void add_max_pixels_option(CLI::App *command) {
    command
        ->add_option_function<int64_t>(
            "--max-pixels", [](const int64_t &pixels) { set_max_picture_pixels(pixels); },
            strformat("refuse pictures of more than N pixels (width x height), from the header before decoding "
                      "for JPEG, PNG and BMP (default %lld = 2^27; at most %lld, the library's limit)",
                      static_cast<long long>(kDefaultMaxPicturePixels),
                      static_cast<long long>(kLargestMaxPicturePixels)))
        ->check(whole_number_in(1, kLargestMaxPicturePixels))
        ->type_name("N");
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

namespace {

// "'<path>' is not a model file: ..." names the fault; the path is said
// elsewhere in the message.
std::string without_path(const std::string &text, const std::string &path) {
    const std::string prefix = "'" + path + "' is not a model file: ";
    return text.rfind(prefix, 0) == 0 ? "not a model file: " + text.substr(prefix.size()) : text;
}

}  // namespace

std::string model_problem(const std::string &path, const std::string &library_error) {
    try {
        const ModelInfo info = read_model_info(path);
        if (!info.problems.empty()) {
            return info.problems.front();
        }
        if (!info.crc_matches()) {
            return strformat("CRC mismatch (stored 0x%08x, computed 0x%08x)", info.stored_crc, info.computed_crc);
        }
    } catch (const std::exception &e) {
        return without_path(e.what(), path);
    }
    return library_error.empty() ? "the library refuses it" : "the library reports: " + library_error;
}

ModelVerdict judge_model(Engine &engine, const std::string &path, int32_t requested, bool try_accurate_import) {
    require_file(path, "model");
    ModelVerdict verdict;
    ModelInfo info;
    try {
        info = read_model_info(path);
    } catch (const ToolError &e) {
        verdict.problem = without_path(e.what(), path);
        return verdict;
    }
    // A file longer than its records (a sparse file of gigabytes, say) is
    // refused before the library reads all of it.
    if (info.bytes_after_trailer() > 0 || !info.length_matches()) {
        verdict.problem = info.problems.empty() ? "the trailer does not end the file" : info.problems.back();
        return verdict;
    }
    if (!engine.check_model(path)) {
        verdict.problem = model_problem(path, engine.last_error());
        return verdict;
    }
    verdict.library_accepts = true;
    verdict.profile = info.accurate ? OSTREL_ALG_PROFILE_ACCURATE : OSTREL_ALG_PROFILE_CLASSIC;
    if (requested != kProfileOfTheFile && requested != verdict.profile) {
        verdict.contradiction = strformat(
            "model '%s' is a model of the %s profile (the file says so), not of the %s profile that --profile asks "
            "for: leave out --profile (the model file decides) or give --profile %s",
            path.c_str(), profile_name(verdict.profile), profile_name(requested), profile_name(verdict.profile));
    }
    if (info.accurate && !try_accurate_import) {
        verdict.problem = info.problems.empty() ? "" : info.problems.front();
    } else {
        verdict.problem = usability_problem(path, info);
    }
    return verdict;
}

void load_model(Engine &engine, const std::string &path, int32_t requested) {
    // An accurate model's window is checked by the import itself.
    const ModelVerdict verdict = judge_model(engine, path, requested, false);
    if (!verdict.library_accepts) {
        throw input_error("model '" + path + "' is not valid: " + verdict.problem);
    }
    if (!verdict.contradiction.empty()) {
        throw ToolError(ExitCode::failed, verdict.contradiction);
    }
    if (!verdict.problem.empty()) {
        throw input_error("model '" + path + "' cannot be used: " + verdict.problem);
    }
    if (!engine.import_model(path)) {
        const std::string reason = engine.last_error();
        throw ToolError(ExitCode::failed,
                        "the library could not load model '" + path + "'" + (reason.empty() ? "" : ": " + reason));
    }
    // The library takes the profile from the file, as the tool read it.
    if (engine.profile() != verdict.profile) {
        throw ToolError(ExitCode::failed,
                        strformat("the library loaded model '%s' under the %s profile, but the file "
                                  "is a model of the %s profile",
                                  path.c_str(), profile_name(engine.profile()), profile_name(verdict.profile)));
    }
}

std::vector<std::string> named_classes(Engine &engine) {
    const std::vector<std::string> names = engine.class_names();
    if (names.size() == 1 && names.front().empty()) {
        return {};
    }
    return names;
}

void export_model_atomically(Engine &engine, const std::string &path) {
    TemporaryFile temporary(temporary_name_for(output_target(path, "model")));
    if (!engine.export_model(temporary.path())) {
        const std::string reason = engine.last_error();
        throw ToolError(ExitCode::failed,
                        "the library could not export the model" + (reason.empty() ? "" : ": " + reason));
    }
    if (!engine.check_model(temporary.path())) {
        throw ToolError(ExitCode::failed, "the exported model does not validate: " +
                                              model_problem(temporary.path(), engine.last_error()));
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

bool box_window_inside_map(const Rect &box, int picture_width, int picture_height, uint32_t map_columns,
                           uint32_t map_rows) {
    if (picture_width <= 0 || picture_height <= 0) {
        return false;
    }
    const float sx = static_cast<float>(map_columns) / static_cast<float>(picture_width);
    const float sy = static_cast<float>(map_rows) / static_cast<float>(picture_height);
    const double x = std::trunc(static_cast<float>(box.x) * sx);
    const double y = std::trunc(static_cast<float>(box.y) * sy);
    const double w = std::trunc(static_cast<float>(box.w) * sx);
    const double h = std::trunc(static_cast<float>(box.h) * sy);
    return w >= 1 && h >= 1 && x >= 0 && y >= 0 && x + w <= map_columns && y + h <= map_rows;
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

std::string shipped_data_folder() {
    // An installed tool keeps its pictures beside its other shared files, so
    // that the tree works from any prefix; the build tree has none there.
    std::error_code ec;
    const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const std::filesystem::path installed = exe.parent_path().parent_path() / "share" / "ostrel" / "data";
        if (std::filesystem::is_directory(installed / "bccd", ec)) {
            return installed.string();
        }
    }
    return OSTREL_DATA_DIR;
}

}  // namespace ostrel_tool
