// The progress line of `ostrel detect`: its text, and how it is drawn on a
// terminal (in place) and in a log (whole lines, rarely).
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "cli/progress_line.h"

using namespace ostrel_tool;

TEST(ProgressLine, Durations) {
    EXPECT_EQ(format_duration(0), "0:00");
    EXPECT_EQ(format_duration(65.9), "1:05");
    EXPECT_EQ(format_duration(3723), "1:02:03");
    EXPECT_EQ(format_duration(8.04, true), "0:08.0");
    EXPECT_EQ(format_duration(68.47, true), "1:08.4");
}

TEST(ProgressLine, PicturesWithRateAndTimeLeft) {
    ProgressState s;
    s.items_done = 120;
    s.pictures_done = 120;
    s.pictures_total = 500;
    s.seconds = 10;
    EXPECT_EQ(format_progress(s), "120/500 pictures  12.0/s  0:31 left");
    s.pictures_total = 0;
    EXPECT_EQ(format_progress(s), "120 pictures  12.0/s");
}

TEST(ProgressLine, VideoFramesAndTime) {
    ProgressState s;
    s.items_done = 240;
    s.seconds = 10;
    s.video = "clip.mp4";
    s.frames_done = 240;
    s.frames_total = 900;
    s.video_ms = 8000;
    s.video_total_ms = 30000;
    EXPECT_EQ(format_progress(s), "clip.mp4 frame 240/900 (0:08.0 of 0:30.0)  24.0/s  0:27 left");
    s.frames_total = 0;
    s.video_total_ms = 0;
    EXPECT_EQ(format_progress(s), "clip.mp4 frame 240 (0:08.0)  24.0/s");
}

namespace {
std::string written(bool in_place, int updates) {
    std::FILE *f = std::tmpfile();
    {
        ProgressLine line(f, true, in_place);
        ProgressState s;
        for (int i = 0; i < updates; ++i) {
            s.pictures_done = s.items_done = i;
            line.update(s);
        }
        line.clear();
    }
    std::rewind(f);
    std::string text;
    for (int c; (c = std::fgetc(f)) != EOF;) {
        text.push_back(static_cast<char>(c));
    }
    std::fclose(f);
    return text;
}
}  // namespace

TEST(ProgressLine, TerminalRewritesOneLineAndClearsIt) {
    // Updates in quick succession are shown once; clear() erases the line.
    EXPECT_EQ(written(true, 50), "\r0 pictures  0.0/s\033[K\r\033[K");
}

TEST(ProgressLine, LogGetsWholeLines) { EXPECT_EQ(written(false, 50), "ostrel: progress: 0 pictures  0.0/s\n"); }

TEST(ProgressLine, DisabledWritesNothing) {
    std::FILE *f = std::tmpfile();
    {
        ProgressLine line(f, false, true);
        line.update(ProgressState{});
        line.clear();
    }
    EXPECT_EQ(std::ftell(f), 0);
    std::fclose(f);
}
