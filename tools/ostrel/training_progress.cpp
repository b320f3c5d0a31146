#include "training_progress.h"

#include <cstdlib>

#include "tool_output.h"

namespace ostrel_tool {

namespace {
constexpr const char *kSamplesLine = "[Debug] Total size of Acfs: ";
constexpr const char *kTrainedLine = "[Alg. Scc] Training done...";
constexpr const char *kFilterLine = "[Alg. Scc] Outlier rejection ...";

bool starts_with(const std::string &s, const char *prefix) { return s.rfind(prefix, 0) == 0; }

double seconds_between(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}
}  // namespace

TrainingProgress::TrainingProgress(std::FILE *out, int marked_boxes, std::string indent)
    : out_(out), marked_boxes_(marked_boxes), indent_(std::move(indent)) {
    start_ = last_ = std::chrono::steady_clock::now();
}

double TrainingProgress::seconds() const { return seconds_between(start_, std::chrono::steady_clock::now()); }

void TrainingProgress::on_library_line(const std::string &line) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (starts_with(line, kSamplesLine)) {
        samples_ = std::atoi(line.c_str() + std::char_traits<char>::length(kSamplesLine));
        return;
    }
    if (starts_with(line, kFilterLine)) {
        filter_rebuilt_ = true;
        return;
    }
    if (!starts_with(line, kTrainedLine)) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    const double step_seconds = seconds_between(last_, now);
    last_ = now;
    ++trainings_;
    std::string text;
    if (trainings_ == 1) {
        const int background = samples_ - marked_boxes_;
        text = strformat("training 1: %d marked boxes (each with shifted copies) and %d random background samples",
                         marked_boxes_, background > 0 ? background : 0);
    } else {
        const int added = samples_ - samples_at_last_training_;
        text = strformat("auto-training pass %d: %d wrong or weak detections on the training picture became "
                         "background, retrained",
                         trainings_ - 1, added);
    }
    if (filter_rebuilt_) {
        text += ", false-positive filter rebuilt";
    }
    samples_at_last_training_ = samples_;
    filter_rebuilt_ = false;
    std::fprintf(out_, "%s%-s  (%d samples, %.2f s)\n", indent_.c_str(), text.c_str(), samples_, step_seconds);
    std::fflush(out_);
}

void TrainingProgress::finish() {
    std::lock_guard<std::mutex> lock(mutex_);
    const int passes = trainings_ > 0 ? trainings_ - 1 : 0;
    std::string text;
    if (trainings_ == 0) {
        text = "trained";
    } else if (passes >= kMaxPasses) {
        text = strformat("auto-training stopped after the maximum of %d passes", kMaxPasses);
    } else {
        text = strformat("auto-training pass %d: no wrong detection left, done", passes + 1);
    }
    std::fprintf(out_, "%s%s  (%.2f s in total)\n", indent_.c_str(), text.c_str(), seconds());
    std::fflush(out_);
}

}  // namespace ostrel_tool
