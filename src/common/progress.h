// Progress of a training, for the host's program (ostrel_alg_setProgressHandler).
//
// The units that log a training step ("[Alg. Scc] ...", "[Debug] Total size
// of Acfs", ...) report the same step here with its numbers. The exported
// function that the host called names the engine's handler for the call's
// thread; a step reported without one goes nowhere.
#pragma once

#include <chrono>

#include "ostrel_alg.h"
#include "common/log.h"

namespace ostrel {

// Logs a line that tells a person how a training goes, as a progress line
// (OSTREL_ALG_LOG_PROGRESS).
void log_progress(const char *format, ...) OSTREL_PRINTF_LIKE(1, 2);

// Calls the handler of the running call, if any, with record (seconds
// filled in).
void report_progress(ostrel_alg_progress record);

// A record of stage with every count 0.
ostrel_alg_progress progress_record(int32_t stage);

// One exported call on an engine: its handler receives the steps reported
// on this thread until the scope ends (the one before it then again).
class progress_scope {
public:
    progress_scope(ostrel_alg_progress_handler handler, void *user);
    ~progress_scope();
    progress_scope(const progress_scope &) = delete;
    progress_scope &operator=(const progress_scope &) = delete;

private:
    ostrel_alg_progress_handler handler_;
    void *user_;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace ostrel
