// engine_lines: the operation names, line numbers and formats of the failure
// lines that more than one engine unit writes: the classic and the accurate
// profile report one operation with the same line. A name or line that a
// single unit writes sits next to its code.
#pragma once

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
// A model file that cannot be created: operation name, path.
inline constexpr const char *kExportOpenFailFormat = "[SVM %s] fail export, check file path : %s \n";
// A model file that cannot be written: operation name, source stem, line.
inline constexpr const char *kFileWriteFailFormat = "[file write FAIL!] %s (%s line:%d)\n";
inline constexpr int kExportWriteLine = 3472;

}  // namespace ostrel
