// The XML formats: CVAT for images 1.1, dlib's imglab and Pascal VOC as a
// label set; what the tools write and the refusals with the line.
#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "label_fixture.h"
#include "labels/cvat_labels.h"
#include "labels/imglab_labels.h"
#include "labels/label_formats.h"
#include "labels/voc_labels.h"

using namespace ostrel_tool;
using label_fixture::LabelFiles;

namespace {

template <typename Parse>
std::string refusal(Parse parse, const std::string &text) {
    try {
        parse(text, "t.xml");
    } catch (const ToolError &e) {
        EXPECT_EQ(e.code(), ExitCode::input);
        return e.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return {};
}

}  // namespace

TEST_F(LabelFiles, CvatForImages) {
    const LabelSet set = read_labels(at("cvat"));  // the folder: annotations.xml and images/
    EXPECT_EQ(set.format, LabelFormat::cvat);
    EXPECT_EQ(set.classes, (std::vector<std::string>{"RBC", "WBC", "Platelets"}));
    ASSERT_EQ(set.pictures.size(), 2u);
    EXPECT_EQ(set.pictures[0].picture_path, at("cvat/images/BloodImage_00001.jpg"));
    ASSERT_EQ(set.pictures[0].boxes.size(), 2u);  // the polygon and the tag are passed over
    EXPECT_EQ(rounded_rect(set.pictures[0].boxes[0]), (Rect{415, 271, 97, 100}));
    EXPECT_TRUE(set.pictures[0].boxes[1].difficult);
    EXPECT_TRUE(set.pictures[0].boxes[1].occluded);
    EXPECT_DOUBLE_EQ(set.pictures[0].boxes[1].x, 10.5);
    EXPECT_TRUE(set.pictures[1].boxes.empty());
    ASSERT_EQ(set.notes.size(), 1u);
    EXPECT_NE(set.notes[0].find("2 shapes other than boxes"), std::string::npos);
}

TEST(CvatLabels, RefusesWithTheLine) {
    EXPECT_NE(refusal(parse_cvat,
                      "<annotations><image id='0' name='a.jpg'>\n<box label='x' xtl='1' ytl='1' "
                      "xbr='0' ybr='5'/></image></annotations>")
                  .find("'t.xml' line 2: xbr/ybr must lie beyond xtl/ytl"),
              std::string::npos);
    EXPECT_NE(refusal(parse_cvat,
                      "<annotations>\n<image id='0' name='a.jpg'><box label='x' xtl='a' ytl='1' "
                      "xbr='3' ybr='5'/></image></annotations>")
                  .find("xtl=\"a\" is not a number"),
              std::string::npos);
    EXPECT_NE(refusal(parse_cvat, "<annotations><track id='0' label='x'/></annotations>").find("CVAT for video"),
              std::string::npos);
    EXPECT_NE(refusal(parse_cvat, "<annotations><image id='0'/></annotations>").find("no name"), std::string::npos);
    EXPECT_NE(refusal(parse_cvat, "<annotations><image").find("not well-formed XML"), std::string::npos);
    EXPECT_NE(refusal(parse_cvat, "<dataset/>").find("no <annotations>"), std::string::npos);
}

TEST(CvatLabels, RotatedBoxesBecomeTheUprightBoxAround) {
    const LabelSet set = parse_cvat(
        "<annotations><image id='0' name='a.jpg' width='100' height='100'><box label='x' "
        "xtl='40' ytl='45' xbr='60' ybr='55' rotation='90'/></image></annotations>",
        "t.xml");
    EXPECT_EQ(rounded_rect(set.pictures[0].boxes[0]), (Rect{45, 40, 10, 20}));
}

TEST_F(LabelFiles, ImglabAsDlibWritesIt) {
    const LabelSet set = read_labels(at("imglab/training.xml"));
    EXPECT_EQ(set.format, LabelFormat::imglab);
    ASSERT_EQ(set.pictures.size(), 2u);
    ASSERT_EQ(set.pictures[0].boxes.size(), 2u);
    EXPECT_EQ(set.pictures[0].boxes[0].class_name, "gl\xC3\xA4nzend");  // Latin-1 read as declared
    EXPECT_EQ(rounded_rect(set.pictures[0].boxes[0]), (Rect{415, 271, 97, 100}));
    EXPECT_TRUE(set.pictures[0].boxes[1].difficult);  // ignore='1'
    EXPECT_EQ(set.pictures[0].boxes[1].class_name, kUnlabelledClass);
    EXPECT_EQ(set.pictures[1].picture_path, at("imglab/BloodImage_00002.jpg"));
}

TEST(ImglabLabels, RefusesWithTheLine) {
    EXPECT_NE(refusal(parse_imglab,
                      "<dataset><images>\n<image file='a.jpg'><box top='1' left='2' width='3'/>"
                      "</image></images></dataset>")
                  .find("'t.xml' line 2: <box> has no height='...'"),
              std::string::npos);
    EXPECT_NE(refusal(parse_imglab,
                      "<dataset><images><image file='a.jpg'><box top='1' left='2' width='0' "
                      "height='3'/></image></images></dataset>")
                  .find("width and height must be at least 1"),
              std::string::npos);
    EXPECT_NE(refusal(parse_imglab,
                      "<dataset><images><image file='a.jpg'><box top='1.5' left='2' width='3' "
                      "height='3'/></image></images></dataset>")
                  .find("top='1.5' is not a whole number"),
              std::string::npos);
    EXPECT_NE(refusal(parse_imglab, "<dataset><images><image/></images></dataset>").find("no file"), std::string::npos);
}

TEST(ImglabLabels, WritesWhatItReads) {
    LabelSet set;
    LabelledPicture p;
    p.name = "a.jpg";
    p.width = 640;
    p.height = 480;
    LabelBox b = label_box_of({10, 20, 30, 40}, "\xC3\xA4rger");
    b.difficult = true;
    p.boxes = {b};
    set.pictures = {p};
    const std::string text = write_imglab(set, {});
    EXPECT_NE(text.find("encoding=\"ISO-8859-1\""), std::string::npos);
    const LabelSet back = parse_imglab(text, "w.xml");
    EXPECT_EQ(back.pictures.at(0).boxes.at(0).class_name, "\xC3\xA4rger");
    EXPECT_TRUE(back.pictures[0].boxes[0].difficult);
    EXPECT_EQ(rounded_rect(back.pictures[0].boxes[0]), (Rect{10, 20, 30, 40}));
}

TEST_F(LabelFiles, VocFolderAndFile) {
    const LabelSet folder = read_labels(at("voc"));
    EXPECT_EQ(folder.format, LabelFormat::voc);
    ASSERT_EQ(folder.pictures.size(), 1u);
    ASSERT_EQ(folder.pictures[0].boxes.size(), 2u);
    // xmin 416 .. xmax 512 (1-based, inclusive): x 415, w 97.
    EXPECT_EQ(rounded_rect(folder.pictures[0].boxes[0]), (Rect{415, 271, 97, 100}));
    EXPECT_TRUE(folder.pictures[0].boxes[1].difficult);
    EXPECT_TRUE(folder.pictures[0].boxes[1].truncated);
    const LabelSet file = read_labels(at("voc/BloodImage_00001.xml"));
    EXPECT_EQ(file.pictures.at(0).picture_path, at("voc/BloodImage_00001.jpg"));
}

TEST(VocLabels, WritesWhatItReads) {
    LabelledPicture p;
    p.picture_path = "pictures/a.jpg";
    p.width = 640;
    p.height = 480;
    LabelBox b = label_box_of({0, 20, 30, 40}, "cell");
    b.score = 0.75;
    p.boxes = {b};
    const std::string text = write_voc_annotation(p, {});
    EXPECT_NE(text.find("<xmin>1</xmin>"), std::string::npos);
    EXPECT_NE(text.find("<xmax>30</xmax>"), std::string::npos);
    const LabelledPicture back = voc_picture_of(parse_voc_annotation(text, "a.xml"), "a.xml");
    EXPECT_EQ(back.name, "a.jpg");
    EXPECT_EQ(rounded_rect(back.boxes.at(0)), (Rect{0, 20, 30, 40}));
    EXPECT_DOUBLE_EQ(*back.boxes[0].score, 0.75);
}

TEST_F(LabelFiles, FormatsAreToldFromTheContent) {
    EXPECT_EQ(detect_label_format(at("coco/roboflow.json")), LabelFormat::coco);
    EXPECT_EQ(detect_label_format(at("labelstudio/export.json")), LabelFormat::labelstudio);
    EXPECT_EQ(detect_label_format(at("cvat/annotations.xml")), LabelFormat::cvat);
    EXPECT_EQ(detect_label_format(at("imglab")), LabelFormat::imglab);
    EXPECT_EQ(detect_label_format(at("yolo_side_by_side")), LabelFormat::yolo);
    EXPECT_EQ(detect_label_format(at("voc")), LabelFormat::voc);
    // Two COCO files in one folder: which one is meant is not known.
    EXPECT_THROW(read_labels(at("coco")), ToolError);
    // Labels of two formats in one folder: --format chooses.
    label_fixture::write(root_ / "voc" / "annotations.json", label_fixture::bytes_of(root_ / "coco/roboflow.json"));
    try {
        detect_label_format(at("voc"));
        ADD_FAILURE() << "two formats taken";
    } catch (const ToolError &e) {
        EXPECT_NE(std::string(e.what()).find("several formats (voc: "), std::string::npos);
        EXPECT_NE(std::string(e.what()).find("--format"), std::string::npos);
    }
    EXPECT_EQ(read_labels(at("voc"), LabelFormat::voc).pictures.size(), 1u);
    // A COCO results file is not labels.
    label_fixture::write(root_ / "r.json", "[{\"image_id\":1,\"category_id\":1,\"bbox\":[1,2,3,4],\"score\":0.5}]");
    EXPECT_THROW(detect_label_format(at("r.json")), ToolError);
}
