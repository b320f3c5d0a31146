// Model files through the engine: export, import and validation, with the
// exact lines, the trailer, and what the engine holds afterwards. Files are
// parsed here by offset, independently of the library's readers.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "engine/ostrel_alg.h"
#include "support/stdout_capture.h"

using ostrel_test::capture_stdout;

namespace {

using bytes = std::vector<unsigned char>;

constexpr int kWeights = 300;

// --- files ------------------------------------------------------------------

bytes read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string &path, const bytes &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
}

bool file_exists(const std::string &path) { return std::ifstream(path, std::ios::binary).is_open(); }

uint32_t u32_at(const bytes &b, size_t offset) {
    return static_cast<uint32_t>(b[offset]) | static_cast<uint32_t>(b[offset + 1]) << 8 |
           static_cast<uint32_t>(b[offset + 2]) << 16 | static_cast<uint32_t>(b[offset + 3]) << 24;
}

int32_t i32_at(const bytes &b, size_t offset) {
    const uint32_t u = u32_at(b, offset);
    int32_t v;
    std::memcpy(&v, &u, 4);
    return v;
}

float f32_at(const bytes &b, size_t offset) {
    const uint32_t u = u32_at(b, offset);
    float v;
    std::memcpy(&v, &u, 4);
    return v;
}

uint64_t u64_at(const bytes &b, size_t offset) {
    return static_cast<uint64_t>(u32_at(b, offset)) | static_cast<uint64_t>(u32_at(b, offset + 4)) << 32;
}

void put_u32(bytes &b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

void put_f32(bytes &b, float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    put_u32(b, u);
}

void set_u32(bytes &b, size_t offset, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[offset + static_cast<size_t>(i)] = static_cast<unsigned char>(v >> (8 * i));
}

uint32_t zlib_crc(const bytes &b, size_t length) {
    return static_cast<uint32_t>(crc32(0L, b.data(), static_cast<uInt>(length)));
}

// Appends the trailer: the content's length as uint64 and its CRC-32.
void add_trailer(bytes &content) {
    const uint64_t length = content.size();
    const uint32_t crc = zlib_crc(content, content.size());
    put_u32(content, static_cast<uint32_t>(length));
    put_u32(content, static_cast<uint32_t>(length >> 32));
    put_u32(content, crc);
}

// A model file's fields, read by offset.
struct parsed_model {
    int32_t header[8] = {};
    std::vector<int32_t> weights;
    float threshold = 0.0f;
    uint8_t ready = 0;
    std::vector<cv::Mat> matrices;
    size_t content_length = 0;  // bytes before the trailer
};

parsed_model parse(const bytes &b) {
    parsed_model m;
    for (int i = 0; i < 8; ++i) m.header[i] = i32_at(b, static_cast<size_t>(4 * i));
    const size_t n = static_cast<size_t>(m.header[6]);
    for (size_t i = 0; i < n; ++i) m.weights.push_back(i32_at(b, 32 + 4 * i));
    size_t at = 32 + 4 * n;
    m.threshold = f32_at(b, at);
    m.ready = b[at + 4];
    at += 5;
    if (m.ready != 0) {
        for (int k = 0; k < 4; ++k) {
            const int rows = i32_at(b, at);
            const int cols = i32_at(b, at + 4);
            at += 8;
            cv::Mat mat(rows, cols, CV_32F);
            for (int r = 0; r < rows; ++r)
                for (int c = 0; c < cols; ++c, at += 4) mat.at<float>(r, c) = f32_at(b, at);
            m.matrices.push_back(mat);
        }
    }
    m.content_length = at;
    return m;
}

// Byte positions to change in a content of `length` bytes: every byte of the
// header, of the threshold and flag and of the last bytes, and every
// eleventh byte in between (each changed byte costs a file round trip).
std::vector<size_t> positions_to_change(size_t length, size_t flag_at) {
    std::vector<size_t> out;
    for (size_t at = 0; at < length; ++at) {
        const bool near_flag = at + 8 >= flag_at && at <= flag_at + 16;
        if (at < 40 || near_flag || at + 20 >= length || at % 11 == 0) {
            out.push_back(at);
        }
    }
    return out;
}

bool same_floats(const cv::Mat &a, const cv::Mat &b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

// --- engines ----------------------------------------------------------------

// A hand-made trained engine: 300 weights and, optionally, a ready filter
// over the same 300 features whose distance is the length of the first
// three coordinates. Its positive samples lie at distances 2 and 6.2, so
// the exported threshold is 6.5.
std::unique_ptr<ostrel_alg> trained_engine(bool with_filter) {
    auto engine = std::make_unique<ostrel_alg>();
    EXPECT_EQ(engine->init(), 0);
    ostrel::svm_model &m = engine->svm_model;
    m.class_idx = 0;
    m.trained_width = 40;
    m.trained_height = 32;
    m.input_width = 640;
    m.input_height = 480;
    m.trained_acf_scale_idx = 2;
    m.support_vector_size = kWeights;
    m.bias = -12345;
    m.vector = std::make_unique<int32_t[]>(kWeights);
    for (int i = 0; i < kWeights; ++i) m.vector[i] = i * 37 - 5000;

    if (with_filter) {
        ostrel::pca_fp_filter &f = engine->pca_filter;
        f.mean = cv::Mat::zeros(1, kWeights, CV_32F);
        f.eigenvectors = cv::Mat::zeros(3, kWeights, CV_32F);
        for (int k = 0; k < 3; ++k) f.eigenvectors.at<float>(k, k) = 1.0f;
        f.reduce_mean = cv::Mat::zeros(1, 3, CV_32F);
        f.reduce_inv_covar = cv::Mat::eye(3, 3, CV_32F);
        f.pca_filter_ready = 1;
        for (float distance : {2.0f, 6.2f}) {
            ostrel::training_sample s;
            s.features.assign(kWeights, 0.25f);
            s.features[0] = distance;
            s.features[1] = 0.0f;
            s.features[2] = 0.0f;
            s.label = 1;
            engine->training_samples.push_back(s);
        }
        ostrel::training_sample negative;
        negative.features.assign(kWeights, 0.0f);
        negative.features[0] = 1.0f;
        negative.label = -1;
        engine->training_samples.push_back(negative);
    }
    return engine;
}

std::unique_ptr<ostrel_alg> fresh_engine() {
    auto engine = std::make_unique<ostrel_alg>();
    EXPECT_EQ(engine->init(), 0);
    return engine;
}

std::string engine_line(const char *prefix, const char *operation, int line) {
    return std::string(prefix) + " ostrel_alg::" + operation + " (ostrel_alg line:" + std::to_string(line) + ")\n";
}

std::string crc_report(uint64_t stored_length, uint64_t total, uint32_t stored_crc, uint32_t computed) {
    return "[file size without CRC] read : " + std::to_string(stored_length) + ", calc : " + std::to_string(total) +
           "\n[CRC values ERROR] read : " + std::to_string(stored_crc) + ", calc : " + std::to_string(computed) + "\n";
}

class ModelIo : public testing::Test {
protected:
    std::string path(const std::string &name) {
        const std::string p = testing::TempDir() + "model_io_" + name;
        created_.push_back(p);
        return p;
    }
    void TearDown() override {
        for (const std::string &p : created_) std::remove(p.c_str());
    }

    // Exports `engine` to a fresh file and returns its bytes.
    bytes exported(ostrel_alg &engine, const std::string &name) {
        const std::string p = path(name);
        int32_t status = 1;
        capture_stdout([&] { status = engine.exportModel(p); });
        EXPECT_EQ(status, 0);
        return read_file(p);
    }

private:
    std::vector<std::string> created_;
};

}  // namespace

// --- export -----------------------------------------------------------------

// Export before any training: 1, no line, and no file.
TEST_F(ModelIo, ExportBeforeTrainingCreatesNoFile) {
    auto engine = fresh_engine();
    const std::string p = path("untrained.bin");
    int32_t status = 0;
    EXPECT_EQ(capture_stdout([&] { status = engine->exportModel(p); }), "");
    EXPECT_EQ(status, 1);
    EXPECT_FALSE(file_exists(p));

    auto trained = trained_engine(false);
    EXPECT_EQ(capture_stdout([&] { status = trained->exportModel(""); }), "");
    EXPECT_EQ(status, 1);
}

// Without a filter: 37 + 4n bytes, then the trailer with L = 37 + 4n and the
// CRC-32 of those bytes. The threshold selection only logs that there is no
// filter, and the threshold stays 15.
TEST_F(ModelIo, ExportWithoutFilterLayout) {
    auto engine = trained_engine(false);
    const std::string p = path("nofilter.bin");
    int32_t status = 1;
    const std::string out = capture_stdout([&] { status = engine->exportModel(p); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "PCA is not valid in getBestFPThreshold \n");

    const bytes b = read_file(p);
    const size_t content = 37 + 4 * kWeights;
    ASSERT_EQ(b.size(), content + 12);
    const parsed_model m = parse(b);
    const int32_t expected_header[8] = {0, 40, 32, 640, 480, 2, kWeights, -12345};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(m.header[i], expected_header[i]) << i;
    for (int i = 0; i < kWeights; ++i) ASSERT_EQ(m.weights[static_cast<size_t>(i)], i * 37 - 5000) << i;
    EXPECT_EQ(m.threshold, 15.0f);
    EXPECT_EQ(m.ready, 0);
    EXPECT_EQ(m.content_length, content);
    EXPECT_EQ(u64_at(b, content), content);
    EXPECT_EQ(u32_at(b, content + 8), zlib_crc(b, content));
}

// With a filter: the threshold chosen from the samples (6.5) is written and
// kept in the engine, and the four matrices follow in order.
TEST_F(ModelIo, ExportWithFilterLayout) {
    auto engine = trained_engine(true);
    const std::string p = path("filter.bin");
    int32_t status = 1;
    EXPECT_EQ(capture_stdout([&] { status = engine->exportModel(p); }), "");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(engine->pca_filter.fp_threshold, 6.5f);

    const bytes b = read_file(p);
    const parsed_model m = parse(b);
    EXPECT_EQ(m.threshold, 6.5f);
    EXPECT_EQ(m.ready, 1);
    ASSERT_EQ(m.matrices.size(), 4u);
    EXPECT_TRUE(same_floats(m.matrices[0], engine->pca_filter.mean));
    EXPECT_TRUE(same_floats(m.matrices[1], engine->pca_filter.eigenvectors));
    EXPECT_TRUE(same_floats(m.matrices[2], engine->pca_filter.reduce_mean));
    EXPECT_TRUE(same_floats(m.matrices[3], engine->pca_filter.reduce_inv_covar));
    const size_t content = 37 + 4 * kWeights + 4 * 8 + 4 * (300 + 900 + 3 + 9);
    EXPECT_EQ(m.content_length, content);
    ASSERT_EQ(b.size(), content + 12);
    EXPECT_EQ(u64_at(b, content), content);
    EXPECT_EQ(u32_at(b, content + 8), zlib_crc(b, content));
}

// A wrong SVM record or filter is refused before any file is opened.
TEST_F(ModelIo, ExportRefusesWrongRecords) {
    auto engine = trained_engine(false);
    engine->svm_model.trained_width = 0;
    const std::string p = path("wrong.bin");
    int32_t status = 0;
    std::string out = capture_stdout([&] { status = engine->exportModel(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out,
              "[SVM model values wrong] class_idx : 0, trained_width : 0, trained_height : 32, input_width : 640, "
              "input_height : 480, trained_acf_scale_idx : 2, support_vector_size : 300\n" +
                  engine_line("[svm model value is wrong!]", "exportModel", 3449));
    EXPECT_FALSE(file_exists(p));

    auto filtered = trained_engine(true);
    filtered->pca_filter.eigenvectors = cv::Mat::zeros(15, kWeights, CV_32F);
    out = capture_stdout([&] { status = filtered->exportModel(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out,
              "[PCA fp filtering values wrong] mean.rows : 1, mean.cols : 300, eigenvectors.rows : 15, "
              "eigenvectors.cols : 300, reduce_mean.rows : 1, reduce_mean.cols : 3, reduce_inv_covar.rows : 3, "
              "reduce_inv_covar.cols : 3\n" +
                  engine_line("[pca fp filtering value is wrong!]", "exportModel", 3456));
    EXPECT_FALSE(file_exists(p));
    EXPECT_EQ(filtered->pca_filter.fp_threshold, 15.0f);  // the selection did not run
}

// A path that cannot be written: the export-open line.
TEST_F(ModelIo, ExportToAnUnwritablePath) {
    auto engine = trained_engine(false);
    const std::string p = testing::TempDir() + "no_such_dir/m.bin";
    int32_t status = 0;
    const std::string out = capture_stdout([&] { status = engine->exportModel(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[SVM ostrel_alg::exportModel] fail export, check file path : " + p + " \n");
}

// Export truncates what was there before.
TEST_F(ModelIo, ExportReplacesALongerFile) {
    auto engine = trained_engine(false);
    const std::string p = path("replace.bin");
    write_file(p, bytes(10000, 0xee));
    capture_stdout([&] { EXPECT_EQ(engine->exportModel(p), 0); });
    EXPECT_EQ(read_file(p).size(), 37u + 4u * kWeights + 12u);
}

// Any byte of the content that differs gives a different CRC in a fresh
// export of the model that content describes.
TEST_F(ModelIo, AnyChangedByteChangesTheExportedCrc) {
    auto engine = trained_engine(false);
    const bytes original = exported(*engine, "crc_base.bin");
    const size_t content = original.size() - 12;
    const uint32_t original_crc = u32_at(original, content + 8);
    int exported_variants = 0;
    int candidates = 0;
    auto variant = trained_engine(false);
    for (size_t at : positions_to_change(content, 36 + 4 * kWeights)) {
        ++candidates;
        bytes changed = original;
        changed[at] ^= 0x01;
        if (i32_at(changed, 24) != kWeights || changed[36 + 4 * kWeights] != 0) {
            continue;  // another layout
        }
        const parsed_model m = parse(changed);
        if (m.header[1] <= 0 || m.header[2] <= 0 || m.header[3] <= 0 || m.header[4] <= 0 || m.header[5] < 0 ||
            m.header[0] < 0) {
            continue;  // not a model the exporter accepts with this layout
        }
        ostrel::svm_model &r = variant->svm_model;
        r.class_idx = m.header[0];
        r.trained_width = m.header[1];
        r.trained_height = m.header[2];
        r.input_width = m.header[3];
        r.input_height = m.header[4];
        r.trained_acf_scale_idx = m.header[5];
        r.bias = m.header[7];
        for (int i = 0; i < kWeights; ++i) r.vector[i] = m.weights[static_cast<size_t>(i)];
        variant->pca_filter.fp_threshold = m.threshold;
        const bytes fresh = exported(*variant, "crc_variant.bin");
        ASSERT_EQ(fresh.size(), original.size());
        ASSERT_TRUE(std::equal(fresh.begin(), fresh.begin() + static_cast<long>(content), changed.begin())) << at;
        EXPECT_NE(u32_at(fresh, content + 8), original_crc) << at;
        ++exported_variants;
    }
    // Every byte but those of the weight count and the flag gives a model.
    EXPECT_EQ(exported_variants, candidates - 4 - 1);
}

// --- validation ---------------------------------------------------------------

// A file the exporter wrote is valid, with or without a filter.
TEST_F(ModelIo, ValidationAcceptsAFreshExport) {
    for (bool with_filter : {false, true}) {
        auto engine = trained_engine(with_filter);
        const std::string p = path(with_filter ? "valid_filter.bin" : "valid.bin");
        capture_stdout([&] { ASSERT_EQ(engine->exportModel(p), 0); });
        int32_t status = 1;
        EXPECT_EQ(capture_stdout([&] { status = fresh_engine()->checkModelValidation(p); }), "");
        EXPECT_EQ(status, 0) << with_filter;
    }
}

// Flipping any byte before the trailer fails validation; where the records
// still pass, with the two report lines: the stored length, the whole
// file's length T = L + 12, the stored CRC and the CRC of what was read.
TEST_F(ModelIo, ValidationRejectsEveryChangedByte) {
    auto engine = trained_engine(true);
    const bytes original = exported(*engine, "flip_base.bin");
    const size_t content = original.size() - 12;
    const uint64_t stored_length = u64_at(original, content);
    const uint32_t stored_crc = u32_at(original, content + 8);
    const std::string p = path("flip.bin");
    auto checker = fresh_engine();
    int reports = 0;
    const std::vector<size_t> positions = positions_to_change(content, 36 + 4 * kWeights);
    for (size_t at : positions) {
        bytes changed = original;
        changed[at] ^= 0x01;
        write_file(p, changed);
        int32_t status = 0;
        const std::string out = capture_stdout([&] { status = checker->checkModelValidation(p); });
        ASSERT_EQ(status, 1) << at;
        const bool data_byte = (at >= 28 && at < 36 + 4 * kWeights) ||  // bias, weights, threshold
                               (at >= 37 + 4 * kWeights + 8 && at < 37 + 4 * kWeights + 8 + 1200);  // mean
        if (data_byte) {
            EXPECT_EQ(out, crc_report(stored_length, original.size(), stored_crc, zlib_crc(changed, content))) << at;
        }
        if (out.find("[CRC values ERROR]") != std::string::npos) {
            ++reports;
        }
    }
    EXPECT_GE(reports, static_cast<int>(positions.size()) - 40);
}

// The stored length is never compared: changing it alone still validates.
TEST_F(ModelIo, ValidationIgnoresTheStoredLength) {
    auto engine = trained_engine(false);
    bytes b = exported(*engine, "length.bin");
    const size_t content = b.size() - 12;
    set_u32(b, content, 12345);
    b[content + 7] = 0x80;
    const std::string p = path("length_changed.bin");
    write_file(p, b);
    int32_t status = 1;
    EXPECT_EQ(capture_stdout([&] { status = fresh_engine()->checkModelValidation(p); }), "");
    EXPECT_EQ(status, 0);
}

// A damaged stored CRC fails validation with the report lines.
TEST_F(ModelIo, ValidationReportsADamagedCrc) {
    auto engine = trained_engine(false);
    bytes b = exported(*engine, "crcbad.bin");
    const size_t content = b.size() - 12;
    const uint32_t good = u32_at(b, content + 8);
    set_u32(b, content + 8, good ^ 0x80000000u);
    const std::string p = path("crcbad_changed.bin");
    write_file(p, b);
    int32_t status = 0;
    const std::string out = capture_stdout([&] { status = fresh_engine()->checkModelValidation(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, crc_report(content, b.size(), good ^ 0x80000000u, good));
}

// A file without its trailer: the stored values read as 0.
TEST_F(ModelIo, ValidationOfAFileWithoutTrailer) {
    auto engine = trained_engine(false);
    bytes b = exported(*engine, "notrailer.bin");
    const size_t content = b.size() - 12;
    b.resize(content);
    const std::string p = path("notrailer_cut.bin");
    write_file(p, b);
    int32_t status = 0;
    const std::string out = capture_stdout([&] { status = fresh_engine()->checkModelValidation(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, crc_report(0, content, 0, zlib_crc(b, content)));
}

// Validation reads into scratch records: the engine is not touched.
TEST_F(ModelIo, ValidationLeavesTheEngineAlone) {
    auto other = trained_engine(false);
    other->svm_model.bias = 99;
    exported(*other, "other.bin");
    auto engine = trained_engine(true);
    int32_t status = 1;
    capture_stdout([&] { status = engine->checkModelValidation(path("other.bin")); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(engine->svm_model.bias, -12345);
    EXPECT_EQ(engine->pca_filter.pca_filter_ready, 1);
    EXPECT_EQ(engine->pca_filter.fp_threshold, 15.0f);
    EXPECT_EQ(engine->training_samples.size(), 3u);
    EXPECT_TRUE(engine->isTrained());
}

// --- import -------------------------------------------------------------------

// Import of a file without a filter: the model, the sizes, the scale index;
// the filter is not enabled; samples are gone, the model id is kept.
TEST_F(ModelIo, ImportWithoutFilter) {
    auto source = trained_engine(false);
    const bytes b = exported(*source, "import_plain.bin");
    auto engine = trained_engine(true);
    engine->pca_filter.pca_filter_ready = 0;
    engine->pca_filter.fp_filter_enabled = 1;
    engine->model_id = 17;
    int32_t status = 1;
    EXPECT_EQ(capture_stdout([&] { status = engine->importModel(path("import_plain.bin")); }), "");
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(engine->isTrained());
    EXPECT_EQ(engine->svm_model.support_vector_size, kWeights);
    for (int i = 0; i < kWeights; ++i) ASSERT_EQ(engine->svm_model.vector[i], i * 37 - 5000);
    EXPECT_EQ(engine->svm_model.bias, -12345);
    EXPECT_EQ(engine->pca_filter.fp_filter_enabled, 0);
    EXPECT_EQ(engine->pca_filter.pca_filter_ready, 0);
    EXPECT_EQ(engine->pca_filter.fp_threshold, 15.0f);
    EXPECT_EQ(engine->train_width, 40u);
    EXPECT_EQ(engine->train_height, 32u);
    EXPECT_EQ(engine->train_input_width, 640u);
    EXPECT_EQ(engine->train_input_height, 480u);
    EXPECT_EQ(engine->acf_scale_idx, 2);
    EXPECT_TRUE(engine->training_samples.empty());
    EXPECT_NE(engine->result_boxes, nullptr);
    EXPECT_NE(engine->feat_extractor, nullptr);
    EXPECT_EQ(engine->model_id, 17);
    EXPECT_FALSE(b.empty());
}

// Import of a file with a filter enables it and holds the file's matrices
// and threshold; exporting again gives the same bytes.
TEST_F(ModelIo, ImportWithFilterRoundTrips) {
    auto source = trained_engine(true);
    const bytes b = exported(*source, "import_filter.bin");
    auto engine = fresh_engine();
    int32_t status = 1;
    EXPECT_EQ(capture_stdout([&] { status = engine->importModel(path("import_filter.bin")); }), "");
    ASSERT_EQ(status, 0);
    EXPECT_EQ(engine->pca_filter.pca_filter_ready, 1);
    EXPECT_EQ(engine->pca_filter.fp_filter_enabled, 1);
    EXPECT_EQ(engine->pca_filter.fp_threshold, 6.5f);
    EXPECT_TRUE(same_floats(engine->pca_filter.mean, source->pca_filter.mean));
    EXPECT_TRUE(same_floats(engine->pca_filter.eigenvectors, source->pca_filter.eigenvectors));
    EXPECT_TRUE(same_floats(engine->pca_filter.reduce_mean, source->pca_filter.reduce_mean));
    EXPECT_TRUE(same_floats(engine->pca_filter.reduce_inv_covar, source->pca_filter.reduce_inv_covar));

    // No samples after import: the selection picks 4.0 on re-export.
    const bytes again = exported(*engine, "reexport.bin");
    ASSERT_EQ(again.size(), b.size());
    const size_t threshold_at = 32 + 4 * kWeights;
    EXPECT_EQ(f32_at(again, threshold_at), 4.0f);
    bytes expected = b;
    const float four = 4.0f;
    uint32_t four_bits;
    std::memcpy(&four_bits, &four, 4);
    set_u32(expected, threshold_at, four_bits);
    const size_t content = b.size() - 12;
    set_u32(expected, content + 8, zlib_crc(expected, content));
    EXPECT_EQ(again, expected);
}

// A ready byte other than 1 still carries a filter, but only 1 enables it.
TEST_F(ModelIo, ImportReadyByteOtherThanOneDoesNotEnable) {
    auto source = trained_engine(true);
    bytes b = exported(*source, "ready2.bin");
    b[36 + 4 * kWeights] = 2;
    const std::string p = path("ready2_changed.bin");
    write_file(p, b);
    auto engine = fresh_engine();
    capture_stdout([&] { EXPECT_EQ(engine->importModel(p), 0); });
    EXPECT_EQ(engine->pca_filter.pca_filter_ready, 2);
    EXPECT_EQ(engine->pca_filter.fp_filter_enabled, 0);
}

// Import does not look at the CRC: a damaged trailer or a changed weight
// imports as long as the records pass.
TEST_F(ModelIo, ImportIgnoresADamagedCrc) {
    auto source = trained_engine(false);
    bytes b = exported(*source, "damaged.bin");
    b[b.size() - 1] ^= 0xff;
    set_u32(b, 32, 777);  // weight 0
    const std::string p = path("damaged_changed.bin");
    write_file(p, b);
    auto engine = fresh_engine();
    int32_t status = 1;
    EXPECT_EQ(capture_stdout([&] { status = engine->importModel(p); }), "");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(engine->svm_model.vector[0], 777);
    capture_stdout([&] { EXPECT_EQ(engine->checkModelValidation(p), 1); });
}

// A missing file: the file-open line and 1, in both operations; an empty
// path is refused by import without a line.
TEST_F(ModelIo, MissingFile) {
    const std::string p = testing::TempDir() + "model_io_missing.bin";
    std::remove(p.c_str());
    auto engine = fresh_engine();
    int32_t status = 0;
    std::string out = capture_stdout([&] { status = engine->importModel(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[ostrel_alg::importModel] file open fail , check file path : " + p + " \n");
    out = capture_stdout([&] { status = engine->checkModelValidation(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[ostrel_alg::checkModelValidation] file open fail , check file path : " + p + " \n");
    EXPECT_EQ(capture_stdout([&] { status = engine->importModel(""); }), "");
    EXPECT_EQ(status, 1);
    out = capture_stdout([&] { status = engine->checkModelValidation(""); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[ostrel_alg::checkModelValidation] file open fail , check file path :  \n");
}

// Hostile weight counts (huge, negative) fail as read failures, with no
// allocation of that size and no crash; the engine keeps the model it had.
TEST_F(ModelIo, HostileWeightCountsFailCleanly) {
    auto source = trained_engine(false);
    const bytes original = exported(*source, "hostile_base.bin");
    for (uint32_t count : {0x7fffffffu, 0xffffffffu, 0x80000000u, 0x40000000u}) {
        bytes b = original;
        set_u32(b, 24, count);
        const std::string p = path("hostile_count.bin");
        write_file(p, b);
        auto engine = trained_engine(false);
        int32_t status = 0;
        std::string out = capture_stdout([&] { status = engine->importModel(p); });
        EXPECT_EQ(status, 1) << count;
        EXPECT_EQ(out, engine_line("[file read FAIL!]", "importModel", 3553)) << count;
        EXPECT_TRUE(engine->isTrained());
        EXPECT_EQ(engine->svm_model.support_vector_size, kWeights);
        out = capture_stdout([&] { status = engine->checkModelValidation(p); });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(out, engine_line("[file read FAIL!]", "checkModelValidation", 3314)) << count;
    }
}

// Hostile matrix sizes (rows x cols overflowing, negative, more than the
// file holds) fail as filter read failures.
TEST_F(ModelIo, HostileMatrixSizesFailCleanly) {
    auto source = trained_engine(true);
    const bytes original = exported(*source, "hostile_matrix_base.bin");
    const size_t eigen_counts = 37 + 4 * kWeights + 8 + 4 * 300;
    const struct {
        size_t at;
        uint32_t rows;
        uint32_t cols;
    } cases[] = {{37 + 4 * kWeights, 0x40000000u, 0x40000000u},
                 {eigen_counts, 0x7fffffffu, 0x7fffffffu},
                 {eigen_counts, 0xffffffffu, 300u},
                 {eigen_counts, 3u, 0x80000000u},
                 {eigen_counts, 4000u, 300u}};
    for (const auto &c : cases) {
        bytes b = original;
        set_u32(b, c.at, c.rows);
        set_u32(b, c.at + 4, c.cols);
        const std::string p = path("hostile_matrix.bin");
        write_file(p, b);
        auto engine = fresh_engine();
        int32_t status = 0;
        std::string out = capture_stdout([&] { status = engine->importModel(p); });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(out, engine_line("[file read FAIL!]", "importModel", 3570)) << c.rows << " x " << c.cols;
        out = capture_stdout([&] { status = engine->checkModelValidation(p); });
        EXPECT_EQ(status, 1);
        EXPECT_EQ(out, engine_line("[file read FAIL!]", "checkModelValidation", 3320)) << c.rows << " x " << c.cols;
    }
}

// A file whose SVM record fails its check: the values line and the record
// line; the engine keeps the model, filter and samples it had.
TEST_F(ModelIo, ImportOfAWrongSvmRecordKeepsTheOldModel) {
    bytes content;
    for (int32_t v : {0, 40, 32, 640, 480, 1, 200, 55}) put_u32(content, static_cast<uint32_t>(v));
    for (int i = 0; i < 200; ++i) put_u32(content, static_cast<uint32_t>(i));
    put_f32(content, 5.0f);
    content.push_back(0);
    add_trailer(content);
    const std::string p = path("svm200.bin");
    write_file(p, content);

    auto engine = trained_engine(true);
    int32_t status = 0;
    std::string out = capture_stdout([&] { status = engine->importModel(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out,
              "[SVM model values wrong] class_idx : 0, trained_width : 40, trained_height : 32, input_width : 640, "
              "input_height : 480, trained_acf_scale_idx : 1, support_vector_size : 200\n" +
                  engine_line("[svm model value is wrong!]", "importModel", 3561));
    EXPECT_TRUE(engine->isTrained());
    EXPECT_EQ(engine->svm_model.support_vector_size, kWeights);
    EXPECT_EQ(engine->svm_model.vector[199], 199 * 37 - 5000);
    EXPECT_EQ(engine->svm_model.bias, -12345);
    EXPECT_EQ(engine->training_samples.size(), 3u);
    EXPECT_EQ(engine->pca_filter.pca_filter_ready, 1);
    EXPECT_EQ(engine->acf_scale_idx, 0);

    // Validation reads both blocks before checking.
    out = capture_stdout([&] { status = engine->checkModelValidation(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out,
              "[SVM model values wrong] class_idx : 0, trained_width : 40, trained_height : 32, input_width : 640, "
              "input_height : 480, trained_acf_scale_idx : 1, support_vector_size : 200\n" +
                  engine_line("[svm model value is wrong!]", "checkModelValidation", 3328));
}

// A filter record that fails its check: its line and the filter line.
TEST_F(ModelIo, ImportOfAWrongFilterRecord) {
    auto source = trained_engine(true);
    source->pca_filter.eigenvectors = cv::Mat::zeros(15, kWeights, CV_32F);
    // Write the file by hand: the exporter refuses such a filter.
    bytes content;
    for (int32_t v : {0, 40, 32, 640, 480, 2, kWeights, -12345}) put_u32(content, static_cast<uint32_t>(v));
    for (int i = 0; i < kWeights; ++i) put_u32(content, static_cast<uint32_t>(i));
    put_f32(content, 6.0f);
    content.push_back(1);
    for (const cv::Mat *m : {&source->pca_filter.mean, &source->pca_filter.eigenvectors,
                             &source->pca_filter.reduce_mean, &source->pca_filter.reduce_inv_covar}) {
        put_u32(content, static_cast<uint32_t>(m->rows));
        put_u32(content, static_cast<uint32_t>(m->cols));
        for (int r = 0; r < m->rows; ++r)
            for (int c = 0; c < m->cols; ++c) put_f32(content, m->at<float>(r, c));
    }
    add_trailer(content);
    const std::string p = path("filter15.bin");
    write_file(p, content);
    const std::string sizes =
        "[PCA fp filtering values wrong] mean.rows : 1, mean.cols : 300, eigenvectors.rows : 15, "
        "eigenvectors.cols : 300, reduce_mean.rows : 1, reduce_mean.cols : 3, reduce_inv_covar.rows : 3, "
        "reduce_inv_covar.cols : 3\n";

    auto engine = fresh_engine();
    int32_t status = 0;
    std::string out = capture_stdout([&] { status = engine->importModel(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, sizes + engine_line("[pca fp filtering value is wrong!]", "importModel", 3578));
    EXPECT_TRUE(engine->pca_filter.eigenvectors.empty());  // the refused filter never becomes the engine's
    EXPECT_FALSE(engine->isTrained());
    EXPECT_EQ(engine->pca_filter.fp_filter_enabled, 0);
    out = capture_stdout([&] { status = engine->checkModelValidation(p); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, sizes + engine_line("[pca fp filtering value is wrong!]", "checkModelValidation", 3334));
}

// A file cut short: status 1 and no crash; cut inside the weights it is a
// read failure that leaves the engine's model as it was.
TEST_F(ModelIo, TruncatedFileFailsToImport) {
    auto source = trained_engine(false);
    bytes b = exported(*source, "cut.bin");
    for (size_t length : {size_t{0}, size_t{10}, size_t{32}, size_t{500}}) {
        bytes cut(b.begin(), b.begin() + static_cast<long>(length));
        const std::string p = path("cut_short.bin");
        write_file(p, cut);
        auto engine = fresh_engine();
        int32_t status = 0;
        capture_stdout([&] { status = engine->importModel(p); });
        EXPECT_EQ(status, 1) << length;
        capture_stdout([&] { status = engine->checkModelValidation(p); });
        EXPECT_EQ(status, 1) << length;
    }
    const std::string p = path("cut_weights.bin");
    write_file(p, bytes(b.begin(), b.begin() + 500));
    auto engine = trained_engine(false);
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(engine->importModel(p), 1); }),
              engine_line("[file read FAIL!]", "importModel", 3553));
    EXPECT_TRUE(engine->isTrained());
    EXPECT_EQ(engine->svm_model.bias, -12345);
}
