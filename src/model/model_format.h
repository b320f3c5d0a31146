// model_format: which reader a model file goes to, decided by its first
// bytes and nothing else.
//
// A file that begins with the accurate model magic (accurate_model_file.h)
// is an accurate model; every other file - shorter ones and ones that
// cannot be opened included - goes to the classic reader, which takes or
// refuses it exactly as it always has.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ostrel {

enum class model_format { classic, accurate };

model_format sniff_model_format(const std::string &path);

// The whole file at path when it is at most max_bytes long. False, with
// *problem saying why, when it cannot be opened or read or is longer.
bool read_whole_file(const std::string &path, uint64_t max_bytes, std::vector<unsigned char> *out,
                     std::string *problem);

}  // namespace ostrel
