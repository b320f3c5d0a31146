#include "files/atomic_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>

#include "cli/tool_error.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

namespace {

// The longest file name (in bytes) of the usual file systems.
constexpr size_t kLongestName = 255;
// Symbolic links followed before giving up (the kernel's own limit).
constexpr int kMostLinks = 40;

std::string quoted_what(const std::string &what) { return what.empty() ? "" : what + " "; }

// Follows symbolic links to the path they finally name, which need not exist.
fs::path through_links(const fs::path &path, const std::string &what) {
    fs::path p = path;
    for (int hops = 0; hops < kMostLinks; ++hops) {
        std::error_code ec;
        if (fs::symlink_status(p, ec).type() != fs::file_type::symlink) {
            return p;
        }
        const fs::path link = fs::read_symlink(p, ec);
        if (ec) {
            throw output_error("cannot write " + quoted_what(what) + "'" + path.string() + "': " + ec.message());
        }
        p = link.is_absolute() ? link : p.parent_path() / link;
    }
    throw output_error("cannot write " + quoted_what(what) + "'" + path.string() + "': too many symbolic links");
}

// Gives the temporary the mode (and, where the writer may, the owner) of
// the file it is about to replace, so that replacing a file never widens or
// narrows who may read it.
void keep_mode_of(const std::string &target, const std::string &temporary) {
    std::error_code ec;
    const fs::file_status status = fs::status(target, ec);
    if (ec || !fs::is_regular_file(status)) {
        return;  // a new file: the mode the umask gives
    }
#ifndef _WIN32
    struct stat st;
    if (::stat(target.c_str(), &st) == 0 && ::chown(temporary.c_str(), st.st_uid, st.st_gid) != 0) {
        // Only root may give a file away; the file then belongs to the writer.
    }
#endif
    fs::permissions(temporary, status.permissions(), fs::perm_options::replace, ec);
}

// Whether the process may create files in folder (root may everywhere).
bool may_write_into(const fs::path &folder, std::string &reason) {
#ifndef _WIN32
    if (::access(folder.c_str(), W_OK | X_OK) != 0) {
        reason = std::strerror(errno);
        return false;
    }
#else
    (void)folder;
    (void)reason;
#endif
    return true;
}

}  // namespace

std::string temporary_name_for(const std::string &path, const std::string &extension) {
    static std::atomic<int> counter{0};
    const fs::path target(path);
    const std::string suffix = ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + extension;
    std::string name = target.filename().string();
    const size_t room = kLongestName - 1 - suffix.size();  // 1 for the leading '.'
    if (name.size() > room) {
        name.resize(room);
    }
    return (target.parent_path() / ("." + name + suffix)).string();
}

std::string output_target(const std::string &path, const std::string &what) {
    const std::string head = "cannot write " + quoted_what(what) + "'" + path + "': ";
    if (path.empty()) {
        throw output_error("cannot write " + quoted_what(what) + "'': no file name given");
    }
    const fs::path target = through_links(fs::path(path), what);
    std::error_code ec;
    const fs::file_status status = fs::status(target, ec);
    if (fs::exists(status)) {
        if (fs::is_directory(status)) {
            throw output_error(head + std::strerror(EISDIR) + " (a folder is never replaced)");
        }
        if (!fs::is_regular_file(status)) {
            throw output_error(head + "not a regular file (a device, FIFO or socket); it is left as it is");
        }
    }
    const fs::path folder = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    if (!fs::is_directory(folder, ec)) {
        throw output_error(head + "folder '" + folder.string() + "' does not exist");
    }
    std::string reason;
    if (!may_write_into(folder, reason)) {
        throw output_error(head + "cannot write into folder '" + folder.string() + "': " + reason);
    }
    return target.string();
}

TemporaryFile::~TemporaryFile() {
    if (!path_.empty()) {
        std::error_code ec;
        fs::remove(path_, ec);
    }
}

void commit_temporary(const std::string &temporary, const std::string &path) {
    std::string target;
    try {
        target = output_target(path);
    } catch (const ToolError &) {
        std::error_code ec;
        fs::remove(temporary, ec);
        throw;
    }
    keep_mode_of(target, temporary);
    std::error_code ec;
    fs::rename(temporary, target, ec);
    if (ec) {
        const std::string reason = ec.message();  // before remove() reuses ec
        fs::remove(temporary, ec);
        throw output_error("cannot write '" + path + "': " + reason);
    }
}

void write_file_atomically(const std::string &path, const void *data, size_t size) {
    TemporaryFile temporary(temporary_name_for(output_target(path)));
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
