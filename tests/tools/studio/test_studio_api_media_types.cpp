// The JSON interface reads Content-Type as a media type: the forms other
// web sites can send from a visitor's browser without asking first
// (text/plain, form encodings: whatever their case, spacing or parameters,
// "text/plain\t;charset=utf-8" included) are refused for files and JSON,
// while odd but valid spellings of the accepted types are taken. A number
// that overflows in a JSON body is a malformed request (400), not a
// failure.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "studio_handlers_fixture.h"

using namespace ostrel_tool::studio;

namespace {

const char *kTrain = R"({"picture":"BloodImage_00000.jpg","boxes":[[83,336,97,100],[68,237,97,100],[219,362,97,100]]})";
const char *kTrainOther = R"({"picture":"BloodImage_00000.jpg","boxes":[[83,336,97,100],[68,237,97,100]]})";

class StudioApiMediaTypes : public ostrel_test::StudioHandlersTest {
protected:
    std::string jpeg() {
        std::ifstream in(ostrel_test::data_path("bccd/images/BloodImage_00001.jpg"), std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }
};

}  // namespace

TEST_F(StudioApiMediaTypes, TypesAnySiteMaySendAreRefusedHoweverTheyAreSpelt) {
    ASSERT_EQ(call("POST", "/api/train", kTrainOther, "application/json").status, 200);
    const std::string other_model = call("GET", "/api/model", "", "").body;
    ASSERT_EQ(call("POST", "/api/train", kTrain, "application/json").status, 200);
    const std::string status = call("GET", "/api/status", "", "").body;
    const std::string model = call("GET", "/api/model", "", "").body;
    const size_t pictures = store_->list().size();
    for (const char *type :
         {"text/plain\t;charset=utf-8", "text/plain ;charset=utf-8", "TEXT/PLAIN", "Text/Plain;\tCharset=UTF-8",
          "text/plain;", "text/plain\t", "application/x-www-form-urlencoded\t; charset=utf-8",
          "multipart/form-data;boundary=x", "text/plain; charset=\"utf-8\"", "", "text/plain,"}) {
        EXPECT_EQ(call("POST", "/api/model", other_model, type, {{"name", "other.model"}}).status, 415) << type;
        EXPECT_EQ(call("POST", "/api/pictures", jpeg(), type, {{"name", "x.jpg"}}).status, 415) << type;
        EXPECT_EQ(call("POST", "/api/train", kTrainOther, type).status, 415) << type;
        EXPECT_EQ(call("POST", "/api/reset", "{}", type).status, 415) << type;
    }
    EXPECT_EQ(call("GET", "/api/status", "", "").body, status);
    EXPECT_TRUE(call("GET", "/api/model", "", "").body == model) << "the model changed";
    EXPECT_EQ(store_->list().size(), pictures);
}

TEST_F(StudioApiMediaTypes, OddButValidSpellingsOfTheAcceptedTypesAreTaken) {
    for (const char *type :
         {"Application/JSON", "application/json ; charset=UTF-8", "application/json\t;\tcharset=utf-8",
          "application/json; charset=\"utf-8\"", "application/json;", "application/json;;x=y"}) {
        EXPECT_EQ(call("POST", "/api/train", kTrain, type).status, 200) << type;
    }
    for (const char *type :
         {"application/octet-stream", "Application/Octet-Stream\t;\tx=y", "image/jpeg", "IMAGE/JPEG ;q=1"}) {
        EXPECT_EQ(call("POST", "/api/pictures", jpeg(), type, {{"name", "x.jpg"}}).status, 201) << type;
    }
    for (const char *type : {"application/ json", "application/json, text/plain", "application/json; charset",
                             "application/jsonx", "application/json/x", "json"}) {
        EXPECT_EQ(call("POST", "/api/train", kTrain, type).status, 415) << type;
    }
}

TEST_F(StudioApiMediaTypes, ANumberThatOverflowsIsA400NotA500) {
    for (const char *body : {R"({"picture":"BloodImage_00000.jpg","boxes":[[1e400,0,97,100]]})",
                             R"({"picture":"BloodImage_00000.jpg","boxes":[[0,0,97,100]],"x":-1e999})", "1e400"}) {
        const ApiResponse r = call("POST", "/api/train", body, "application/json");
        EXPECT_EQ(r.status, 400) << body << " -> " << r.body;
        EXPECT_TRUE(nlohmann::json::parse(r.body)["error"].is_string());
    }
}
