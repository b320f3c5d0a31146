#include "studio/media_type.h"

#include <cctype>
#include <cstring>

#include "studio/safe_names.h"

namespace ostrel_tool {
namespace studio {

namespace {

// tchar: "!" / "#" / "$" / "%" / "&" / "'" / "*" / "+" / "-" / "." / "^" / "_" /
// "`" / "|" / "~" / DIGIT / ALPHA
bool is_token_char(char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    return (u < 0x80 && std::isalnum(u)) || (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

bool is_ows(char c) { return c == ' ' || c == '\t'; }

// qdtext: HTAB / SP / %x21 / %x23-5B / %x5D-7E / obs-text (%x80-FF)
bool is_qdtext(char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    return c == '\t' || c == ' ' || u == 0x21 || (u >= 0x23 && u <= 0x5b) || (u >= 0x5d && u <= 0x7e) || u >= 0x80;
}

// quoted-pair: "\" ( HTAB / SP / VCHAR / obs-text )
bool is_quotable(char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    return c == '\t' || c == ' ' || (u >= 0x21 && u <= 0x7e) || u >= 0x80;
}

class Reader {
public:
    explicit Reader(const std::string &text) : s_(text) {}
    bool done() const { return i_ >= s_.size(); }
    char peek() const { return done() ? '\0' : s_[i_]; }
    void skip_ows() {
        while (!done() && is_ows(s_[i_])) ++i_;
    }
    bool take(char c) {
        if (peek() != c || done()) return false;
        ++i_;
        return true;
    }
    // One token or nullopt when none starts here.
    std::optional<std::string> token() {
        const size_t start = i_;
        while (!done() && is_token_char(s_[i_])) ++i_;
        if (i_ == start) return std::nullopt;
        return s_.substr(start, i_ - start);
    }
    std::optional<std::string> quoted_string() {
        if (!take('"')) return std::nullopt;
        std::string value;
        while (!done()) {
            const char c = s_[i_++];
            if (c == '"') return value;
            if (c == '\\') {
                if (done() || !is_quotable(s_[i_])) return std::nullopt;
                value.push_back(s_[i_++]);
            } else if (is_qdtext(c)) {
                value.push_back(c);
            } else {
                return std::nullopt;
            }
        }
        return std::nullopt;  // no closing quote
    }

private:
    const std::string &s_;
    size_t i_ = 0;
};

}  // namespace

std::string MediaType::parameter(const std::string &name) const {
    const std::string wanted = ascii_lower(name);
    for (const auto &p : parameters) {
        if (p.first == wanted) return p.second;
    }
    return {};
}

std::optional<MediaType> parse_media_type(const std::string &text) {
    Reader r(text);
    r.skip_ows();
    MediaType m;
    const auto type = r.token();
    if (!type || !r.take('/')) return std::nullopt;
    const auto subtype = r.token();
    if (!subtype) return std::nullopt;
    m.type = ascii_lower(*type);
    m.subtype = ascii_lower(*subtype);
    for (;;) {
        r.skip_ows();
        if (r.done()) return m;
        if (!r.take(';')) return std::nullopt;
        r.skip_ows();
        if (r.done() || r.peek() == ';') continue;  // an empty parameter
        const auto name = r.token();
        if (!name || !r.take('=')) return std::nullopt;
        const auto value = r.peek() == '"' ? r.quoted_string() : r.token();
        if (!value) return std::nullopt;
        m.parameters.emplace_back(ascii_lower(*name), *value);
    }
}

bool is_sent_without_preflight(const MediaType &type) {
    const std::string e = type.essence();
    return e == "text/plain" || e == "application/x-www-form-urlencoded" || e == "multipart/form-data";
}

}  // namespace studio
}  // namespace ostrel_tool
