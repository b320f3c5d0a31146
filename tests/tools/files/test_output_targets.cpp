// Outputs that are not regular files: a link is written through, a device,
// FIFO or folder is refused and left as it is, a replaced file keeps its
// mode, and names near the 255-byte limit still get a temporary.
#include <sys/stat.h>
#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "files/atomic_file.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;
namespace fs = std::filesystem;

// Only output_target is asked about devices: a writer that failed to refuse
// one would replace the machine's /dev/null when the tests run as root.
TEST(OutputTarget, ADeviceIsRefusedAndStaysADevice) {
    for (const char *device : {"/dev/null", "/dev/full"}) {
        ASSERT_TRUE(fs::is_character_file(device)) << device;
        EXPECT_EQ(code_of([&] { output_target(device, "model"); }), ExitCode::output) << device;
        EXPECT_TRUE(fs::is_character_file(device)) << device;
    }
    EXPECT_NE(message_of([] { output_target("/dev/null", "model"); }).find("not a regular file"), std::string::npos);
}

TEST(OutputTarget, AFifoIsRefusedWithoutOpeningIt) {
    const fs::path dir = fresh_dir("fifo");
    const fs::path fifo = dir / "out.png";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Opening a FIFO for writing would block until a reader comes.
    EXPECT_EQ(code_of([&] { write_file_atomically(fifo.string(), std::string("x")); }), ExitCode::output);
    EXPECT_TRUE(fs::is_fifo(fifo));
    fs::remove_all(dir);
}

TEST(OutputTarget, AFolderAndAnEmptyNameAreRefused) {
    const fs::path dir = fresh_dir("folder");
    fs::create_directories(dir / "m.model");
    EXPECT_NE(message_of([&] { output_target((dir / "m.model").string(), "model"); }).find("Is a directory"),
              std::string::npos);
    EXPECT_NE(message_of([] { output_target("", "model"); }).find("no file name"), std::string::npos);
    EXPECT_EQ(code_of([] { output_target("", "model"); }), ExitCode::output);
    EXPECT_TRUE(fs::is_directory(dir / "m.model"));
    fs::remove_all(dir);
}

TEST(OutputTarget, ALinkIsWrittenThroughAndKept) {
    const fs::path dir = fresh_dir("link");
    write_file_atomically((dir / "real.txt").string(), std::string("old"));
    fs::create_symlink("real.txt", dir / "link.txt");
    EXPECT_EQ(output_target((dir / "link.txt").string()), (dir / "real.txt").string());
    write_file_atomically((dir / "link.txt").string(), std::string("new"));
    EXPECT_TRUE(fs::is_symlink(dir / "link.txt"));
    EXPECT_EQ(content_of(dir / "real.txt"), "new");
    // A dangling link: its target is created.
    fs::create_directories(dir / "sub");
    fs::create_symlink("sub/made.txt", dir / "dangling.txt");
    write_file_atomically((dir / "dangling.txt").string(), std::string("made"));
    EXPECT_TRUE(fs::is_symlink(dir / "dangling.txt"));
    EXPECT_EQ(content_of(dir / "sub" / "made.txt"), "made");
    // A link to a device is refused like the device (asked, not written).
    fs::create_symlink("/dev/null", dir / "null.txt");
    EXPECT_EQ(code_of([&] { output_target((dir / "null.txt").string()); }), ExitCode::output);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    fs::remove_all(dir);
}

TEST(OutputTarget, AReplacedFileKeepsItsMode) {
    const fs::path dir = fresh_dir("mode");
    const fs::path file = dir / "m.model";
    write_file_atomically(file.string(), std::string("first"));
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    write_file_atomically(file.string(), std::string("second"));
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    TemporaryFile temporary(temporary_name_for(output_target(file.string())));
    { std::ofstream(temporary.path()) << "third"; }
    commit_temporary(temporary.path(), file.string());
    temporary.release();
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(content_of(file), "third");
    fs::remove_all(dir);
}

TEST(OutputTarget, TemporaryNamesStayWithin255Bytes) {
    const fs::path dir = fresh_dir("long");
    for (size_t length : {size_t{240}, size_t{251}, size_t{254}, size_t{255}}) {
        const std::string name(length, 'n');
        const std::string temporary = temporary_name_for((dir / name).string(), ".mp4");
        EXPECT_LE(fs::path(temporary).filename().string().size(), 255u) << length;
        EXPECT_EQ(fs::path(temporary).parent_path(), dir);
        EXPECT_EQ(temporary.substr(temporary.size() - 4), ".mp4");
        write_file_atomically((dir / name).string(), std::string("x"));
        EXPECT_EQ(content_of(dir / name), "x") << length;
    }
    fs::remove_all(dir);
}
