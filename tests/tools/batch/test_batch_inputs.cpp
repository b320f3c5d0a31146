// The inputs of `ostrel detect`: extensions, list files, folders in name
// order (recursive, hidden names, passed-over files, link loops) and the
// problems reported for paths that cannot be used.
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "batch/batch_inputs.h"

using namespace ostrel_tool;
namespace fs = std::filesystem;

namespace {

class Folder {
public:
    Folder() : root_(fs::temp_directory_path() / ("ostrel_batch_inputs_" + std::to_string(::getpid()))) {
        fs::remove_all(root_);
        fs::create_directories(root_);
    }
    ~Folder() { fs::remove_all(root_); }
    std::string file(const std::string &relative) {
        const fs::path p = root_ / relative;
        fs::create_directories(p.parent_path());
        std::ofstream(p) << "x";
        return p.string();
    }
    std::string path(const std::string &relative = "") const { return (root_ / relative).string(); }

private:
    fs::path root_;
};

std::vector<std::string> paths_of(const InputExpansion &e) {
    std::vector<std::string> out;
    for (const auto &i : e.inputs) {
        out.push_back(i.path);
    }
    return out;
}

}  // namespace

TEST(BatchInputs, ExtensionsDecidePictureOrVideo) {
    EXPECT_TRUE(has_picture_extension("a/b.JPG"));
    EXPECT_TRUE(has_picture_extension("b.tiff"));
    EXPECT_FALSE(has_picture_extension("b.mp4"));
    EXPECT_TRUE(has_video_extension("clip.MP4"));
    EXPECT_TRUE(has_video_extension("clip.avi"));
    EXPECT_FALSE(has_video_extension("clip.txt"));
    EXPECT_FALSE(has_picture_extension("noextension"));
}

TEST(BatchInputs, ListSkipsBlankLinesAndDropsCarriageReturns) {
    std::istringstream in("a.jpg\n\n   \n b c.png\r\n\t\nlast.mp4");
    EXPECT_EQ(read_path_list(in), (std::vector<std::string>{"a.jpg", " b c.png", "last.mp4"}));
}

// A NUL byte ends every file name the system takes: a line holding one is
// refused with its line number, never cut short to the name before it.
TEST(BatchInputs, ListLineWithANulByteIsRefusedWithItsLineNumber) {
    const char raw[] = "a.jpg\nok.jpg\0junk\n\nb.jpg\n";
    std::istringstream in(std::string(raw, sizeof raw - 1));
    std::vector<InputProblem> problems;
    EXPECT_EQ(read_path_list(in, "list.txt", &problems), (std::vector<std::string>{"a.jpg", "b.jpg"}));
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].path, "list.txt");
    EXPECT_EQ(problems[0].reason,
              "cannot use line 2 of list 'list.txt': it holds a NUL byte, which no file name can; line skipped");
}

TEST(BatchInputs, FolderGivesPicturesAndVideosSortedByName) {
    Folder f;
    f.file("b.jpg");
    f.file("a.png");
    f.file("c.mp4");
    f.file("notes.txt");
    f.file(".hidden.jpg");
    f.file("sub/d.jpg");
    const InputExpansion e = expand_inputs({f.path()}, false);
    EXPECT_EQ(paths_of(e), (std::vector<std::string>{f.path("a.png"), f.path("b.jpg"), f.path("c.mp4")}));
    EXPECT_EQ(e.inputs[2].kind, InputKind::video);
    EXPECT_TRUE(e.problems.empty());
    ASSERT_EQ(e.notes.size(), 2u);
    EXPECT_NE(e.notes[0].find("passed over 1 file"), std::string::npos) << e.notes[0];
    EXPECT_NE(e.notes[1].find("passed over 1 sub-folder"), std::string::npos) << e.notes[1];
}

TEST(BatchInputs, RecursiveWalksSubFoldersInNameOrder) {
    Folder f;
    f.file("a.jpg");
    f.file("b/x.jpg");
    f.file("b/c/y.jpg");
    f.file("c.jpg");
    const InputExpansion e = expand_inputs({f.path()}, true);
    EXPECT_EQ(paths_of(e),
              (std::vector<std::string>{f.path("a.jpg"), f.path("b/c/y.jpg"), f.path("b/x.jpg"), f.path("c.jpg")}));
    EXPECT_TRUE(e.notes.empty());
}

TEST(BatchInputs, LinkLoopsAreSearchedOnceAndReported) {
    Folder f;
    f.file("a/p.jpg");
    fs::create_directory_symlink("..", f.path("a/up"));
    fs::create_directory_symlink(".", f.path("a/self"));
    const InputExpansion e = expand_inputs({f.path()}, true);
    EXPECT_EQ(paths_of(e), (std::vector<std::string>{f.path("a/p.jpg")}));
    EXPECT_EQ(e.notes.size(), 2u);
}

TEST(BatchInputs, MissingPathsAndBrokenLinksAreProblemsInOrder) {
    Folder f;
    const std::string good = f.file("good.jpg");
    fs::create_symlink("nowhere.jpg", f.path("broken.jpg"));
    const InputExpansion e = expand_inputs({"/nonexistent/x.jpg", good, "/nonexistent/v.mp4", f.path()}, false);
    EXPECT_EQ(paths_of(e), (std::vector<std::string>{good, good}));
    ASSERT_EQ(e.problems.size(), 3u);
    EXPECT_EQ(e.problems[0].reason, "cannot open picture '/nonexistent/x.jpg': no such file");
    EXPECT_EQ(e.problems[1].reason, "cannot open video '/nonexistent/v.mp4': no such file");
    EXPECT_NE(e.problems[2].reason.find("broken.jpg"), std::string::npos) << e.problems[2].reason;
}

TEST(BatchInputs, ThousandsOfOtherFilesCostOneNote) {
    Folder f;
    for (int i = 0; i < 2000; ++i) {
        f.file("f" + std::to_string(i) + ".dat");
    }
    f.file("p.jpg");
    const InputExpansion e = expand_inputs({f.path()}, true);
    EXPECT_EQ(e.inputs.size(), 1u);
    ASSERT_EQ(e.notes.size(), 1u);
    EXPECT_NE(e.notes[0].find("passed over 2000 files"), std::string::npos);
}
