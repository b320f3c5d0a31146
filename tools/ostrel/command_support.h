// Pieces that several commands share: defaults, model loading with a clear
// reason when a model is refused, export through a temporary file, and the
// check that a box size gives the detector a window it can learn.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "box_geometry.h"
#include "engine.h"

namespace ostrel_tool {

// Sensitivity 0..100 (higher finds more). 80 puts the confidence threshold
// at 50%, where the classifier's margin is 0: a window is reported when the
// classifier itself calls it the object. A model file does not store the
// sensitivity, so train and detect default alike.
constexpr uint32_t kDefaultSensitivity = 80;
// Background samples are drawn at random; a fixed seed makes training
// reproducible unless the user asks for another one.
constexpr uint32_t kDefaultSeed = 1;

// Adds --profile classic|accurate to a command (default classic). A model
// file does not record its profile: detect, eval and demo take the one it
// was trained with.
void add_profile_option(CLI::App *command, int32_t *profile);

// Throws an input error unless path names an existing regular file.
void require_file(const std::string &path, const char *what);

// Why the library refused a model file, in one phrase: the tool's own
// reading of the file when that finds the fault, else the library's line.
std::string model_problem(const std::string &path, const std::string &library_line);

// Validates (CRC included) and imports a model; throws an input error for a
// missing or invalid file and ToolError(failed) when the import fails.
void load_model(Engine &engine, const std::string &path);

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
// The weight vector lengths a model file accepts.
constexpr int kMinWindowValues = 201;
constexpr int kMaxWindowValues = 5999;

// The label-1 boxes of a result list (the detections proper).
std::vector<ostrel_alg_box> detections_only(const std::vector<ostrel_alg_box> &boxes);

}  // namespace ostrel_tool
