#include "studio_server.h"

#include <httplib.h>

#include "api_error.h"
#include "tool_error.h"
#include "tool_output.h"

namespace ostrel_tool {
namespace studio {

namespace {

std::string lower(std::string s) {
    for (char &c : s) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return s;
}

void send(httplib::Response &res, const ApiResponse &r) {
    res.status = r.status;
    for (const auto &h : r.headers) {
        res.set_header(h.first.c_str(), h.second);
    }
    res.set_content(r.body, r.content_type.c_str());
}

}  // namespace

bool StudioServer::is_loopback(const std::string &host) {
    const std::string h = lower(host);
    return h == "localhost" || h == "::1" || h == "[::1]" || h.rfind("127.", 0) == 0;
}

StudioServer::StudioServer(StudioApi &api, const WebAssets &assets, ServerOptions options)
    : api_(api), assets_(assets), options_(std::move(options)), server_(std::make_unique<httplib::Server>()) {
    httplib::Server &s = *server_;
    // Small replies (a slider move's boxes) must not wait for the peer's
    // delayed acknowledgement.
    s.set_tcp_nodelay(true);
    // httplib's own options add SO_REUSEPORT, with which a second studio
    // could bind a port the first one serves; keep only SO_REUSEADDR (a
    // restarted studio gets its port back at once).
    s.set_socket_options([](socket_t sock) {
        int yes = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const void *>(&yes), sizeof(yes));
    });
    s.set_payload_max_length(options_.max_body_bytes);
    s.set_default_headers({
        {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},
        {"Content-Security-Policy",
         "default-src 'self'; img-src 'self' blob: data:; style-src 'self'; script-src 'self'; "
         "connect-src 'self'; frame-ancestors 'none'; form-action 'none'"},
    });

    const auto handler = [this](const httplib::Request &req, httplib::Response &res) {
        if (!host_header_allowed(req.get_header_value("Host"))) {
            send(res, error_response(http_status::forbidden,
                                     "this studio answers only requests addressed to " + url()));
            return;
        }
        if (req.path.rfind("/api/", 0) == 0) {
            ApiRequest request;
            request.method = req.method;
            request.path = req.path;
            for (const auto &param : req.params) {
                request.query.emplace(param.first, param.second);  // keeps the first of repeated names
            }
            request.content_type = req.get_header_value("Content-Type");
            request.body = req.body;
            ApiResponse response = api_.handle(request);
            response.headers.emplace_back("Cache-Control", "no-store");
            send(res, response);
            return;
        }
        const WebAsset *asset = req.method == "GET" || req.method == "HEAD" ? assets_.find(req.path) : nullptr;
        if (asset == nullptr) {
            send(res, error_response(http_status::not_found, "no such address: " + req.path));
            return;
        }
        res.set_header("Cache-Control", "no-cache");
        res.set_content(asset->body, asset->content_type.c_str());
    };
    s.Get(".*", handler);
    s.Post(".*", handler);
    s.Put(".*", handler);
    s.Patch(".*", handler);
    s.Delete(".*", handler);
    s.Options(".*", handler);
    s.set_exception_handler([](const httplib::Request &, httplib::Response &res, std::exception_ptr) {
        send(res, error_response(http_status::internal_error, "unexpected failure"));
    });
    // Errors httplib answers itself (a body over the limit, say) get the
    // studio's JSON form too.
    s.set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty()) {
            const char *message = res.status == http_status::payload_too_large
                                      ? "the request body is larger than the studio accepts"
                                      : "the request could not be handled";
            send(res, error_response(res.status, message));
        }
    });
}

StudioServer::~StudioServer() = default;

bool StudioServer::host_header_allowed(const std::string &host_header) const {
    if (!is_loopback(options_.host) || host_header.empty()) {
        return true;
    }
    const std::string h = lower(host_header);
    const std::string port = ":" + std::to_string(port_);
    std::string given = lower(options_.host);
    if (given.find(':') != std::string::npos && given.front() != '[') {
        given = "[" + given + "]";
    }
    for (const std::string &name : {std::string("127.0.0.1"), std::string("localhost"), std::string("[::1]"), given}) {
        if (h == name + port) {
            return true;
        }
    }
    return false;
}

int StudioServer::bind() {
    httplib::Server &s = *server_;
    if (options_.port == 0) {
        port_ = s.bind_to_any_port(options_.host);
        if (port_ <= 0) {
            throw output_error("cannot listen on " + options_.host + ": no free port");
        }
        return port_;
    }
    const int tries = options_.try_next ? 20 : 1;
    for (int i = 0; i < tries; ++i) {
        const int port = options_.port + i;
        if (port > 65535) {
            break;
        }
        if (s.bind_to_port(options_.host, port)) {
            port_ = port;
            return port_;
        }
    }
    throw output_error(
        options_.try_next
            ? strformat("cannot listen on %s: ports %d to %d are taken (try --port 0)", options_.host.c_str(),
                        options_.port, std::min(65535, options_.port + tries - 1))
            : strformat("cannot listen on %s port %d: it is taken or not allowed (try --port 0)",
                        options_.host.c_str(), options_.port));
}

bool StudioServer::run() { return server_->listen_after_bind(); }

void StudioServer::stop() { server_->stop(); }

std::string StudioServer::url() const {
    std::string host = options_.host;
    if (host.find(':') != std::string::npos && host.front() != '[') {
        host = "[" + host + "]";
    }
    return "http://" + host + ":" + std::to_string(port_) + "/";
}

}  // namespace studio
}  // namespace ostrel_tool
