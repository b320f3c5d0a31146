// Pieces that several commands share: defaults, model loading with a clear
// reason when a model is refused, export through a temporary file, and the
// check that a box size gives the detector a window it can learn.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "boxes/box_geometry.h"
#include "engine/engine.h"

namespace ostrel_tool {

// Sensitivity 0..100 (higher finds more). 80 puts the confidence threshold
// at 50%, where the classifier's margin is 0: a window is reported when the
// classifier itself calls it the object. A model file does not store the
// sensitivity, so train and detect default alike.
constexpr uint32_t kDefaultSensitivity = 80;
// Background samples are drawn at random; a fixed seed makes training
// reproducible unless the user asks for another one.
constexpr uint32_t kDefaultSeed = 1;

// The profile a person gets from `train` and `demo` (and that the published
// figures are measured with): the accurate one finds far more of what was
// marked. The library's own default stays classic for hosts of the C
// interface; the tool asks for this one.
constexpr int32_t kDefaultTrainingProfile = OSTREL_ALG_PROFILE_ACCURATE;
// --profile left out of a command that reads a model: the file decides.
constexpr int32_t kProfileOfTheFile = -1;

// "classic" or "accurate" (the names --profile takes).
const char *profile_name(int32_t profile);

// Adds --profile classic|accurate to a command that trains (train, demo):
// the accurate profile unless --profile classic.
void add_training_profile_option(CLI::App *command, int32_t *profile);
// Adds --profile classic|accurate to a command that reads a model file
// (detect, eval, check): left out (*profile stays kProfileOfTheFile) the
// file decides; given, it must agree with the file, or the model is refused.
void add_model_profile_option(CLI::App *command, int32_t *profile);
// The words of the help texts that say the rule above.
extern const char *const kProfileRuleHelp;

// A whole number lo..hi: "'abc' is not a number (a whole number lo..hi)"
// or "'101' is not in lo..hi" (CLI11's own range check says "not in range"
// for a word and prints the type's limits for PositiveNumber).
CLI::Validator whole_number_in(long long lo, long long hi);
// The sensitivities the library takes (its header's range).
CLI::Validator sensitivity_in_range();
// A real number lo..hi; "nan" and "inf" are not numbers here.
CLI::Validator real_number_in(double lo, double hi);

// Adds --max-pixels N (1..the library's limit): pictures above N pixels are
// refused, from their header where the format allows (picture_file).
void add_max_pixels_option(CLI::App *command);

// Throws an input error unless path names an existing regular file.
void require_file(const std::string &path, const char *what);

// Why the library refused a model file, in one phrase: the tool's own
// reading of the file when that finds the fault, else the library's line.
std::string model_problem(const std::string &path, const std::string &library_error);

// What the tool makes of a model file: whether the library's validation
// accepts it, the profile the file was made under (an accurate model file
// says so in its first bytes, read by the tool itself), whether a --profile
// the user gave contradicts it, and why it cannot be used (empty when it
// can). The tool's own reading comes first, so that a file that does not
// follow the layout, or goes on after its trailer, is judged without the
// library reading it whole; then the library's validation; then the tool's
// consistency checks (model_usability). Throws an input error when path is
// missing or not a regular file. An accurate model is checked by importing
// it into a fresh engine when try_accurate_import is set (load_model leaves
// that to its own import).
struct ModelVerdict {
    bool library_accepts = false;
    int32_t profile = OSTREL_ALG_PROFILE_CLASSIC;  // the file's
    std::string contradiction;                     // one line when requested is not the file's profile
    std::string problem;
};
ModelVerdict judge_model(Engine &engine, const std::string &path, int32_t requested, bool try_accurate_import);

// Judges and imports a model; the engine takes the file's profile. Throws
// an input error (exit code 3) for a missing, invalid or unusable file -
// "model 'M' is not valid: ..." or "model 'M' cannot be used: ..." -,
// ToolError(failed) with one line when requested (a --profile the user gave;
// kProfileOfTheFile when none) contradicts the file, and ToolError(failed)
// when the import fails.
void load_model(Engine &engine, const std::string &path, int32_t requested = kProfileOfTheFile);
// The class names of the engine's model when its classes have names (a
// model of several classes, or of one named class); empty for a model of
// one unnamed class, whose boxes carry no class.
std::vector<std::string> named_classes(Engine &engine);

// Exports the engine's model to a temporary file next to path, validates it
// and renames it to path. Throws ToolError(failed) or an output error.
void export_model_atomically(Engine &engine, const std::string &path);

// The detector's window for a box size on a picture: the box size mapped to
// the cells of the feature map (columns x rows for the whole picture).
struct WindowCells {
    int columns = 0;
    int rows = 0;
    int values = 0;  // channels x columns x rows, the length of the weight vector
};
WindowCells window_cells(Size box, int picture_width, int picture_height, uint32_t map_columns, uint32_t map_rows,
                         uint32_t channels);
// The weight vector lengths a model file accepts are the header's
// OSTREL_ALG_MIN_WINDOW_WEIGHTS..OSTREL_ALG_MAX_WINDOW_WEIGHTS.

// Whether the library turns a marked box into a training sample: its window
// of feature cells (mapped like window_cells) lies wholly inside the map. A
// box that reaches past the picture's edge this way is left out.
bool box_window_inside_map(const Rect &box, int picture_width, int picture_height, uint32_t map_columns,
                           uint32_t map_rows);

// The folder of the pictures shipped with the tool (bccd/ for the demo and
// the studio): <executable>/../share/ostrel/data for an installed tool, else
// the data folder of the source tree it was built from.
std::string shipped_data_folder();

// The label-1 boxes of a result list (the detections proper).
std::vector<ostrel_alg_box> detections_only(const std::vector<ostrel_alg_box> &boxes);

}  // namespace ostrel_tool
