#include "cli/training_progress.h"

#include <cstdlib>

#include "cli/tool_output.h"

namespace ostrel_tool {

namespace {

double seconds_between(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}
}  // namespace

TrainingProgress::TrainingProgress(std::FILE *out, int marked_boxes, std::string indent, int samples_before)
    : out_(out), marked_boxes_(marked_boxes), samples_before_(samples_before), indent_(std::move(indent)) {
    start_ = last_ = std::chrono::steady_clock::now();
}

double TrainingProgress::seconds() const { return seconds_between(start_, std::chrono::steady_clock::now()); }

void TrainingProgress::on_progress(const ostrel_alg_progress &step) {
    std::lock_guard<std::mutex> lock(mutex_);
    switch (step.stage) {
        case OSTREL_ALG_STAGE_SAMPLES: samples_ = step.samples; return;
        case OSTREL_ALG_STAGE_BOX_SKIPPED: skipped_boxes_ += step.boxes_skipped; return;
        case OSTREL_ALG_STAGE_FILTER_REBUILT: filter_rebuilt_ = true; return;
        case OSTREL_ALG_STAGE_ACCURATE_TRAINING:
            accurate_ = true;
            samples_ = step.object_windows + step.background_windows;
            print_step(strformat(
                "training: %d object windows (the marked boxes and their mirror images), %d background windows",
                step.object_windows, step.background_windows));
            return;
        case OSTREL_ALG_STAGE_MINING_ROUND:
            samples_ += step.hard_windows_added;
            passes_ = step.round;
            print_step(
                strformat("mining round %d: %d of %d background windows it got wrong or nearly wrong added, retrained",
                          step.round, step.hard_windows_added, step.hard_windows_found));
            return;
        case OSTREL_ALG_STAGE_TRAINED:
            ++trainings_;
            if (trainings_ == 1 && !accurate_) {
                report_first_training();
            }
            return;
        case OSTREL_ALG_STAGE_PASS: report_pass(step.round, step.false_positives, step.low_confidence); return;
        default: return;  // a step this tool does not show
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
