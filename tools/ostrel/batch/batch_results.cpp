#include "batch/batch_results.h"

#include <cstdio>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "files/picture.h"

namespace ostrel_tool {

BatchResults::BatchResults(bool progress, int64_t pictures_total,
                           std::function<void(const DetectionReport &)> take_report)
    : take_report_(std::move(take_report)),
      progress_(stderr, progress || stderr_is_terminal(), stderr_is_terminal()),
      start_(std::chrono::steady_clock::now()) {
    state_.pictures_total = pictures_total;
}

void BatchResults::problem(const std::string &message) {
    progress_.clear();
    complain(message);
}

void BatchResults::note(const std::string &message) { problem("warning: " + message); }

void BatchResults::skipped_input(const std::string &message) {
    problem(message);
    ++failed_inputs_;
}

void BatchResults::add_video(int id, const std::string &path, std::unique_ptr<AnnotatedVideo> writer, int64_t frames,
                             double total_ms) {
    videos_[id] = std::move(writer);
    VideoProgress &v = video_progress_[id];
    v.name = file_name_of(path);
    v.frames = frames;
    v.total_ms = total_ms;
    ++video_count_;
}

void BatchResults::take(DetectResult &r) {
    using Kind = DetectWork::Kind;
    if (r.kind == Kind::video_start) {
        const VideoProgress &v = video_progress_[r.video];
        state_.video = v.name;
        state_.frames_done = 0;
        state_.frames_total = v.frames;
        state_.video_ms = 0;
        state_.video_total_ms = v.total_ms;
        video_progress_.erase(r.video);
        return;
    }
    if (r.kind == Kind::video_end) {
        finish_video(r.video);
        state_.video.clear();
        if (!r.input_problem.empty()) {
            problem(r.input_problem);
            ++failed_inputs_;
        }
        return;
    }
    ++state_.items_done;
    if (r.kind == Kind::frame) {
        ++state_.frames_done;
        state_.video_ms = r.time_ms;
    } else {
        ++state_.pictures_done;
    }
    if (!r.input_problem.empty()) {
        problem(r.input_problem);
        ++failed_inputs_;
    } else {
        ++(r.kind == Kind::frame ? frames_ : pictures_);
        detections_ += r.detections;
        if (take_report_ && r.report) {
            take_report_(*r.report);
        } else {
            print(r.text);
        }
    }
    if (!r.output_problem.empty()) {
        problem(r.output_problem);
        ++failed_outputs_;
    }
    if (r.kind == Kind::frame && !r.drawn.empty()) {
        write_frame(r.video, r.drawn);
    }
    state_.seconds = seconds();
    progress_.update(state_);
}

void BatchResults::finish_all_videos() {
    while (!videos_.empty()) {
        finish_video(videos_.begin()->first);
    }
}

void BatchResults::summary(bool interrupted) {
    progress_.finish();
    std::fflush(tool_out());
    const double s = seconds();
    std::string text = strformat("summary: %lld picture%s", pictures_, pictures_ == 1 ? "" : "s");
    if (video_count_ > 0) {
        text += strformat(" and %lld frame%s of %d video%s", frames_, frames_ == 1 ? "" : "s", video_count_,
                          video_count_ == 1 ? "" : "s");
    }
    text += strformat(", %lld detection%s, %lld failed, %.2f s, %.1f %s/s%s", detections_, detections_ == 1 ? "" : "s",
                      failed_inputs_, s, s > 0 ? static_cast<double>(state_.items_done) / s : 0.0,
                      video_count_ > 0 ? "pictures and frames" : "pictures", interrupted ? " (interrupted)" : "");
    complain(text);
}

double BatchResults::seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void BatchResults::write_frame(int id, const cv::Mat &drawn) {
    auto it = videos_.find(id);
    if (it == videos_.end() || !it->second) {
        return;
    }
    try {
        it->second->write(drawn);
    } catch (const ToolError &e) {
        problem(e.what());
        ++failed_outputs_;
        it->second.reset();  // no more frames for this one: the message said why
    }
}

void BatchResults::finish_video(int id) {
    auto it = videos_.find(id);
    if (it == videos_.end()) {
        return;
    }
    if (it->second) {
        try {
            it->second->finish();
        } catch (const ToolError &e) {
            problem(e.what());
            ++failed_outputs_;
        }
    }
    videos_.erase(it);
}

}  // namespace ostrel_tool
