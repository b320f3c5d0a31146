// The studio reads its JSON requests strictly and says what was wrong.
#include <gtest/gtest.h>

#include "api_error.h"
#include "api_requests.h"

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
