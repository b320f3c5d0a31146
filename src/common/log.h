// The library's one logging function. Every message of the library goes
// through it to standard output, one printf-style call per line; the exact
// texts live next to the code that emits them.
#pragma once

#if defined(__GNUC__)
#define OSTREL_PRINTF_LIKE(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define OSTREL_PRINTF_LIKE(fmt_index, first_arg)
#endif

namespace ostrel {

// Writes the formatted text to standard output and flushes it, so that a
// host (or a test) reading the stream sees each line as soon as it is made.
void log(const char *format, ...) OSTREL_PRINTF_LIKE(1, 2);

}  // namespace ostrel
