// Fuzz target: the studio's request handling, from the bytes on the
// connection to the JSON interface's answer. Each input becomes one HTTP
// request, made from fuzzer-chosen parts:
//   - the method (the usual ones, or fuzzed text),
//   - the path (one of the studio's routes, with fuzzed path segments and a
//     fuzzed query string, percent-encoded where the request line needs it),
//   - the Host, Origin and X-Ostrel-Token headers (right, wrong or absent),
//   - the Content-Type (the forms that matter, or fuzzed text), the
//     Content-Length (true, false, absent or chunked) and the body;
// or, for one input in eight, the raw bytes themselves. The request goes
// through a socket pair into the studio's own connection loop (its limits
// on request heads and bodies), httplib's parsing and routing, the server's
// checks (host, origin, token, body limits) and StudioApi::handle, on a
// workspace over a folder of two tiny pictures so that the engine work a
// request may trigger (training, detection) stays small.
//
// Beyond memory safety and undefined behaviour, it checks the server's
// promises: every request gets an HTTP reply, never a 500 (a failure of the
// studio itself) unless the library failed, and no reply ever grants a
// cross-origin permission.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "studio/picture_store.h"
#include "studio/studio_api.h"
#include "studio/studio_server.h"
#include "studio/web_assets.h"
#include "studio/workspace.h"

namespace fs = std::filesystem;
using namespace ostrel_tool::studio;

namespace {

const char *kToken = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
const char *kHost = "127.0.0.1:0";  // the server is never bound: its port is 0

void require(bool condition, const char *what, const std::string &reply) {
    if (!condition) {
        std::fprintf(stderr, "promise broken: %s\nreply:\n%.2000s\n", what, reply.c_str());
        std::abort();
    }
}

// A picture of a few cells on a plain background: small, so that training
// and detection on it take milliseconds.
void write_picture(const fs::path &path, int seed) {
    cv::Mat picture(90, 120, CV_8UC3, cv::Scalar(200, 190, 210));
    for (int i = 0; i < 6; ++i) {
        cv::circle(picture, cv::Point(15 + (i * 37 + seed * 11) % 95, 15 + (i * 23 + seed * 7) % 60), 9,
                   cv::Scalar(80, 60 + 20 * i, 170), cv::FILLED);
    }
    cv::imwrite(path.string(), picture);
}

struct Studio {
    fs::path root;
    std::unique_ptr<PictureStore> store;
    std::unique_ptr<Workspace> workspace;
    std::unique_ptr<StudioApi> api;
    std::unique_ptr<WebAssets> assets;
    std::unique_ptr<StudioServer> server;

    Studio() {
        root = fs::temp_directory_path() / ("ostrel-fuzz-studio-" + std::to_string(::getpid()));
        fs::remove_all(root);
        fs::create_directories(root / "pictures");
        fs::create_directories(root / "uploads");
        fs::create_directories(root / "scratch");
        write_picture(root / "pictures" / "a.png", 1);
        write_picture(root / "pictures" / "b.jpg", 2);
        PictureLimits limits;
        limits.max_pictures = 64;  // uploads stop piling up on disk
        store = std::make_unique<PictureStore>((root / "pictures").string(), (root / "uploads").string(), limits);
        WorkspaceSettings settings;
        settings.scratch_folder = (root / "scratch").string();
        workspace = std::make_unique<Workspace>(*store, settings);
        api = std::make_unique<StudioApi>(*store, *workspace);
        assets = std::make_unique<WebAssets>(OSTREL_STUDIO_SOURCE_WEB_DIR);
        ServerOptions options;
        options.session_token = kToken;
        // Waits that end at once: a fuzzed body shorter than its length
        // ends with the connection, not with a timeout.
        options.body_wait = std::chrono::milliseconds(0);
        server = std::make_unique<StudioServer>(*api, *assets, options);
    }
    ~Studio() { fs::remove_all(root); }
};

Studio &studio() {
    static Studio s;
    return s;
}

// Bytes that may stand in a request line or a header value: others are
// percent-encoded (request line) or dropped (headers).
std::string request_line_safe(const std::string &text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u >= 0x7f) {
            out += '%';
            out += hex[u >> 4];
            out += hex[u & 15];
        } else {
            out += c;
        }
    }
    return out;
}

std::string header_safe(const std::string &text) {
    std::string out;
    for (const char c : text) {
        if (c != '\r' && c != '\n' && c != '\0') out += c;
    }
    return out;
}

std::string build_request(FuzzedDataProvider &in) {
    static const char *methods[] = {"GET", "POST", "POST", "POST", "DELETE", "PUT", "PATCH", "OPTIONS", "HEAD"};
    static const char *routes[] = {"/api/status",
                                   "/api/session",
                                   "/api/pictures",
                                   "/api/pictures/a.png",
                                   "/api/pictures/b.jpg",
                                   "/api/pictures/",
                                   "/api/train",
                                   "/api/train/progress",
                                   "/api/detect",
                                   "/api/samples",
                                   "/api/samples/0",
                                   "/api/samples/0/thumbnail",
                                   "/api/model",
                                   "/api/reset",
                                   "/",
                                   "/studio.js",
                                   "/api/",
                                   "/api/labels/a.png",
                                   "/api/classes",
                                   "/api/classes/object",
                                   "/api/accept",
                                   "/api/train/labels",
                                   "/api/export/labels",
                                   "/api/export/detections",
                                   "/api/profile"};
    static const char *types[] = {"application/json",
                                  "application/octet-stream",
                                  "image/png",
                                  "text/plain\t;charset=utf-8",
                                  "Application/JSON ; charset=UTF-8",
                                  "multipart/form-data; boundary=x",
                                  "application/x-www-form-urlencoded",
                                  ""};
    std::string method = in.ConsumeBool() ? methods[in.ConsumeIntegralInRange<size_t>(0, 8)]
                                          : request_line_safe(in.ConsumeRandomLengthString(8));
    std::string target = routes[in.ConsumeIntegralInRange<size_t>(0, sizeof(routes) / sizeof(routes[0]) - 1)];
    if (in.ConsumeBool()) {
        target += request_line_safe(in.ConsumeRandomLengthString(24));
    }
    if (in.ConsumeBool()) {
        target += "?" + request_line_safe(in.ConsumeRandomLengthString(48));
    }
    const int host = in.ConsumeIntegralInRange(0, 3);
    const int origin = in.ConsumeIntegralInRange(0, 3);
    const int token = in.ConsumeIntegralInRange(0, 3);
    const int type = in.ConsumeIntegralInRange(0, 8);
    const int length = in.ConsumeIntegralInRange(0, 7);
    const std::string fuzzed_header = header_safe(in.ConsumeRandomLengthString(32));
    const std::string body = in.ConsumeRemainingBytesAsString();

    std::string r = method + " " + target + " HTTP/1.1\r\n";
    if (host == 0 || host == 1) r += std::string("Host: ") + kHost + "\r\n";
    if (host == 2) r += "Host: " + fuzzed_header + "\r\n";
    if (origin == 1) r += std::string("Origin: http://") + kHost + "\r\n";
    if (origin == 2) r += "Origin: " + fuzzed_header + "\r\n";
    if (token == 0 || token == 1) r += std::string("X-Ostrel-Token: ") + kToken + "\r\n";
    if (token == 2) r += "X-Ostrel-Token: " + fuzzed_header + "\r\n";
    if (type < 8) {
        r += std::string("Content-Type: ") + types[type] + "\r\n";
    } else {
        r += "Content-Type: " + fuzzed_header + "\r\n";
    }
    if (length <= 3) {
        r += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    } else if (length == 4) {
        r += "Content-Length: " + std::to_string(body.size() + 1 + body.size() % 7) + "\r\n\r\n" + body;
    } else if (length == 5) {
        r += "Transfer-Encoding: chunked\r\n\r\n";
        char size[32];
        std::snprintf(size, sizeof(size), "%zx\r\n", body.size());
        r += (body.empty() ? std::string() : size + body + "\r\n") + "0\r\n\r\n";
    } else {
        r += "\r\n" + body;  // no length: the body is whatever follows
    }
    return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Studio &s = studio();
    FuzzedDataProvider in(data, size);
    const bool raw = size > 0 && (data[0] & 7) == 7;
    const std::string request =
        raw ? std::string(reinterpret_cast<const char *>(data) + 1, size - 1) : build_request(in);

    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
        std::abort();
    }
    std::string reply;
    // The client: sends the request, ends its side, reads every reply.
    std::thread client([&] {
        size_t sent = 0;
        while (sent < request.size()) {
            const ssize_t n = ::send(sockets[1], request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) break;
            sent += static_cast<size_t>(n);
        }
        ::shutdown(sockets[1], SHUT_WR);
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::recv(sockets[1], buffer, sizeof(buffer), 0);
            if (n <= 0) break;
            if (reply.size() < (1u << 20)) reply.append(buffer, static_cast<size_t>(n));
        }
    });
    s.server->serve_connection(sockets[0]);  // closes sockets[0]
    client.join();
    ::close(sockets[1]);

    // A request made of parts is whole, so it gets a reply; raw bytes may
    // end before a request does.
    require(raw || !reply.empty(), "a reply to every whole request", request);
    if (!reply.empty()) {
        require(reply.rfind("HTTP/1.1 ", 0) == 0, "a reply starts with its status line", reply);
        const int status = std::atoi(reply.c_str() + 9);
        require(status >= 100 && status < 600, "a status code", reply);
        // 500 only when the library itself failed (with its own message),
        // never the studio's own "unexpected failure".
        const size_t body = reply.find("\r\n\r\n");
        require(status != 500 || body == std::string::npos ||
                    reply.compare(body + 4, 29, "{\"error\":\"unexpected failure") != 0,
                "no unexpected failure", reply);
        // In the head of every reply on the connection (bodies are skipped
        // by their length: a body may echo the request's path).
        for (size_t head = 0; head < reply.size();) {
            const size_t end = reply.find("\r\n\r\n", head);
            if (end == std::string::npos) break;
            size_t length = 0;
            for (size_t line = reply.find("\r\n", head); line < end; line = reply.find("\r\n", line + 2)) {
                require(reply.compare(line + 2, 20, "Access-Control-Allow") != 0, "no cross-origin permission", reply);
                if (reply.compare(line + 2, 16, "Content-Length: ") == 0) {
                    length = std::strtoull(reply.c_str() + line + 18, nullptr, 10);
                }
            }
            head = end + 4 + length;
        }
    }
    return 0;
}
