// detect --format: what the batch hands over (DetectionReport) reaches each
// writer whole - the library's score unrounded, each box's class, the
// picture's size - while the jsonl lines stay the --json lines.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "batch/detection_output.h"
#include "boxes/box_io.h"
#include "labels/label_formats.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;

namespace {

namespace fs = std::filesystem;

ostrel_alg_box box(int x, float score, int label) {
    ostrel_alg_box b{};
    b.x = x;
    b.y = 20;
    b.width = 30;
    b.height = 40;
    b.score = score;
    b.label = label;
    return b;
}

class DetectionOutputTest : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() / ("ostrel-detection-output-" + std::to_string(::getpid()) + "-" +
                                             ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root_);
        fs::create_directories(root_);
    }
    void TearDown() override { fs::remove_all(root_); }

    // Runs one picture's report through --format into --out FILE.
    std::string written(const std::string &format, const DetectionReport &report,
                        std::vector<std::string> classes = {"piece"}) {
        DetectionOutputOptions o;
        o.format = format;
        o.out = (root_ / ("out." + format)).string();
        o.classes = std::move(classes);
        o.model = "pieces.model";
        DetectionOutput output(o);
        output.take(report);
        EXPECT_EQ(output.finish(0), 0);
        return bytes_of(o.out);
    }

    fs::path root_;
};

// A picture of 416 x 300 with one detection scored 0.8765 by the library
// (the accurate profile does not round), one of 0.5 and a box below the
// threshold, which no format writes.
DetectionReport scored_report() {
    DetectionReport r;
    r.file = "board.jpg";
    r.width = 416;
    r.height = 300;
    r.boxes = {box(10, 0.8765f, 1), box(100, 0.5f, 1), box(200, 0.31f, -1)};
    return r;
}

}  // namespace

TEST(ExactScore, GivesTheShortestDecimalOfTheFloat) {
    EXPECT_EQ(exact_score(0.8765f), 0.8765);
    EXPECT_EQ(exact_score(0.87f), 0.87);  // the classic profile's steps stay as they were
    EXPECT_EQ(exact_score(1.0f), 1.0);
    EXPECT_EQ(exact_score(0.0f), 0.0);
    EXPECT_EQ(exact_score(-1.0f), -1.0);  // a suppressed box's mark
    EXPECT_EQ(static_cast<float>(exact_score(0.123456789f)), 0.123456789f);
}

TEST_F(DetectionOutputTest, CocoResultsCarryTheUnroundedScore) {
    const auto results = nlohmann::json::parse(written("coco", scored_report()));
    ASSERT_EQ(results.size(), 2u) << "the box below the threshold is not a detection";
    EXPECT_EQ(results[0]["score"].get<double>(), 0.8765);
    EXPECT_EQ(results[1]["score"].get<double>(), 0.5);
    EXPECT_EQ(results[0]["bbox"], nlohmann::json({10, 20, 30, 40}));
    EXPECT_EQ(results[0]["image_id"], 1);
    EXPECT_EQ(results[0]["category_id"], 1);
}

TEST_F(DetectionOutputTest, LabelStudioPredictionsCarryTheUnroundedScore) {
    const std::string text = written("labelstudio", scored_report());
    const auto tasks = nlohmann::json::parse(text);
    ASSERT_EQ(tasks.size(), 1u);
    const auto &prediction = tasks[0]["predictions"][0];
    ASSERT_EQ(prediction["result"].size(), 2u);
    EXPECT_EQ(prediction["result"][0]["score"].get<double>(), 0.8765);
    // The picture's size reaches the writer: percentages of 416 x 300.
    EXPECT_EQ(prediction["result"][0]["original_width"], 416);
    EXPECT_EQ(prediction["result"][0]["original_height"], 300);
    EXPECT_NEAR(prediction["result"][0]["value"]["x"].get<double>(), 100.0 * 10 / 416, 1e-9);
    EXPECT_NE(text.find("0.8765"), std::string::npos);
    EXPECT_EQ(text.find("0.87649"), std::string::npos) << "no digits the library did not give";
}

TEST_F(DetectionOutputTest, EachBoxKeepsItsOwnClass) {
    DetectionReport r = scored_report();
    r.classes = {"black-pawn", "white-pawn", "white-pawn"};
    const auto results = nlohmann::json::parse(written("coco", r, {"white-pawn", "black-pawn"}));
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0]["category_id"], 2);
    EXPECT_EQ(results[1]["category_id"], 1);
}

TEST_F(DetectionOutputTest, JsonlLinesAreTheJsonLines) {
    DetectionOutputOptions o;
    o.format = "jsonl";
    o.out = (root_ / "out.jsonl").string();
    o.classes = {"piece"};
    o.class_given = true;
    {
        DetectionOutput output(o);
        output.take(scored_report());
        EXPECT_EQ(output.finish(0), 0);
    }
    // Two decimals, as --json prints them, and --class named on every box.
    DetectionReport named = scored_report();
    named.classes.assign(3, "piece");
    EXPECT_EQ(bytes_of(o.out), report_text(named, true));
    EXPECT_NE(bytes_of(o.out).find("\"score\":0.88,"), std::string::npos);
}

TEST_F(DetectionOutputTest, VideoFramesArePassedOverByPictureFormats) {
    DetectionReport frame = scored_report();
    frame.frame = FramePlace{4, 133.0};
    DetectionOutputOptions o;
    o.format = "coco";
    o.out = (root_ / "out.json").string();
    DetectionOutput output(o);
    output.take(frame);
    EXPECT_EQ(output.finish(0), 3) << "frames passed over: exit 3";
    EXPECT_EQ(nlohmann::json::parse(bytes_of(o.out)), nlohmann::json::array());
}
