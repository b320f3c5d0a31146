// Shared pieces of the commands: window size check, model problems, filters.
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "commands/command_support.h"

using namespace ostrel_tool;

TEST(WindowCells, MapsTheBoxToFeatureCells) {
    // A 100 x 95 box on a 640 x 480 picture over a 121 x 68 map:
    // 100 * 121/640 = 18.9 -> 18 columns, 95 * 68/480 = 13.46 -> 13 rows.
    const WindowCells w = window_cells({100, 95}, 640, 480, 121, 68, 10);
    EXPECT_EQ(w.columns, 18);
    EXPECT_EQ(w.rows, 13);
    EXPECT_EQ(w.values, 2340);
    EXPECT_EQ(window_cells({10, 10}, 0, 480, 121, 68, 10).values, 0);
}

TEST(DetectionsOnly, KeepsLabelOneInOrder) {
    std::vector<ostrel_alg_box> boxes(3);
    boxes[0].label = 1;
    boxes[0].x = 1;
    boxes[1].label = -1;
    boxes[2].label = 1;
    boxes[2].x = 3;
    const auto d = detections_only(boxes);
    ASSERT_EQ(d.size(), 2u);
    EXPECT_EQ(d[0].x, 1);
    EXPECT_EQ(d[1].x, 3);
}

TEST(ModelProblem, NamesTheFaultOfANonModelFile) {
    const auto path = (std::filesystem::temp_directory_path() / "ostrel_not_a_model").string();
    std::ofstream(path) << "short";
    EXPECT_EQ(model_problem(path, "[x]"), "not a model file: it ends at byte 5, inside the model record");
    std::filesystem::remove(path);
}
