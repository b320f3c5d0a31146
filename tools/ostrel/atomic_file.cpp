#include "atomic_file.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>

#include "tool_error.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

std::string temporary_name_for(const std::string &path) {
    static std::atomic<int> counter{0};
    const fs::path target(path);
    const std::string name = "." + target.filename().string() + ".tmp-" + std::to_string(::getpid()) + "-" +
                             std::to_string(counter++);
    return (target.parent_path() / name).string();
}

TemporaryFile::~TemporaryFile() {
    if (!path_.empty()) {
        std::error_code ec;
        fs::remove(path_, ec);
    }
}

void commit_temporary(const std::string &temporary, const std::string &path) {
    std::error_code ec;
    fs::rename(temporary, path, ec);
    if (ec) {
        const std::string reason = ec.message();  // before remove() reuses ec
        fs::remove(temporary, ec);
        throw output_error("cannot write '" + path + "': " + reason);
    }
}

void write_file_atomically(const std::string &path, const void *data, size_t size) {
    TemporaryFile temporary(temporary_name_for(path));
    std::FILE *f = std::fopen(temporary.path().c_str(), "wb");
    if (f == nullptr) {
        throw output_error("cannot write '" + path + "': " + std::strerror(errno));
    }
    const bool written = (size == 0 || std::fwrite(data, 1, size, f) == size);
    const bool closed = std::fclose(f) == 0;
    if (!written || !closed) {
        throw output_error("cannot write '" + path + "': " + std::strerror(errno));
    }
    commit_temporary(temporary.path(), path);
    temporary.release();
}

void write_file_atomically(const std::string &path, const std::string &text) {
    write_file_atomically(path, text.data(), text.size());
}

void write_png_atomically(const std::string &path, const cv::Mat &bgr) {
    std::vector<uint8_t> png;
    bool encoded = false;
    try {
        encoded = cv::imencode(".png", bgr, png);
    } catch (const cv::Exception &) {
        encoded = false;
    }
    if (!encoded) {
        throw output_error("cannot encode '" + path + "' as PNG");
    }
    write_file_atomically(path, png.data(), png.size());
}

void make_output_folder(const std::string &dir) {
    std::error_code ec;
    if (fs::is_directory(dir, ec)) {
        return;
    }
    fs::create_directories(dir, ec);
    if (ec || !fs::is_directory(dir)) {
        throw output_error("cannot create folder '" + dir + "'" + (ec ? ": " + ec.message() : ""));
    }
}

}  // namespace ostrel_tool
