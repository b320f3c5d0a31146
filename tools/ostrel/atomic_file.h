// Output files that appear whole or not at all: the bytes go to a temporary
// file next to the target, which is renamed over the target when complete.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace ostrel_tool {

// A temporary name in the target's folder: "<folder>/.<name>.tmp-<pid>-<n>".
std::string temporary_name_for(const std::string &path);

// Writes bytes to path through a temporary file. Throws an output error on
// any failure; the temporary file is removed then.
void write_file_atomically(const std::string &path, const void *data, size_t size);
void write_file_atomically(const std::string &path, const std::string &text);

// Encodes a picture as PNG and writes it atomically.
void write_png_atomically(const std::string &path, const cv::Mat &bgr);

// Renames a finished temporary file over path; throws an output error (and
// removes the temporary file) when that fails.
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
