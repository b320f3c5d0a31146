// Pascal VOC files as labelling tools write them (tests/tools/files/voc_files/):
// attributes on elements, <truncated>/<difficult> as numbers or words,
// floating-point coordinates, extra blocks with <name> elements of their
// own, CDATA, character references, XML declarations with an encoding
// (UTF-8 with a byte-order mark, Latin-1, UTF-16) and malformed XML.
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "boxes/box_io.h"
#include "cli/tool_error.h"
#include "files/voc_annotations.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;

namespace {

std::string voc_file(const std::string &name) {
    return (std::filesystem::path(__FILE__).parent_path() / "voc_files" / name).string();
}

}  // namespace

TEST(VocFiles, LabelImgStyleWithAttributesAndFlags) {
    const VocAnnotation a = read_voc_annotation(voc_file("labelimg.xml"));
    EXPECT_EQ(a.filename, "cells-01.jpg");
    EXPECT_EQ(a.width, 640);
    EXPECT_EQ(a.height, 480);
    ASSERT_EQ(a.objects.size(), 2u);
    EXPECT_EQ(a.objects[0].name, "cell");
    EXPECT_TRUE(a.objects[0].truncated);
    EXPECT_FALSE(a.objects[0].difficult);
    EXPECT_EQ(a.objects[0].box, (Rect{0, 199, 90, 100}));
    EXPECT_FALSE(a.objects[1].truncated);
    EXPECT_TRUE(a.objects[1].difficult);
    EXPECT_EQ(a.objects[1].box, (Rect{299, 119, 96, 99}));
}

TEST(VocFiles, FloatCoordinatesWordFlagsAndNestedNames) {
    const VocAnnotation a = read_voc_annotation(voc_file("float_attributes.xml"));
    EXPECT_EQ(a.filename, "frame_000042.PNG");
    EXPECT_EQ(a.width, 1280);  // "1280.0"
    EXPECT_EQ(a.height, 720);
    ASSERT_EQ(a.objects.size(), 2u);
    // The <attributes> block's <name>occluded</name> comes first and the
    // <part>'s <bndbox> last: neither is taken for the object's own.
    EXPECT_EQ(a.objects[0].name, "car");
    EXPECT_TRUE(a.objects[0].difficult);   // "true"
    EXPECT_FALSE(a.objects[0].truncated);  // "false"
    // xmin 100.47 -> 100, ymin 50.5 -> 51 (half away from zero), xmax 220.61 -> 221, ymax 140.2 -> 140
    EXPECT_EQ(a.objects[0].box, (Rect{99, 50, 122, 90}));
    EXPECT_EQ(a.objects[1].name, "bus & coach");  // CDATA
    EXPECT_EQ(boxes_of_class(a, "car").size(), 1u);
    EXPECT_TRUE(boxes_of_class(a, "wheel").empty());
    EXPECT_TRUE(boxes_of_class(a, "occluded").empty());
}

TEST(VocFiles, Latin1DeclarationIsDecodedToUtf8) {
    const VocAnnotation a = read_voc_annotation(voc_file("latin1.xml"));
    EXPECT_EQ(a.filename, "caf\xc3\xa9.jpg");
    ASSERT_EQ(a.objects.size(), 1u);
    EXPECT_EQ(a.objects[0].name,
              "cr\xc3\xa8me br\xc3\xbbl\xc3\xa9"
              "e");
    EXPECT_EQ(a.objects[0].box, (Rect{10, 20, 30, 40}));
}

TEST(VocFiles, Utf16WithByteOrderMark) {
    const std::string bytes = bytes_of(voc_file("utf16.xml"));
    EXPECT_TRUE(looks_like_xml(bytes));
    const VocAnnotation a = parse_voc_annotation(bytes, "utf16.xml");
    EXPECT_EQ(a.filename, "caf\xc3\xa9.jpg");
    ASSERT_EQ(a.objects.size(), 1u);
    EXPECT_EQ(a.objects[0].name,
              "cr\xc3\xa8me br\xc3\xbbl\xc3\xa9"
              "e");
    EXPECT_EQ(a.objects[0].box, (Rect{10, 20, 30, 40}));
}

TEST(VocFiles, ByteOrderMarkCrLfAndCharacterReferences) {
    const VocAnnotation a = read_voc_annotation(voc_file("bom_crlf.xml"));
    EXPECT_EQ(a.filename, "a.jpg");  // a&#46;jpg
    ASSERT_EQ(a.objects.size(), 1u);
    EXPECT_EQ(a.objects[0].name, "fish & chips");
    EXPECT_EQ(a.objects[0].box, (Rect{0, 0, 32, 32}));
}

TEST(VocFiles, BoxFilesInEveryEncodingGiveTheirBoxes) {
    EXPECT_EQ(read_box_file(voc_file("utf16.xml"),
                            "cr\xc3\xa8me br\xc3\xbbl\xc3\xa9"
                            "e")
                  .size(),
              1u);
    EXPECT_EQ(read_box_file(voc_file("latin1.xml"),
                            "cr\xc3\xa8me br\xc3\xbbl\xc3\xa9"
                            "e")
                  .size(),
              1u);
    EXPECT_EQ(read_box_file(voc_file("float_attributes.xml"), "bus & coach").front(), (Rect{399, 299, 100, 80}));
}

TEST(VocFiles, MalformedXmlIsAnInputErrorWithItsPlace) {
    try {
        read_voc_annotation(voc_file("not_well_formed.xml"));
        FAIL() << "malformed XML was accepted";
    } catch (const ToolError &e) {
        EXPECT_EQ(e.code(), ExitCode::input);
        const std::string message = e.what();
        EXPECT_NE(message.find("not_well_formed.xml' is not well-formed XML"), std::string::npos) << message;
        EXPECT_NE(message.find("at byte"), std::string::npos) << message;
    }
}

TEST(VocFiles, ObjectsWithoutNameOrNumbersAreRefused) {
    auto code_of = [](const std::string &xml) {
        try {
            parse_voc_annotation(xml, "t");
        } catch (const ToolError &e) {
            return e.code();
        }
        return ExitCode::ok;
    };
    // The name of an <attribute> inside the object is not the object's name.
    EXPECT_EQ(code_of("<annotation><object><attributes><attribute><name>x</name></attribute></attributes>"
                      "<bndbox><xmin>1</xmin><ymin>1</ymin><xmax>2</xmax><ymax>2</ymax></bndbox></object>"
                      "</annotation>"),
              ExitCode::input);
    EXPECT_EQ(code_of("<annotation><object><name>x</name><bndbox><xmin>1e999</xmin><ymin>1</ymin><xmax>2</xmax>"
                      "<ymax>2</ymax></bndbox></object></annotation>"),
              ExitCode::input);
    EXPECT_EQ(code_of(""), ExitCode::input);
}
