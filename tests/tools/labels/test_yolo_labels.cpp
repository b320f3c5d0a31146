// YOLO folders as Ultralytics, Roboflow and LabelImg lay them out, the
// class names of data.yaml and classes.txt, and the refusals with the line.
#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "label_fixture.h"
#include "labels/label_formats.h"
#include "labels/yolo_labels.h"

using namespace ostrel_tool;
using label_fixture::LabelFiles;

namespace {

std::string refusal(const std::function<void()> &read) {
    try {
        read();
    } catch (const ToolError &e) {
        EXPECT_EQ(e.code(), ExitCode::input);
        return e.what();
    }
    ADD_FAILURE() << "accepted";
    return {};
}

std::string line_refusal(const std::string &text, const std::vector<std::string> &names = {"a", "b"}) {
    return refusal([&] { parse_yolo_label_text(text, "p.txt", 640, 480, names); });
}

}  // namespace

TEST_F(LabelFiles, YoloAsUltralyticsLaysItOut) {
    const LabelSet set = read_labels(at("yolo_ultralytics"));
    EXPECT_EQ(set.format, LabelFormat::yolo);
    EXPECT_EQ(set.classes, (std::vector<std::string>{"RBC", "WBC"}));
    ASSERT_EQ(set.pictures.size(), 2u);
    ASSERT_EQ(set.pictures[0].boxes.size(), 2u);
    // 0.724219 0.668750 0.151563 0.208333 on 640 x 480: 415, 271, 97, 100.
    EXPECT_EQ(rounded_rect(set.pictures[0].boxes[0]), (Rect{415, 271, 97, 100}));
    EXPECT_EQ(set.pictures[0].boxes[1].class_name, "WBC");
    EXPECT_EQ(set.pictures[0].width, 640);  // from the picture's header
    // The second picture has no label file: no objects, and a note says so.
    EXPECT_TRUE(set.pictures[1].boxes.empty());
    ASSERT_EQ(set.notes.size(), 1u);
    EXPECT_NE(set.notes[0].find("1 picture"), std::string::npos);
}

TEST_F(LabelFiles, YoloAsRoboflowLaysItOut) {
    // data.yaml one folder up, a flow list of names, Windows line ends, a blank line.
    const LabelSet set = read_labels(at("yolo_roboflow/train"));
    EXPECT_EQ(set.classes, (std::vector<std::string>{"RBC", "WBC"}));
    ASSERT_EQ(set.pictures.size(), 2u);
    ASSERT_EQ(set.pictures[0].boxes.size(), 2u);
    EXPECT_EQ(rounded_rect(set.pictures[0].boxes[1]), (Rect{100, 190, 120, 100}));
    EXPECT_TRUE(set.pictures[1].boxes.empty());  // no label file
}

TEST_F(LabelFiles, YoloSideBySide) {
    const LabelSet set = read_labels(at("yolo_side_by_side"));
    ASSERT_EQ(set.pictures.size(), 2u);
    EXPECT_EQ(set.pictures[0].boxes.size(), 1u);
    EXPECT_TRUE(set.pictures[1].boxes.empty());  // an empty label file
    EXPECT_TRUE(set.notes.empty());
}

TEST(YoloLabels, DataYamlForms) {
    EXPECT_EQ(parse_yolo_data_yaml("names: ['a b', \"c\", d]  # three\n", "d.yaml"),
              (std::vector<std::string>{"a b", "c", "d"}));
    EXPECT_EQ(parse_yolo_data_yaml("nc: 2\nnames:\n- x\n- 'it''s'\n", "d.yaml"),
              (std::vector<std::string>{"x", "it's"}));
    EXPECT_EQ(parse_yolo_data_yaml("names:\n  1: b\n  0: a\ntrain: x\n", "d.yaml"),
              (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(parse_yolo_data_yaml("names: {0: a, 1: b}\n", "d.yaml"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(parse_yolo_data_yaml("names: [a,\n  b]\n", "d.yaml"), (std::vector<std::string>{"a", "b"}));
    EXPECT_NE(refusal([] { parse_yolo_data_yaml("nc: 2\n", "d.yaml"); }).find("no \"names:\""), std::string::npos);
    EXPECT_NE(refusal([] {
                  parse_yolo_data_yaml("x: 1\nnames:\n  0: a\n  2: c\n", "d.yaml");
              }).find("'d.yaml' line 2: class numbers must run 0, 1, 2, ... without a gap; 1 is missing"),
              std::string::npos);
    EXPECT_NE(refusal([] { parse_yolo_data_yaml("names: [a, 'b\n", "d.yaml"); }).find("line 1"), std::string::npos);
    EXPECT_NE(refusal([] { parse_yolo_data_yaml("names: &x [a]\n", "d.yaml"); }).find("line 1"), std::string::npos);
}

TEST(YoloLabels, LinesOfDetectionsAndPolygons) {
    const auto boxes =
        parse_yolo_label_text("1 0.5 0.5 0.25 0.5 0.87\n0 0.1 0.1 0.3 0.1 0.3 0.4\n", "p.txt", 640, 480, {"a", "b"});
    ASSERT_EQ(boxes.size(), 2u);
    EXPECT_EQ(boxes[0].class_name, "b");
    EXPECT_DOUBLE_EQ(*boxes[0].score, 0.87);
    EXPECT_EQ(rounded_rect(boxes[0]), (Rect{240, 120, 160, 240}));
    EXPECT_EQ(rounded_rect(boxes[1]), (Rect{64, 48, 128, 144}));  // the polygon's bounding box
    // Without names the classes are their numbers.
    EXPECT_EQ(parse_yolo_label_text("3 0.5 0.5 0.1 0.1\n", "p.txt", 640, 480, {})[0].class_name, "3");
}

TEST(YoloLabels, RefusesMalformedLinesWithTheLine) {
    EXPECT_NE(line_refusal("0 0.5 0.5 0.1\n").find("'p.txt' line 1: 5 values expected"), std::string::npos);
    EXPECT_NE(line_refusal("\n0 0.5 x 0.1 0.1\n").find("'p.txt' line 2: 'x' is not a number"), std::string::npos);
    EXPECT_NE(line_refusal("2 0.5 0.5 0.1 0.1\n").find("class 2, but the class names list 2 classes (0..1)"),
              std::string::npos);
    EXPECT_NE(line_refusal("-1 0.5 0.5 0.1 0.1\n").find("not a class number"), std::string::npos);
    EXPECT_NE(line_refusal("0 1.5 0.5 0.1 0.1\n").find("lies outside 0..1"), std::string::npos);
    EXPECT_NE(line_refusal("0 0.5 0.5 0 0.1\n").find("width and height must be above 0"), std::string::npos);
    EXPECT_NE(line_refusal("0 0.5 0.5 0.1 0.1 1.5\n").find("confidence"), std::string::npos);
    EXPECT_NE(line_refusal("0 nan 0.5 0.1 0.1\n").find("not a number"), std::string::npos);
}

TEST(YoloLabels, WritesWhatItReads) {
    LabelledPicture p;
    p.width = 640;
    p.height = 480;
    LabelBox b = label_box_of({415, 271, 97, 100}, "b");
    b.score = 0.5;
    p.boxes = {b};
    const std::string text = write_yolo_label_text(p, {"a", "b"});
    EXPECT_EQ(text, "1 0.724219 0.668750 0.151562 0.208333 0.500000\n");
    const auto back = parse_yolo_label_text(text, "p.txt", 640, 480, {"a", "b"});
    EXPECT_EQ(rounded_rect(back.at(0)), (Rect{415, 271, 97, 100}));
}
