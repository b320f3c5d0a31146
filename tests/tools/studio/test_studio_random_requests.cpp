// Random requests never crash the studio's JSON handlers: every one gets a
// status below 500 and, when refused, {"error": "..."}. The handlers are
// called directly (no HTTP), so thousands run in a few seconds; the same
// runs against a trained engine, so the trained paths are reached too.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include <nlohmann/json.hpp>

#include "studio_handlers_fixture.h"

using namespace ostrel_tool::studio;

namespace {

class StudioHandlers : public ostrel_test::StudioHandlersTest {
protected:
    void random_requests(unsigned seed, int count) {
        std::mt19937 rng(seed);
        const std::vector<std::string> tokens = {"{",
                                                 "}",
                                                 "[",
                                                 "]",
                                                 ":",
                                                 ",",
                                                 "\"picture\"",
                                                 "\"boxes\"",
                                                 "\"BloodImage_00000.jpg\"",
                                                 "\"x\"",
                                                 "\"w\"",
                                                 "0",
                                                 "1",
                                                 "-1",
                                                 "97",
                                                 "100",
                                                 "2147483647",
                                                 "-2147483648",
                                                 "1e400",
                                                 "0.5",
                                                 "null",
                                                 "true",
                                                 "\"\\ud800\"",
                                                 "\"\xff\xfe\"",
                                                 " ",
                                                 "[[0,0,97,100]]",
                                                 "[[600,400,97,100]]",
                                                 "\"../x\""};
        const std::vector<std::string> paths = {"/api/train",
                                                "/api/train/progress",
                                                "/api/detect",
                                                "/api/pictures",
                                                "/api/pictures/BloodImage_00001.jpg",
                                                "/api/pictures/..",
                                                "/api/pictures/a/b",
                                                "/api/samples",
                                                "/api/samples/0",
                                                "/api/samples/0/thumbnail",
                                                "/api/samples/99999999",
                                                "/api/model",
                                                "/api/reset",
                                                "/api/status",
                                                "/api/",
                                                "/api",
                                                "/",
                                                "/api//x"};
        const std::vector<std::string> methods = {"GET", "POST", "DELETE", "PUT", "PATCH", "OPTIONS"};
        const std::vector<std::string> types = {
            "application/json", "application/octet-stream", "text/plain", "", "APPLICATION/JSON; charset=utf-8",
            "image/png"};
        auto pick = [&](const std::vector<std::string> &v) { return v[rng() % v.size()]; };
        for (int i = 0; i < count; ++i) {
            std::string body;
            if (i % 4 == 0) {
                const size_t n = rng() % 300;
                for (size_t k = 0; k < n; ++k) body.push_back(static_cast<char>(rng() & 0xff));
            } else {
                const size_t n = rng() % 40;
                for (size_t k = 0; k < n; ++k) body += pick(tokens);
            }
            std::map<std::string, std::string> query;
            if (rng() % 2) query["picture"] = pick({"BloodImage_00002.jpg", "", "..", "nope", "\xff"});
            if (rng() % 2) query["sensitivity"] = pick({"0", "80", "100", "101", "-1", "", "abc", "99999999999"});
            if (rng() % 4 == 0) query["name"] = pick(tokens);
            const std::string method = pick(methods);
            const std::string path = pick(paths);
            const ApiResponse r = call(method, path, body, pick(types), query);
            ASSERT_GE(r.status, 200) << method << " " << path << " " << body;
            ASSERT_LT(r.status, 500) << method << " " << path << " " << body << " -> " << r.body;
            if (r.status >= 400) {
                const auto j = nlohmann::json::parse(r.body);
                ASSERT_TRUE(j.contains("error") && j["error"].is_string()) << r.body;
            }
        }
    }
};

}  // namespace

TEST_F(StudioHandlers, RandomRequestsBeforeTraining) { random_requests(1, 1500); }

TEST_F(StudioHandlers, RandomRequestsOnATrainedEngine) {
    const ApiResponse trained = call("POST", "/api/train",
                                     R"({"picture":"BloodImage_00000.jpg","boxes":[[83,336,97,100],[68,237,97,100],)"
                                     R"([219,362,97,100],[412,349,97,100],[153,75,97,100]]})");
    ASSERT_EQ(trained.status, 200) << trained.body;
    random_requests(2, 1500);
    EXPECT_EQ(call("GET", "/api/status").status, 200);
}

TEST_F(StudioHandlers, TheWorkspaceServesTwoThreadsAtOnceOneAtATimeInside) {
    // Two tabs: one trains while the other detects; the engine's mutex
    // keeps them apart and both finish with sound answers.
    ASSERT_EQ(call("POST", "/api/train",
                   R"({"picture":"BloodImage_00000.jpg","boxes":[[83,336,97,100],[68,237,97,100]]})")
                  .status,
              200);
    std::vector<int> statuses(40, 0);
    std::thread trainer([&] {
        for (int i = 0; i < 4; ++i) {
            statuses[i] = call("POST", "/api/train",
                               R"({"picture":"BloodImage_00000.jpg","boxes":[[83,336,97,100],[219,362,97,100]]})")
                              .status;
        }
    });
    for (int i = 4; i < 40; ++i) {
        statuses[i] =
            call("GET", "/api/detect", "", "", {{"picture", i % 2 ? "BloodImage_00001.jpg" : "BloodImage_00002.jpg"}})
                .status;
    }
    trainer.join();
    for (int s : statuses) EXPECT_EQ(s, 200);
}

// The profile route, trained and not, under bodies of its own words and of
// none: every answer is a status below 500 with a reason, and the
// workspace ends on one of the two profiles with a status that says it.
TEST_F(StudioHandlers, RandomProfileRequestsNeverFail) {
    std::mt19937 rng(7);
    const std::vector<std::string> tokens = {
        "{",           "}",           "[",          "]",    ":",    ",",    "\"profile\"", "\"model\"", "\"accurate\"",
        "\"classic\"", "\"retrain\"", "\"forget\"", "\"\"", "null", "true", "1",           " ",         "\"\xff\""};
    const std::vector<std::string> bodies = {R"({"profile":"classic"})",
                                             R"({"profile":"accurate"})",
                                             R"({"profile":"classic","model":"retrain"})",
                                             R"({"profile":"accurate","model":"retrain"})",
                                             R"({"profile":"classic","model":"forget"})",
                                             R"({"profile":"accurate","model":"forget"})"};
    const std::string train = R"({"picture":"BloodImage_00000.jpg","boxes":[[83,336,97,100],[68,237,97,100],)"
                              R"([219,362,97,100],[412,349,97,100],[153,75,97,100]]})";
    for (int i = 0; i < 300; ++i) {
        if (i % 25 == 0) {
            ASSERT_EQ(call("POST", "/api/train", train).status, 200);
        }
        std::string body;
        if (i % 3 == 0) {
            body = bodies[rng() % bodies.size()];
        } else {
            const size_t n = rng() % 12;
            for (size_t k = 0; k < n; ++k) body += tokens[rng() % tokens.size()];
        }
        const ApiResponse r = call(i % 7 == 0 ? "GET" : "POST", "/api/profile", body, "application/json");
        ASSERT_GE(r.status, 200) << body;
        ASSERT_LT(r.status, 500) << body << " -> " << r.body;
        if (r.status >= 400) {
            const auto j = nlohmann::json::parse(r.body);
            ASSERT_TRUE(j.contains("error") && j["error"].is_string()) << r.body;
        }
    }
    const auto status = nlohmann::json::parse(call("GET", "/api/status").body);
    const auto profile = nlohmann::json::parse(call("GET", "/api/profile").body)["profile"];
    EXPECT_TRUE(profile == "classic" || profile == "accurate");
    EXPECT_EQ(status["profile"], profile);
    for (const auto &d : status["detectors"]) {
        if (d["trained"]) {
            EXPECT_EQ(d["profile"], profile);
        }
    }
}
