// Why a call failed, for the host's program (ostrel_alg_getLastError).
//
// A failure point logs its line as it always has and, beside it, notes a
// code (OSTREL_ALG_ERR_*) and the sentence a person reads. The notes of one
// call are kept per thread while it runs; the exported function that the
// host called takes them when it returns 1 and files them with its engine
// (or the thread's record for a call without one). The first code noted in
// a call is its cause (later lines report the same failure further up), as
// is the first sentence.
#pragma once

#include <cstdint>
#include <string>

#include "ostrel_alg.h"
#include "common/log.h"

namespace ostrel {

struct failure {
    int32_t code = OSTREL_ALG_ERR_OK;
    std::string message;
};

// Logs exactly what log(format, ...) logs, as a failure line
// (OSTREL_ALG_LOG_FAILURE), and notes code with that text as its sentence
// (without the leading "[...] " tag and the line end).
void fail(int32_t code, const char *format, ...) OSTREL_PRINTF_LIKE(2, 3);

// Logs a failure line without noting a code: for the lines of a failure
// whose code is noted beside them (note_failure, fail_at) or further up.
void log_failure(const char *format, ...) OSTREL_PRINTF_LIKE(1, 2);

// Logs the engine's location line "[Alg. FAIL!] <operation> (ostrel_alg
// line:<line>)" and notes code (its sentence comes from the line before it,
// or from the code). Returns 1, the failure status.
int32_t fail_at(int32_t code, const char *operation, int line);

// Notes code for the running call without logging; message may be null
// (the code's own sentence is used unless a line gave one). Never throws:
// it runs in exception handlers too.
void note_failure(int32_t code, const char *message = nullptr) noexcept;

// The sentence of a code when no line gave one.
const char *failure_sentence(int32_t code);

// One exported call: the outermost scope on a thread starts with no notes;
// taken() gives what the call noted (FAILED and its sentence when nothing
// was), prefixed with the function's name.
class failure_scope {
public:
    failure_scope();
    ~failure_scope();
    failure_scope(const failure_scope &) = delete;
    failure_scope &operator=(const failure_scope &) = delete;
    bool outermost() const { return outermost_; }
    failure taken(const char *function) const;

private:
    bool outermost_;
};

// The calling thread's record of failures of calls without an engine.
failure &thread_failure();

// Copies message into buffer (size bytes, null included), cut at a UTF-8
// character boundary when it does not fit.
void copy_message(const std::string &message, char *buffer, size_t size);

}  // namespace ostrel
