// Helpers the tool's unit tests share: fresh folders, a file's bytes, the
// exit code or message a ToolError carries, and the library's progress
// records.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "cli/exit_codes.h"
#include "ostrel_alg.h"

// A new empty folder for one test, inside this test process's own temporary
// folder (testing::TempDir()), so that tests running side by side never
// share one.
std::filesystem::path fresh_dir(const std::string &name);

// The whole content of a file, byte for byte; empty when it cannot be read.
std::string bytes_of(const std::filesystem::path &path);
// The same, under the name the output tests read back what they wrote.
std::string content_of(const std::filesystem::path &path);

// Whether a folder holds a temporary file of an atomic write (".tmp-" in
// its name), i.e. a write that did not finish cleanly.
bool has_temporaries(const std::filesystem::path &dir);

// What running f throws as a ToolError: its exit code (ExitCode::ok when f
// returns) and its message (empty when f returns).
ostrel_tool::ExitCode code_of(const std::function<void()> &f);
std::string message_of(const std::function<void()> &f);

// Progress records as the library hands them to a progress handler: the
// samples cut for a training, a box left out at the picture's edge, and one
// auto-training pass.
ostrel_alg_progress samples(int32_t count);
ostrel_alg_progress skipped();
ostrel_alg_progress pass(int32_t round, int32_t false_positives, int32_t low_confidence);
