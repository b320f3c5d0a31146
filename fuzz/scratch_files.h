// The files a fuzz target hands the engine: the input in an in-memory file
// (memfd, so each run costs no disk write) and a file on disk for exports.
// Made once per process; a failure to make them stops the run.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace ostrel_fuzz {

struct scratch_files {
    int input_fd = -1;
    std::string input_path;   // the fuzz input, in memory
    std::string export_path;  // round-trip exports, on disk
};

// `tag` names the memfd and the export file (/tmp/ostrel_fuzz_<tag>_XXXXXX).
inline scratch_files make_scratch_files(const char *tag) {
    scratch_files s;
    s.input_fd = memfd_create((std::string("ostrel_fuzz_") + tag).c_str(), 0);
    if (s.input_fd < 0) {
        std::perror("memfd_create");
        std::abort();
    }
    s.input_path = "/proc/self/fd/" + std::to_string(s.input_fd);
    std::string name = std::string("/tmp/ostrel_fuzz_") + tag + "_XXXXXX";
    const int fd = mkstemp(&name[0]);
    if (fd < 0) {
        std::perror("mkstemp");
        std::abort();
    }
    close(fd);
    s.export_path = name;
    return s;
}

// Replaces the in-memory file's contents with the input.
inline void write_input(const scratch_files &f, const uint8_t *data, size_t size) {
    if (ftruncate(f.input_fd, 0) != 0) std::abort();
    size_t done = 0;
    while (done < size) {
        const ssize_t n = pwrite(f.input_fd, data + done, size - done, static_cast<off_t>(done));
        if (n <= 0) std::abort();
        done += static_cast<size_t>(n);
    }
}

}  // namespace ostrel_fuzz
