// Names and paths the studio accepts. The server never builds a file path
// from a request: pictures are looked up by name in the list made when the
// folder was read, and these checks decide what may enter that list.
#pragma once

#include <filesystem>
#include <string>

namespace ostrel_tool {
namespace studio {

// A plain file name: not empty, at most 255 bytes, no folder separators,
// no control characters, not "." or "..", not hidden (leading dot).
bool is_plain_file_name(const std::string &name);

// Turns the name a browser suggests for an uploaded file into a plain file
// name: folders dropped, characters other than letters, digits, '.', '-',
// '_' and ' ' replaced by '_', leading dots and spaces dropped, the stem cut
// to 80 bytes, and the extension set to `extension` (".jpg", ...) unless it
// already names that format. "picture" when nothing is left.
std::string upload_file_name(const std::string &suggested, const std::string &extension);

// True when path, with every symbolic link resolved, lies inside folder
// (itself already canonical). False when path cannot be resolved.
bool lies_inside(const std::filesystem::path &canonical_folder, const std::filesystem::path &path);

// The name the studio lists a file under. JSON and the page carry UTF-8
// only, so a file name that is not UTF-8 (a Latin-1 name from an old disk,
// say) is written with every byte that is not part of a UTF-8 character as
// %XX (upper-case hex) and every '%' as %25: the name is UTF-8, shows where
// the odd bytes were and can be typed back. UTF-8 names are listed as they
// are. The store makes listed names unique (a real file may be named like
// an escaped one) and finds files by the listed name, never by decoding it.
std::string listing_name(const std::string &file_name);

// True when text is well-formed UTF-8 (no overlong forms, surrogates or
// code points above U+10FFFF).
bool is_utf8(const std::string &text);

// Lower-case ASCII (host names, schemes, media types and extensions compare
// without case); other bytes stay as they are.
std::string ascii_lower(std::string text);

// Lower-case extension with its dot (".JPG" -> ".jpg"), "" when none.
std::string lower_extension(const std::string &name);

}  // namespace studio
}  // namespace ostrel_tool
