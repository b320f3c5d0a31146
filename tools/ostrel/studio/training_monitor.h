// What a training is doing right now, for the page to show while it runs.
//
// The library reports (ostrel_alg_setProgressHandler) one TRAINED record per
// training of the classifier and one PASS record per auto-training pass
// (with the wrong and the weak detections it learnt as background), and a
// SAMPLES record whenever samples are added. The monitor turns them into
// steps (the first training of a picture, then each pass)
// with the time since the run began. A run may train several pictures in a
// row (when the studio rebuilds its engine); each picture starts its own
// first step. Every member is safe to call from any thread.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ostrel_alg.h"

namespace ostrel_tool {
namespace studio {

struct TrainingStep {
    std::string picture;
    std::string class_name;   // the class whose detector trains ("" when the studio has one)
    int pass = 0;             // 0: the first training on the marked boxes
    int false_positives = 0;  // passes: wrong detections learnt as background
    int low_confidence = 0;   // passes: weak detections learnt as background
    int samples = 0;          // training samples after this step
    double ms = 0;            // since the run began
};

class TrainingMonitor {
public:
    // Starts a run; run ids count up from 1.
    int begin(const std::string &what);
    // The picture (and the class) whose progress records follow.
    void picture(const std::string &name, const std::string &class_name = "");
    void on_progress(const ostrel_alg_progress &step);
    void end(bool ok);

    // Steps of the current (or last) run.
    std::vector<TrainingStep> steps() const;
    // Steps with pass > 0 of the picture trained last.
    int passes_of_last_picture() const;
    int skipped_boxes() const;
    // {"run", "running", "what", "ok", "ms", "steps": [{"picture", "pass",
    // "false_positives", "low_confidence", "samples", "ms"} (and "class"
    // when a class is named)]}
    nlohmann::ordered_json to_json() const;

    static nlohmann::ordered_json step_json(const TrainingStep &step);

private:
    double elapsed_ms() const;  // with mutex_ held

    mutable std::mutex mutex_;
    int run_ = 0;
    bool running_ = false;
    bool ok_ = false;
    std::string what_;
    std::string picture_;
    std::string class_;
    bool first_done_ = false;
    int samples_ = 0;
    int skipped_ = 0;
    double end_ms_ = 0;
    std::chrono::steady_clock::time_point start_;
    std::vector<TrainingStep> steps_;
};

}  // namespace studio
}  // namespace ostrel_tool
