// Models the library's validation accepts but that cannot detect: the
// tool's consistency checks, and model files read block by block.
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "engine/model_info.h"
#include "engine/model_usability.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;
namespace fs = std::filesystem;

namespace {

// The classic profile's map: 10 channels of 121 x 68 cells.
const MapExtent kMap{10, 121, 68};

ModelInfo model_of(int32_t trained_width, int32_t trained_height, int32_t weights) {
    ModelInfo info;
    info.trained_width = trained_width;
    info.trained_height = trained_height;
    info.input_width = 640;
    info.input_height = 480;
    info.support_vector_size = weights;
    return info;
}

}  // namespace

TEST(ClassicWindow, TheWeightsOfATrainedBoxFitItsWindow) {
    // 97 x 100 on 640 x 480: 18 x 14 cells, 2520 values.
    EXPECT_TRUE(classic_window_problems(model_of(97, 100, 2520), kMap).empty());
}

TEST(ClassicWindow, OtherWeightCountsAndHugeBoxesAreProblems) {
    const auto few = classic_window_problems(model_of(97, 100, 201), kMap);
    ASSERT_EQ(few.size(), 1u);
    EXPECT_NE(few[0].find("201 weights"), std::string::npos) << few[0];
    EXPECT_NE(few[0].find("2520"), std::string::npos) << few[0];
    const auto wide = classic_window_problems(model_of(2147483647, 100, 2520), kMap);
    ASSERT_EQ(wide.size(), 1u);
    EXPECT_NE(wide[0].find("larger than"), std::string::npos) << wide[0];
    EXPECT_FALSE(classic_window_problems(model_of(1, 1, 201), kMap).empty());
}

TEST(ClassicWindow, TheMapComesFromTheLibrary) {
    const MapExtent map = classic_map_extent();
    EXPECT_EQ(map.channels, kMap.channels);
    EXPECT_EQ(map.columns, kMap.columns);
    EXPECT_EQ(map.rows, kMap.rows);
}

TEST(FilterConsistency, MatricesMustFitEachOtherAndTheWeights) {
    ModelInfo info = model_of(97, 100, 2520);
    info.pca_filter_ready = 1;
    info.filter = {MatrixShape{1, 2520}, MatrixShape{3, 2520}, MatrixShape{1, 3}, MatrixShape{3, 3}};
    add_consistency_problems(info);
    EXPECT_TRUE(info.problems.empty());
    info.filter[0].cols = 2519;
    add_consistency_problems(info);
    ASSERT_EQ(info.problems.size(), 1u);
    EXPECT_NE(info.problems[0].find("filter"), std::string::npos);
    info.problems.clear();
    info.filter[0].cols = 2520;
    info.filter[3] = MatrixShape{2, 2};
    add_consistency_problems(info);
    EXPECT_EQ(info.problems.size(), 1u);
}

TEST(ReadModelInfo, AFifoAndADeviceAreRefusedUnread) {
    const fs::path fifo = fs::temp_directory_path() / "ostrel_model_fifo";
    fs::remove(fifo);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(code_of([&] { read_model_info(fifo.string()); }), ExitCode::input);
    EXPECT_EQ(code_of([] { read_model_info("/dev/zero"); }), ExitCode::input);
    fs::remove(fifo);
}

TEST(ReadModelInfo, ASparseFileIsJudgedByItsRecordsNotItsSize) {
    const fs::path sparse = fs::temp_directory_path() / "ostrel_sparse.model";
    fs::remove(sparse);
    { std::ofstream touch(sparse); }
    fs::resize_file(sparse, 3ull << 30);
    const ModelInfo info = read_model_info(sparse.string());
    EXPECT_EQ(info.content_length, 37u);
    EXPECT_EQ(info.file_size, 3ull << 30);
    ASSERT_FALSE(info.problems.empty());
    EXPECT_NE(info.problems.back().find("bytes follow the trailer"), std::string::npos);
    fs::remove(sparse);
}
