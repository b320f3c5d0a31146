// Progress lines for a training run, made from the library's progress
// records (ostrel_alg_setProgressHandler).
//
// Under the classic profile one training reports SAMPLES when it adds
// samples (the samples held so far: marked boxes and background samples),
// BOX_SKIPPED for a marked box that reaches past the picture, optionally
// FILTER_REBUILT when it rebuilds the false-positive filter, and TRAINED
// when the classifier is trained. Set-up trains once on the marked boxes and
// then, in each auto-training pass, runs the detector on the same picture,
// adds what it wrongly found as background, trains again and reports PASS
// (at most five passes). Under the accurate profile it reports
// ACCURATE_TRAINING, then one MINING_ROUND per round, then TRAINED. This
// reporter prints one line for the first training and one per pass or
// round.
#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

#include "ostrel_alg.h"

namespace ostrel_tool {

class TrainingProgress {
public:
    // marked_boxes: how many boxes the user marked (to tell them apart from
    // the random background samples of the first training). samples_before:
    // the samples the engine held before this picture (a further training
    // picture adds to them; the library draws random background only for
    // the first picture an engine sees).
    TrainingProgress(std::FILE *out, int marked_boxes, std::string indent = "  ", int samples_before = 0);

    // Feed every progress record of the training call (thread-safe).
    void on_progress(const ostrel_alg_progress &step);

    // Prints the closing line after the library call returned with success.
    void finish();

    int trainings() const { return trainings_; }
    int samples() const { return samples_; }
    int passes() const { return passes_; }
    double seconds() const;

    // The largest number of auto-training passes the library runs.
    static constexpr int kMaxPasses = 5;

private:
    void report_first_training();
    void report_pass(int pass, int false_positives, int low_confidence);
    void print_step(std::string text);

    std::FILE *out_;
    int marked_boxes_;
    int samples_before_;
    std::string indent_;
    std::mutex mutex_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_;
    int trainings_ = 0;
    int samples_ = 0;
    int passes_ = 0;
    int skipped_boxes_ = 0;
    bool filter_rebuilt_ = false;
    bool accurate_ = false;  // the accurate profile's lines came
};

}  // namespace ostrel_tool
