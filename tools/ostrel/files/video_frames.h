// Frames of a video file, read in order with OpenCV's video reader (its
// FFmpeg backend in Debian), and the choice of frames: every Nth, from a
// start to an end given in frames or in time.
//
// A frame's index counts every frame of the file from 0; its time is
// index / frames-per-second (in milliseconds), so it does not depend on the
// frames chosen. When the file gives no usable frame rate, the reader's own
// position in milliseconds is used instead.
//
// A build whose OpenCV has no video I/O (OSTREL_TOOL_VIDEO 0, the Windows
// cross build) opens no video: problem() says so.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <opencv2/core.hpp>
#if OSTREL_TOOL_VIDEO
#include <opencv2/videoio.hpp>
#endif

namespace ostrel_tool {

// A point in a video: a frame index, or a time in milliseconds.
struct VideoPoint {
    bool is_time = false;
    int64_t frame = 0;
    double ms = 0.0;
};

// Parses "120" (frame 120), "4.5s" (4.5 seconds), "1:30" or "1:02:03.5"
// (minutes:seconds, hours:minutes:seconds). Throws a usage error naming
// option otherwise.
VideoPoint parse_video_point(const std::string &text, const std::string &option);

// Which frames to take: those at or after start, before end (when given),
// and of those every `every`-th, starting with the first one taken.
struct FrameChoice {
    std::optional<VideoPoint> start;
    std::optional<VideoPoint> end;
    int every = 1;
};

struct VideoFrame {
    cv::Mat pixels;  // 8-bit BGR
    int64_t index = 0;
    double time_ms = 0.0;
};

class VideoFrames {
public:
    // Opens the file; ok() tells whether that worked, problem() why not.
    VideoFrames(const std::string &path, const FrameChoice &choice);

    bool ok() const { return problem_.empty(); }
    const std::string &problem() const { return problem_; }
    double fps() const { return fps_; }
    // The frame count the file declares (may be an estimate); 0 when unknown.
    int64_t declared_frames() const { return declared_frames_; }
    // How many frames the choice will take, when the count is known; else 0.
    int64_t frames_to_take() const;
    // The time of a frame index in milliseconds.
    double time_of(int64_t index) const;

    // The next chosen frame; false at the end of the choice or of the file,
    // or when a frame cannot be decoded (then problem() says so).
    bool next(VideoFrame &frame);
    // Frames decoded so far (taken or not).
    int64_t frames_read() const { return position_; }

private:
    bool before_start(int64_t index, double ms) const;
    bool past_end(int64_t index, double ms) const;
    void note_early_end();

    std::string path_;
    FrameChoice choice_;
#if OSTREL_TOOL_VIDEO
    cv::VideoCapture capture_;
#endif
    std::string problem_;
    double fps_ = 0.0;
    bool fps_usable_ = false;
    int64_t declared_frames_ = 0;
    int64_t position_ = 0;  // index of the next frame the reader gives
    int64_t first_taken_ = -1;
    bool finished_ = false;
};

}  // namespace ostrel_tool
