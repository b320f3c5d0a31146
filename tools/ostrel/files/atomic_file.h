// Output files that appear whole or not at all: the bytes go to a temporary
// file next to the target, which is renamed over the target when complete.
//
// Every output of the tool follows the same rules: a symbolic link is
// written through (its target replaced, the link kept); an existing folder,
// device, FIFO or socket is refused (an output error, exit code 4) and left
// as it is; an existing file keeps its mode (and, where allowed, its owner).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace ostrel_tool {

// A temporary name in the target's folder: "<folder>/.<name>.tmp-<pid>-<n>",
// the name cut short so that the whole stays within 255 bytes (the longest
// file name the file systems take). extension, when given, ends the name
// (some writers choose the format by it).
std::string temporary_name_for(const std::string &path, const std::string &extension = "");

// The file an output path will replace: path itself, or where its symbolic
// links lead (a dangling link included). Throws an output error, "cannot
// write <what> '<path>': ...", when the path is empty, names a folder, a
// device, a FIFO or a socket, or its folder does not exist or cannot be
// written. Commands call it for their outputs before doing any work.
std::string output_target(const std::string &path, const std::string &what = "");

// Writes bytes to path through a temporary file. Throws an output error on
// any failure; the temporary file is removed then.
void write_file_atomically(const std::string &path, const void *data, size_t size);
void write_file_atomically(const std::string &path, const std::string &text);

// Encodes a picture as PNG and writes it atomically.
void write_png_atomically(const std::string &path, const cv::Mat &bgr);

// Renames a finished temporary file over output_target(path), giving it the
// mode of the file it replaces; throws an output error (and removes the
// temporary file) when that fails. The temporary must lie in the target's
// folder (temporary_name_for(output_target(path))).
void commit_temporary(const std::string &temporary, const std::string &path);

// Creates a folder (and its parents) for outputs; throws an output error.
void make_output_folder(const std::string &dir);

// Removes a temporary file when it goes out of scope unless released.
class TemporaryFile {
public:
    explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    const std::string &path() const { return path_; }
    void release() { path_.clear(); }

private:
    std::string path_;
};

}  // namespace ostrel_tool
