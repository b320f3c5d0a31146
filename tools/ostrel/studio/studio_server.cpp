#include "studio/studio_server.h"

#include <algorithm>
#include <vector>

#include <httplib.h>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "studio/api_error.h"
#include "studio/safe_names.h"

namespace ostrel_tool {
namespace studio {

namespace {

// Sends a picture file from the open file, a block at a time.
constexpr size_t kFileBlock = 64 * 1024;

void send(httplib::Response &res, ApiResponse r) {
    res.status = r.status;
    for (const auto &h : r.headers) {
        res.set_header(h.first.c_str(), h.second);
    }
    if (r.file) {
        std::shared_ptr<const ReadOnlyFile> file = r.file;
        res.set_content_provider(static_cast<size_t>(file->size()), r.content_type,
                                 [file](size_t offset, size_t length, httplib::DataSink &sink) {
                                     std::vector<char> block(std::min(length, kFileBlock));
                                     try {
                                         const size_t got = file->read_at(offset, block.data(), block.size());
                                         return got > 0 && sink.write(block.data(), got);
                                     } catch (const ApiError &) {
                                         return false;  // the file shrank or failed: the reply is cut short
                                     }
                                 });
        return;
    }
    res.set_header("Content-Type", r.content_type);
    res.body = std::move(r.body);
}

// A decimal Content-Length; false when absent or not a number.
bool content_length(const httplib::Request &req, size_t &length) {
    if (!req.has_header("Content-Length")) {
        return false;
    }
    const std::string text = req.get_header_value("Content-Length");
    if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    length = static_cast<size_t>(std::stoull(text));
    return true;
}

// The connection carrying this request is closed after the reply.
void close_after_reply(httplib::Response &res) {
    if (ConnectionStream *stream = ConnectionStream::current()) {
        stream->close_after_reply();
    }
    res.set_header("Connection", "close");
}

// Reads and drops a body the studio refuses without using it, so that the
// connection stays usable and a client that sends its whole body before
// reading the reply gets the reply. The connection is closed when that
// fails.
void drop_body(const httplib::Request &req, const httplib::ContentReader &reader, httplib::Response &res) {
    const auto drop = [](const char *, size_t) { return true; };
    const bool read = req.is_multipart_form_data()
                          ? reader([](const httplib::MultipartFormData &) { return true; }, drop)
                          : reader(drop);
    if (!read) {
        close_after_reply(res);
    }
}

}  // namespace

bool StudioServer::is_loopback(const std::string &host) {
    const std::string h = ascii_lower(host);
    return h == "localhost" || h == "::1" || h == "[::1]" || h.rfind("127.", 0) == 0;
}

StudioServer::StudioServer(StudioApi &api, const WebAssets &assets, ServerOptions options)
    : api_(api),
      assets_(assets),
      options_(std::move(options)),
      guard_(options_.session_token.empty() ? new_session_token() : options_.session_token),
      bodies_(options_.body_memory_bytes),
      server_(std::make_unique<LimitedServer>(options_.connections)) {
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

    const auto without_body = [this](const httplib::Request &req, httplib::Response &res) {
        handle(req, res, nullptr);
    };
    const auto with_body = [this](const httplib::Request &req, httplib::Response &res,
                                  const httplib::ContentReader &reader) { handle(req, res, &reader); };
    s.Get(".*", without_body);
    s.Options(".*", without_body);
    s.Post(".*", with_body);
    s.Put(".*", with_body);
    s.Patch(".*", with_body);
    s.Delete(".*", with_body);
    s.set_exception_handler([](const httplib::Request &, httplib::Response &res, std::exception_ptr) {
        send(res, error_response(http_status::internal_error, "unexpected failure"));
    });
    // Errors httplib answers itself (a body over the limit, a malformed
    // request) get the studio's JSON form too.
    s.set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty() && !res.has_header("Content-Type")) {
            const char *message = res.status == http_status::payload_too_large
                                      ? "the request body is larger than the studio accepts"
                                      : "the request could not be handled";
            send(res, error_response(res.status, message));
        }
    });
}

void StudioServer::handle(const httplib::Request &req, httplib::Response &res, const httplib::ContentReader *reader) {
    CountingGate::Ticket body_memory;
    ApiRequest request;
    try {
        if (!host_header_allowed(req.get_header_value("Host"))) {
            throw ApiError(http_status::forbidden, "this studio answers only requests addressed to " + url());
        }
        GuardedRequest guarded;
        guarded.method = req.method;
        guarded.path = req.path;
        guarded.host = req.get_header_value("Host");
        guarded.has_origin = req.has_header("Origin");
        guarded.origin = req.get_header_value("Origin");
        guarded.has_token = req.has_header(kTokenHeader);
        guarded.token = req.get_header_value(kTokenHeader);
        guard_.check(guarded);
        if (reader != nullptr) {
            const httplib::ContentReader &body_reader = *reader;
            reader = nullptr;  // read_body reads or drops it
            body_memory = read_body(req, body_reader, request.body, res);
        }
    } catch (const ApiError &e) {
        if (reader != nullptr) {
            drop_body(req, *reader, res);
        }
        send(res, error_response(e.status(), e.what()));
        return;
    }

    if (req.path == "/api/session") {
        ApiResponse r;
        if (req.method == "GET" || req.method == "HEAD") {
            nlohmann::ordered_json j;
            j["token"] = guard_.token();
            j["header"] = kTokenHeader;
            r.body = json_text(j);
        } else {
            r = error_response(http_status::method_not_allowed, req.method + " is not used on /api/session (use GET)");
            r.headers.emplace_back("Allow", "GET");
        }
        r.headers.emplace_back("Cache-Control", "no-store");
        send(res, std::move(r));
        return;
    }
    if (req.path.rfind("/api/", 0) == 0) {
        request.method = req.method;
        request.path = req.path;
        for (const auto &param : req.params) {
            request.query.emplace(param.first, param.second);  // keeps the first of repeated names
        }
        request.content_type = req.get_header_value("Content-Type");
        ApiResponse response = api_.handle(request);
        response.headers.emplace_back("Cache-Control", "no-store");
        send(res, std::move(response));
        return;
    }
    const WebAsset *asset = req.method == "GET" || req.method == "HEAD" ? assets_.find(req.path) : nullptr;
    if (asset == nullptr) {
        send(res, error_response(http_status::not_found, "no such address: " + req.path));
        return;
    }
    res.set_header("Cache-Control", "no-cache");
    res.set_content(asset->body, asset->content_type.c_str());
}

CountingGate::Ticket StudioServer::read_body(const httplib::Request &req, const httplib::ContentReader &reader,
                                             std::string &body, httplib::Response &res) {
    const size_t limit = api_.max_body_bytes(req.path);
    const auto too_large = [&](const std::string &size) {
        return ApiError(http_status::payload_too_large,
                        strformat("the request body has %s bytes: %s takes at most %zu KiB", size.c_str(),
                                  req.path.c_str(), limit >> 10));
    };
    const auto refuse = [&](const ApiError &e) {
        drop_body(req, reader, res);
        return e;
    };
    // Forms are refused before httplib would take them apart.
    if (req.is_multipart_form_data()) {
        throw refuse(ApiError(http_status::unsupported_media_type,
                              "send the file's bytes as the request body, as application/octet-stream"));
    }
    size_t declared = 0;
    const bool has_length = content_length(req, declared);
    if (has_length && declared > limit) {
        throw refuse(too_large(std::to_string(declared)));
    }
    // Without a length (a chunked body) the route's limit is set aside.
    const size_t needed = has_length ? declared : limit;
    CountingGate::Ticket ticket = bodies_.acquire(needed, options_.body_wait);
    if (!ticket.valid()) {
        throw refuse(ApiError(http_status::service_unavailable,
                              "the studio is busy receiving other large requests: try again in a moment"));
    }
    body.reserve(needed);
    bool over = false;
    const bool read = reader([&](const char *data, size_t size) {
        if (body.size() + size > limit) {
            over = true;
            return false;
        }
        body.append(data, size);
        return true;
    });
    if (!read) {
        // The rest of the body is still on its way: the connection cannot
        // carry another request.
        close_after_reply(res);
        body.clear();
        if (over) {
            throw too_large("more than " + std::to_string(limit));
        }
        throw ApiError(http_status::bad_request, "the request body could not be read to its end");
    }
    return ticket;
}

StudioServer::~StudioServer() = default;

bool StudioServer::host_header_allowed(const std::string &host_header) const {
    if (!is_loopback(options_.host) || host_header.empty()) {
        return true;
    }
    const std::string h = ascii_lower(host_header);
    const std::string port = ":" + std::to_string(port_);
    std::string given = ascii_lower(options_.host);
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
    throw output_error(options_.try_next
                           ? strformat("cannot listen on %s: ports %d to %d are taken (try --port 0)",
                                       options_.host.c_str(), options_.port, std::min(65535, options_.port + tries - 1))
                           : strformat("cannot listen on %s port %d: it is taken or not allowed (try --port 0)",
                                       options_.host.c_str(), options_.port));
}

bool StudioServer::run() { return server_->listen_after_bind(); }

void StudioServer::stop() { server_->stop_serving(); }

std::string StudioServer::url() const {
    std::string host = options_.host;
    if (host.find(':') != std::string::npos && host.front() != '[') {
        host = "[" + host + "]";
    }
    return "http://" + host + ":" + std::to_string(port_) + "/";
}

}  // namespace studio
}  // namespace ostrel_tool
