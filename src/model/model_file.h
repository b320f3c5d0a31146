// The model file: little-endian, no magic.
//
//   offset    size  field
//   0         4*8   class_idx, trained_width, trained_height, input_width,
//                   input_height, trained_acf_scale_idx, support_vector_size n,
//                   bias (int32 each)
//   32        4*n   the weights (int32)
//   32+4n     4     fp_threshold (float32)
//   36+4n     1     pca_filter_ready; when not 0, four float matrices follow:
//                   mean, eigenvectors, reduce_mean, reduce_inv_covar, each as
//                   rows (int32), cols (int32), rows*cols float32 row-major
//   L         8     L, the number of bytes before this trailer (uint64)
//   L+8       4     CRC-32 of bytes 0..L-1 (uint32)
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>

#include "fpfilter/pca_fp_filter.h"
#include "train/svm_model.h"

namespace ostrel {

inline constexpr uint64_t kModelTrailerSize = 12;

// Writes bytes 0 .. 32+4n of the file. Returns 1 on a write failure.
int32_t write_svm_block(std::ostream &out, const svm_model &model);

// Writes fp_threshold, the ready byte and, when ready, the four matrices.
// Returns 1 on a write failure.
int32_t write_filter_block(std::ostream &out, const pca_fp_filter &filter);

// Reads the SVM block into `model` (replacing its weight buffer). A negative
// weight count, or one that cannot fit in the bytes left in the stream, is a
// read failure (1) that allocates nothing and leaves the record without
// weights; a short header leaves in each field what the stream gave.
int32_t read_svm_block(std::istream &in, svm_model &model);

// Reads fp_threshold, the ready byte and, when it is not 0, the four
// matrices into `filter`, each stored as soon as it is complete. Negative
// counts, a matrix whose size cannot fit in the bytes left, or a stream that
// ends inside the counts are a read failure (1).
int32_t read_filter_block(std::istream &in, pca_fp_filter &filter);

// Appends the trailer: L as uint64, then the CRC-32. Returns 1 on a write
// failure.
int32_t write_trailer(std::ostream &out, uint64_t length, uint32_t crc);

// Reads the trailer; bytes the stream does not hold read as 0.
void read_trailer(std::istream &in, uint64_t *length, uint32_t *crc);

// CRC-32 (zlib's crc32) of the file's first `limit` bytes, read one byte at a
// time; the first byte is taken in even with limit 0. Logs and returns 0 when
// the file cannot be opened.
uint32_t getFileCRC(const std::string &path, uint64_t limit);

}  // namespace ostrel
