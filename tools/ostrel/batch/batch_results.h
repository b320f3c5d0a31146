// The ordered output of `ostrel detect`: takes the results in input order,
// prints them, reports problems on standard error, writes annotated videos
// frame by frame, and keeps the counts, the progress line and the summary.
// Used by the main thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "batch/batch_work.h"
#include "cli/progress_line.h"
#include "render/annotated_video.h"

namespace ostrel_tool {

class BatchResults {
public:
    // progress: show the progress line also off a terminal (on a terminal
    // it is always shown, rewritten in place). take_report, when set, gets
    // each result's detection instead of its text being printed.
    BatchResults(bool progress, int64_t pictures_total,
                 std::function<void(const DetectionReport &)> take_report = nullptr);

    // One line on standard error, "ostrel: <message>" (the progress line
    // cleared first).
    void problem(const std::string &message);
    void note(const std::string &message);           // "ostrel: warning: ..."
    void skipped_input(const std::string &message);  // an input found unusable before the run

    // A video about to be handed out, with its annotated copy (or none); the
    // progress line names it from its video_start result on.
    void add_video(int id, const std::string &path, std::unique_ptr<AnnotatedVideo> writer, int64_t frames,
                   double total_ms);

    // The next result in input order.
    void take(DetectResult &r);

    // Closes every annotated video still open (after an interrupt), with the
    // frames it has.
    void finish_all_videos();

    // "summary: 8 pictures, 116 detections, 0 failed, 0.21 s, 38.1 pictures/s"
    void summary(bool interrupted);

    long long failed_inputs() const { return failed_inputs_; }
    long long failed_outputs() const { return failed_outputs_; }
    long long frames() const { return frames_; }
    int64_t pictures_done() const { return state_.pictures_done; }

private:
    double seconds() const;
    void write_frame(int id, const cv::Mat &drawn);
    void finish_video(int id);

    struct VideoProgress {
        std::string name;
        int64_t frames = 0;
        double total_ms = 0.0;
    };

    std::function<void(const DetectionReport &)> take_report_;
    ProgressLine progress_;
    ProgressState state_;
    std::chrono::steady_clock::time_point start_;
    std::map<int, VideoProgress> video_progress_;
    std::map<int, std::unique_ptr<AnnotatedVideo>> videos_;
    int video_count_ = 0;
    long long pictures_ = 0;
    long long frames_ = 0;
    long long detections_ = 0;
    long long failed_inputs_ = 0;
    long long failed_outputs_ = 0;
};

}  // namespace ostrel_tool
