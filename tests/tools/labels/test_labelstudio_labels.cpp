// Label Studio's JSON export and JSON-MIN export, the predictions the
// writer makes for import, and the refusals with the key.
#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "label_fixture.h"
#include "labels/label_formats.h"
#include "labels/labelstudio_labels.h"

using namespace ostrel_tool;
using label_fixture::LabelFiles;

namespace {

std::string refusal(const std::string &text) {
    try {
        parse_labelstudio(text, "t.json");
    } catch (const ToolError &e) {
        EXPECT_EQ(e.code(), ExitCode::input);
        return e.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return {};
}

}  // namespace

TEST_F(LabelFiles, LabelStudioExport) {
    const LabelSet set = read_labels(at("labelstudio/export.json"));
    EXPECT_EQ(set.format, LabelFormat::labelstudio);
    ASSERT_EQ(set.pictures.size(), 2u);
    const LabelledPicture &one = set.pictures[0];
    // The upload prefix 1a2b3c4d- is not part of the file's own name.
    EXPECT_EQ(one.picture_path, at("labelstudio/BloodImage_00001.jpg"));
    ASSERT_EQ(one.boxes.size(), 2u);  // the cancelled annotation is passed over, the choice too
    // 64.84375% of 640 = 415, 56.458333% of 480 = 271, 15.15625% = 97, 20.8333% = 100.
    EXPECT_EQ(rounded_rect(one.boxes[0]), (Rect{415, 271, 97, 100}));
    EXPECT_EQ(one.boxes[1].class_name, "WBC");  // a rectangle labelled by a labels result of its id
    EXPECT_EQ(rounded_rect(one.boxes[1]), (Rect{64, 48, 64, 48}));
    // A task with predictions only: they are read, with their scores.
    const LabelledPicture &two = set.pictures[1];
    EXPECT_EQ(two.picture_path, at("labelstudio/BloodImage_00002.jpg"));  // /data/local-files/?d=
    ASSERT_EQ(two.boxes.size(), 1u);
    EXPECT_DOUBLE_EQ(*two.boxes[0].score, 0.87);
}

TEST_F(LabelFiles, LabelStudioJsonMin) {
    const LabelSet set = read_labels(at("labelstudio/min.json"));
    ASSERT_EQ(set.pictures.size(), 1u);
    EXPECT_EQ(rounded_rect(set.pictures[0].boxes.at(0)), (Rect{415, 271, 97, 100}));
}

TEST(LabelStudioLabels, RotatedRectanglesTurnAboutTheirCorner) {
    // 10 x 20 percent of a 100 x 100 picture at (50, 50), turned 90 degrees
    // clockwise about (50, 50): it covers x 30..50, y 50..60.
    const LabelSet set = parse_labelstudio(
        "[{\"data\":{\"image\":\"a.jpg\"},\"annotations\":[{\"result\":[{\"type\":\"rectanglelabels\","
        "\"original_width\":100,\"original_height\":100,\"value\":{\"x\":50,\"y\":50,\"width\":10,\"height\":20,"
        "\"rotation\":90,\"rectanglelabels\":[\"a\"]}}]}]}]",
        "t.json");
    EXPECT_EQ(rounded_rect(set.pictures.at(0).boxes.at(0)), (Rect{30, 50, 20, 10}));
}

TEST(LabelStudioLabels, RefusesWithTheKey) {
    EXPECT_NE(refusal("[{\"annotations\":[]}]").find("[0].data: missing"), std::string::npos);
    EXPECT_NE(refusal("[{\"data\":{\"image\":\"a.jpg\"},\"annotations\":[{\"result\":[{\"type\":\"rectanglelabels\","
                      "\"original_width\":10,\"original_height\":10,\"value\":{\"x\":1,\"y\":1,\"width\":0,"
                      "\"height\":2,\"rectanglelabels\":[\"a\"]}}]}]}]")
                  .find("[0].annotations[0].result[0].value: width and height must be above 0"),
              std::string::npos);
    // No size in the file and no lookup for the picture.
    EXPECT_NE(refusal("[{\"data\":{\"image\":\"a.jpg\"},\"annotations\":[{\"result\":[{\"type\":\"rectanglelabels\","
                      "\"value\":{\"x\":1,\"y\":1,\"width\":2,\"height\":2,\"rectanglelabels\":[\"a\"]}}]}]}]")
                  .find("no original_width/original_height"),
              std::string::npos);
    EXPECT_NE(refusal("[{\"data\":{\"image\":\"a.jpg\"},\"annotations\":[{\"result\":[{\"type\":\"rectangle\",\"id\":"
                      "\"q\",\"original_width\":10,\"original_height\":10,\"value\":{\"x\":1,\"y\":1,\"width\":2,"
                      "\"height\":2}}]}]}]")
                  .find("a rectangle (id 'q') without a label"),
              std::string::npos);
    EXPECT_NE(refusal("[{\"data\":{\"image\":\"a.jpg\"},\"annotations\":[{\"result\":[{\"type\":\"rectanglelabels\","
                      "\"original_width\":10,\"original_height\":10,\"value\":{\"x\":\"a\",\"y\":1,\"width\":2,"
                      "\"height\":2,\"rectanglelabels\":[\"a\"]}}]}]}]")
                  .find("value.x: a number expected"),
              std::string::npos);
}

TEST(LabelStudioLabels, PredictionsReadyToImport) {
    LabelSet set;
    LabelledPicture p;
    p.picture_path = "a.jpg";
    p.width = 640;
    p.height = 480;
    LabelBox b = label_box_of({415, 271, 97, 100}, "RBC");
    b.score = 0.9;
    p.boxes = {b};
    set.pictures = {p};
    LabelWriteOptions options;
    options.predictions = true;
    options.model_version = "ostrel rbc.model";
    const std::string text = write_labelstudio(set, options);
    const nlohmann::json tasks = nlohmann::json::parse(text);
    const nlohmann::json &prediction = tasks.at(0).at("predictions").at(0);
    EXPECT_EQ(prediction.at("model_version"), "ostrel rbc.model");
    EXPECT_EQ(prediction.at("result").at(0).at("score"), 0.9);
    EXPECT_EQ(prediction.at("result").at(0).at("from_name"), "label");
    EXPECT_EQ(prediction.at("result").at(0).at("to_name"), "image");
    EXPECT_EQ(tasks.at(0).at("data").at("image"), "a.jpg");
    const LabelSet back = parse_labelstudio(text, "w.json");
    EXPECT_EQ(rounded_rect(back.pictures.at(0).boxes.at(0)), (Rect{415, 271, 97, 100}));
    EXPECT_DOUBLE_EQ(*back.pictures[0].boxes[0].score, 0.9);
}
