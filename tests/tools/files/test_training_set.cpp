// Training from several pictures: pairing pictures with box files, the VOC
// folder as a training set, and the rule that gives every box the window
// of the first picture.
#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "files/training_set.h"
#include "support/test_data.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;

namespace {

// The cells a length covers, as the library maps it.
int cells(int pixels, int side, int map) {
    return static_cast<int>(static_cast<float>(pixels) * (static_cast<float>(map) / static_cast<float>(side)));
}

}  // namespace

TEST(TrainingSet, PairsPicturesWithTheirBoxFilesInOrder) {
    const std::string a = ostrel_test::data_path("bccd/annotations/BloodImage_00000.xml");
    const std::string b = ostrel_test::data_path("bccd/annotations/BloodImage_00001.xml");
    const auto set = pair_pictures_with_box_files({"p0.jpg", "p1.jpg"}, {a, b}, "RBC");
    ASSERT_EQ(set.size(), 2u);
    EXPECT_EQ(set[0].picture_path, "p0.jpg");
    EXPECT_EQ(set[0].boxes_source, a);
    EXPECT_EQ(set[0].boxes.size(), 19u);
    EXPECT_EQ(set[1].boxes_source, b);
    EXPECT_EQ(set[1].boxes.size(), 18u);
}

TEST(TrainingSet, CountsMustMatchAndEveryBoxFileMustHoldBoxes) {
    const std::string a = ostrel_test::data_path("bccd/annotations/BloodImage_00000.xml");
    EXPECT_EQ(code_of([&] { pair_pictures_with_box_files({"p0.jpg", "p1.jpg"}, {a}, "RBC"); }), ExitCode::usage);
    EXPECT_EQ(code_of([&] { pair_pictures_with_box_files({"p0.jpg"}, {a, a}, "RBC"); }), ExitCode::usage);
    EXPECT_EQ(code_of([&] { pair_pictures_with_box_files({"p0.jpg"}, {a}, "cat"); }), ExitCode::input);
    const auto empty = std::filesystem::temp_directory_path() / "ostrel_training_set_empty.json";
    std::ofstream(empty) << "[]";
    EXPECT_EQ(code_of([&] { pair_pictures_with_box_files({"p0.jpg"}, {empty.string()}, ""); }), ExitCode::input);
    std::filesystem::remove(empty);
}

TEST(TrainingSet, VocFolderGivesThePicturesWithTheClassUpToTheLimit) {
    const auto all = training_pictures_from_voc(ostrel_test::data_path("bccd"), "RBC", 0);
    EXPECT_EQ(all.pictures.size(), 8u);
    const auto three = training_pictures_from_voc(ostrel_test::data_path("bccd"), "RBC", 3);
    ASSERT_EQ(three.pictures.size(), 3u);
    EXPECT_NE(three.pictures[0].picture_path.find("BloodImage_00000.jpg"), std::string::npos);
    EXPECT_NE(three.pictures[2].picture_path.find("BloodImage_00002.jpg"), std::string::npos);
    EXPECT_EQ(three.pictures[0].boxes.size(), 19u);
    EXPECT_EQ(code_of([] { training_pictures_from_voc(ostrel_test::data_path("bccd"), "cat", 0); }), ExitCode::input);
}

TEST(TrainingSet, SamePictureSizeKeepsTheWindow) {
    const Size w = scaled_window({97, 100}, {640, 480}, {640, 480}, 121, 68);
    EXPECT_EQ(w.w, 97);
    EXPECT_EQ(w.h, 100);
}

TEST(TrainingSet, ScaledWindowCoversTheSameCellsOnAnotherPictureSize) {
    const Size first{640, 480};
    const Size window{97, 100};
    for (const Size picture : {Size{1280, 960}, Size{320, 240}, Size{1000, 333}, Size{417, 1201}}) {
        const Size w = scaled_window(window, first, picture, 121, 68);
        EXPECT_EQ(cells(w.w, picture.w, 121), cells(window.w, first.w, 121)) << picture.w << "x" << picture.h;
        EXPECT_EQ(cells(w.h, picture.h, 68), cells(window.h, first.h, 68)) << picture.w << "x" << picture.h;
    }
    const Size doubled = scaled_window(window, first, {1280, 960}, 121, 68);
    EXPECT_NEAR(doubled.w, 194, 6);
    EXPECT_NEAR(doubled.h, 200, 15);
}

TEST(TrainingSet, FitBoxesChangesOnlyBoxesOfAnotherSize) {
    std::vector<Rect> boxes{{10, 10, 50, 50}, {100, 100, 40, 60}, {0, 200, 30, 50}};
    const int changed = fit_boxes_to(boxes, {50, 50}, 640, 480);
    EXPECT_EQ(changed, 2);
    EXPECT_EQ(boxes[0], (Rect{10, 10, 50, 50}));
    EXPECT_EQ(boxes[1], (Rect{95, 105, 50, 50}));  // centred on the old box
    // Cut by the left edge: keeps its inner (right) side at x = 30.
    EXPECT_EQ(boxes[2].x + boxes[2].w, 30);
    EXPECT_EQ(boxes[2].w, 50);
}
