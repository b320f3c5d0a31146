// Reads a model file on its own, without the library, to show what it
// holds. Two formats: an accurate model begins with the magic 4F 53 54 C1
// 0D 0A 1A 0A and follows the accurate layout (the library's
// src/model/accurate_model_file.h and docs/model-formats.md); every other file is read
// as the classic layout (little-endian, no magic number):
//
//   0   int32  class_idx            4  int32  trained_width
//   8   int32  trained_height      12  int32  input_width
//  16   int32  input_height        20  int32  trained_acf_scale_idx
//  24   int32  support_vector_size (n)
//  28   int32  bias (fixed point, x 100000)
//  32   int32 x n  weights (fixed point, x 100000)
//  32+4n float32  fp_threshold
//  36+4n uint8    pca_filter_ready; when not 0 four float32 matrices follow,
//                 mean, eigenvectors, reduce_mean, reduce_inv_covar, each as
//                 int32 rows, int32 cols, rows x cols values row by row
//  L      uint64  L = the number of bytes before this trailer
//  L+8    uint32  CRC-32 (zlib's) of bytes 0 .. L-1
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace ostrel_tool {

struct MatrixShape {
    int32_t rows = 0;
    int32_t cols = 0;
};

// One class record of an accurate model file.
struct AccurateClassInfo {
    std::string name;
    int32_t window_columns = 0;
    int32_t window_rows = 0;
    int32_t channels = 0;
    float aspect = 0.0f;
    float taught_min_height = 0.0f;
    float taught_max_height = 0.0f;
    float calibration_offset = 0.0f;
    float calibration_slope = 0.0f;
    int32_t weights = 0;
};

// The settings block of an accurate model file, in file order.
inline constexpr size_t kAccurateSettingsCount = 14;
const char *accurate_setting_name(size_t index);

struct ModelInfo {
    // An accurate model file (the magic first); the classic fields below
    // then hold its first class (class_idx 0, no filter).
    bool accurate = false;
    uint32_t format_version = 0;
    std::array<int32_t, kAccurateSettingsCount> accurate_settings{};
    std::vector<AccurateClassInfo> classes;

    int32_t class_idx = 0;
    int32_t trained_width = 0;
    int32_t trained_height = 0;
    int32_t input_width = 0;
    int32_t input_height = 0;
    int32_t trained_acf_scale_idx = 0;
    int32_t support_vector_size = 0;
    int32_t bias = 0;
    int32_t weight_min = 0;  // 0 and 0 when there is no weight
    int32_t weight_max = 0;
    float fp_threshold = 0.0f;
    uint8_t pca_filter_ready = 0;
    std::array<MatrixShape, 4> filter{};  // mean, eigenvectors, reduce_mean, reduce_inv_covar

    uint64_t content_length = 0;  // bytes before the trailer, as parsed
    uint64_t stored_length = 0;   // L from the trailer
    uint32_t stored_crc = 0;
    uint32_t computed_crc = 0;  // CRC-32 of the first content_length bytes
    uint64_t file_size = 0;

    bool crc_matches() const { return stored_crc == computed_crc; }
    bool length_matches() const { return stored_length == content_length; }
    uint64_t bytes_after_trailer() const { return file_size - (content_length + 12); }
    // Values outside what the library accepts when it loads a model, and
    // faults it lets pass although the model cannot be used: filter
    // matrices that do not fit each other or the weights, a trailer whose
    // length field is wrong, bytes after the trailer.
    std::vector<std::string> problems;
};

// Names of the four filter matrices, in file order.
const char *filter_matrix_name(size_t index);

// Parses the bytes of a model file. Throws an input error (naming source)
// when the bytes do not follow the layout: a negative count, or a file that
// ends before its records and trailer do.
ModelInfo parse_model(const std::vector<uint8_t> &bytes, const std::string &source);
// The same for a file, read block by block: every count is checked against
// the file's length before anything is read or allocated, so a huge or
// sparse file costs what its records claim, not its size. Refuses a folder,
// a device or a FIFO unread (input error).
ModelInfo read_model_info(const std::string &path);

// The filter problems above: the matrices must be mean 1 x D, eigenvectors
// K x D, reduce_mean 1 x K and reduce_inv_covar K x K, with D the number of
// weights. Adds them to info.problems.
void add_consistency_problems(ModelInfo &info);

// CRC-32 as in the trailer (zlib's crc32).
uint32_t model_crc32(const uint8_t *data, size_t size);

// Human-readable listing, one "name: value" per line.
std::string describe_model(const ModelInfo &info);

}  // namespace ostrel_tool
