#include "library_output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace ostrel_tool {

LibraryOutputCapture::LibraryOutputCapture(LineHandler handler) : handler_(std::move(handler)) {
    std::fflush(stdout);
    int fds[2];
    if (::pipe(fds) != 0) {
        return;
    }
    saved_stdout_ = ::dup(STDOUT_FILENO);
    if (saved_stdout_ < 0 || ::dup2(fds[1], STDOUT_FILENO) < 0) {
        if (saved_stdout_ >= 0) {
            ::close(saved_stdout_);
            saved_stdout_ = -1;
        }
        ::close(fds[0]);
        ::close(fds[1]);
        return;
    }
    // Descriptor 1 now holds the write end; the reader sees end-of-file once
    // descriptor 1 is restored and this copy is closed.
    ::close(fds[1]);
    active_ = true;
    reader_ = std::thread([this, read_fd = fds[0]] { read_lines(read_fd); });
}

LibraryOutputCapture::~LibraryOutputCapture() {
    if (!active_) {
        return;
    }
    std::fflush(stdout);
    ::dup2(saved_stdout_, STDOUT_FILENO);
    ::close(saved_stdout_);
    reader_.join();
}

void LibraryOutputCapture::read_lines(int fd) {
    std::string pending;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        pending.append(buffer, static_cast<size_t>(n));
        size_t start = 0;
        for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
            if (handler_) {
                handler_(pending.substr(start, end - start));
            }
        }
        pending.erase(0, start);
    }
    // Some library messages have no line end; deliver what is left as a line.
    if (!pending.empty() && handler_) {
        handler_(pending);
    }
    ::close(fd);
}

}  // namespace ostrel_tool
