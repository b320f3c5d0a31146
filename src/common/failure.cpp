#include "common/failure.h"

#include <cstdarg>
#include <cstring>

#include "common/log_lines.h"

namespace ostrel {

namespace {

struct pending_failure {
    int depth = 0;
    int32_t code = OSTREL_ALG_ERR_OK;
    std::string message;
};

thread_local pending_failure t_pending;

// The log line without its tag ("[Debug] ", "[Alg.Fail] ", ...) and line end.
std::string sentence_of_line(const std::string &line) {
    size_t start = 0;
    if (!line.empty() && line[0] == '[') {
        const size_t close = line.find("] ");
        if (close != std::string::npos) {
            start = close + 2;
        }
    }
    size_t end = line.size();
    while (end > start && (line[end - 1] == '\n' || line[end - 1] == '\r')) {
        --end;
    }
    return line.substr(start, end - start);
}

// Cuts s to at most max bytes without splitting a UTF-8 character.
void cut_utf8(std::string &s, size_t max) {
    if (s.size() <= max) {
        return;
    }
    size_t n = max;
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) {
        --n;
    }
    s.resize(n);
}

}  // namespace

void fail(int32_t code, const char *format, ...) {
    va_list args;
    va_start(args, format);
    message_text text;
    const bool formatted = format_message(format, args, &text);
    va_end(args);
    if (!formatted) {
        note_failure(code);
        return;
    }
    log_text(text.data, text.size, OSTREL_ALG_LOG_FAILURE);
    try {
        note_failure(code, sentence_of_line(std::string(text.data, text.size)).c_str());
    } catch (...) {
        note_failure(code);  // no memory for the sentence: the code alone
    }
}

void log_failure(const char *format, ...) {
    va_list args;
    va_start(args, format);
    log_with_severity(OSTREL_ALG_LOG_FAILURE, format, args);
    va_end(args);
}

int32_t fail_at(int32_t code, const char *operation, int line) {
    log_failure(kEngineFailFormat, operation, kEngineSource, line);
    note_failure(code);
    return 1;
}

void note_failure(int32_t code, const char *message) noexcept {
    pending_failure &p = t_pending;
    // FAILED says only that something failed: a precise code noted after
    // it (by a unit further down the same failure) takes its place.
    if (p.code == OSTREL_ALG_ERR_OK || p.code == OSTREL_ALG_ERR_FAILED) {
        p.code = code;
    }
    if (p.message.empty() && message != nullptr && message[0] != '\0') {
        try {
            p.message = message;
        } catch (...) {
            p.message.clear();  // out of memory: the code's own sentence will do
        }
    }
}

const char *failure_sentence(int32_t code) {
    switch (code) {
        case OSTREL_ALG_ERR_OK: return "";
        case OSTREL_ALG_ERR_BAD_ARGUMENT: return "an argument is not valid";
        case OSTREL_ALG_ERR_BAD_PICTURE: return "the picture record cannot be read";
        case OSTREL_ALG_ERR_PICTURE_TOO_LARGE: return "the picture is larger than the pixel limit";
        case OSTREL_ALG_ERR_TOO_MANY_BOXES: return "more boxes than one picture may have";
        case OSTREL_ALG_ERR_BOX_NOT_LEARNABLE: return "no window can be learnt from the marked boxes";
        case OSTREL_ALG_ERR_PICTURE_TOO_SMALL: return "the trained object cannot be searched for on this picture";
        case OSTREL_ALG_ERR_NOT_TRAINED: return "the engine holds no trained or imported model";
        case OSTREL_ALG_ERR_WRONG_PROFILE: return "the model was made under another profile or window";
        case OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE: return "the model file cannot be read";
        case OSTREL_ALG_ERR_MODEL_INVALID: return "the model is not valid";
        case OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE: return "the model file cannot be written";
        case OSTREL_ALG_ERR_NOTHING_TO_LEARN: return "training found nothing to learn from";
        case OSTREL_ALG_ERR_OUT_OF_MEMORY: return "out of memory";
        case OSTREL_ALG_ERR_INTERNAL: return "an unexpected error inside the library";
        default: return "the call failed";
    }
}

failure_scope::failure_scope() : outermost_(t_pending.depth == 0) {
    if (outermost_) {
        t_pending.code = OSTREL_ALG_ERR_OK;
        t_pending.message.clear();
    }
    ++t_pending.depth;
}

failure_scope::~failure_scope() { --t_pending.depth; }

failure failure_scope::taken(const char *function) const {
    const pending_failure &p = t_pending;
    failure f;
    f.code = p.code == OSTREL_ALG_ERR_OK ? OSTREL_ALG_ERR_FAILED : p.code;
    f.message = p.message.empty() ? failure_sentence(f.code) : p.message;
    // Sentences of the interface's own lines already start with the
    // function; the engine's start with its operation.
    if (f.message.rfind("ostrel_alg", 0) != 0) {
        f.message = std::string(function) + ": " + f.message;
    }
    cut_utf8(f.message, OSTREL_ALG_MAX_ERROR_MESSAGE_BYTES - 1);
    return f;
}

failure &thread_failure() {
    thread_local failure t_failure;
    return t_failure;
}

void copy_message(const std::string &message, char *buffer, size_t size) {
    if (buffer == nullptr || size == 0) {
        return;
    }
    std::string cut = message;
    cut_utf8(cut, size - 1);
    std::memcpy(buffer, cut.data(), cut.size());
    buffer[cut.size()] = '\0';
}

}  // namespace ostrel
