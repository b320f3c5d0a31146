// The one error type of the studio's handlers: an HTTP status (4xx for
// requests the studio refuses) and a message for the person or script that
// sent the request. The server turns it into {"error": message}.
#pragma once

#include <stdexcept>
#include <string>

namespace ostrel_tool {
namespace studio {

class ApiError : public std::runtime_error {
public:
    ApiError(int status, const std::string &message) : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

private:
    int status_;
};

// The statuses the studio answers with.
namespace http_status {
constexpr int ok = 200;
constexpr int created = 201;
constexpr int bad_request = 400;  // malformed JSON, wrong types, bad query values
constexpr int forbidden = 403;    // a request from a foreign origin or host name
constexpr int not_found = 404;    // unknown picture, sample, route or file
constexpr int method_not_allowed = 405;
constexpr int conflict = 409;  // nothing trained yet, or taught pictures disagree
constexpr int payload_too_large = 413;
constexpr int unsupported_media_type = 415;  // an upload that is not a picture, a wrong content type
constexpr int unprocessable = 422;           // boxes that do not fit, a model that fails validation
constexpr int internal_error = 500;          // the library failed
constexpr int service_unavailable = 503;     // too busy: other requests hold the memory this one needs
}  // namespace http_status

}  // namespace studio
}  // namespace ostrel_tool
