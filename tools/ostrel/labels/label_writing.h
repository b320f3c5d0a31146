// What every label writer takes besides the records.
#pragma once

#include <filesystem>
#include <string>

namespace ostrel_tool {

struct LabelWriteOptions {
    // The folder the written file lies in: pictures are named relative to
    // it where they lie below it (so that the file reads back from there),
    // else by their path. Empty: the current folder.
    std::filesystem::path base;
    // Label Studio: write the boxes as predictions (pre-annotations with
    // scores and a model version) rather than as annotations.
    bool predictions = false;
    std::string model_version;
};

}  // namespace ostrel_tool
