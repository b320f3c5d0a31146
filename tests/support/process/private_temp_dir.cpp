// Compiled into every test program (an interface source of the test support
// library): each test process gets a temporary folder of its own, and
// testing::TempDir() names it.
//
// ctest runs every test in a process of its own, two or more at once, so
// two tests of one suite run side by side; suites that write a model under
// a fixed name in testing::TempDir() in their set-up and remove it in their
// tear-down would otherwise remove it under the other process's feet. A
// private folder per process keeps fixed names safe and leaves nothing in
// the shared temporary folder. A TEST_TMPDIR the caller set is kept.
#if !defined(_WIN32)
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

class PrivateTempDir {
public:
    PrivateTempDir() {
        const char *given = std::getenv("TEST_TMPDIR");
        if (given != nullptr && given[0] != '\0') {
            return;
        }
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/ostrel-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            return;  // the shared folder, as before
        }
        dir_ = pattern;
        ::setenv("TEST_TMPDIR", (dir_ + "/").c_str(), 1);
    }
    ~PrivateTempDir() {
        if (!dir_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(dir_, ignored);
        }
    }
    PrivateTempDir(const PrivateTempDir &) = delete;
    PrivateTempDir &operator=(const PrivateTempDir &) = delete;

private:
    std::string dir_;
};

const PrivateTempDir private_temp_dir;

}  // namespace
#endif
