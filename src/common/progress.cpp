#include "common/progress.h"

#include <cstdarg>

namespace ostrel {

namespace {

struct progress_sink {
    ostrel_alg_progress_handler handler = nullptr;
    void *user = nullptr;
    std::chrono::steady_clock::time_point start;
};

thread_local progress_sink t_sink;

}  // namespace

void log_progress(const char *format, ...) {
    va_list args;
    va_start(args, format);
    log_with_severity(OSTREL_ALG_LOG_PROGRESS, format, args);
    va_end(args);
}

ostrel_alg_progress progress_record(int32_t stage) {
    ostrel_alg_progress record{};
    record.stage = stage;
    return record;
}

void report_progress(ostrel_alg_progress record) {
    const progress_sink &sink = t_sink;
    if (sink.handler == nullptr) {
        return;
    }
    record.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - sink.start).count();
    sink.handler(&record, sink.user);
}

progress_scope::progress_scope(ostrel_alg_progress_handler handler, void *user)
    : handler_(t_sink.handler), user_(t_sink.user), start_(t_sink.start) {
    t_sink.handler = handler;
    t_sink.user = user;
    t_sink.start = std::chrono::steady_clock::now();
}

progress_scope::~progress_scope() {
    t_sink.handler = handler_;
    t_sink.user = user_;
    t_sink.start = start_;
}

}  // namespace ostrel
