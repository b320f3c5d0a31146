// The progress line of a batch run on standard error.
//
// On a terminal it is one line rewritten in place ("\r" and erase to the end
// of the line) at most a few times a second; other messages clear it first
// and it comes back with the next update. Asked for off a terminal
// (--progress), it prints a whole line every few seconds instead, so that a
// log file gets readable lines.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace ostrel_tool {

struct ProgressState {
    int64_t items_done = 0;      // pictures and frames with a result (or a failure): the rate
    int64_t pictures_done = 0;   // pictures (not frames) with a result or a failure
    int64_t pictures_total = 0;  // 0 when unknown
    double seconds = 0.0;        // since the start
    // Within a video:
    std::string video;            // its file name; empty outside a video
    int64_t frames_done = 0;      // frames of this video with a result
    int64_t frames_total = 0;     // 0 when unknown
    double video_ms = 0.0;        // the time of the last frame with a result
    double video_total_ms = 0.0;  // 0 when unknown
};

// "120/500 pictures  24.1/s  0:15 left" or, in a video,
// "clip.mp4 frame 240/900 (0:08.0 of 0:30.0)  24.1/s  0:27 left".
std::string format_progress(const ProgressState &state);

// "1:05", "1:02:03"; with tenths "0:08.0".
std::string format_duration(double seconds, bool tenths = false);

// True when standard error is a terminal (progress and summary go there).
bool stderr_is_terminal();

class ProgressLine {
public:
    // in_place: rewrite one line (a terminal); otherwise print whole lines.
    ProgressLine(std::FILE *out, bool enabled, bool in_place);
    ~ProgressLine();

    bool enabled() const { return enabled_; }
    // Shows the state when enough time has passed since the last showing.
    void update(const ProgressState &state);
    // Clears the line (on a terminal) so that another message can be printed.
    void clear();
    // Clears the line for good.
    void finish();

private:
    std::FILE *out_;
    bool enabled_;
    bool in_place_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point last_;
    bool ever_ = false;
};

}  // namespace ostrel_tool
