// Outputs appear whole or not at all.
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

TEST(AtomicFile, WritesAndReplacesWithoutLeavingTemporaries) {
    const fs::path dir = fresh_dir("write");
    const std::string path = (dir / "out.txt").string();
    write_file_atomically(path, std::string("first"));
    EXPECT_EQ(content_of(path), "first");
    write_file_atomically(path, std::string("second, longer"));
    EXPECT_EQ(content_of(path), "second, longer");
    EXPECT_FALSE(has_temporaries(dir));
    fs::remove_all(dir);
}

TEST(AtomicFile, TemporaryNameIsHiddenNextToTheTarget) {
    const std::string t = temporary_name_for("/some/dir/model.bin");
    EXPECT_EQ(fs::path(t).parent_path(), fs::path("/some/dir"));
    EXPECT_EQ(fs::path(t).filename().string().rfind(".model.bin.tmp-", 0), 0u);
    EXPECT_NE(temporary_name_for("/some/dir/model.bin"), t);
}

TEST(AtomicFile, MissingFolderIsAnOutputErrorAndWritesNothing) {
    EXPECT_EQ(code_of([] { write_file_atomically("/nonexistent/dir/out.txt", std::string("x")); }), ExitCode::output);
    EXPECT_FALSE(fs::exists("/nonexistent/dir"));
}

TEST(AtomicFile, FailedRenameRemovesTheTemporary) {
    const fs::path dir = fresh_dir("rename");
    fs::create_directories(dir / "target_is_a_folder" / "child");
    EXPECT_EQ(code_of([&] { write_file_atomically((dir / "target_is_a_folder").string(), std::string("x")); }),
              ExitCode::output);
    EXPECT_FALSE(has_temporaries(dir));
    fs::remove_all(dir);
}

TEST(AtomicFile, PngIsWrittenWhole) {
    const fs::path dir = fresh_dir("png");
    const std::string path = (dir / "p.png").string();
    write_png_atomically(path, cv::Mat(4, 5, CV_8UC3, cv::Scalar(1, 2, 3)));
    EXPECT_EQ(content_of(path).substr(1, 3), "PNG");
    EXPECT_FALSE(has_temporaries(dir));
    fs::remove_all(dir);
}

TEST(AtomicFile, OutputFolderIsCreatedOrRefused) {
    const fs::path dir = fresh_dir("folder");
    make_output_folder((dir / "a" / "b").string());
    EXPECT_TRUE(fs::is_directory(dir / "a" / "b"));
    std::ofstream(dir / "file") << "x";
    EXPECT_EQ(code_of([&] { make_output_folder((dir / "file" / "sub").string()); }), ExitCode::output);
    fs::remove_all(dir);
}

TEST(TemporaryFile, IsRemovedUnlessReleased) {
    const fs::path dir = fresh_dir("temporary");
    {
        TemporaryFile t((dir / "a").string());
        std::ofstream(t.path()) << "x";
    }
    EXPECT_FALSE(fs::exists(dir / "a"));
    {
        TemporaryFile t((dir / "b").string());
        std::ofstream(t.path()) << "x";
        t.release();
    }
    EXPECT_TRUE(fs::exists(dir / "b"));
    fs::remove_all(dir);
}
