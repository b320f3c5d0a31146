// Conversion of the UTF-16 paths of the _bstr functions to narrow strings.
#pragma once

#include <string>

#include "ostrel_alg.h"

namespace ostrel {

// Converts a null-terminated UTF-16 path: on Windows to the thread's ANSI
// code page with WideCharToMultiByte (code page 3), elsewhere to UTF-8.
// Returns false, leaving *out empty, for a null path, a path of 0x40000000
// characters or more, or a sequence that does not convert (an unpaired
// surrogate).
bool utf16_path_to_narrow(const ostrel_alg_utf16 *path, std::string *out);

}  // namespace ostrel
