// Pins down how detections made earlier are read back for `ostrel eval`:
// the classes the boxes name (JSON lines' "class", COCO results'
// categories) in order of first use, where the first box without a class
// is, and the one class given to such boxes in a file of one class.
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "evaluation/detection_files.h"

namespace ostrel_tool {
namespace {

namespace fs = std::filesystem;

class DetectionFiles : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() / ("ostrel-detection-files-" + std::to_string(::getpid()) + "-" +
                                             ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root_);
        fs::create_directories(root_);
        for (const char *name : {"one.jpg", "two.jpg"}) {
            LabelledPicture p;
            p.name = name;
            p.id = static_cast<int64_t>(labels_.pictures.size() + 1);
            labels_.pictures.push_back(p);
        }
        labels_.classes = {"cell", "dust"};
    }
    void TearDown() override { fs::remove_all(root_); }

    std::string file(const std::string &name, const std::string &text) const {
        const fs::path path = root_ / name;
        std::ofstream(path, std::ios::binary) << text;
        return path.string();
    }

    fs::path root_;
    LabelSet labels_;
};

TEST_F(DetectionFiles, ClassesNamedInOrderOfFirstUse) {
    const std::string path =
        file("d.jsonl", R"({"file": "two.jpg", "boxes": [{"x": 1, "y": 2, "w": 3, "h": 4, "score": 0.9,)"
                        R"( "label": 1, "class": "dust"}, {"x": 5, "y": 5, "w": 5, "h": 5, "score": 0.8,)"
                        R"( "label": -1, "class": "cell"}]})"
                        "\n"
                        R"({"file": "one.jpg", "boxes": [{"x": 1, "y": 1, "w": 2, "h": 2, "score": 0.7,)"
                        R"( "label": 1, "class": "cell"}]})"
                        "\n");
    const DetectionFile f = read_detection_file(path, labels_);
    EXPECT_EQ(f.classes, (std::vector<std::string>{"dust", "cell"}));
    EXPECT_TRUE(names_several_classes(f));
    EXPECT_TRUE(f.first_unnamed.empty());
    ASSERT_TRUE(f.found[1].has_value());
    ASSERT_EQ(f.found[1]->size(), 2u);
    EXPECT_EQ((*f.found[1])[0].box.class_name, "dust");
    EXPECT_TRUE((*f.found[1])[0].above_threshold);
    EXPECT_EQ((*f.found[1])[1].box.class_name, "cell");
    EXPECT_FALSE((*f.found[1])[1].above_threshold);
}

TEST_F(DetectionFiles, OneClassNamedIsNotSeveral) {
    const std::string path = file("d.jsonl", R"({"file": "one.jpg", "boxes": [{"x": 1, "y": 1, "w": 2, "h": 2,)"
                                             R"( "score": 0.7, "label": 1, "class": "cell"}]})"
                                             "\n");
    const DetectionFile f = read_detection_file(path, labels_);
    EXPECT_EQ(f.classes, std::vector<std::string>{"cell"});
    EXPECT_FALSE(names_several_classes(f));
}

TEST_F(DetectionFiles, BoxesWithoutClassTakeTheOneClassGiven) {
    const std::string path =
        file("d.jsonl", R"({"file": "one.jpg", "boxes": []})"
                        "\n"
                        R"({"file": "two.jpg", "boxes": [{"x": 1, "y": 1, "w": 2, "h": 2, "score": 0.7,)"
                        R"( "label": 1, "class": "dust"}, {"x": 4, "y": 4, "w": 2, "h": 2, "score": 0.6, "label": 1}]})"
                        "\n");
    DetectionFile f = read_detection_file(path, labels_);
    EXPECT_EQ(f.first_unnamed, "line 2, boxes[1]");
    EXPECT_EQ(f.classes, std::vector<std::string>{"dust"});  // only the names the file gives
    name_unnamed_boxes(f, "cell");
    ASSERT_TRUE(f.found[0].has_value());
    EXPECT_TRUE(f.found[0]->empty());
    ASSERT_EQ(f.found[1]->size(), 2u);
    EXPECT_EQ((*f.found[1])[0].box.class_name, "dust");  // a named box keeps its class
    EXPECT_EQ((*f.found[1])[1].box.class_name, "cell");
}

TEST_F(DetectionFiles, LinesOfOtherPicturesNameNoClass) {
    const std::string path = file("d.jsonl", R"({"file": "three.jpg", "boxes": [{"x": 1, "y": 1, "w": 2, "h": 2,)"
                                             R"( "score": 0.7, "label": 1, "class": "rook"}]})"
                                             "\n");
    const DetectionFile f = read_detection_file(path, labels_);
    EXPECT_EQ(f.unmatched_lines, 1);
    EXPECT_TRUE(f.classes.empty());
}

TEST_F(DetectionFiles, CocoResultsNameTheirCategories) {
    labels_.format = LabelFormat::coco;
    labels_.class_ids = {1, 2};
    const std::string path =
        file("r.json", R"([{"image_id": 2, "category_id": 2, "bbox": [1, 2, 3, 4], "score": 0.9},)"
                       R"( {"image_id": 1, "category_id": 1, "bbox": [1, 2, 3, 4], "score": 0.8}])");
    const DetectionFile f = read_detection_file(path, labels_);
    // Read picture by picture: one.jpg's cell comes first.
    EXPECT_EQ(f.classes, (std::vector<std::string>{"cell", "dust"}));
    EXPECT_TRUE(f.first_unnamed.empty());
    ASSERT_EQ(f.found[1]->size(), 1u);
    EXPECT_EQ((*f.found[1])[0].box.class_name, "dust");
}

}  // namespace
}  // namespace ostrel_tool
