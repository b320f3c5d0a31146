// The pieces of work `ostrel detect` hands to its worker threads, and what
// comes back, in input order.
#pragma once

#include <optional>
#include <string>

#include <opencv2/core.hpp>

#include "batch/detection_report.h"
#include "files/video_frames.h"

namespace ostrel_tool {

// One piece of work, in input order.
struct DetectWork {
    enum class Kind { picture, frame, video_start, video_end, failure };
    Kind kind = Kind::picture;
    std::string path;       // the picture or the video
    std::string draw_path;  // picture: the PNG to write, empty for none
    VideoFrame frame;       // frame: the decoded pixels, index and time
    int video = -1;         // frame, video_start, video_end: which video
    bool draw_frame = false;
    std::string message;  // failure, video_end: a problem to report
};

struct DetectResult {
    DetectWork::Kind kind = DetectWork::Kind::picture;
    std::string text;  // the lines to print
    // The detection itself (boxes, scores, classes, picture size), when the
    // run hands its results on instead of printing them (take_report).
    std::optional<DetectionReport> report;
    int detections = 0;
    std::string input_problem;   // the input could not be used
    std::string output_problem;  // an output could not be written
    cv::Mat drawn;               // frame: with its boxes, for the annotated video
    int video = -1;
    double time_ms = 0.0;
};

}  // namespace ostrel_tool
