// Proof that a request comes from the studio's own page.
//
// Any web page a person visits can make the browser send requests to
// 127.0.0.1: simple ones (a form post, a fetch with a text/plain body) go
// out without asking the studio first. Two rules keep such pages out:
//   - every request that may change something (any method but GET, HEAD
//     and OPTIONS under /api/) carries the session's token in the
//     X-Ostrel-Token header. A page of another origin can neither read the
//     token (the studio grants no cross-origin reads) nor add the header
//     without a CORS preflight, which the studio refuses;
//   - a request with an Origin header (browsers send one with every such
//     request) is served only when that origin is the studio's own:
//     "http://" followed by the Host the request was addressed to (on
//     loopback the server has already checked that Host names itself).
// Scripts get the token from GET /api/session, as the page does.
#pragma once

#include <string>

namespace ostrel_tool {
namespace studio {

constexpr const char *kTokenHeader = "X-Ostrel-Token";

// 32 bytes of the system's random source as 64 lower-case hex digits.
std::string new_session_token();

struct GuardedRequest {
    std::string method;
    std::string path;  // decoded
    std::string host;  // the Host header, "" when absent
    bool has_origin = false;
    std::string origin;
    bool has_token = false;
    std::string token;
};

class RequestGuard {
public:
    explicit RequestGuard(std::string token) : token_(std::move(token)) {}
    const std::string &token() const { return token_; }

    // Throws ApiError(403) naming what is missing when the request must not
    // be served.
    void check(const GuardedRequest &request) const;

    // GET, HEAD and OPTIONS only read.
    static bool changes_state(const std::string &method, const std::string &path);

private:
    std::string token_;
};

}  // namespace studio
}  // namespace ostrel_tool
