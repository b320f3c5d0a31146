#include "studio/request_guard.h"

#include <fstream>
#include <random>

#include "studio/api_error.h"
#include "studio/safe_names.h"

namespace ostrel_tool {
namespace studio {

namespace {

// Compares in time that depends on the lengths only, so that the answer's
// timing tells nothing about how much of a guess was right.
bool same_token(const std::string &given, const std::string &expected) {
    if (given.size() != expected.size()) {
        return false;
    }
    unsigned char difference = 0;
    for (size_t i = 0; i < given.size(); ++i) {
        difference |= static_cast<unsigned char>(given[i] ^ expected[i]);
    }
    return difference == 0;
}

}  // namespace

std::string new_session_token() {
    unsigned char bytes[32] = {};
    std::ifstream random_source("/dev/urandom", std::ios::binary);
    random_source.read(reinterpret_cast<char *>(bytes), sizeof(bytes));
    if (!random_source) {
        // std::random_device reads the same source through the C++ library.
        std::random_device device;
        for (unsigned char &b : bytes) {
            b = static_cast<unsigned char>(device());
        }
    }
    static const char digits[] = "0123456789abcdef";
    std::string token;
    for (const unsigned char b : bytes) {
        token.push_back(digits[b >> 4]);
        token.push_back(digits[b & 15]);
    }
    return token;
}

bool RequestGuard::changes_state(const std::string &method, const std::string &path) {
    return path.rfind("/api/", 0) == 0 && method != "GET" && method != "HEAD" && method != "OPTIONS";
}

void RequestGuard::check(const GuardedRequest &request) const {
    if (request.has_origin) {
        const std::string own = "http://" + ascii_lower(request.host);
        if (request.host.empty() || ascii_lower(request.origin) != own) {
            throw ApiError(http_status::forbidden, "this request comes from another origin (" + request.origin +
                                                       "): the studio serves only its own page");
        }
    }
    if (changes_state(request.method, request.path) && (!request.has_token || !same_token(request.token, token_))) {
        throw ApiError(http_status::forbidden, std::string(request.has_token ? "a wrong" : "no") +
                                                   " session token: send the token of GET "
                                                   "/api/session in the " +
                                                   kTokenHeader + " header with every request that changes something");
    }
}

}  // namespace studio
}  // namespace ostrel_tool
