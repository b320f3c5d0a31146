#include "training_progress.h"

#include <cstdlib>

#include "tool_output.h"

namespace ostrel_tool {

namespace {
constexpr const char *kSamplesLine = "[Debug] Total size of Acfs: ";
constexpr const char *kTrainedLine = "[Alg. Scc] Training done...";
constexpr const char *kFilterLine = "[Alg. Scc] Outlier rejection ...";
constexpr const char *kSkippedBoxLine = "[Debug] box ";
constexpr const char *kSkippedBoxEnd = ": skipped";
constexpr const char *kPassLineFormat =
    "[Alg. Scc] Auto-training pass %d: %d false positives and %d low-confidence negatives added";

// The accurate profile's training lines.
constexpr const char *kAccurateTrainingFormat = "[Alg. Scc] Accurate training: %d objects, %d background windows";
constexpr const char *kAccurateRoundFormat = "[Alg. Scc] Accurate mining round %d: %d of %d hard background windows added";

bool starts_with(const std::string &s, const char *prefix) { return s.rfind(prefix, 0) == 0; }

double seconds_between(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}
}  // namespace

TrainingProgress::TrainingProgress(std::FILE *out, int marked_boxes, std::string indent, int samples_before)
    : out_(out), marked_boxes_(marked_boxes), samples_before_(samples_before), indent_(std::move(indent)) {
    start_ = last_ = std::chrono::steady_clock::now();
}

double TrainingProgress::seconds() const { return seconds_between(start_, std::chrono::steady_clock::now()); }

void TrainingProgress::on_library_line(const std::string &line) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (starts_with(line, kSamplesLine)) {
        samples_ = std::atoi(line.c_str() + std::char_traits<char>::length(kSamplesLine));
        return;
    }
    if (starts_with(line, kSkippedBoxLine) && line.find(kSkippedBoxEnd) != std::string::npos) {
        ++skipped_boxes_;
        return;
    }
    if (starts_with(line, kFilterLine)) {
        filter_rebuilt_ = true;
        return;
    }
    int a = 0, b = 0, c = 0;
    if (std::sscanf(line.c_str(), kAccurateTrainingFormat, &a, &b) == 2) {
        accurate_ = true;
        samples_ = a + b;
        print_step(strformat("training: %d object windows (the marked boxes and their mirror images), %d background windows", a, b));
        return;
    }
    if (std::sscanf(line.c_str(), kAccurateRoundFormat, &a, &b, &c) == 3) {
        samples_ += b;
        passes_ = a;
        print_step(strformat("mining round %d: %d of %d background windows it got wrong or nearly wrong added, retrained", a,
                             b, c));
        return;
    }
    if (starts_with(line, kTrainedLine)) {
        ++trainings_;
        if (trainings_ == 1 && !accurate_) {
            report_first_training();
        }
        return;
    }
    int pass = 0;
    int false_positives = 0;
    int low_confidence = 0;
    if (std::sscanf(line.c_str(), kPassLineFormat, &pass, &false_positives, &low_confidence) == 3) {
        report_pass(pass, false_positives, low_confidence);
    }
}

void TrainingProgress::report_first_training() {
    const int used = marked_boxes_ - skipped_boxes_;
    const int background = samples_ - samples_before_ - used;
    std::string text = strformat("training 1: %d marked boxes (each with shifted copies)", used);
    if (skipped_boxes_ > 0) {
        text += strformat(", %d more reaching past the picture's edge left out", skipped_boxes_);
    }
    if (samples_before_ == 0 || background > 0) {
        text += strformat(", %d random background samples", background > 0 ? background : 0);
    }
    print_step(text);
}

void TrainingProgress::report_pass(int pass, int false_positives, int low_confidence) {
    passes_ = pass;
    print_step(strformat("auto-training pass %d: %d false %s and %d weak %s became background, retrained", pass,
                         false_positives, false_positives == 1 ? "detection" : "detections", low_confidence,
                         low_confidence == 1 ? "detection" : "detections"));
}

void TrainingProgress::print_step(std::string text) {
    const auto now = std::chrono::steady_clock::now();
    const double step_seconds = seconds_between(last_, now);
    last_ = now;
    if (filter_rebuilt_) {
        text += ", false-positive filter rebuilt";
    }
    filter_rebuilt_ = false;
    std::fprintf(out_, "%s%-s  (%d samples, %.2f s)\n", indent_.c_str(), text.c_str(), samples_, step_seconds);
    std::fflush(out_);
}

void TrainingProgress::finish() {
    std::lock_guard<std::mutex> lock(mutex_);
    const int passes = passes_;
    std::string text;
    if (trainings_ == 0) {
        text = "trained";
    } else if (accurate_) {
        text = "no background window left that it gets wrong, done";
    } else if (passes >= kMaxPasses) {
        text = strformat("auto-training stopped after the maximum of %d passes", kMaxPasses);
    } else {
        text = strformat("auto-training pass %d: no wrong detection left, done", passes + 1);
    }
    std::fprintf(out_, "%s%s  (%.2f s in total)\n", indent_.c_str(), text.c_str(), seconds());
    std::fflush(out_);
}

}  // namespace ostrel_tool
