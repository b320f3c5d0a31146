#include "files/video_frames.h"

#include <cmath>
#include <cstdlib>

#include <opencv2/imgproc.hpp>

#include "cli/tool_error.h"
#include "cli/tool_output.h"

namespace ostrel_tool {

namespace {

bool all_digits(const std::string &s) { return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos; }

// A non-negative decimal number ("12", "4.5"); nothing else.
std::optional<double> decimal(const std::string &s) {
    if (s.empty() || s.find_first_not_of("0123456789.") != std::string::npos || s.find('.') != s.rfind('.') ||
        s == ".") {
        return std::nullopt;
    }
    return std::strtod(s.c_str(), nullptr);
}

// A frame far ahead is reached by seeking; a near one by reading up to it,
// which is exact whatever the file's index says.
constexpr int64_t kSeekFrom = 250;

}  // namespace

VideoPoint parse_video_point(const std::string &text, const std::string &option) {
    const auto bad = [&] {
        return usage_error(option + " '" + text +
                           "': expected a frame number (120), seconds (4.5s) or a time (1:30, 1:02:03.5)");
    };
    VideoPoint point;
    if (all_digits(text)) {
        if (text.size() > 15) {
            throw bad();
        }
        point.frame = std::strtoll(text.c_str(), nullptr, 10);
        return point;
    }
    point.is_time = true;
    if (text.size() > 1 && text.back() == 's') {
        const auto seconds = decimal(text.substr(0, text.size() - 1));
        if (!seconds || *seconds > 1e9) {
            throw bad();
        }
        point.ms = *seconds * 1000.0;
        return point;
    }
    // [h:]m:s with whole hours and minutes and decimal seconds
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t colon; (colon = text.find(':', from)) != std::string::npos; from = colon + 1) {
        parts.push_back(text.substr(from, colon - from));
    }
    parts.push_back(text.substr(from));
    if (parts.size() < 2 || parts.size() > 3) {
        throw bad();
    }
    double ms = 0.0;
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        if (!all_digits(parts[i]) || parts[i].size() > 6) {
            throw bad();
        }
        ms = ms * 60.0 + std::strtod(parts[i].c_str(), nullptr);
    }
    const auto seconds = decimal(parts.back());
    if (!seconds || *seconds >= 60.0) {
        throw bad();
    }
    point.ms = (ms * 60.0 + *seconds) * 1000.0;
    return point;
}

VideoFrames::VideoFrames(const std::string &path, const FrameChoice &choice) : path_(path), choice_(choice) {
    if (choice_.every < 1) {
        choice_.every = 1;
    }
#if !OSTREL_TOOL_VIDEO
    problem_ = "cannot read video '" + path +
               "': this ostrel was built without video support (OpenCV without "
               "video I/O)";
    finished_ = true;
#else
    try {
        capture_.open(path, cv::CAP_FFMPEG);
    } catch (const cv::Exception &) {
        capture_.release();
    }
    if (!capture_.isOpened()) {
        problem_ = "cannot read video '" + path + "': not a video OpenCV can decode";
        finished_ = true;
        return;
    }
    fps_ = capture_.get(cv::CAP_PROP_FPS);
    fps_usable_ = std::isfinite(fps_) && fps_ > 0.0 && fps_ < 10000.0;
    const double count = capture_.get(cv::CAP_PROP_FRAME_COUNT);
    declared_frames_ = std::isfinite(count) && count > 0 && count < 1e12 ? static_cast<int64_t>(count) : 0;

    // Seek to a far start; fall back to reading from the beginning when the
    // reader does not land exactly where asked.
    if (choice_.start && fps_usable_) {
        const int64_t target = choice_.start->is_time
                                   ? static_cast<int64_t>(std::ceil(choice_.start->ms * fps_ / 1000.0 - 1e-6))
                                   : choice_.start->frame;
        if (target >= kSeekFrom && (declared_frames_ == 0 || target < declared_frames_)) {
            bool landed = false;
            try {
                landed = capture_.set(cv::CAP_PROP_POS_FRAMES, static_cast<double>(target)) &&
                         static_cast<int64_t>(capture_.get(cv::CAP_PROP_POS_FRAMES)) == target;
            } catch (const cv::Exception &) {
                landed = false;
            }
            if (landed) {
                position_ = target;
            } else {
                capture_.release();
                capture_.open(path, cv::CAP_FFMPEG);
            }
        }
    }
#endif
}

double VideoFrames::time_of(int64_t index) const {
    return fps_usable_ ? static_cast<double>(index) * 1000.0 / fps_ : 0.0;
}

bool VideoFrames::before_start(int64_t index, double ms) const {
    if (!choice_.start) {
        return false;
    }
    return choice_.start->is_time ? ms + 1e-6 < choice_.start->ms : index < choice_.start->frame;
}

bool VideoFrames::past_end(int64_t index, double ms) const {
    if (!choice_.end) {
        return false;
    }
    return choice_.end->is_time ? ms + 1e-6 >= choice_.end->ms : index >= choice_.end->frame;
}

int64_t VideoFrames::frames_to_take() const {
    if (declared_frames_ == 0 || !fps_usable_) {
        return 0;
    }
    const auto index_of = [&](const VideoPoint &p) {
        return p.is_time ? static_cast<int64_t>(std::ceil(p.ms * fps_ / 1000.0 - 1e-6)) : p.frame;
    };
    const int64_t first = choice_.start ? std::min(index_of(*choice_.start), declared_frames_) : 0;
    const int64_t last = choice_.end ? std::min(index_of(*choice_.end), declared_frames_) : declared_frames_;
    return last > first ? (last - first + choice_.every - 1) / choice_.every : 0;
}

void VideoFrames::note_early_end() {
    if (position_ == 0) {
        problem_ = "cannot read video '" + path_ + "': no frame can be decoded";
        return;
    }
    // The declared count may be an estimate from the duration; a frame or two
    // (or 1%) short of it is the normal end of such a file.
    const int64_t tolerance = std::max<int64_t>(2, declared_frames_ / 100);
    if (declared_frames_ > 0 && position_ + tolerance < declared_frames_) {
        problem_ = strformat(
            "video '%s': frames from %lld on cannot be decoded (the file declares %lld); the "
            "%lld frames before them were used",
            path_.c_str(), static_cast<long long>(position_), static_cast<long long>(declared_frames_),
            static_cast<long long>(position_));
    }
}

bool VideoFrames::next(VideoFrame &frame) {
#if !OSTREL_TOOL_VIDEO
    (void)frame;
    return false;
#else
    while (!finished_) {
        bool grabbed = false;
        try {
            grabbed = capture_.grab();
        } catch (const cv::Exception &) {
            grabbed = false;
        }
        if (!grabbed) {
            finished_ = true;
            note_early_end();
            return false;
        }
        const int64_t index = position_++;
        const double ms = fps_usable_ ? time_of(index) : capture_.get(cv::CAP_PROP_POS_MSEC);
        if (before_start(index, ms)) {
            continue;
        }
        if (past_end(index, ms)) {
            finished_ = true;
            return false;
        }
        if (first_taken_ < 0) {
            first_taken_ = index;
        }
        if ((index - first_taken_) % choice_.every != 0) {
            continue;
        }
        cv::Mat pixels;
        bool retrieved = false;
        try {
            retrieved = capture_.retrieve(pixels) && !pixels.empty();
        } catch (const cv::Exception &) {
            retrieved = false;
        }
        if (!retrieved || pixels.depth() != CV_8U) {
            finished_ = true;
            problem_ = strformat("video '%s': frame %lld cannot be decoded; the %lld frames before it were used",
                                 path_.c_str(), static_cast<long long>(index), static_cast<long long>(index));
            return false;
        }
        if (pixels.channels() == 1) {
            cv::cvtColor(pixels, frame.pixels, cv::COLOR_GRAY2BGR);
        } else if (pixels.channels() == 4) {
            cv::cvtColor(pixels, frame.pixels, cv::COLOR_BGRA2BGR);
        } else {
            frame.pixels = pixels;  // retrieve() copies out of the reader's buffer
        }
        frame.index = index;
        frame.time_ms = ms;
        return true;
    }
    return false;
#endif
}

}  // namespace ostrel_tool
