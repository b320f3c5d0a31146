// The HTTP side of the studio: cpp-httplib (Debian's libcpp-httplib) serves
// the page's files and hands every /api/ request to StudioApi.
//
// Only what the studio knows is served: the page's files from memory,
// pictures by name from the store. Requests are checked before they reach
// the handlers: on a loopback address the Host header must name this
// server (so a web page elsewhere cannot reach it under a name of its own),
// and bodies are limited in size.
#pragma once

#include <memory>
#include <string>

#include "studio_api.h"
#include "web_assets.h"

namespace httplib {
class Server;
}

namespace ostrel_tool {
namespace studio {

struct ServerOptions {
    std::string host = "127.0.0.1";
    // The port to listen on; 0 picks any free port. When try_next is set and
    // the port is taken, the next ones (up to 20) are tried.
    int port = 8080;
    bool try_next = true;
    size_t max_body_bytes = 33u << 20;
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

    // 127.0.0.0/8, ::1 and "localhost".
    static bool is_loopback(const std::string &host);

private:
    bool host_header_allowed(const std::string &host_header) const;

    StudioApi &api_;
    const WebAssets &assets_;
    ServerOptions options_;
    std::unique_ptr<httplib::Server> server_;
    int port_ = 0;
};

}  // namespace studio
}  // namespace ostrel_tool
