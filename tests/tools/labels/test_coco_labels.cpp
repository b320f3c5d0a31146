// COCO files as CVAT and Roboflow export them, COCO results, and the
// refusals of malformed files with the key and the reason.
#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "label_fixture.h"
#include "labels/coco_labels.h"
#include "labels/label_formats.h"

using namespace ostrel_tool;
using label_fixture::LabelFiles;

namespace {

std::string refusal(const std::string &text) {
    try {
        parse_coco(text, "t.json");
    } catch (const ToolError &e) {
        EXPECT_EQ(e.code(), ExitCode::input);
        return e.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return {};
}

}  // namespace

TEST_F(LabelFiles, CocoAsCvatExportsIt) {
    const LabelSet set = read_labels(at("coco/instances_default.json"));
    EXPECT_EQ(set.format, LabelFormat::coco);
    ASSERT_EQ(set.pictures.size(), 3u);
    EXPECT_EQ(set.classes, (std::vector<std::string>{"RBC", "WBC"}));
    EXPECT_EQ(set.class_ids, (std::vector<int64_t>{1, 2}));
    const LabelledPicture &one = set.pictures[0];
    EXPECT_EQ(one.picture_path, at("coco/images/BloodImage_00001.jpg"));  // an images/ folder beside the JSON
    ASSERT_EQ(one.boxes.size(), 2u);
    EXPECT_EQ(one.boxes[0].class_name, "RBC");
    EXPECT_EQ(rounded_rect(one.boxes[0]), (Rect{415, 271, 97, 100}));
    EXPECT_DOUBLE_EQ(one.boxes[1].x, 100.5);  // fractional pixels kept
    const LabelledPicture &two = set.pictures[1];
    ASSERT_EQ(two.boxes.size(), 2u);
    EXPECT_TRUE(two.boxes[0].crowd);  // iscrowd 1 with an RLE segmentation
    EXPECT_DOUBLE_EQ(*two.boxes[0].area, 30000.0);
    // A picture without boxes, and one not on disk.
    EXPECT_TRUE(set.pictures[2].boxes.empty());
    EXPECT_TRUE(set.pictures[2].picture_path.empty());
    EXPECT_NE(missing_pictures_message(set).find("no picture for 'empty.jpg'"), std::string::npos);
}

TEST_F(LabelFiles, CocoAsRoboflowExportsIt) {
    // Byte-order mark, Windows line ends, categories and images from 0.
    const LabelSet set = read_labels(at("coco/roboflow.json"));
    ASSERT_EQ(set.pictures.size(), 1u);
    EXPECT_EQ(set.pictures[0].id, 0);
    EXPECT_EQ(set.classes, (std::vector<std::string>{"cells", "Platelets", "RBC"}));
    ASSERT_EQ(set.pictures[0].boxes.size(), 2u);
    EXPECT_EQ(set.pictures[0].boxes[0].class_name, "RBC");
    EXPECT_EQ(set.pictures[0].boxes[1].class_name, "Platelets");
}

TEST(CocoLabels, RefusesMalformedFilesWithTheKey) {
    EXPECT_NE(refusal("[1,2]").find("'t.json': a COCO file is an object"), std::string::npos);
    EXPECT_NE(refusal("{\"images\": [{\"id\": 1}]}").find("images[0].file_name: missing"), std::string::npos);
    EXPECT_NE(refusal("{\"images\": 3}").find("images: a list"), std::string::npos);
    const std::string head =
        "{\"categories\":[{\"id\":1,\"name\":\"a\"}],\"images\":[{\"id\":1,\"file_name\":\"x.jpg\"}],"
        "\"annotations\":[";
    EXPECT_NE(refusal(head + "{\"image_id\":2,\"category_id\":1,\"bbox\":[0,0,1,1]}]}")
                  .find("annotations[0].image_id: no image has id 2"),
              std::string::npos);
    EXPECT_NE(refusal(head + "{\"image_id\":1,\"category_id\":7,\"bbox\":[0,0,1,1]}]}")
                  .find("annotations[0].category_id: no category has id 7"),
              std::string::npos);
    EXPECT_NE(refusal(head + "{\"image_id\":1,\"category_id\":1,\"bbox\":[0,0,0,1]}]}")
                  .find("annotations[0].bbox: width and height must be above 0"),
              std::string::npos);
    EXPECT_NE(refusal(head + "{\"image_id\":1,\"category_id\":1,\"bbox\":[0,0,1]}]}")
                  .find("annotations[0].bbox: [x, y, width, height] expected"),
              std::string::npos);
    EXPECT_NE(refusal(head + "{\"image_id\":1,\"category_id\":1,\"bbox\":[0,\"a\",1,1]}]}")
                  .find("annotations[0].bbox[1]: a number expected"),
              std::string::npos);
    EXPECT_NE(refusal(head + "{\"image_id\":1,\"category_id\":1,\"bbox\":[0,0,1,1],\"iscrowd\":2}]}")
                  .find("annotations[0].iscrowd: 0 or 1"),
              std::string::npos);
    // Not JSON: the line and column.
    EXPECT_NE(refusal("{\n\"images\": [,]}").find("'t.json' is not valid JSON"), std::string::npos);
    EXPECT_NE(refusal("{\n\"images\": [,]}").find("line 2"), std::string::npos);
}

// A number beyond any double is refused by the JSON parser as out of range,
// not as a syntax error: it must still be the file's refusal, not a crash
// (found by fuzz_label_readers).
TEST(CocoLabels, NumbersBeyondAnyDoubleAreRefusedAsInvalidJson) {
    EXPECT_NE(refusal("{\"images\": [1e888]}").find("'t.json' is not valid JSON: a number in it is out of range"),
              std::string::npos);
    const LabelSet dataset = parse_coco("{\"categories\":[],\"images\":[],\"annotations\":[]}", "gt.json");
    try {
        parse_coco_results("[0.1888888888888888e888]", "r.json", dataset);
        FAIL() << "a results file with 1e888 was read";
    } catch (const ToolError &e) {
        EXPECT_NE(std::string(e.what()).find("'r.json' is not valid JSON"), std::string::npos) << e.what();
    }
}

TEST(CocoLabels, ResultsWrittenAndReadBackAgainstTheDataset) {
    LabelSet dataset = parse_coco(
        "{\"categories\":[{\"id\":3,\"name\":\"RBC\"}],\"images\":[{\"id\":42,"
        "\"file_name\":\"a.jpg\",\"width\":640,\"height\":480}],\"annotations\":[]}",
        "gt.json");
    LabelSet detections;
    detections.classes = {"RBC"};
    LabelledPicture p;
    p.name = "a.jpg";
    p.id = 1;
    LabelBox b = label_box_of({10, 20, 30, 40}, "RBC");
    b.score = 0.87;
    p.boxes = {b};
    detections.pictures = {p};
    const std::string text = write_coco_results(detections, &dataset);
    EXPECT_EQ(text, "[{\"image_id\":42,\"category_id\":3,\"bbox\":[10,20,30,40],\"score\":0.87}]\n");
    const LabelSet back = parse_coco_results(text, "r.json", dataset);
    ASSERT_EQ(back.pictures.at(0).boxes.size(), 1u);
    EXPECT_EQ(rounded_rect(back.pictures[0].boxes[0]), (Rect{10, 20, 30, 40}));
    EXPECT_DOUBLE_EQ(*back.pictures[0].boxes[0].score, 0.87);
    // Without a dataset: pictures and classes numbered from 1.
    EXPECT_EQ(write_coco_results(detections, nullptr),
              "[{\"image_id\":1,\"category_id\":1,\"bbox\":[10,20,30,40],\"score\":0.87}]\n");
}
