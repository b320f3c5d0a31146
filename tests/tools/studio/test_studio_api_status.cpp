// GET /api/status carries the confidence a box needs at every sensitivity,
// as the library reports it, and the page takes its numbers from there
// instead of working them out itself.
#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "ostrel_alg.h"
#include "studio/web_assets.h"
#include "studio_handlers_fixture.h"

using namespace ostrel_tool::studio;

namespace {

class StudioApiStatus : public ostrel_test::StudioHandlersTest {};

}  // namespace

TEST_F(StudioApiStatus, CarriesTheLibrarysConfidenceForEverySensitivity) {
    const ApiResponse reply = call("GET", "/api/status");
    ASSERT_EQ(reply.status, 200) << reply.body;
    const nlohmann::json status = nlohmann::json::parse(reply.body);
    ASSERT_TRUE(status.contains("confidence_by_sensitivity")) << reply.body;
    const nlohmann::json &table = status["confidence_by_sensitivity"];
    ASSERT_TRUE(table.is_array());
    ASSERT_EQ(table.size(), 101u);
    for (uint32_t s = 0; s <= 100; ++s) {
        uint32_t percent = 0;
        ASSERT_EQ(ostrel_alg_getConfidenceOfSensitivity(s, &percent), 0);
        EXPECT_EQ(table[s].get<uint32_t>(), percent) << "sensitivity " << s;
    }
    // The page shows 50 at its default, 80, before the status comes.
    EXPECT_EQ(table[80].get<uint32_t>(), 50u);
}

// The page's script reads the table from the status and holds no formula
// of its own (the one it used to carry is gone).
TEST_F(StudioApiStatus, ThePageTakesTheConfidenceFromTheStatus) {
    const std::string folder = find_web_folder();
    ASSERT_FALSE(folder.empty());
    const WebAssets assets(folder);
    const WebAsset *script = assets.find("/studio.js");
    ASSERT_NE(script, nullptr);
    EXPECT_NE(script->body.find("state.status.confidence_by_sensitivity"), std::string::npos);
    EXPECT_EQ(script->body.find("90 - sensitivity"), std::string::npos);
    EXPECT_EQ(script->body.find("sensitivity - 80"), std::string::npos);
    const WebAsset *page = assets.find("/index.html");
    ASSERT_NE(page, nullptr);
    EXPECT_NE(page->body.find("<span id=\"threshold\">50</span>"), std::string::npos)
        << "the page's first number is the default sensitivity's";
}

// The page shows the version it is served by: the project's, as the public
// header numbers it.
TEST_F(StudioApiStatus, CarriesTheProjectsVersion) {
    const ApiResponse reply = call("GET", "/api/status");
    ASSERT_EQ(reply.status, 200) << reply.body;
    const nlohmann::json status = nlohmann::json::parse(reply.body);
    ASSERT_TRUE(status.contains("version")) << reply.body;
    const std::string expected = std::to_string(OSTREL_ALG_VERSION_MAJOR) + "." +
                                 std::to_string(OSTREL_ALG_VERSION_MINOR) + "." +
                                 std::to_string(OSTREL_ALG_VERSION_PATCH);
    EXPECT_EQ(status["version"].get<std::string>(), expected);
}
