// The tool's own reading of model files: fields, trailer, CRC and damage.
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "engine/model_info.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;

namespace {

class ModelBytes {
public:
    void i32(int32_t v) { u32(static_cast<uint32_t>(v)); }
    void u32(uint32_t v) {
        for (int i = 0; i < 4; ++i) {
            bytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
        }
    }
    void f32(float v) {
        uint32_t bits;
        std::memcpy(&bits, &v, 4);
        u32(bits);
    }
    void matrix(int rows, int cols) {
        i32(rows);
        i32(cols);
        for (int i = 0; i < rows * cols; ++i) {
            f32(0.5f * static_cast<float>(i));
        }
    }
    // Appends L and the CRC of everything so far, as the exporter does.
    void trailer() {
        const uint64_t length = bytes.size();
        const uint32_t crc = model_crc32(bytes.data(), bytes.size());
        for (int i = 0; i < 8; ++i) {
            bytes.push_back(static_cast<uint8_t>(length >> (8 * i)));
        }
        u32(crc);
    }
    std::vector<uint8_t> bytes;
};

// A model of n weights (-3, -2, ..., n-4), optionally with a 1 x n / 2 x n /
// 1 x 2 / 2 x 2 filter.
std::vector<uint8_t> model(int n, bool filter) {
    ModelBytes m;
    for (int32_t v : {0, 100, 95, 640, 480, 0, n, -12345}) {
        m.i32(v);
    }
    for (int i = 0; i < n; ++i) {
        m.i32(i - 3);
    }
    m.f32(7.5f);
    m.bytes.push_back(filter ? 1 : 0);
    if (filter) {
        m.matrix(1, n);
        m.matrix(2, n);
        m.matrix(1, 2);
        m.matrix(2, 2);
    }
    m.trailer();
    return m.bytes;
}

}  // namespace

TEST(ModelCrc32, IsTheStandardCrc) {
    const char *check = "123456789";
    EXPECT_EQ(model_crc32(reinterpret_cast<const uint8_t *>(check), 9), 0xCBF43926u);
    EXPECT_EQ(model_crc32(nullptr, 0), 0u);
}

TEST(ParseModel, ReadsEveryField) {
    const auto bytes = model(300, true);
    const ModelInfo info = parse_model(bytes, "m");
    EXPECT_EQ(info.class_idx, 0);
    EXPECT_EQ(info.trained_width, 100);
    EXPECT_EQ(info.trained_height, 95);
    EXPECT_EQ(info.input_width, 640);
    EXPECT_EQ(info.input_height, 480);
    EXPECT_EQ(info.trained_acf_scale_idx, 0);
    EXPECT_EQ(info.support_vector_size, 300);
    EXPECT_EQ(info.bias, -12345);
    EXPECT_EQ(info.weight_min, -3);
    EXPECT_EQ(info.weight_max, 296);
    EXPECT_FLOAT_EQ(info.fp_threshold, 7.5f);
    EXPECT_EQ(info.pca_filter_ready, 1);
    EXPECT_EQ(info.filter[0].rows, 1);
    EXPECT_EQ(info.filter[0].cols, 300);
    EXPECT_EQ(info.filter[1].rows, 2);
    EXPECT_EQ(info.filter[3].cols, 2);
    // 37 + 4n, then four matrices of 8 + 4 r c bytes.
    const uint64_t content = 37 + 4 * 300 + (8 + 4 * 300) + (8 + 8 * 300) + (8 + 8) + (8 + 16);
    EXPECT_EQ(info.content_length, content);
    EXPECT_EQ(info.stored_length, content);
    EXPECT_EQ(info.file_size, content + 12);
    EXPECT_TRUE(info.crc_matches());
    EXPECT_TRUE(info.length_matches());
    EXPECT_TRUE(info.problems.empty());
}

TEST(ParseModel, WithoutFilterTheFileIs37Plus4nPlusTrailer) {
    const auto bytes = model(201, false);
    EXPECT_EQ(bytes.size(), 37u + 4u * 201u + 12u);
    const ModelInfo info = parse_model(bytes, "m");
    EXPECT_EQ(info.content_length, 37u + 4u * 201u);
    EXPECT_EQ(info.pca_filter_ready, 0);
    EXPECT_TRUE(info.crc_matches());
    EXPECT_TRUE(info.problems.empty());
}

TEST(ParseModel, AChangedByteBreaksTheCrcButNotTheLayout) {
    auto bytes = model(300, true);
    bytes[100] ^= 0x5a;
    const ModelInfo info = parse_model(bytes, "m");
    EXPECT_FALSE(info.crc_matches());
    EXPECT_TRUE(info.length_matches());
    EXPECT_NE(describe_model(info).find("CRC matches: no"), std::string::npos);
}

TEST(ParseModel, AChangedLengthFieldIsReportedButTheCrcStillMatches) {
    auto bytes = model(300, false);
    bytes[bytes.size() - 12] ^= 1;  // lowest byte of L
    const ModelInfo info = parse_model(bytes, "m");
    EXPECT_TRUE(info.crc_matches());
    EXPECT_FALSE(info.length_matches());
}

TEST(ParseModel, TruncatedFilesAreInputErrors) {
    const auto bytes = model(300, true);
    for (size_t keep : {size_t{0}, size_t{20}, size_t{32 + 4 * 100}, size_t{37 + 4 * 300 + 4}, bytes.size() - 1}) {
        std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<long>(keep));
        EXPECT_EQ(code_of([&] { parse_model(cut, "m"); }), ExitCode::input) << keep;
    }
}

TEST(ParseModel, NegativeCountsAreInputErrors) {
    auto bytes = model(300, false);
    bytes[24] = 0xff;
    bytes[25] = 0xff;
    bytes[26] = 0xff;
    bytes[27] = 0xff;  // n = -1
    EXPECT_EQ(code_of([&] { parse_model(bytes, "m"); }), ExitCode::input);
    try {
        parse_model(bytes, "m");
    } catch (const ToolError &e) {
        EXPECT_STREQ(e.what(), "'m' is not a model file: it gives a negative weight count (-1)");
    }
}

TEST(ParseModel, ValuesTheLibraryRefusesAreListedAsProblems) {
    EXPECT_FALSE(parse_model(model(200, false), "m").problems.empty());
    EXPECT_TRUE(parse_model(model(5999, false), "m").problems.empty());
    EXPECT_FALSE(parse_model(model(6000, false), "m").problems.empty());
    auto extra = model(300, false);
    extra.push_back(0);
    const ModelInfo info = parse_model(extra, "m");
    ASSERT_EQ(info.problems.size(), 1u);
    EXPECT_EQ(info.problems[0], "1 bytes follow the trailer");
}

TEST(DescribeModel, ListsTheFieldsByName) {
    const std::string text = describe_model(parse_model(model(300, true), "m"));
    for (const char *line :
         {"class_idx: 0\n", "trained_width: 100\n", "support_vector_size: 300\n", "fp_threshold: 7.5\n",
          "pca_filter_ready: 1\n", "eigenvectors: 2 x 300\n", "reduce_inv_covar: 2 x 2\n", "CRC matches: yes\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
}

TEST(ReadModelInfo, MissingFileIsAnInputError) {
    EXPECT_EQ(code_of([] { read_model_info("/nonexistent/model"); }), ExitCode::input);
}
