// The HTTP side of the studio: cpp-httplib (Debian's libcpp-httplib) parses
// and routes requests, serves the page's files and hands every /api/
// request to StudioApi.
//
// Only what the studio knows is served: the page's files from memory,
// pictures by name from the store. Requests are checked before they reach
// the handlers:
//   - on a loopback address the Host header must name this server (so a
//     web page elsewhere cannot reach it under a name of its own);
//   - requests that change something carry the session's token, and a
//     request with an Origin comes from the studio's own page
//     (request_guard.h; GET /api/session gives the token);
//   - a body may be as long as its route takes (StudioApi::max_body_bytes)
//     and is refused from its Content-Length before it is read; the bodies
//     held in memory at once, over all requests, stay within a budget;
//   - connections are served under the limits of http_connections.h.
#pragma once

#include <memory>
#include <string>

#include "studio/counting_gate.h"
#include "studio/http_connections.h"
#include "studio/request_guard.h"
#include "studio/studio_api.h"
#include "studio/web_assets.h"

namespace ostrel_tool {
namespace studio {

struct ServerOptions {
    std::string host = "127.0.0.1";
    // The port to listen on; 0 picks any free port. When try_next is set and
    // the port is taken, the next ones (up to 20) are tried.
    int port = 8080;
    bool try_next = true;
    // httplib's own cap on any body (the routes' limits are lower).
    size_t max_body_bytes = 33u << 20;
    // Request bodies held in memory at once, over all requests: two of the
    // largest uploads (32 MiB) with JSON requests beside them. A request
    // that does not fit waits for room, at most body_wait, then gets 503.
    size_t body_memory_bytes = 65u << 20;
    std::chrono::milliseconds body_wait{30000};
    // The session's token; "" makes a new random one.
    std::string session_token;
    ConnectionLimits connections;
};

class StudioServer {
public:
    StudioServer(StudioApi &api, const WebAssets &assets, ServerOptions options);
    ~StudioServer();
    StudioServer(const StudioServer &) = delete;
    StudioServer &operator=(const StudioServer &) = delete;

    // Binds the listening socket and returns the port. Throws an output
    // error when no port could be bound.
    int bind();
    // Serves until stop() (from any thread). Returns false when it could not.
    bool run();
    void stop();

    // "http://127.0.0.1:8080/"; an IPv6 host is put in brackets.
    std::string url() const;
    int port() const { return port_; }
    const std::string &session_token() const { return guard_.token(); }

    // Serves the requests of one connection on the calling thread and
    // closes the socket: what a worker does with an accepted connection,
    // for the fuzz target, which makes its connections itself.
    void serve_connection(int socket) { server_->serve_connection(socket); }

    // 127.0.0.0/8, ::1 and "localhost".
    static bool is_loopback(const std::string &host);

private:
    bool host_header_allowed(const std::string &host_header) const;
    // Every request; reader is null for methods without a body.
    void handle(const httplib::Request &req, httplib::Response &res, const httplib::ContentReader *reader);
    // Reads the body within its route's limit and the memory budget into
    // body; the ticket holds its share of the budget until the request
    // ends. Throws ApiError (the body then read and dropped, or the
    // connection closed after the reply) when it is refused.
    CountingGate::Ticket read_body(const httplib::Request &req, const httplib::ContentReader &reader, std::string &body,
                                   httplib::Response &res);

    StudioApi &api_;
    const WebAssets &assets_;
    ServerOptions options_;
    RequestGuard guard_;
    CountingGate bodies_;
    std::unique_ptr<LimitedServer> server_;
    int port_ = 0;
};

}  // namespace studio
}  // namespace ostrel_tool
