// Whether a model the library accepts can detect under a profile. The
// library's validation (records in range, CRC) is a fixed contract; a file
// can pass it and still be useless: a trained box larger than any picture,
// weights of another window's length,
// filter matrices of other sizes. The tool checks these when it loads a
// model (detect, eval) and in `ostrel check`, after the library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/model_info.h"

namespace ostrel_tool {

// The scale-0 feature map of the classic profile: every picture is worked
// on at one resolution, so its size does not depend on the picture.
struct MapExtent {
    int64_t channels = 0;
    int64_t columns = 0;
    int64_t rows = 0;
};
// Asks the library once (a feature map of a blank picture) and keeps it.
MapExtent classic_map_extent();

// Under the classic profile the weights are the window of the trained box,
// scaled from the picture it was trained on to the map: channels x columns
// x rows values, the window at least one cell and at most the map. The
// reasons it is not, empty when it is.
std::vector<std::string> classic_window_problems(const ModelInfo &info, const MapExtent &map);

// Whether a fresh engine imports the file as a model of the accurate
// profile (the library refuses an accurate model whose parts do not agree;
// a classic file turns the engine classic and is not taken here).
bool accurate_profile_takes(const std::string &path, std::string *reason = nullptr);

// Why a model that the library's validation accepted cannot be used under
// the profile it was made under (the file's: info.accurate), in one phrase;
// empty when it can. info is the tool's reading of the file.
std::string usability_problem(const std::string &path, const ModelInfo &info);

}  // namespace ostrel_tool
