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
    ostrel_alg_log_handler handler = nullptr;
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

void deliver(const char *text, size_t length, ostrel_alg_log_handler handler, void *user) {
    if (handler != nullptr) {
        struct handler_scope {
            handler_scope() { ++handler_depth; }
            ~handler_scope() { --handler_depth; }
        } scope;
        handler(text, user);
    } else {
        std::fwrite(text, 1, length, stdout);
        std::fflush(stdout);
    }
}

}  // namespace

bool format_message(const char *format, va_list args, std::string *out) {
    // Most messages are one short line; a longer one is formatted again
    // into a buffer of its exact size.
    char short_text[512];
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(short_text, sizeof short_text, format, args);
    if (length < 0) {
        va_end(again);
        return false;
    }
    if (static_cast<size_t>(length) < sizeof short_text) {
        va_end(again);
        out->assign(short_text, static_cast<size_t>(length));
        return true;
    }
    std::string long_text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(&long_text[0], long_text.size(), format, again);
    va_end(again);
    long_text.resize(static_cast<size_t>(length));
    *out = std::move(long_text);
    return true;
}

void log_text(const std::string &message) {
#if defined(OSTREL_TEST_REWORDED_LOG)
    // A test build that proves no front end reads these lines: every
    // message is reworded (prefixed) before it leaves the library.
    const std::string reworded = "x" + message;
    const std::string &text = reworded;
#else
    const std::string &text = message;
#endif
    log_destination &to = destination();
    if (handler_depth > 0) {
        if (handler_depth <= kDeepestNestedDelivery) {
            deliver(text.c_str(), text.size(), to.handler, to.user);
        }
        return;
    }
    std::shared_lock<std::shared_mutex> reading(to.lock);
    deliver(text.c_str(), text.size(), to.handler, to.user);
}

void log(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::string text;
    const bool formatted = format_message(format, args, &text);
    va_end(args);
    if (formatted) {
        log_text(text);
    }
}

bool set_log_handler(ostrel_alg_log_handler handler, void *user) {
    if (handler_depth > 0) {
        return false;
    }
    log_destination &to = destination();
    std::unique_lock<std::shared_mutex> writing(to.lock);
    // Whatever the old handler was given has been delivered: flush what the
    // standard output path may still hold before the handler takes over.
    std::fflush(stdout);
    to.handler = handler;
    to.user = handler != nullptr ? user : nullptr;
    return true;
}

}  // namespace ostrel
