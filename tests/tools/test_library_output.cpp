// The library's standard-output lines are caught, in order, and standard
// output is restored afterwards.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "library_output.h"
#include "support/stdout_capture.h"

using ostrel_tool::LibraryOutputCapture;

TEST(LibraryOutputCapture, HandsOverEveryLineInOrder) {
    std::vector<std::string> lines;
    const std::string leaked = ostrel_test::capture_stdout([&] {
        {
            LibraryOutputCapture capture([&](const std::string &line) { lines.push_back(line); });
            ASSERT_TRUE(capture.active());
            std::printf("[Alg. Scc] set_training_mat...\n");
            std::printf("[Debug] Total size of Acfs: %d\n", 29);
            std::printf("\n");
            for (int i = 0; i < 2000; ++i) {  // more than a pipe buffer holds
                std::printf("line %d\n", i);
            }
            std::printf("no line end");
        }
        std::printf("after\n");
    });
    EXPECT_EQ(leaked, "after\n");
    ASSERT_EQ(lines.size(), 2004u);
    EXPECT_EQ(lines[0], "[Alg. Scc] set_training_mat...");
    EXPECT_EQ(lines[1], "[Debug] Total size of Acfs: 29");
    EXPECT_EQ(lines[2], "");
    EXPECT_EQ(lines[1999 + 3], "line 1999");
    EXPECT_EQ(lines.back(), "no line end");
}

TEST(LibraryOutputCapture, NothingPrintedGivesNoLine) {
    int calls = 0;
    { LibraryOutputCapture capture([&](const std::string &) { ++calls; }); }
    EXPECT_EQ(calls, 0);
}
