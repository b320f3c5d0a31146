// Catches what the library prints during a call.
//
// The library writes its log lines ("[Alg. Scc] ...", "[Debug] ...", failure
// lines) to standard output. While a LibraryOutputCapture exists, descriptor 1
// points at a pipe whose lines a reader thread hands, one at a time and in
// order, to a handler; the destructor puts descriptor 1 back and returns only
// after the handler has seen every line. This keeps the tool's results (for
// example `detect --json`) machine-readable and lets commands turn the
// library's training lines into progress lines.
//
// The handler runs on the reader thread while the caller is inside the
// library, so it must not call the library itself.
#pragma once

#include <functional>
#include <string>
#include <thread>

namespace ostrel_tool {

class LibraryOutputCapture {
public:
    using LineHandler = std::function<void(const std::string &line)>;

    explicit LibraryOutputCapture(LineHandler handler);
    ~LibraryOutputCapture();

    LibraryOutputCapture(const LibraryOutputCapture &) = delete;
    LibraryOutputCapture &operator=(const LibraryOutputCapture &) = delete;

    // False when the pipe could not be set up; the library then prints to
    // standard output as usual.
    bool active() const { return active_; }

private:
    void read_lines(int fd);

    LineHandler handler_;
    int saved_stdout_ = -1;
    bool active_ = false;
    std::thread reader_;
};

}  // namespace ostrel_tool
