// Conversion of the UTF-16 paths of the _bstr functions to narrow strings.
#pragma once

#include <cstddef>
#include <string>

#include "ostrel_alg.h"

namespace ostrel {

// Longest path converted, in UTF-16 units without the terminator: Windows'
// own limit for a path. The converted bytes live on the stack (see
// utf16_path_to_narrow), so this bound also bounds the stack the conversion
// takes: 2 * (32767 + 1) bytes, 64 KiB.
constexpr size_t kMaxUtf16PathUnits = 32767;

enum class Utf16PathResult {
    converted,
    null_path,
    too_long,           // more than kMaxUtf16PathUnits units before the terminator
    invalid_utf16,      // a surrogate without its other half
    conversion_failed,  // Windows: WideCharToMultiByte refused the path
};

// Converts a null-terminated UTF-16 path into *out, which is left empty on
// any result but `converted`.
//
// On Windows: WideCharToMultiByte(CP_THREAD_ACP, 0, path, -1, buffer, 2 * n,
// NULL, NULL) into a stack buffer of 2 * n bytes (rounded up to 16), n being
// the units with the terminator: the thread's ANSI code page, which is what
// the C runtime's fopen expects. Characters that code page lacks become its
// default character; the file open then fails and reports the path.
// Elsewhere: UTF-8, the file-name encoding of Linux.
//
// On both, the path is checked first: a null path, one longer than
// kMaxUtf16PathUnits and one with an unpaired surrogate are refused.
Utf16PathResult utf16_path_to_narrow(const ostrel_alg_utf16 *path, std::string *out);

}  // namespace ostrel
