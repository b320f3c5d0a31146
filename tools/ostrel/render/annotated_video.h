// An annotated copy of a video: frames with their boxes drawn, written with
// OpenCV's video writer (FFmpeg in Debian) as H.264 in an MP4 file, or
// MPEG-4 Visual (mp4v) in MP4 when the H.264 encoder is missing. The frames go to a
// temporary file next to the target ("<folder>/.<name>.tmp-<pid>-<n>.mp4":
// the writer picks the container by the extension), which finish() renames
// to the target, so the file appears complete or not at all.
#pragma once

#include <string>

#include <opencv2/core.hpp>
#if OSTREL_TOOL_VIDEO
#include <opencv2/videoio.hpp>
#endif

namespace ostrel_tool {

class AnnotatedVideo {
public:
    // fps: frames per second of the written video.
    AnnotatedVideo(std::string path, double fps);
    ~AnnotatedVideo();  // removes the temporary file unless finished
    AnnotatedVideo(const AnnotatedVideo &) = delete;
    AnnotatedVideo &operator=(const AnnotatedVideo &) = delete;

    // Appends a frame (8-bit BGR); the writer is opened at the first frame,
    // with its size. Every frame must have that size (others are resized).
    // Throws an output error when the file cannot be written.
    void write(const cv::Mat &bgr);
    // Closes the file and renames it to the target; throws an output error.
    // A video without a frame is not written.
    void finish();

    const std::string &path() const { return path_; }
    int frames() const { return frames_; }

private:
    std::string path_;
    std::string temporary_;
    double fps_;
#if OSTREL_TOOL_VIDEO
    cv::VideoWriter writer_;
#endif
    cv::Size size_;
    int frames_ = 0;
    bool finished_ = false;
};

// The annotated video's name for a video: DIR/<stem>.mp4.
std::string annotated_video_extension();

}  // namespace ostrel_tool
