// Content-Type values read as HTTP defines media types, never compared as
// text:
//   media-type = type "/" subtype parameters
//   parameters = *( OWS ";" OWS [ parameter ] )
//   parameter  = name "=" ( token / quoted-string )
// where type, subtype and names are case-insensitive tokens and OWS is any
// run of spaces and tabs. "text/plain\t;charset=utf-8" is text/plain with a
// charset, which browsers let any web page send; a text comparison after
// stripping spaces took it for something else.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ostrel_tool {
namespace studio {

struct MediaType {
    std::string type;     // lower case
    std::string subtype;  // lower case
    // In order; names lower case, values as sent (quoted ones unquoted).
    std::vector<std::pair<std::string, std::string>> parameters;

    std::string essence() const { return type + "/" + subtype; }
    // The value of the first parameter of that name (any case), "" when absent.
    std::string parameter(const std::string &name) const;
};

// The media type of a Content-Type value (spaces and tabs around it are
// allowed); nullopt when the value is not one.
std::optional<MediaType> parse_media_type(const std::string &text);

// text/plain, application/x-www-form-urlencoded and multipart/form-data:
// the types a page of any site may send in a visitor's browser without the
// browser asking the server first.
bool is_sent_without_preflight(const MediaType &type);

}  // namespace studio
}  // namespace ostrel_tool
