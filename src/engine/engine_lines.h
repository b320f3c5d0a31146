// engine_lines: the operation names, line numbers and formats of the failure
// lines that more than one engine unit writes: the classic and the accurate
// profile report one operation with the same line. A name or line that a
// single unit writes sits next to its code.
#pragma once

#include <cstdint>
#include <string>

namespace ostrel {

inline constexpr const char *kRunDetectorName = "ostrel_alg::runDetector";
inline constexpr int kRunDetectorLine = 1135;

inline constexpr const char *kSetDetectorName = "ostrel_alg::setDetectorWithAutoTrain";
// The set-up's failure line: input it refuses, or a training that fails.
inline constexpr int kRefusedInputLine = 861;

inline constexpr const char *kRemoveSampleName = "ostrel_alg::removeSample";
inline constexpr int kRemoveSampleLine = 3953;

// Model files.
inline constexpr const char *kExportModelName = "ostrel_alg::exportModel";
inline constexpr const char *kImportModelName = "ostrel_alg::importModel";
inline constexpr const char *kCheckModelValidationName = "ostrel_alg::checkModelValidation";
// The line of the export's first write, the one both formats share.
inline constexpr int kExportWriteLine = 3472;

// The export's failures to create the file at `path`, and to write it (at
// `line`): each logs its line and notes the failure; both return 1.
int32_t model_file_not_created(const std::string &path);
int32_t model_file_not_written(int line, const std::string &path);

}  // namespace ostrel
