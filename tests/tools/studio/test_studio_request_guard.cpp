// Requests that change something need proof that they come from the
// studio's own page: the session's token in X-Ostrel-Token (a header no
// other site can add without the browser asking the studio first, which it
// refuses), and an Origin, when the browser sends one, that is the studio's
// own (http:// and the Host the request was addressed to).
#include <gtest/gtest.h>

#include <set>

#include "studio/api_error.h"
#include "studio/request_guard.h"

using namespace ostrel_tool::studio;

namespace {

const std::string kToken = std::string(64, 'a');

GuardedRequest request(const std::string &method, const std::string &path) {
    GuardedRequest r;
    r.method = method;
    r.path = path;
    r.host = "127.0.0.1:8080";
    return r;
}

int refusal(const RequestGuard &guard, const GuardedRequest &r, std::string *message = nullptr) {
    try {
        guard.check(r);
    } catch (const ApiError &e) {
        if (message != nullptr) *message = e.what();
        return e.status();
    }
    return 0;
}

}  // namespace

TEST(StudioRequestGuard, SessionTokensAre64HexDigitsAndDifferEachTime) {
    std::set<std::string> seen;
    for (int i = 0; i < 50; ++i) {
        const std::string t = new_session_token();
        ASSERT_EQ(t.size(), 64u);
        EXPECT_EQ(t.find_first_not_of("0123456789abcdef"), std::string::npos) << t;
        seen.insert(t);
    }
    EXPECT_EQ(seen.size(), 50u);
}

TEST(StudioRequestGuard, ReadingNeedsNoToken) {
    const RequestGuard guard(kToken);
    for (const char *method : {"GET", "HEAD", "OPTIONS"}) {
        EXPECT_EQ(refusal(guard, request(method, "/api/status")), 0) << method;
        EXPECT_EQ(refusal(guard, request(method, "/")), 0) << method;
    }
}

TEST(StudioRequestGuard, EveryOtherMethodUnderApiNeedsTheExactToken) {
    const RequestGuard guard(kToken);
    for (const char *method : {"POST", "PUT", "PATCH", "DELETE", "PROPFIND", "post"}) {
        for (const char *path :
             {"/api/train", "/api/model", "/api/pictures", "/api/reset", "/api/samples/0", "/api/"}) {
            GuardedRequest r = request(method, path);
            std::string message;
            EXPECT_EQ(refusal(guard, r, &message), 403) << method << " " << path;
            EXPECT_NE(message.find("token"), std::string::npos) << message;
            for (const std::string &wrong : {std::string(), std::string(64, 'b'), kToken.substr(1), kToken + "a",
                                             std::string(63, 'a') + "A", std::string(64, 'A')}) {
                r.token = wrong;
                r.has_token = true;
                EXPECT_EQ(refusal(guard, r), 403) << method << " " << path << " " << wrong;
            }
            r.token = kToken;
            EXPECT_EQ(refusal(guard, r), 0) << method << " " << path;
        }
    }
}

TEST(StudioRequestGuard, AForeignOriginIsRefusedOnEveryRequestTheOwnOneServed) {
    const RequestGuard guard(kToken);
    for (const char *origin : {"http://127.0.0.1:8081", "null", "https://127.0.0.1:8080", "http://localhost:8080",
                               "http://127.0.0.1:8080/", "http://127.0.0.1:80800", "http://127.0.0.1", "",
                               "http://attacker.example", "http://127.0.0.1:8080.attacker.example"}) {
        for (const char *method : {"GET", "POST", "OPTIONS"}) {
            GuardedRequest r = request(method, "/api/model");
            r.token = kToken;
            r.has_token = true;
            r.origin = origin;
            r.has_origin = true;
            std::string message;
            EXPECT_EQ(refusal(guard, r, &message), 403) << method << " " << origin;
            EXPECT_NE(message.find("origin"), std::string::npos) << message;
        }
    }
    GuardedRequest own = request("POST", "/api/model");
    own.token = kToken;
    own.has_token = true;
    own.has_origin = true;
    own.origin = "http://127.0.0.1:8080";
    EXPECT_EQ(refusal(guard, own), 0);
    own.origin = "HTTP://127.0.0.1:8080";  // scheme and host are case-insensitive
    EXPECT_EQ(refusal(guard, own), 0);
    own.host = "localhost:8080";
    own.origin = "http://localhost:8080";
    EXPECT_EQ(refusal(guard, own), 0);
    own.host = "";  // no Host: no origin can match
    EXPECT_EQ(refusal(guard, own), 403);
}
