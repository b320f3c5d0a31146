// The accurate profile's model file: a format of its own, which says what
// it is and holds everything the profile needs to detect exactly as it did
// when the file was written.
//
// Little-endian throughout (n = window_columns * window_rows * channels):
//
//   offset  size  type     field
//   0       8     bytes    magic 4F 53 54 C1 0D 0A 1A 0A ("OST", 0xC1, CR LF, 0x1A, LF)
//   8       4     uint32   format version (1)
//   12      4     uint32   S, bytes of the settings block that follows (56)
//   16      S     int32s   the shared settings, in accurate_file_settings order:
//                          profile (1), object_cells, size_steps,
//                          suppression_overlap_percent, min_height,
//                          max_height, search_margin_percent,
//                          levels_per_octave, approximation_exponent_permille,
//                          norm_radius, norm_floor, edge_reach_percent,
//                          size_prior_permille,
//                          suppression_contained_percent
//   16+S    4     uint32   N, the number of class records (1 .. 64)
//   then N class records, each:
//           4     uint32   R, bytes of the record after this field
//           4     uint32   name length m (0 .. 255), then m bytes of UTF-8
//           4*3   int32    window_columns, window_rows, channels (10)
//           4*3   float32  aspect (width / height), taught_min_height,
//                          taught_max_height (pixels)
//           4*4   int32    trained_width, trained_height (the marked
//                          objects' median size), input_width,
//                          input_height (the training picture's size)
//           4*2   float32  calibration offset and slope
//           4     int32    bias x 10^7
//           4     int32    n
//           4*n   int32    the weights x 10^7, window feature order
//   L       8     uint64   L, the number of bytes before this trailer
//   L+8     4     uint32   CRC-32 (zlib's crc32) of bytes 0 .. L-1
//
// Why this magic: the classic layout begins with class_idx, an int32 that
// classic validation and import accept only when it is 0 or more, so byte 3
// of every file they accept is below 0x80. The magic's byte 3 is 0xC1: no
// file the classic reader accepts begins with it, and a file that begins
// with it has a negative class_idx, which classic validation refuses. CR LF
// and 0x1A catch files mangled by text-mode transfers, as PNG's signature
// does.
//
// The reader trusts nothing: the file is read whole only when its length is
// within kMaxAccurateModelBytes, every count and size must agree with the
// bytes that follow, every value must lie in its range, and the CRC must
// match. One record per class: a model of several named classes sharing the
// settings is N records; the writer writes what it is given.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ostrel_alg.h"

namespace ostrel {

inline constexpr unsigned char kAccurateModelMagic[8] = {0x4F, 0x53, 0x54, 0xC1, 0x0D, 0x0A, 0x1A, 0x0A};
inline constexpr uint32_t kAccurateModelVersion = 1;
inline constexpr uint32_t kMaxAccurateModelClasses = OSTREL_ALG_MAX_CLASSES;
inline constexpr uint32_t kMaxClassNameBytes = OSTREL_ALG_MAX_CLASS_NAME_BYTES;
// Every valid file is smaller: OSTREL_ALG_MAX_CLASSES classes of at most
// OSTREL_ALG_MAX_WINDOW_WEIGHTS weights.
inline constexpr uint64_t kMaxAccurateModelBytes = 2u << 20;

// The settings a model records and every class shares: the options and the
// fixed choices that shape the features and the search (the accurate
// profile keeps them with its model, accurate/accurate_model.h).
struct accurate_model_settings {
    int32_t object_cells = 0;
    int32_t size_steps = 0;
    int32_t suppression_overlap_percent = 0;
    int32_t min_height = 0;
    int32_t max_height = 0;
    int32_t search_margin_percent = 0;
    int32_t levels_per_octave = 0;
    int32_t approximation_exponent_permille = 0;
    int32_t norm_radius = 0;
    int32_t norm_floor = 0;
    int32_t edge_reach_percent = 0;
    int32_t size_prior_permille = 0;
    int32_t suppression_contained_percent = 0;
};

// The settings block of the file: the profile, then the recorded settings.
struct accurate_file_settings : accurate_model_settings {
    int32_t profile = 1;
};

struct accurate_file_class {
    std::string name;
    int32_t window_columns = 0;
    int32_t window_rows = 0;
    int32_t channels = 0;
    float aspect = 0.0f;
    float taught_min_height = 0.0f;
    float taught_max_height = 0.0f;
    int32_t trained_width = 0;
    int32_t trained_height = 0;
    int32_t input_width = 0;
    int32_t input_height = 0;
    float calibration_offset = 0.0f;
    float calibration_slope = 0.0f;
    int32_t bias = 0;
    std::vector<int32_t> weights;
};

struct accurate_model_file {
    uint32_t version = kAccurateModelVersion;
    accurate_file_settings settings;
    std::vector<accurate_file_class> classes;
};

// What is wrong with a class name, or an empty string when nothing is: a
// name is at most kMaxClassNameBytes bytes of UTF-8 (shortest forms, no
// surrogates) without control characters (below 0x20, and 0x7F). The one
// rule for names in files and names a host gives (ostrel_alg_addClass); an
// empty name is allowed here (the unnamed class of a one-class model) and
// refused by addClass.
std::string class_name_problem(const std::string &name);

// What is wrong with a set of class names (each as above, and no two
// alike), or an empty string.
std::string class_names_problem(const std::vector<std::string> &names);

// Whether bytes begin with the magic (at least 8 of them).
bool has_accurate_magic(const unsigned char *bytes, size_t size);

// The whole file, trailer included. An empty result when the model breaks
// a rule the reader checks (the writer never writes what it would refuse);
// *problem then says which.
std::vector<unsigned char> write_accurate_model(const accurate_model_file &model, std::string *problem);

// Reads a whole file's bytes. False, with *problem saying what is wrong in
// one sentence, when anything is: the magic, the version, a size that does
// not agree, a value out of its range, the trailer, the CRC.
bool read_accurate_model(const unsigned char *bytes, size_t size, accurate_model_file *out, std::string *problem);

}  // namespace ostrel
