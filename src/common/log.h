// The library's one logging function. Every message of the library goes
// through it, one printf-style call per message; the exact texts live next
// to the code that emits them. By default messages go to standard output; a
// host may install a handler (ostrel_alg_setLogHandler) that receives them
// instead, or one that also receives each message's severity
// (ostrel_alg_setLogRecordHandler).
//
// The severity is set where the message is written, never read back from
// its words: log() writes details, log_failure() (common/failure.h) and the
// failure notes write failures, log_progress() (common/progress.h) writes
// the steps of a training.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

#include "ostrel_alg.h"

#if defined(__GNUC__)
#define OSTREL_PRINTF_LIKE(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define OSTREL_PRINTF_LIKE(fmt_index, first_arg)
#endif

namespace ostrel {

// Formats the whole message first, then hands it over in one piece: to the
// host's handler when one is set, otherwise to standard output in a single
// write followed by a flush, so that a host (or a test) reading the stream
// sees each message as soon as it is made and never a message cut in two by
// another thread's. A message logged from inside a handler reaches the same
// handler one level deep; one logged from inside that nested call is dropped.
// The message is a detail (OSTREL_ALG_LOG_DETAIL).
void log(const char *format, ...) OSTREL_PRINTF_LIKE(1, 2);

// log() with the message's severity (OSTREL_ALG_LOG_*), for the units that
// write the other severities.
void log_with_severity(int32_t severity, const char *format, va_list args);

// The two halves of log(): formatting a message, and handing a finished
// message over (the failure notes, common/failure.h, need the text too).
// A message of up to 511 bytes is formatted without allocating.
struct message_text {
    char short_text[512];
    std::string long_text;
    const char *data = nullptr;  // the message, size bytes, null-terminated
    size_t size = 0;
};
// False (and nothing in *out) when the format cannot be formatted.
bool format_message(const char *format, va_list args, message_text *out);
void log_text(const char *text, size_t length, int32_t severity);

// Installs (or, with a null handler, removes) the process-wide handler.
// Waits until every message that is being delivered to the old handler has
// been delivered, so that after it returns the old handler is never called
// again. Returns false, changing nothing and logging nothing, when called
// from inside a handler (the wait would never end, and a line about it
// would go to the very handler that called).
bool set_log_handler(ostrel_alg_log_handler handler, void *user);
// The same for a handler that also receives each message's severity. One
// destination at a time: installing either kind replaces the other.
bool set_log_record_handler(ostrel_alg_log_record_handler handler, void *user);

}  // namespace ostrel
