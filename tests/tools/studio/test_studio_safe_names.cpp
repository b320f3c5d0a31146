// Which names and paths the studio accepts.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include <unistd.h>

#include "studio/safe_names.h"

using namespace ostrel_tool::studio;
namespace fs = std::filesystem;

TEST(StudioSafeNames, PlainFileNamesOnly) {
    EXPECT_TRUE(is_plain_file_name("BloodImage_00000.jpg"));
    EXPECT_TRUE(is_plain_file_name("my cells (2).png"));
    for (const std::string &name :
         std::vector<std::string>{"", ".", "..", ".hidden.jpg", "a/b.jpg", "a\\b.jpg", std::string("a\0b", 3),
                                  std::string("tab\there"), std::string(256, 'a')}) {
        EXPECT_FALSE(is_plain_file_name(name)) << name;
    }
}

TEST(StudioSafeNames, UploadNamesLoseFoldersAndOddCharactersAndGetTheirFormatsExtension) {
    EXPECT_EQ(upload_file_name("../../etc/passwd", ".png"), "passwd.png");
    EXPECT_EQ(upload_file_name("C:\\Users\\me\\cells.JPG", ".jpg"), "cells.jpg");
    EXPECT_EQ(upload_file_name("cells.jpeg", ".jpg"), "cells.jpeg");
    EXPECT_EQ(upload_file_name("cells.png", ".jpg"), "cells.png.jpg");
    EXPECT_EQ(upload_file_name("...", ".bmp"), "picture.bmp");
    EXPECT_EQ(upload_file_name("", ".png"), "picture.png");
    EXPECT_EQ(upload_file_name("a<b>|c\xc3\xa9.png", ".png"), "a_b__c__.png");
    EXPECT_EQ(upload_file_name(std::string(300, 'x') + ".png", ".png"), std::string(80, 'x') + ".png");
    EXPECT_TRUE(is_plain_file_name(upload_file_name(". .\n.jpg", ".jpg")));
}

TEST(StudioSafeNames, LinksAreFollowedBeforeAskingWhetherAPathLiesInside) {
    const fs::path root = fs::temp_directory_path() / ("ostrel-studio-names-" + std::to_string(::getpid()));
    fs::remove_all(root);
    fs::create_directories(root / "folder");
    std::ofstream(root / "folder" / "in.jpg") << "x";
    std::ofstream(root / "out.jpg") << "x";
    fs::create_symlink(root / "out.jpg", root / "folder" / "link-out.jpg");
    fs::create_symlink(root / "folder" / "in.jpg", root / "folder" / "link-in.jpg");
    const fs::path folder = fs::canonical(root / "folder");
    EXPECT_TRUE(lies_inside(folder, folder / "in.jpg"));
    EXPECT_TRUE(lies_inside(folder, folder / "link-in.jpg"));
    EXPECT_FALSE(lies_inside(folder, folder / "link-out.jpg"));
    EXPECT_FALSE(lies_inside(folder, folder / ".." / "out.jpg"));
    EXPECT_FALSE(lies_inside(folder, folder));
    EXPECT_FALSE(lies_inside(folder, folder / "missing.jpg"));
    fs::remove_all(root);
}
