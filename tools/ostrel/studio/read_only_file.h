// A picture file of the studio's folder, opened for reading in a way that
// never blocks a request thread. The folder may change while the studio
// runs: a listed picture replaced by a FIFO would block open() until a
// writer came, and a read from it for good. So the file is opened with
// O_NONBLOCK and its type is checked on the open file (fstat), where no
// later swap can change it: anything but a regular file is refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ostrel_tool {
namespace studio {

class ReadOnlyFile {
public:
    // Throws ApiError(404) naming `shown_name` when the file cannot be
    // opened or is not a regular file.
    ReadOnlyFile(const std::string &path, const std::string &shown_name);
    ~ReadOnlyFile();
    ReadOnlyFile(const ReadOnlyFile &) = delete;
    ReadOnlyFile &operator=(const ReadOnlyFile &) = delete;

    // The size when it was opened.
    uint64_t size() const { return size_; }
    // Up to `bytes` from `offset`; fewer (0 at the end) when the file is
    // shorter. Throws ApiError(404) when the read fails.
    size_t read_at(uint64_t offset, char *buffer, size_t bytes) const;
    // The whole file; throws ApiError(404) when it changed size meanwhile.
    std::string read_all() const;
    // The path the open file has now, with links resolved ("" when the
    // system cannot tell): where the file really lies, whatever was swapped.
    std::string resolved_path() const;

private:
    int fd_ = -1;
    uint64_t size_ = 0;
    std::string shown_name_;
};

}  // namespace studio
}  // namespace ostrel_tool
