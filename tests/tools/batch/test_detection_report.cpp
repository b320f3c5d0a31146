// The lines `ostrel detect` prints for a picture or a video frame, and the
// names of its drawn files.
#include <gtest/gtest.h>

#include "batch/detection_report.h"

using namespace ostrel_tool;

namespace {
ostrel_alg_box box(int x, float score, int label) {
    ostrel_alg_box b{};
    b.x = x;
    b.y = 20;
    b.width = 97;
    b.height = 100;
    b.score = score;
    b.label = label;
    b.color_main = 2;
    b.color_second = 9;
    return b;
}
}  // namespace

TEST(DetectionReport, PictureTextIsOneLinePerBox) {
    DetectionReport r{"a.jpg", std::nullopt, 640, 480, {box(10, 0.97f, 1), box(30, 0.4f, -1)}, {}};
    EXPECT_EQ(report_text(r, false),
              "a.jpg  10,20,97,100  score 0.97  label 1  colours light, none\n"
              "a.jpg  30,20,97,100  score 0.40  label -1  colours light, none\n");
    r.boxes.clear();
    EXPECT_EQ(report_text(r, false), "a.jpg  no detections\n");
}

TEST(DetectionReport, PictureJsonHasNoFrameFields) {
    const DetectionReport r{"a.jpg", std::nullopt, 640, 480, {}, {}};
    EXPECT_EQ(report_text(r, true), "{\"file\":\"a.jpg\",\"width\":640,\"height\":480,\"boxes\":[]}\n");
}

TEST(DetectionReport, FramesCarryIndexAndTime) {
    DetectionReport r{"clip.mp4", FramePlace{3, 375.0}, 640, 480, {box(10, 0.97f, 1)}, {}};
    EXPECT_EQ(report_text(r, true),
              "{\"file\":\"clip.mp4\",\"frame\":3,\"time_ms\":375,\"width\":640,\"height\":480,\"boxes\":[{\"x\":10,"
              "\"y\":20,\"w\":97,\"h\":100,\"score\":0.97,\"label\":1,\"color_main\":2,\"color_second\":9,"
              "\"color_main_name\":\"light\",\"color_second_name\":\"none\"}]}\n");
    EXPECT_EQ(report_text(r, false),
              "clip.mp4  frame 3  time_ms 375  10,20,97,100  score 0.97  label 1  colours light, none\n");
    r.frame = FramePlace{1, 1000.0 / 30.0};
    r.boxes.clear();
    EXPECT_EQ(report_text(r, false), "clip.mp4  frame 1  time_ms 33.333  no detections\n");
    EXPECT_NE(report_text(r, true).find("\"time_ms\":33.333,"), std::string::npos);
}

TEST(DetectionReport, InvalidUtf8InAFileNameDoesNotStopTheJson) {
    const DetectionReport r{"bad\xff.jpg", std::nullopt, 1, 1, {}, {}};
    EXPECT_EQ(report_text(r, true), "{\"file\":\"bad\xef\xbf\xbd.jpg\",\"width\":1,\"height\":1,\"boxes\":[]}\n");
}

TEST(OutputNames, SameStemGetsANumberPerExtension) {
    OutputNames names("out");
    EXPECT_EQ(names.name_for("a/x.jpg", ".png"), "out/x.png");
    EXPECT_EQ(names.name_for("b/x.png", ".png"), "out/x-2.png");
    EXPECT_EQ(names.name_for("x.mp4", ".mp4"), "out/x.mp4");
    EXPECT_EQ(names.name_for("c/x.jpg", ".png"), "out/x-3.png");
}

// A file name is written so that it cannot start a line of its own or
// hide bytes: control characters and bytes that are not UTF-8 become
// escapes (\n, \r, \t, \\, \xHH), everything else is written as it is.
TEST(DetectionReport, NamesAreEscapedInTextSoTheyCannotForgeLines) {
    DetectionReport r{"evil\n1,2,3,4  score 1.00.jpg", std::nullopt, 640, 480, {box(10, 0.97f, 1)}, {}};
    EXPECT_EQ(report_text(r, false),
              "evil\\n1,2,3,4  score 1.00.jpg  10,20,97,100  score 0.97  label 1  colours light, none\n");
    r.boxes.clear();
    r.file = std::string("tab\there\rcr\x01\x7f\\back\xff\xc3(.jpg");
    EXPECT_EQ(report_text(r, false), "tab\\there\\rcr\\x01\\x7f\\\\back\\xff\\xc3(.jpg  no detections\n");
    r.file = "caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x93\xb7 plain name.jpg";  // UTF-8 stays as it is
    EXPECT_EQ(report_text(r, false), r.file + "  no detections\n");
    r.file =
        "c1\xc2\x9b"
        "31m.jpg";  // a C1 control character (CSI) is escaped byte by byte
    EXPECT_EQ(report_text(r, false), "c1\\xc2\\x9b31m.jpg  no detections\n");
    r.file = "clip\n.mp4";
    r.frame = FramePlace{3, 375.0};
    EXPECT_EQ(report_text(r, false), "clip\\n.mp4  frame 3  time_ms 375  no detections\n");
}

TEST(DetectionReport, EscapedNamesReadBackToTheirBytes) {
    // Overlong forms, surrogates and code points beyond U+10FFFF are not UTF-8.
    for (const std::string &name : {std::string("\xc0\xaf"), std::string("\xed\xa0\x80"),
                                    std::string("\xf4\x90\x80\x80"), std::string("\xe2\x82"), std::string("a\\xff")}) {
        const std::string text = printable_file_name(name);
        std::string back;
        for (size_t i = 0; i < text.size(); ++i) {
            ASSERT_GE(static_cast<unsigned char>(text[i]), 0x20) << text;
            if (text[i] != '\\') {
                back += text[i];
            } else if (text[i + 1] == 'x') {
                back += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
                i += 3;
            } else {
                back += text[i + 1] == 'n' ? '\n' : text[i + 1] == 'r' ? '\r' : text[i + 1] == 't' ? '\t' : '\\';
                ++i;
            }
        }
        EXPECT_EQ(back, name) << text;
    }
}

// A name handed out once is never handed out again, also when an input's
// own stem looks like a numbered one.
TEST(OutputNames, NumberedNamesNeverMeetAnInputsOwnName) {
    OutputNames names("out");
    EXPECT_EQ(names.name_for("a/x.jpg", ".png"), "out/x.png");
    EXPECT_EQ(names.name_for("b/x.jpg", ".png"), "out/x-2.png");
    EXPECT_EQ(names.name_for("c/x-2.jpg", ".png"), "out/x-2-2.png");
    EXPECT_EQ(names.name_for("d/x.jpg", ".png"), "out/x-3.png");
}
