// The model file's blocks byte by byte, the readers against short and
// hostile input, and the CRC over a file's first bytes.
#include "model/model_file.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "support/stdout_capture.h"

using ostrel::pca_fp_filter;
using ostrel::svm_model;
using ostrel_test::capture_stdout;

namespace {

using bytes = std::vector<unsigned char>;

bytes le32(uint32_t v) {
    return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v >> 16),
            static_cast<unsigned char>(v >> 24)};
}

bytes lef(float f) {
    uint32_t bits;
    std::memcpy(&bits, &f, 4);
    return le32(bits);
}

void append(bytes &out, const bytes &more) { out.insert(out.end(), more.begin(), more.end()); }

bytes to_bytes(const std::string &s) { return bytes(s.begin(), s.end()); }

std::string to_string(const bytes &b) { return std::string(b.begin(), b.end()); }

svm_model small_model() {
    svm_model m;
    m.class_idx = 0;
    m.trained_width = 40;
    m.trained_height = 24;
    m.input_width = 640;
    m.input_height = 480;
    m.trained_acf_scale_idx = 3;
    m.support_vector_size = 3;
    m.bias = -70000;
    m.vector = std::make_unique<int32_t[]>(3);
    m.vector[0] = 1;
    m.vector[1] = -2;
    m.vector[2] = 0x12345678;
    return m;
}

// A header with the given weight count, followed by `weights` bytes of data.
std::string svm_block_bytes(int32_t count, size_t weight_bytes) {
    bytes b;
    for (int32_t v : {0, 40, 24, 640, 480, 0, count, 5}) {
        append(b, le32(static_cast<uint32_t>(v)));
    }
    b.resize(b.size() + weight_bytes, 0x01);
    return to_string(b);
}

class TempFile {
public:
    explicit TempFile(const std::string &name) : path_(testing::TempDir() + name) {}
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string &path() const { return path_; }
    void write(const bytes &content) const {
        std::ofstream out(path_, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
    }

private:
    std::string path_;
};

}  // namespace

// The SVM block: eight little-endian int32 values, then the weights.
TEST(ModelFileWrite, SvmBlockLayout) {
    std::ostringstream out;
    ASSERT_EQ(ostrel::write_svm_block(out, small_model()), 0);
    bytes expected;
    for (uint32_t v : {0u, 40u, 24u, 640u, 480u, 3u, 3u, static_cast<uint32_t>(-70000)}) {
        append(expected, le32(v));
    }
    append(expected, le32(1));
    append(expected, le32(static_cast<uint32_t>(-2)));
    append(expected, {0x78, 0x56, 0x34, 0x12});
    EXPECT_EQ(to_bytes(out.str()), expected);
    EXPECT_EQ(out.str().size(), 32u + 4u * 3u);
}

// The filter block without a filter: the threshold and a 0 byte.
TEST(ModelFileWrite, FilterBlockWithoutFilter) {
    pca_fp_filter f;
    f.fp_threshold = 6.5f;
    f.mean = cv::Mat::ones(1, 4, CV_32F);  // not written: the flag is clear
    std::ostringstream out;
    ASSERT_EQ(ostrel::write_filter_block(out, f), 0);
    bytes expected = lef(6.5f);
    expected.push_back(0);
    EXPECT_EQ(to_bytes(out.str()), expected);
}

// With the flag set: four matrices as rows, cols and row-major floats; an
// empty matrix is its two counts only.
TEST(ModelFileWrite, FilterBlockWithMatrices) {
    pca_fp_filter f;
    f.fp_threshold = 4.0f;
    f.pca_filter_ready = 1;
    f.mean = (cv::Mat_<float>(1, 3) << 1.0f, -2.0f, 0.5f);
    f.eigenvectors = (cv::Mat_<float>(2, 3) << 1, 2, 3, 4, 5, 6);
    f.reduce_mean = cv::Mat(1, 0, CV_32F);
    f.reduce_inv_covar = (cv::Mat_<float>(1, 1) << 0.125f);
    std::ostringstream out;
    ASSERT_EQ(ostrel::write_filter_block(out, f), 0);

    bytes expected = lef(4.0f);
    expected.push_back(1);
    append(expected, le32(1));
    append(expected, le32(3));
    for (float v : {1.0f, -2.0f, 0.5f}) append(expected, lef(v));
    append(expected, le32(2));
    append(expected, le32(3));
    for (float v : {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f}) append(expected, lef(v));
    append(expected, le32(1));
    append(expected, le32(0));
    append(expected, le32(1));
    append(expected, le32(1));
    append(expected, lef(0.125f));
    EXPECT_EQ(to_bytes(out.str()), expected);
}

// A stream that refuses to be written reports the failure.
TEST(ModelFileWrite, WriteFailureIsReported) {
    std::ostringstream out;
    out.setstate(std::ios::badbit);
    EXPECT_EQ(ostrel::write_svm_block(out, small_model()), 1);
    EXPECT_EQ(ostrel::write_filter_block(out, pca_fp_filter{}), 1);
}

// What the writers write, the readers read back, bit for bit.
TEST(ModelFileRead, RoundTrip) {
    pca_fp_filter f;
    f.fp_threshold = 8.5f;
    f.pca_filter_ready = 1;
    f.mean = (cv::Mat_<float>(1, 3) << 1.0f, -2.0f, 0.5f);
    f.eigenvectors = (cv::Mat_<float>(2, 3) << 1, 2, 3, 4, 5, 6e-30f);
    f.reduce_mean = (cv::Mat_<float>(1, 2) << -0.0f, 7.0f);
    f.reduce_inv_covar = (cv::Mat_<float>(2, 2) << 0.125f, 1, 2, 3);
    std::stringstream io;
    ASSERT_EQ(ostrel::write_svm_block(io, small_model()), 0);
    ASSERT_EQ(ostrel::write_filter_block(io, f), 0);

    svm_model m;
    pca_fp_filter g;
    ASSERT_EQ(ostrel::read_svm_block(io, m), 0);
    ASSERT_EQ(ostrel::read_filter_block(io, g), 0);
    EXPECT_EQ(m.trained_width, 40);
    EXPECT_EQ(m.trained_acf_scale_idx, 3);
    EXPECT_EQ(m.bias, -70000);
    ASSERT_EQ(m.support_vector_size, 3);
    EXPECT_EQ(m.vector[1], -2);
    EXPECT_EQ(m.vector[2], 0x12345678);
    EXPECT_EQ(g.fp_threshold, 8.5f);
    EXPECT_EQ(g.pca_filter_ready, 1);
    for (const auto &pair :
         {std::make_pair(&f.mean, &g.mean), std::make_pair(&f.eigenvectors, &g.eigenvectors),
          std::make_pair(&f.reduce_mean, &g.reduce_mean), std::make_pair(&f.reduce_inv_covar, &g.reduce_inv_covar)}) {
        ASSERT_EQ(pair.second->type(), CV_32F);
        ASSERT_EQ(pair.first->size(), pair.second->size());
        EXPECT_EQ(std::memcmp(pair.first->data, pair.second->data, pair.first->total() * 4), 0);
    }
    EXPECT_EQ(io.tellg(), io.tellp());
}

// The ready byte 0 ends the block: nothing more is read.
TEST(ModelFileRead, ReadyZeroStopsTheFilterBlock) {
    bytes b = lef(5.5f);
    b.push_back(0);
    append(b, le32(1));  // what follows belongs to the trailer
    std::istringstream in(to_string(b));
    pca_fp_filter f;
    f.mean = cv::Mat::ones(1, 2, CV_32F);
    ASSERT_EQ(ostrel::read_filter_block(in, f), 0);
    EXPECT_EQ(f.fp_threshold, 5.5f);
    EXPECT_EQ(f.pca_filter_ready, 0);
    EXPECT_EQ(in.tellg(), 5);
    EXPECT_EQ(f.mean.cols, 2);  // untouched
}

// A short header leaves what the stream delivered: the bytes that came
// replace the field's low bytes, the rest of the record keeps its values.
TEST(ModelFileRead, ShortHeaderKeepsWhatArrived) {
    svm_model m = small_model();
    std::istringstream in(std::string("\x07\x00\x00\x00\xff\xff", 6));
    // The old count of 3 weights cannot come from an exhausted stream.
    EXPECT_EQ(ostrel::read_svm_block(in, m), 1);
    EXPECT_EQ(m.class_idx, 7);
    EXPECT_EQ(m.trained_width, static_cast<int32_t>(0x0000ffff));  // 40 = 0x28: two low bytes replaced
    EXPECT_EQ(m.trained_height, 24);
    EXPECT_EQ(m.support_vector_size, 3);
    EXPECT_FALSE(m.trained());
    // Three weights announced, none present: refused, and the old weights
    // are gone rather than left beside the announced count.
    m = small_model();
    std::istringstream empty_weights(svm_block_bytes(3, 0));
    EXPECT_EQ(ostrel::read_svm_block(empty_weights, m), 1);
    EXPECT_FALSE(m.trained());
}

// Hostile weight counts fail cleanly before anything that size is made.
TEST(ModelFileRead, HostileWeightCounts) {
    for (int32_t count : {0x7fffffff, -1, -2147483647 - 1, 1000}) {
        svm_model m = small_model();
        std::istringstream in(svm_block_bytes(count, 400));
        EXPECT_EQ(ostrel::read_svm_block(in, m), 1) << count;
        EXPECT_EQ(m.support_vector_size, count);
        EXPECT_FALSE(m.trained()) << count;
    }
    // Exactly as many bytes as announced is fine, and so is 0 weights.
    svm_model m;
    std::istringstream exact(svm_block_bytes(100, 400));
    EXPECT_EQ(ostrel::read_svm_block(exact, m), 0);
    EXPECT_EQ(m.vector[99], 0x01010101);
    std::istringstream none(svm_block_bytes(0, 0));
    EXPECT_EQ(ostrel::read_svm_block(none, m), 0);
    EXPECT_TRUE(m.trained());
    EXPECT_EQ(m.support_vector_size, 0);
}

// Hostile matrix sizes: negative counts, a rows x cols product beyond any
// stream, or more elements than the bytes left, all fail.
TEST(ModelFileRead, HostileMatrixSizes) {
    const struct {
        int32_t rows;
        int32_t cols;
    } cases[] = {{-1, 3}, {3, -1}, {0x40000000, 0x40000000}, {0x7fffffff, 0x7fffffff}, {1, 1000}, {65536, 65536}};
    for (const auto &c : cases) {
        bytes b = lef(5.0f);
        b.push_back(1);
        append(b, le32(static_cast<uint32_t>(c.rows)));
        append(b, le32(static_cast<uint32_t>(c.cols)));
        b.resize(b.size() + 64, 0);
        std::istringstream in(to_string(b));
        pca_fp_filter f;
        EXPECT_EQ(ostrel::read_filter_block(in, f), 1) << c.rows << " x " << c.cols;
        EXPECT_TRUE(f.mean.empty());
    }
}

// A matrix with rows but no columns is only its counts: it reads as empty.
TEST(ModelFileRead, MatrixWithoutColumnsIsEmpty) {
    bytes b = lef(5.0f);
    b.push_back(1);
    for (int i = 0; i < 4; ++i) {
        append(b, le32(0x7fffffff));
        append(b, le32(0));
    }
    std::istringstream in(to_string(b));
    pca_fp_filter f;
    EXPECT_EQ(ostrel::read_filter_block(in, f), 0);
    EXPECT_EQ(f.mean.total(), 0u);
    EXPECT_EQ(f.reduce_inv_covar.total(), 0u);
}

// A stream that ends inside the matrices is a read failure.
TEST(ModelFileRead, TruncatedMatricesFail) {
    bytes b = lef(5.0f);
    b.push_back(1);
    append(b, le32(1));
    append(b, le32(2));
    append(b, lef(1.0f));
    append(b, lef(2.0f));
    append(b, le32(1));  // eigenvectors: rows only
    std::istringstream in(to_string(b));
    pca_fp_filter f;
    EXPECT_EQ(ostrel::read_filter_block(in, f), 1);
    EXPECT_EQ(f.mean.cols, 2);  // read before the failure
}

// The CRC is zlib's crc32 of the first `limit` bytes.
TEST(FileCrc, MatchesZlibOverTheLimit) {
    TempFile file("crc_limit.bin");
    bytes content(5000);
    for (size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<unsigned char>(i * 31 + 7);
    }
    file.write(content);
    for (uint64_t limit : {1u, 2u, 4095u, 4096u, 4097u, 4999u, 5000u}) {
        const uint32_t expected = static_cast<uint32_t>(crc32(0L, content.data(), static_cast<uInt>(limit)));
        EXPECT_EQ(ostrel::getFileCRC(file.path(), limit), expected) << limit;
    }
    // A limit beyond the end covers the whole file.
    const uint32_t whole = static_cast<uint32_t>(crc32(0L, content.data(), static_cast<uInt>(content.size())));
    EXPECT_EQ(ostrel::getFileCRC(file.path(), 1u << 20), whole);
    EXPECT_EQ(ostrel::getFileCRC(file.path(), ~uint64_t{0}), whole);
}

// The limit is compared after a read: limit 0 still takes the first byte.
TEST(FileCrc, LimitZeroTakesTheFirstByte) {
    TempFile file("crc_zero.bin");
    file.write({0xab, 0xcd});
    const unsigned char first = 0xab;
    EXPECT_EQ(ostrel::getFileCRC(file.path(), 0), static_cast<uint32_t>(crc32(0L, &first, 1)));
}

// The standard reflected CRC-32: "123456789" gives 0xCBF43926.
TEST(FileCrc, StandardCheckValue) {
    TempFile file("crc_check.bin");
    file.write(to_bytes("123456789"));
    EXPECT_EQ(ostrel::getFileCRC(file.path(), 9), 0xCBF43926u);
}

// An empty file has CRC 0.
TEST(FileCrc, EmptyFileIsZero) {
    TempFile file("crc_empty.bin");
    file.write({});
    EXPECT_EQ(ostrel::getFileCRC(file.path(), 10), 0u);
}

// A file that cannot be opened: the fail line, and 0.
TEST(FileCrc, MissingFileLogsAndGivesZero) {
    uint32_t crc = 1;
    const std::string out =
        capture_stdout([&] { crc = ostrel::getFileCRC(testing::TempDir() + "no_such_dir/none.bin", 10); });
    EXPECT_EQ(crc, 0u);
    EXPECT_EQ(out, "[getFileCRC fail, ostrel_alg::getFileCRC] input path empty (ostrel_alg line:2982)\n");
}
