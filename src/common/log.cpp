#include "common/log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace ostrel {

namespace {

// The handler and its user pointer change together, under the writer side
// of the lock; every delivery holds the reader side, so deliveries on many
// threads run at the same time and a change waits for them to end.
struct log_destination {
    std::shared_mutex lock;
    // At most one of the two is set.
    ostrel_alg_log_handler handler = nullptr;
    ostrel_alg_log_record_handler record_handler = nullptr;
    void *user = nullptr;
};

// Never destroyed: a thread may still log while the process exits.
log_destination &destination() {
    static log_destination *const the_destination = new log_destination;
    return *the_destination;
}

// How many handler calls this thread is inside. A message logged from a
// handler (one that calls the library, against the rules) goes to the same
// handler without taking the lock again, which would be undefined; but only
// one level deep: what that nested call logs in turn is dropped, so that a
// handler that calls the library on every message cannot recurse without end.
thread_local int handler_depth = 0;
constexpr int kDeepestNestedDelivery = 1;

void deliver(const char *text, size_t length, int32_t severity, const log_destination &to) {
    if (to.handler != nullptr || to.record_handler != nullptr) {
        struct handler_scope {
            handler_scope() { ++handler_depth; }
            ~handler_scope() { --handler_depth; }
        } scope;
        if (to.record_handler != nullptr) {
            to.record_handler(severity, text, to.user);
        } else {
            to.handler(text, to.user);
        }
    } else {
        std::fwrite(text, 1, length, stdout);
        std::fflush(stdout);
    }
}

}  // namespace

bool format_message(const char *format, va_list args, message_text *out) {
    // Most messages are one short line, formatted without allocating; a
    // longer one is formatted again into a buffer of its exact size.
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(out->short_text, sizeof out->short_text, format, args);
    if (length < 0) {
        va_end(again);
        return false;
    }
    out->size = static_cast<size_t>(length);
    if (out->size < sizeof out->short_text) {
        va_end(again);
        out->data = out->short_text;
        return true;
    }
    out->long_text.resize(out->size + 1);
    std::vsnprintf(&out->long_text[0], out->long_text.size(), format, again);
    va_end(again);
    out->data = out->long_text.c_str();
    return true;
}

void log_text(const char *message, size_t length, int32_t severity) {
#if defined(OSTREL_TEST_REWORDED_LOG)
    // A test build that shows no front end reads these lines: every
    // message is reworded (prefixed) before it leaves the library.
    const std::string reworded = "x" + std::string(message, length);
    const char *text = reworded.c_str();
    length = reworded.size();
#else
    const char *text = message;
#endif
    log_destination &to = destination();
    if (handler_depth > 0) {
        if (handler_depth <= kDeepestNestedDelivery) {
            deliver(text, length, severity, to);
        }
        return;
    }
    std::shared_lock<std::shared_mutex> reading(to.lock);
    deliver(text, length, severity, to);
}

void log_with_severity(int32_t severity, const char *format, va_list args) {
    message_text text;
    if (format_message(format, args, &text)) {
        log_text(text.data, text.size, severity);
    }
}

void log(const char *format, ...) {
    va_list args;
    va_start(args, format);
    log_with_severity(OSTREL_ALG_LOG_DETAIL, format, args);
    va_end(args);
}

namespace {

bool set_destination(ostrel_alg_log_handler handler, ostrel_alg_log_record_handler record_handler, void *user) {
    if (handler_depth > 0) {
        return false;
    }
    log_destination &to = destination();
    std::unique_lock<std::shared_mutex> writing(to.lock);
    // Whatever the old handler was given has been delivered: flush what the
    // standard output path may still hold before the handler takes over.
    std::fflush(stdout);
    to.handler = handler;
    to.record_handler = record_handler;
    to.user = handler != nullptr || record_handler != nullptr ? user : nullptr;
    return true;
}

}  // namespace

bool set_log_handler(ostrel_alg_log_handler handler, void *user) { return set_destination(handler, nullptr, user); }

bool set_log_record_handler(ostrel_alg_log_record_handler handler, void *user) {
    return set_destination(nullptr, handler, user);
}

}  // namespace ostrel
