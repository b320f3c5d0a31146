// The lines `ostrel detect` prints for a picture or a video frame, and the
// names of its drawn files.
#include <gtest/gtest.h>

#include "detection_report.h"

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
    DetectionReport r{"a.jpg", std::nullopt, 640, 480, {box(10, 0.97f, 1), box(30, 0.4f, -1)}};
    EXPECT_EQ(report_text(r, false),
              "a.jpg  10,20,97,100  score 0.97  label 1  colours light, none\n"
              "a.jpg  30,20,97,100  score 0.40  label -1  colours light, none\n");
    r.boxes.clear();
    EXPECT_EQ(report_text(r, false), "a.jpg  no detections\n");
}

TEST(DetectionReport, PictureJsonHasNoFrameFields) {
    const DetectionReport r{"a.jpg", std::nullopt, 640, 480, {}};
    EXPECT_EQ(report_text(r, true), "{\"file\":\"a.jpg\",\"width\":640,\"height\":480,\"boxes\":[]}\n");
}

TEST(DetectionReport, FramesCarryIndexAndTime) {
    DetectionReport r{"clip.mp4", FramePlace{3, 375.0}, 640, 480, {box(10, 0.97f, 1)}};
    EXPECT_EQ(report_text(r, true),
              "{\"file\":\"clip.mp4\",\"frame\":3,\"time_ms\":375,\"width\":640,\"height\":480,\"boxes\":[{\"x\":10,"
              "\"y\":20,\"w\":97,\"h\":100,\"score\":0.97,\"label\":1,\"color_main\":2,\"color_second\":9,"
              "\"color_main_name\":\"light\",\"color_second_name\":\"none\"}]}\n");
    EXPECT_EQ(report_text(r, false), "clip.mp4  frame 3  time_ms 375  10,20,97,100  score 0.97  label 1  colours light, none\n");
    r.frame = FramePlace{1, 1000.0 / 30.0};
    r.boxes.clear();
    EXPECT_EQ(report_text(r, false), "clip.mp4  frame 1  time_ms 33.333  no detections\n");
    EXPECT_NE(report_text(r, true).find("\"time_ms\":33.333,"), std::string::npos);
}

TEST(DetectionReport, InvalidUtf8InAFileNameDoesNotStopTheJson) {
    const DetectionReport r{"bad\xff.jpg", std::nullopt, 1, 1, {}};
    EXPECT_EQ(report_text(r, true), "{\"file\":\"bad\xef\xbf\xbd.jpg\",\"width\":1,\"height\":1,\"boxes\":[]}\n");
}

TEST(OutputNames, SameStemGetsANumberPerExtension) {
    OutputNames names("out");
    EXPECT_EQ(names.name_for("a/x.jpg", ".png"), "out/x.png");
    EXPECT_EQ(names.name_for("b/x.png", ".png"), "out/x-2.png");
    EXPECT_EQ(names.name_for("x.mp4", ".mp4"), "out/x.mp4");
    EXPECT_EQ(names.name_for("c/x.jpg", ".png"), "out/x-3.png");
}
