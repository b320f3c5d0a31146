// The model file's blocks and its CRC.
//
// Every number is written and read byte by byte in little-endian order, so
// the file does not depend on the host's byte order or record layout. The
// readers treat the file as hostile: no count read from it is trusted with
// an allocation before the bytes it announces have actually arrived.
#include "model/model_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include <zlib.h>

#include "common/log.h"
#include "common/failure.h"
#include "common/log_lines.h"

namespace ostrel {

namespace {

constexpr const char *kGetFileCrcFailFormat = "[getFileCRC fail, %s] input path empty (%s line:%d)\n";
constexpr const char *kGetFileCrcName = "ostrel_alg::getFileCRC";
constexpr int kGetFileCrcLine = 2982;

// Bytes asked of the stream at a time while a block's payload arrives, so
// that a count announcing more than the file holds costs at most this much.
constexpr size_t kReadChunkBytes = 64 * 1024;

using byte_buffer = std::vector<unsigned char>;

void put_u32(byte_buffer &out, uint32_t value) {
    out.push_back(static_cast<unsigned char>(value & 0xffu));
    out.push_back(static_cast<unsigned char>((value >> 8) & 0xffu));
    out.push_back(static_cast<unsigned char>((value >> 16) & 0xffu));
    out.push_back(static_cast<unsigned char>((value >> 24) & 0xffu));
}

void put_i32(byte_buffer &out, int32_t value) { put_u32(out, static_cast<uint32_t>(value)); }

void put_f32(byte_buffer &out, float value) {
    uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    put_u32(out, bits);
}

uint32_t get_u32(const unsigned char *bytes) {
    return static_cast<uint32_t>(bytes[0]) | (static_cast<uint32_t>(bytes[1]) << 8) |
           (static_cast<uint32_t>(bytes[2]) << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
}

int32_t get_i32(const unsigned char *bytes) {
    // Two's complement without relying on an implementation-defined cast.
    const uint32_t raw = get_u32(bytes);
    return raw <= 0x7fffffffu ? static_cast<int32_t>(raw)
                              : static_cast<int32_t>(static_cast<int64_t>(raw) - 0x100000000LL);
}

float get_f32(const unsigned char *bytes) {
    const uint32_t bits = get_u32(bytes);
    float value = 0.0f;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

bool write_buffer(std::ostream &out, const byte_buffer &bytes) {
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

// Reads one int32 field in place. Bytes the stream does not deliver keep
// the field's old value, the way a short read into the field itself does.
void read_i32_in_place(std::istream &in, int32_t &field) {
    unsigned char bytes[4];
    const uint32_t old = static_cast<uint32_t>(field);
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<unsigned char>((old >> (8 * i)) & 0xffu);
    }
    in.read(reinterpret_cast<char *>(bytes), 4);
    field = get_i32(bytes);
}

void read_f32_in_place(std::istream &in, float &field) {
    unsigned char bytes[4];
    uint32_t old = 0;
    std::memcpy(&old, &field, sizeof old);
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<unsigned char>((old >> (8 * i)) & 0xffu);
    }
    in.read(reinterpret_cast<char *>(bytes), 4);
    field = get_f32(bytes);
}

void read_u8_in_place(std::istream &in, uint8_t &field) {
    char byte = static_cast<char>(field);
    in.read(&byte, 1);
    field = static_cast<uint8_t>(byte);
}

// Reads exactly `count` bytes into `out`, growing it only as the bytes
// arrive. False when the stream ends first.
bool read_exactly(std::istream &in, uint64_t count, byte_buffer &out) {
    out.clear();
    if (count > static_cast<uint64_t>(std::numeric_limits<std::streamsize>::max())) {
        return false;
    }
    uint64_t got = 0;
    while (got < count) {
        const size_t chunk = static_cast<size_t>(std::min<uint64_t>(count - got, kReadChunkBytes));
        out.resize(static_cast<size_t>(got) + chunk);
        in.read(reinterpret_cast<char *>(out.data() + got), static_cast<std::streamsize>(chunk));
        const std::streamsize delivered = in.gcount();
        got += static_cast<uint64_t>(delivered);
        if (static_cast<size_t>(delivered) != chunk) {
            out.resize(static_cast<size_t>(got));
            return false;
        }
    }
    return true;
}

// A float matrix as rows, cols and its elements row by row.
bool put_matrix(byte_buffer &out, const cv::Mat &matrix) {
    if (matrix.dims > 2) {
        return false;
    }
    cv::Mat values;
    if (matrix.empty()) {
        values = matrix;
    } else if (matrix.depth() == CV_32F) {
        values = matrix;
    } else {
        matrix.convertTo(values, CV_32F);
    }
    const int cols = values.cols * values.channels();
    put_i32(out, values.rows);
    put_i32(out, cols);
    if (values.rows == 0 || cols == 0) {
        return true;  // the two counts and no elements
    }
    out.reserve(out.size() + static_cast<size_t>(values.rows) * static_cast<size_t>(cols) * 4);
    for (int r = 0; r < values.rows; ++r) {
        const float *row = values.ptr<float>(r);
        for (int c = 0; c < cols; ++c) {
            put_f32(out, row[c]);
        }
    }
    return true;
}

// Reads rows, cols and rows * cols floats. Refuses (false) negative counts
// and counts whose elements the stream does not hold, before the matrix is
// made.
bool read_matrix(std::istream &in, cv::Mat &matrix) {
    int32_t rows = 0;
    int32_t cols = 0;
    read_i32_in_place(in, rows);
    read_i32_in_place(in, cols);
    if (!in || rows < 0 || cols < 0) {
        return false;
    }
    const uint64_t elements = static_cast<uint64_t>(rows) * static_cast<uint64_t>(cols);
    byte_buffer bytes;
    if (elements > std::numeric_limits<uint64_t>::max() / 4 || !read_exactly(in, elements * 4, bytes)) {
        return false;
    }
    cv::Mat read(rows, cols, CV_32F);
    if (elements == 0) {
        matrix = read;  // rows or cols 0: only the counts were stored
        return true;
    }
    size_t offset = 0;
    for (int r = 0; r < rows; ++r) {
        float *row = read.ptr<float>(r);
        for (int c = 0; c < cols; ++c, offset += 4) {
            row[c] = get_f32(bytes.data() + offset);
        }
    }
    matrix = read;
    return true;
}

}  // namespace

int32_t write_svm_block(std::ostream &out, const svm_model &model) {
    const int32_t count = std::max<int32_t>(model.support_vector_size, 0);
    if (count > 0 && !model.vector) {
        return 1;
    }
    byte_buffer bytes;
    bytes.reserve(32 + static_cast<size_t>(count) * 4);
    put_i32(bytes, model.class_idx);
    put_i32(bytes, model.trained_width);
    put_i32(bytes, model.trained_height);
    put_i32(bytes, model.input_width);
    put_i32(bytes, model.input_height);
    put_i32(bytes, model.trained_acf_scale_idx);
    put_i32(bytes, model.support_vector_size);
    put_i32(bytes, model.bias);
    for (int32_t i = 0; i < count; ++i) {
        put_i32(bytes, model.vector[i]);
    }
    return write_buffer(out, bytes) ? 0 : 1;
}

int32_t write_filter_block(std::ostream &out, const pca_fp_filter &filter) {
    byte_buffer bytes;
    put_f32(bytes, filter.fp_threshold);
    bytes.push_back(filter.pca_filter_ready);
    if (filter.pca_filter_ready != 0) {
        for (const cv::Mat *matrix :
             {&filter.mean, &filter.eigenvectors, &filter.reduce_mean, &filter.reduce_inv_covar}) {
            if (!put_matrix(bytes, *matrix)) {
                return 1;
            }
        }
    }
    return write_buffer(out, bytes) ? 0 : 1;
}

int32_t read_svm_block(std::istream &in, svm_model &model) {
    read_i32_in_place(in, model.class_idx);
    read_i32_in_place(in, model.trained_width);
    read_i32_in_place(in, model.trained_height);
    read_i32_in_place(in, model.input_width);
    read_i32_in_place(in, model.input_height);
    read_i32_in_place(in, model.trained_acf_scale_idx);
    read_i32_in_place(in, model.support_vector_size);
    read_i32_in_place(in, model.bias);

    // The old weights go first: whatever follows, the record never pairs a
    // new count with a buffer of another length.
    model.vector.reset();
    const int32_t count = model.support_vector_size;
    if (count < 0) {
        return 1;
    }
    byte_buffer bytes;
    if (!read_exactly(in, static_cast<uint64_t>(count) * 4, bytes)) {
        return 1;
    }
    auto weights = std::make_unique<int32_t[]>(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
        weights[i] = get_i32(bytes.data() + static_cast<size_t>(i) * 4);
    }
    model.vector = std::move(weights);
    return 0;
}

int32_t read_filter_block(std::istream &in, pca_fp_filter &filter) {
    read_f32_in_place(in, filter.fp_threshold);
    read_u8_in_place(in, filter.pca_filter_ready);
    if (filter.pca_filter_ready == 0) {
        return 0;
    }
    try {
        for (cv::Mat *matrix : {&filter.mean, &filter.eigenvectors, &filter.reduce_mean, &filter.reduce_inv_covar}) {
            if (!read_matrix(in, *matrix)) {
                return 1;
            }
        }
    } catch (const cv::Exception &) {
        return 1;  // a size OpenCV cannot make is a corrupt file
    }
    return 0;
}

int32_t write_trailer(std::ostream &out, uint64_t length, uint32_t crc) {
    byte_buffer bytes;
    put_u32(bytes, static_cast<uint32_t>(length & 0xffffffffu));
    put_u32(bytes, static_cast<uint32_t>(length >> 32));
    put_u32(bytes, crc);
    return write_buffer(out, bytes) ? 0 : 1;
}

void read_trailer(std::istream &in, uint64_t *length, uint32_t *crc) {
    unsigned char bytes[kModelTrailerSize] = {};
    in.read(reinterpret_cast<char *>(bytes), sizeof bytes);
    *length = static_cast<uint64_t>(get_u32(bytes)) | (static_cast<uint64_t>(get_u32(bytes + 4)) << 32);
    *crc = get_u32(bytes + 8);
}

uint32_t getFileCRC(const std::string &path, uint64_t limit) {
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        log_failure(kGetFileCrcFailFormat, kGetFileCrcName, kEngineSource, kGetFileCrcLine);
        return 0;
    }
    // One byte per read call; the bytes are folded in batches, which gives
    // the same CRC. The limit is compared only after a read, so a limit of 0
    // still takes in the first byte.
    uLong crc = crc32(0L, Z_NULL, 0);
    unsigned char batch[4096];
    size_t pending = 0;
    uint64_t count = 0;
    for (;;) {
        const int byte = std::getc(file);
        if (byte == EOF) {
            break;
        }
        batch[pending++] = static_cast<unsigned char>(byte);
        if (pending == sizeof batch) {
            crc = crc32(crc, batch, static_cast<uInt>(pending));
            pending = 0;
        }
        ++count;
        if (count >= limit) {
            break;
        }
    }
    crc = crc32(crc, batch, static_cast<uInt>(pending));
    std::fclose(file);
    return static_cast<uint32_t>(crc);
}

}  // namespace ostrel
