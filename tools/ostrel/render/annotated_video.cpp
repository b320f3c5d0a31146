#include "render/annotated_video.h"

#include <filesystem>

#include <opencv2/imgproc.hpp>

#include "cli/tool_error.h"
#include "files/atomic_file.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

std::string annotated_video_extension() { return ".mp4"; }

AnnotatedVideo::AnnotatedVideo(std::string path, double fps) : path_(std::move(path)), fps_(fps) {
    if (!(fps_ > 0.0 && fps_ < 1000.0)) {
        fps_ = 25.0;  // a frame rate every player accepts when the source gives none
    }
}

AnnotatedVideo::~AnnotatedVideo() {
#if OSTREL_TOOL_VIDEO
    if (writer_.isOpened()) {
        writer_.release();
    }
#endif
    if (!finished_ && !temporary_.empty()) {
        std::error_code ec;
        fs::remove(temporary_, ec);
    }
}

#if !OSTREL_TOOL_VIDEO
void AnnotatedVideo::write(const cv::Mat &) {
    throw output_error("cannot write video '" + path_ + "': this ostrel was built without video support");
}

void AnnotatedVideo::finish() {}
#else
void AnnotatedVideo::write(const cv::Mat &bgr) {
    if (!writer_.isOpened()) {
        size_ = bgr.size();
        temporary_ = temporary_name_for(output_target(path_, "video"), annotated_video_extension());
        // H.264 first (what every player reads); MPEG-4 Visual (mp4v) is FFmpeg's
        // own encoder, there whenever FFmpeg is.
        for (const char *codec : {"avc1", "mp4v"}) {
            try {
                writer_.open(temporary_, cv::CAP_FFMPEG,
                             cv::VideoWriter::fourcc(codec[0], codec[1], codec[2], codec[3]), fps_, size_, true);
            } catch (const cv::Exception &) {
                writer_.release();
            }
            if (writer_.isOpened()) {
                break;
            }
        }
        if (!writer_.isOpened()) {
            std::error_code ec;
            fs::remove(temporary_, ec);
            temporary_.clear();
            throw output_error("cannot write video '" + path_ + "': the video writer cannot create it");
        }
    }
    try {
        if (bgr.size() == size_) {
            writer_.write(bgr);
        } else {
            cv::Mat resized;
            cv::resize(bgr, resized, size_);
            writer_.write(resized);
        }
    } catch (const cv::Exception &e) {
        throw output_error("cannot write video '" + path_ + "': " + e.what());
    }
    ++frames_;
}

void AnnotatedVideo::finish() {
    if (finished_ || !writer_.isOpened()) {
        return;
    }
    writer_.release();
    std::error_code ec;
    if (!fs::exists(temporary_, ec) || fs::file_size(temporary_, ec) == 0) {
        throw output_error("cannot write video '" + path_ + "': the video writer wrote nothing");
    }
    commit_temporary(temporary_, path_);
    finished_ = true;
}

#endif

}  // namespace ostrel_tool
