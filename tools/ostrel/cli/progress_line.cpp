#include "cli/progress_line.h"

#include <cmath>
#include <cstdio>

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

#include "cli/tool_output.h"

namespace ostrel_tool {

namespace {
// How often the line changes: often enough to look alive on a terminal,
// rarely enough to keep a log short.
constexpr double kTerminalInterval = 0.2;
constexpr double kLogInterval = 5.0;
}  // namespace

bool stderr_is_terminal() {
#ifdef _WIN32
    return ::_isatty(::_fileno(stderr)) != 0;
#else
    return ::isatty(STDERR_FILENO) == 1;
#endif
}

std::string format_duration(double seconds, bool tenths) {
    if (!std::isfinite(seconds) || seconds < 0) {
        seconds = 0;
    }
    const double shown = tenths ? std::floor(seconds * 10.0) / 10.0 : std::floor(seconds);
    const long long whole = static_cast<long long>(shown);
    const long long h = whole / 3600, m = (whole / 60) % 60;
    const double s = shown - static_cast<double>(whole - whole % 60);
    std::string text = h > 0 ? strformat("%lld:%02lld:", h, m) : strformat("%lld:", m);
    text += tenths ? strformat("%04.1f", s) : strformat("%02lld", static_cast<long long>(s));
    return text;
}

std::string format_progress(const ProgressState &state) {
    std::string text;
    if (!state.video.empty()) {
        text = state.video + " frame " + std::to_string(state.frames_done);
        if (state.frames_total > 0) {
            text += "/" + std::to_string(state.frames_total);
        }
        text += " (" + format_duration(state.video_ms / 1000.0, true);
        if (state.video_total_ms > 0) {
            text += " of " + format_duration(state.video_total_ms / 1000.0, true);
        }
        text += ")";
    } else {
        text = std::to_string(state.pictures_done);
        if (state.pictures_total > 0) {
            text += "/" + std::to_string(state.pictures_total);
        }
        text += state.pictures_done == 1 && state.pictures_total <= 1 ? " picture" : " pictures";
    }
    const double rate = state.seconds > 0 ? static_cast<double>(state.items_done) / state.seconds : 0.0;
    text += strformat("  %.1f/s", rate);
    // Time left from the overall rate: for the video when inside one and its
    // length is known, else for the whole run when its size is known.
    double left = -1;
    if (rate > 0) {
        if (!state.video.empty() && state.frames_total > 0) {
            left = static_cast<double>(state.frames_total - state.frames_done) / rate;
        } else if (state.video.empty() && state.pictures_total > 0) {
            left = static_cast<double>(state.pictures_total - state.pictures_done) / rate;
        }
    }
    if (left >= 0) {
        text += "  " + format_duration(left) + " left";
    }
    return text;
}

ProgressLine::ProgressLine(std::FILE *out, bool enabled, bool in_place)
    : out_(out), enabled_(enabled), in_place_(in_place) {}

ProgressLine::~ProgressLine() { finish(); }

void ProgressLine::update(const ProgressState &state) {
    if (!enabled_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    const double interval = in_place_ ? kTerminalInterval : kLogInterval;
    if (ever_ && std::chrono::duration<double>(now - last_).count() < interval) {
        return;
    }
    ever_ = true;
    last_ = now;
    const std::string text = format_progress(state);
    if (in_place_) {
        std::fprintf(out_, "\r%s\033[K", text.c_str());
        shown_ = true;
    } else {
        std::fprintf(out_, "ostrel: progress: %s\n", text.c_str());
    }
    std::fflush(out_);
}

void ProgressLine::clear() {
    if (enabled_ && in_place_ && shown_) {
        std::fprintf(out_, "\r\033[K");
        std::fflush(out_);
        shown_ = false;
    }
}

void ProgressLine::finish() { clear(); }

}  // namespace ostrel_tool
