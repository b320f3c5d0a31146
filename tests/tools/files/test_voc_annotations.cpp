// Pascal VOC annotation files and folders.
#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "files/voc_annotations.h"
#include "support/test_data.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;

namespace {

const char *kOneObject = R"(<annotation>
  <filename>a.jpg</filename>
  <size><width>64</width><height>48</height><depth>3</depth></size>
  <object><name>cat</name><difficult>1</difficult><truncated>0</truncated>
    <bndbox><xmin>1</xmin><ymin>2</ymin><xmax>10</xmax><ymax>20</ymax></bndbox></object>
</annotation>)";

}  // namespace

TEST(VocAnnotation, ReadsTheShippedBccdFile) {
    const VocAnnotation a = read_voc_annotation(ostrel_test::data_path("bccd/annotations/BloodImage_00000.xml"));
    EXPECT_EQ(a.filename, "BloodImage_00000.jpg");
    EXPECT_EQ(a.width, 640);
    EXPECT_EQ(a.height, 480);
    ASSERT_EQ(a.objects.size(), 20u);
    EXPECT_EQ(a.objects[0].name, "WBC");
    // <xmin>260</xmin><ymin>177</ymin><xmax>491</xmax><ymax>376</ymax>
    EXPECT_EQ(a.objects[0].box, (Rect{259, 176, 232, 200}));
    EXPECT_EQ(boxes_of_class(a, "RBC").size(), 19u);
    // The RBC at xmin 555 .. xmax 640 is marked truncated and reaches the right edge.
    const auto rbc = objects_of_class(a, "RBC");
    EXPECT_TRUE(rbc[4].truncated);
    EXPECT_EQ(rbc[4].box.x + rbc[4].box.w, 640);
}

TEST(VocAnnotation, ReadsFlagsSizeAndOneBasedBoxes) {
    const VocAnnotation a = parse_voc_annotation(kOneObject, "t");
    EXPECT_EQ(a.filename, "a.jpg");
    EXPECT_EQ(a.width, 64);
    ASSERT_EQ(a.objects.size(), 1u);
    EXPECT_TRUE(a.objects[0].difficult);
    EXPECT_FALSE(a.objects[0].truncated);
    EXPECT_EQ(a.objects[0].box, (Rect{0, 1, 10, 19}));
}

TEST(VocAnnotation, ZeroBasedCoordinatesStayInsideThePicture) {
    const VocAnnotation a = parse_voc_annotation(
        "<annotation><object><name>x</name><bndbox><xmin>0</xmin><ymin>0</ymin><xmax>9.6</xmax><ymax>5</ymax>"
        "</bndbox></object></annotation>",
        "t");
    EXPECT_EQ(a.objects[0].box, (Rect{0, 0, 10, 5}));
}

TEST(VocAnnotation, SkipsCommentsAndDecodesEntities) {
    const VocAnnotation a = parse_voc_annotation(
        "<?xml version=\"1.0\"?><!-- <object><name>ghost</name></object> --><annotation>"
        "<object><name>fish &amp; chips</name><bndbox><xmin>1</xmin><ymin>1</ymin><xmax>2</xmax><ymax>2</ymax>"
        "</bndbox></object><objects_count>1</objects_count></annotation>",
        "t");
    ASSERT_EQ(a.objects.size(), 1u);
    EXPECT_EQ(a.objects[0].name, "fish & chips");
}

TEST(VocAnnotation, MalformedFilesAreInputErrors) {
    EXPECT_EQ(code_of([] { parse_voc_annotation("<nothing/>", "t"); }), ExitCode::input);
    EXPECT_EQ(code_of([] { parse_voc_annotation("<annotation><object><name>x</name></object></annotation>", "t"); }),
              ExitCode::input);
    EXPECT_EQ(code_of([] {
                  parse_voc_annotation(
                      "<annotation><object><name>x</name><bndbox><xmin>a</xmin><ymin>1</ymin>"
                      "<xmax>2</xmax><ymax>2</ymax></bndbox></object></annotation>",
                      "t");
              }),
              ExitCode::input);
    EXPECT_EQ(code_of([] {
                  parse_voc_annotation(
                      "<annotation><object><name>x</name><bndbox><xmin>5</xmin><ymin>1</ymin>"
                      "<xmax>2</xmax><ymax>2</ymax></bndbox></object></annotation>",
                      "t");
              }),
              ExitCode::input);
    EXPECT_EQ(code_of([] { read_voc_annotation("/nonexistent.xml"); }), ExitCode::input);
}

TEST(LooksLikeXml, LooksAtTheFirstCharacter) {
    EXPECT_TRUE(looks_like_xml("  \n<annotation>"));
    EXPECT_FALSE(looks_like_xml("[[1,2,3,4]]"));
    EXPECT_FALSE(looks_like_xml(""));
}

TEST(VocFolder, FindsEveryShippedPicture) {
    const auto items = read_voc_folder(ostrel_test::data_path("bccd"));
    ASSERT_EQ(items.size(), 8u);
    EXPECT_NE(items[0].picture_path.find("BloodImage_00000.jpg"), std::string::npos);
    EXPECT_NE(items[7].picture_path.find("BloodImage_00008.jpg"), std::string::npos);
    for (const auto &item : items) {
        EXPECT_TRUE(std::filesystem::exists(item.picture_path)) << item.picture_path;
    }
}

TEST(VocFolder, MissingFolderPictureOrAnnotationsAreInputErrors) {
    namespace fs = std::filesystem;
    EXPECT_EQ(code_of([] { read_voc_folder("/nonexistent/voc"); }), ExitCode::input);
    const fs::path dir = fs::temp_directory_path() / "ostrel_voc_test";
    fs::remove_all(dir);
    fs::create_directories(dir);
    EXPECT_EQ(code_of([&] { read_voc_folder(dir.string()); }), ExitCode::input);  // no annotation
    std::ofstream(dir / "a.xml") << kOneObject;
    EXPECT_EQ(code_of([&] { read_voc_folder(dir.string()); }), ExitCode::input);  // no picture
    std::ofstream(dir / "a.jpg") << "x";
    const auto items = read_voc_folder(dir.string());
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].picture_path, (dir / "a.jpg").string());
    fs::remove_all(dir);
}
