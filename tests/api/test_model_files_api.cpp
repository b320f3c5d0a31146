// Model files as a host sees them: the _ptr and _bstr forms of validation,
// import and export through the public header and the shared library. The
// model files are written here byte by byte, with a CRC-32 computed here.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"

using ostrel_test::capture_stdout;

namespace {

using bytes = std::vector<unsigned char>;

// The reflected CRC-32 (polynomial 0xEDB88320), bit by bit.
uint32_t crc32_of(const bytes &data) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1u) ? (crc >> 1) ^ 0xedb88320u : crc >> 1;
        }
    }
    return ~crc;
}

void put_u32(bytes &b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

void put_f32(bytes &b, float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    put_u32(b, u);
}

void put_matrix(bytes &b, int rows, int cols, float diagonal) {
    put_u32(b, static_cast<uint32_t>(rows));
    put_u32(b, static_cast<uint32_t>(cols));
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) put_f32(b, r == c ? diagonal : 0.0f);
}

// A valid model: 250 weights and, optionally, a two-component filter; then
// the length and the CRC-32 of everything before them.
bytes model_file(bool with_filter) {
    bytes b;
    for (int32_t v : {0, 48, 32, 800, 600, 1, 250, -4242}) put_u32(b, static_cast<uint32_t>(v));
    for (int i = 0; i < 250; ++i) put_u32(b, static_cast<uint32_t>(i * 3 - 100));
    put_f32(b, 9.5f);
    b.push_back(with_filter ? 1 : 0);
    if (with_filter) {
        put_matrix(b, 1, 250, 0.0f);  // mean
        put_matrix(b, 2, 250, 1.0f);  // eigenvectors
        put_matrix(b, 1, 2, 0.0f);    // reduce_mean
        put_matrix(b, 2, 2, 1.0f);    // reduce_inv_covar
    }
    const uint64_t length = b.size();
    const uint32_t crc = crc32_of(b);
    put_u32(b, static_cast<uint32_t>(length));
    put_u32(b, static_cast<uint32_t>(length >> 32));
    put_u32(b, crc);
    return b;
}

void write_file(const std::string &path, const bytes &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
}

bytes read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::u16string to_u16(const std::string &ascii) { return std::u16string(ascii.begin(), ascii.end()); }

class ModelFilesApi : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ostrel_alg_create(&engine_), 0); }
    void TearDown() override {
        ASSERT_EQ(ostrel_alg_destroy(engine_), 0);
        for (const std::string &p : created_) std::remove(p.c_str());
    }
    std::string path(const std::string &name) {
        created_.push_back(testing::TempDir() + "api_model_" + name);
        return created_.back();
    }
    uint8_t trained() {
        uint8_t flag = 7;
        EXPECT_EQ(ostrel_alg_istraied(engine_, &flag), 0);
        return flag;
    }
    ostrel_alg *engine_ = nullptr;

private:
    std::vector<std::string> created_;
};

}  // namespace

// A missing file: the file-open line and 1, in both path forms.
TEST_F(ModelFilesApi, ValidationOfAMissingFile) {
    const std::string p = testing::TempDir() + "api_model_missing.bin";
    std::remove(p.c_str());
    const std::string line = "[ostrel_alg::checkModelValidation] file open fail , check file path : " + p + " \n";
    int32_t status = 0;
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_checkModelValidation_ptr(engine_, p.c_str()); }), line);
    EXPECT_EQ(status, 1);
    const std::u16string wide = to_u16(p);
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, wide.c_str()); }), line);
    EXPECT_EQ(status, 1);

    const std::string import_line = "[ostrel_alg::importModel] file open fail , check file path : " + p + " \n";
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_importModel_ptr(engine_, p.c_str()); }), import_line);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_importModel_bstr(engine_, wide.c_str()); }), import_line);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(trained(), 0);
}

// A hand-written valid file validates in both forms, silently.
TEST_F(ModelFilesApi, ValidationOfAGoodFile) {
    for (bool with_filter : {false, true}) {
        const std::string p = path(with_filter ? "good_filter.bin" : "good.bin");
        write_file(p, model_file(with_filter));
        int32_t status = 1;
        EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_checkModelValidation_ptr(engine_, p.c_str()); }), "");
        EXPECT_EQ(status, 0);
        const std::u16string wide = to_u16(p);
        status = 1;
        EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_checkModelValidation_bstr(engine_, wide.c_str()); }), "");
        EXPECT_EQ(status, 0);
        EXPECT_EQ(trained(), 0);  // validation loads nothing
    }
}

// A changed weight fails validation with the two report lines.
TEST_F(ModelFilesApi, ValidationOfAChangedFile) {
    bytes b = model_file(false);
    const uint32_t stored_crc = static_cast<uint32_t>(b[b.size() - 4]) | static_cast<uint32_t>(b[b.size() - 3]) << 8 |
                                static_cast<uint32_t>(b[b.size() - 2]) << 16 |
                                static_cast<uint32_t>(b[b.size() - 1]) << 24;
    b[100] ^= 0x10;
    const bytes content(b.begin(), b.end() - 12);
    const std::string p = path("changed.bin");
    write_file(p, b);
    int32_t status = 0;
    const std::string out = capture_stdout([&] { status = ostrel_alg_checkModelValidation_ptr(engine_, p.c_str()); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "[file size without CRC] read : " + std::to_string(content.size()) + ", calc : " +
                       std::to_string(b.size()) + "\n[CRC values ERROR] read : " + std::to_string(stored_crc) +
                       ", calc : " + std::to_string(crc32_of(content)) + "\n");
}

// Importing a good file trains the engine; exporting it again writes the
// same model (the threshold re-chosen: 4.0 with a filter and no samples, kept
// without a filter).
TEST_F(ModelFilesApi, ImportThenExport) {
    const std::string p = path("import.bin");
    write_file(p, model_file(false));
    ASSERT_EQ(trained(), 0);
    int32_t status = 1;
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_importModel_ptr(engine_, p.c_str()); }), "");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(trained(), 1);

    const std::string out_path = path("export.bin");
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_exportModel_ptr(engine_, out_path.c_str()); }),
              "PCA is not valid in getBestFPThreshold \n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(out_path), model_file(false));

    const std::string q = path("import_filter.bin");
    write_file(q, model_file(true));
    const std::u16string wide = to_u16(q);
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_importModel_bstr(engine_, wide.c_str()); }), "");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(trained(), 1);
    const std::u16string wide_out = to_u16(out_path);
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_exportModel_bstr(engine_, wide_out.c_str()); }), "");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_checkModelValidation_ptr(engine_, out_path.c_str()); }), "");
    EXPECT_EQ(status, 0);
    const bytes exported = read_file(out_path);
    ASSERT_EQ(exported.size(), model_file(true).size());
    float threshold;
    std::memcpy(&threshold, exported.data() + 32 + 4 * 250, 4);
    EXPECT_EQ(threshold, 4.0f);
}

// Export before any training or import writes nothing.
TEST_F(ModelFilesApi, ExportBeforeTraining) {
    const std::string p = path("never.bin");
    std::remove(p.c_str());
    int32_t status = 0;
    EXPECT_EQ(capture_stdout([&] { status = ostrel_alg_exportModel_ptr(engine_, p.c_str()); }), "");
    EXPECT_EQ(status, 1);
    EXPECT_FALSE(std::ifstream(p).is_open());
}
