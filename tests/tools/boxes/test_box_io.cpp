// Boxes from the command line and from files, and detections as JSON.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "boxes/box_io.h"
#include "cli/tool_error.h"
#include "support/test_data.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;

namespace {

std::string temp_file(const std::string &name, const std::string &content) {
    const auto path = std::filesystem::temp_directory_path() / ("ostrel_box_io_" + name);
    std::ofstream(path) << content;
    return path.string();
}

}  // namespace

TEST(ParseBoxSpec, ReadsFourIntegers) {
    EXPECT_EQ(parse_box_argument("10,20,30,40"), (Rect{10, 20, 30, 40}));
    EXPECT_EQ(parse_box_argument(" 10, 20 ,30 , 40 "), (Rect{10, 20, 30, 40}));
    EXPECT_EQ(parse_box_argument("-5,0,30,40"), (Rect{-5, 0, 30, 40}));
}

TEST(ParseBoxSpec, MalformedBoxesAreUsageErrors) {
    for (const char *bad : {"10,20,30", "10,20,30,40,50", "a,b,c,d", "10,20,30,", "", "10;20;30;40", "10,20,30.5,40",
                            "1,2,99999999999,4"}) {
        EXPECT_EQ(code_of([&] { parse_box_argument(bad); }), ExitCode::usage) << bad;
    }
}

TEST(ParseBoxSpec, SizeMustBeAtLeastOne) {
    EXPECT_EQ(code_of([] { parse_box_argument("1,2,0,4"); }), ExitCode::usage);
    EXPECT_EQ(code_of([] { parse_box_argument("1,2,3,-4"); }), ExitCode::usage);
}

TEST(ParseBoxSpec, MessageQuotesTheText) {
    try {
        parse_box_argument("1,2,3");
        FAIL();
    } catch (const ToolError &e) {
        EXPECT_STREQ(e.what(), "malformed box '1,2,3': expected x,y,w,h (four integers)");
    }
}

TEST(ParseBoxListJson, AcceptsObjectsArraysAndDetectLines) {
    const std::vector<Rect> expected{{1, 2, 3, 4}, {5, 6, 7, 8}};
    EXPECT_EQ(parse_box_list_json(R"([{"x":1,"y":2,"w":3,"h":4},{"x":5,"y":6,"width":7,"height":8}])", "t"), expected);
    EXPECT_EQ(parse_box_list_json("[[1,2,3,4],[5,6,7,8]]", "t"), expected);
    EXPECT_EQ(parse_box_list_json(R"({"file":"a.jpg","boxes":[{"x":1,"y":2,"w":3,"h":4,"score":0.9},[5,6,7,8]]})", "t"),
              expected);
    EXPECT_TRUE(parse_box_list_json("[]", "t").empty());
}

TEST(ParseBoxListJson, RoundsFractionalCoordinates) {
    EXPECT_EQ(parse_box_list_json("[[1.4,2.6,3,4]]", "t"), (std::vector<Rect>{{1, 3, 3, 4}}));
}

TEST(ParseBoxListJson, BadContentIsAnInputError) {
    for (const char *bad : {"not json", "{\"x\":1}", "[[1,2,3]]", "[{\"x\":1,\"y\":2,\"w\":3}]", "[[1,2,0,4]]",
                            "[\"1,2,3,4\"]", "[[1,2,\"3\",4]]"}) {
        EXPECT_EQ(code_of([&] { parse_box_list_json(bad, "t"); }), ExitCode::input) << bad;
    }
}

TEST(ReadBoxFile, VocNeedsAClassAndFindsItsObjects) {
    const std::string voc = ostrel_test::data_path("bccd/annotations/BloodImage_00000.xml");
    EXPECT_EQ(code_of([&] { read_box_file(voc, ""); }), ExitCode::usage);
    EXPECT_EQ(code_of([&] { read_box_file(voc, "rbc"); }), ExitCode::input);
    const auto rbc = read_box_file(voc, "RBC");
    ASSERT_EQ(rbc.size(), 19u);
    // <xmin>78</xmin><ymin>336</ymin><xmax>184</xmax><ymax>435</ymax>, 1-based inclusive.
    EXPECT_EQ(rbc[0], (Rect{77, 335, 107, 100}));
    EXPECT_EQ(read_box_file(voc, "WBC").size(), 1u);
}

TEST(ReadBoxFile, JsonFileAndMissingFile) {
    EXPECT_EQ(read_box_file(temp_file("list.json", "[[1,2,3,4]]"), ""), (std::vector<Rect>{{1, 2, 3, 4}}));
    EXPECT_EQ(code_of([] { read_box_file("/nonexistent/boxes.json", ""); }), ExitCode::input);
}

TEST(BoxToJson, HasEveryFieldWithATwoDecimalScore) {
    ostrel_alg_box b{10, 20, 30, 40, 0.87f, 1, 3, 9};
    EXPECT_EQ(box_to_json(b).dump(),
              R"({"x":10,"y":20,"w":30,"h":40,"score":0.87,"label":1,"color_main":3,"color_second":9,)"
              R"("color_main_name":"red","color_second_name":"none"})");
    b.score = -1.0f;
    b.label = -1;
    EXPECT_EQ(box_to_json(b)["score"].get<double>(), -1.0);
}

TEST(RoundedScore, GivesHundredths) {
    EXPECT_DOUBLE_EQ(rounded_score(0.87f), 0.87);
    EXPECT_DOUBLE_EQ(rounded_score(0.3f), 0.3);
    EXPECT_DOUBLE_EQ(rounded_score(1.0f), 1.0);
}
