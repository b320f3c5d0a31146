// The studio reads its JSON requests strictly and says what was wrong.
#include <gtest/gtest.h>

#include "studio/api_error.h"
#include "studio/api_requests.h"

using namespace ostrel_tool;
using namespace ostrel_tool::studio;

namespace {

std::string refusal(const std::string &body, int *status) {
    try {
        parse_train_request(body);
    } catch (const ApiError &e) {
        *status = e.status();
        return e.what();
    }
    return "";
}

}  // namespace

TEST(StudioApiRequests, TrainRequestWithListsOrObjects) {
    const TrainRequest r =
        parse_train_request(R"({"picture":"a.jpg","boxes":[[1,2,30,40],{"x":5,"y":6,"w":30,"h":40}],"extra":1})");
    EXPECT_EQ(r.picture, "a.jpg");
    ASSERT_EQ(r.boxes.size(), 2u);
    EXPECT_EQ(r.boxes[0], (Rect{1, 2, 30, 40}));
    EXPECT_EQ(r.boxes[1], (Rect{5, 6, 30, 40}));
}

TEST(StudioApiRequests, MalformedTrainRequestsAre400WithTheReason) {
    const std::pair<const char *, const char *> cases[] = {
        {"", "not valid JSON"},
        {"{\"picture\":", "not valid JSON"},
        {"[]", "JSON array"},
        {"{\"boxes\":[]}", "\"picture\""},
        {"{\"picture\":null,\"boxes\":[]}", "\"picture\""},
        {"{\"picture\":\"a\",\"boxes\":7}", "\"boxes\""},
        {"{\"picture\":\"a\",\"boxes\":[[1,2,3]]}", "box 1"},
        {"{\"picture\":\"a\",\"boxes\":[[1,2,3,4],[1,2,3,\"4\"]]}", "box 2 h must be a number"},
        {"{\"picture\":\"a\",\"boxes\":[[1,2,3,4.5]]}", "whole number"},
        {"{\"picture\":\"a\",\"boxes\":[[1,2,3,4294967296]]}", "32 bits"},
        {"{\"picture\":\"a\",\"boxes\":[[1,2,3,-2147483649]]}", "32 bits"},
        {"{\"picture\":\"a\",\"boxes\":[{\"x\":1,\"y\":2,\"w\":3}]}", "no \"h\""},
        {"{\"picture\":\"a\",\"boxes\":[true]}", "box 1"},
    };
    for (const auto &c : cases) {
        int status = 0;
        const std::string message = refusal(c.first, &status);
        EXPECT_EQ(status, 400) << c.first;
        EXPECT_NE(message.find(c.second), std::string::npos) << c.first << " -> " << message;
    }
}

TEST(StudioApiRequests, SensitivityIsAWholeNumberFrom0To100) {
    EXPECT_EQ(parse_sensitivity("", false, 80), 80u);
    EXPECT_EQ(parse_sensitivity("0", true, 80), 0u);
    EXPECT_EQ(parse_sensitivity("100", true, 80), 100u);
    for (const char *bad : {"", "101", "-1", "1e2", "50.0", " 5", "0x10", "9999"}) {
        EXPECT_THROW(parse_sensitivity(bad, true, 80), ApiError) << bad;
    }
}

TEST(StudioApiRequests, SampleIndexIsDecimalDigitsOnly) {
    EXPECT_EQ(parse_sample_index("0"), 0u);
    EXPECT_EQ(parse_sample_index("123456789"), 123456789u);
    for (const char *bad : {"", "-1", "+1", "1e3", "1234567890", "a", "1 "}) {
        try {
            parse_sample_index(bad);
            ADD_FAILURE() << bad;
        } catch (const ApiError &e) {
            EXPECT_EQ(e.status(), 404) << bad;
        }
    }
}

TEST(StudioApiRequests, ANumberThatOverflowsIsAMalformedRequest) {
    for (const char *body :
         {R"({"picture":"a","boxes":[[1e400,0,30,40]]})", R"({"picture":"a","boxes":[[0,0,30,-1e400]]})",
          R"({"picture":"a","boxes":[],"note":1e999})", R"({"picture":"a","boxes":[{"x":1E+400}]})", "1e400",
          "[1e400]"}) {
        int status = 0;
        const std::string message = refusal(body, &status);
        EXPECT_EQ(status, 400) << body;
        EXPECT_NE(message.find("number"), std::string::npos) << body << " -> " << message;
    }
}

TEST(StudioApiRequests, NestingValuesAndSizeAreBoundedBeforeParsing) {
    // A train request nests three deep and holds five values a box.
    const std::string depth_at_limit = std::string(kMaxJsonDepth, '[') + std::string(kMaxJsonDepth, ']');
    int status = 0;
    EXPECT_EQ(refusal(depth_at_limit, &status).find("nested"), std::string::npos);
    const std::pair<std::string, const char *> refused[] = {
        {std::string(kMaxJsonDepth + 1, '[') + std::string(kMaxJsonDepth + 1, ']'), "nested"},
        {std::string(30000, '[') + std::string(30000, ']'), "nested"},
        {std::string(30000, '{'), "nested"},
    };
    for (const auto &c : refused) {
        status = 0;
        const std::string message = refusal(c.first, &status);
        EXPECT_EQ(status, 400) << c.first.substr(0, 40);
        EXPECT_NE(message.find(c.second), std::string::npos) << message;
    }
    std::string many = "{\"picture\":\"a\",\"boxes\":[";
    for (size_t i = 0; i < kMaxJsonValues; ++i) many += "0,";
    many += "0]}";
    status = 0;
    EXPECT_NE(refusal(many, &status).find("values"), std::string::npos);
    EXPECT_EQ(status, 400);
    // Brackets inside strings are text, not nesting.
    const TrainRequest quoted =
        parse_train_request("{\"picture\":\"" + std::string(1000, '[') + "\\\"{{\",\"boxes\":[[1,2,30,40]]}");
    EXPECT_EQ(quoted.picture, std::string(1000, '[') + "\"{{");
    // A body over the size limit is refused before anything is read from it.
    status = 0;
    const std::string big = "{\"picture\":\"" + std::string(kMaxJsonBytes, 'a') + "\",\"boxes\":[]}";
    EXPECT_NE(refusal(big, &status).find("KiB"), std::string::npos);
    EXPECT_EQ(status, 413);
}
