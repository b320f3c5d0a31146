#include "studio/training_monitor.h"

#include <cmath>

namespace ostrel_tool {
namespace studio {

int TrainingMonitor::begin(const std::string &what) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++run_;
    running_ = true;
    ok_ = false;
    what_ = what;
    picture_.clear();
    first_done_ = false;
    samples_ = 0;
    skipped_ = 0;
    end_ms_ = 0;
    steps_.clear();
    start_ = std::chrono::steady_clock::now();
    return run_;
}

void TrainingMonitor::picture(const std::string &name, const std::string &class_name) {
    std::lock_guard<std::mutex> lock(mutex_);
    picture_ = name;
    class_ = class_name;
    first_done_ = false;
}

double TrainingMonitor::elapsed_ms() const {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count();
}

void TrainingMonitor::on_progress(const ostrel_alg_progress &step) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_) {
        return;
    }
    switch (step.stage) {
        case OSTREL_ALG_STAGE_SAMPLES: samples_ = step.samples; return;
        case OSTREL_ALG_STAGE_BOX_SKIPPED: skipped_ += step.boxes_skipped; return;
        case OSTREL_ALG_STAGE_TRAINED:
            // Only the first training of a picture is a step of its own; the
            // trainings of the passes are reported by their pass records.
            if (!first_done_) {
                first_done_ = true;
                steps_.push_back({picture_, class_, 0, 0, 0, samples_, elapsed_ms()});
            }
            return;
        case OSTREL_ALG_STAGE_PASS: {
            TrainingStep pass;
            pass.picture = picture_;
            pass.class_name = class_;
            pass.pass = step.round;
            pass.false_positives = step.false_positives;
            pass.low_confidence = step.low_confidence;
            pass.samples = samples_;
            pass.ms = elapsed_ms();
            steps_.push_back(pass);
            return;
        }
        default: return;  // steps the page does not show
    }
}

void TrainingMonitor::end(bool ok) {
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    ok_ = ok;
    end_ms_ = elapsed_ms();
}

std::vector<TrainingStep> TrainingMonitor::steps() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return steps_;
}

int TrainingMonitor::passes_of_last_picture() const {
    std::lock_guard<std::mutex> lock(mutex_);
    int passes = 0;
    for (const TrainingStep &s : steps_) {
        passes = s.pass == 0 ? 0 : s.pass;
    }
    return passes;
}

int TrainingMonitor::skipped_boxes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return skipped_;
}

nlohmann::ordered_json TrainingMonitor::step_json(const TrainingStep &s) {
    nlohmann::ordered_json j;
    j["picture"] = s.picture;
    j["pass"] = s.pass;
    j["false_positives"] = s.false_positives;
    j["low_confidence"] = s.low_confidence;
    j["samples"] = s.samples;
    j["ms"] = std::round(s.ms * 10.0) / 10.0;
    if (!s.class_name.empty()) {
        j["class"] = s.class_name;
    }
    return j;
}

nlohmann::ordered_json TrainingMonitor::to_json() const {
    std::lock_guard<std::mutex> lock(mutex_);
    nlohmann::ordered_json j;
    j["run"] = run_;
    j["running"] = running_;
    j["what"] = what_;
    j["ok"] = ok_;
    const double ms = running_ ? elapsed_ms() : end_ms_;
    j["ms"] = std::round(ms * 10.0) / 10.0;
    nlohmann::ordered_json steps = nlohmann::ordered_json::array();
    for (const TrainingStep &s : steps_) {
        steps.push_back(step_json(s));
    }
    j["steps"] = steps;
    return j;
}

}  // namespace studio
}  // namespace ostrel_tool
