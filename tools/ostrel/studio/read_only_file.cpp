#include "studio/read_only_file.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "studio/api_error.h"

namespace ostrel_tool {
namespace studio {

ReadOnlyFile::ReadOnlyFile(const std::string &path, const std::string &shown_name) : shown_name_(shown_name) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd_ < 0) {
        throw ApiError(http_status::not_found, "cannot open '" + shown_name + "': " + std::strerror(errno));
    }
    struct stat st {};
    if (::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd_);
        fd_ = -1;
        throw ApiError(http_status::not_found, "'" + shown_name + "' is no longer a regular file");
    }
    size_ = static_cast<uint64_t>(st.st_size);
}

ReadOnlyFile::~ReadOnlyFile() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

size_t ReadOnlyFile::read_at(uint64_t offset, char *buffer, size_t bytes) const {
    size_t done = 0;
    while (done < bytes) {
        const ssize_t n = ::pread(fd_, buffer + done, bytes - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            throw ApiError(http_status::not_found, "cannot read '" + shown_name_ + "': " + std::strerror(errno));
        }
        if (n == 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

std::string ReadOnlyFile::read_all() const {
    std::string bytes(static_cast<size_t>(size_), '\0');
    if (read_at(0, &bytes[0], bytes.size()) != bytes.size()) {
        throw ApiError(http_status::not_found, "'" + shown_name_ + "' changed while it was read");
    }
    return bytes;
}

std::string ReadOnlyFile::resolved_path() const {
    std::error_code ec;
    const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd_), ec);
    return ec ? std::string() : target.string();
}

}  // namespace studio
}  // namespace ostrel_tool
