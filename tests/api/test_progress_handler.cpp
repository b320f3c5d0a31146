// The progress handler through the public header: during set-up the engine
// reports every training step with its numbers (the same steps and numbers
// its log lines give in words), on the thread of the call, and a handler
// changes nothing else: the log lines and the model are those of an engine
// without one.
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"

using namespace ostrel_test;

namespace {

struct recorded {
    std::vector<ostrel_alg_progress> steps;
    std::vector<std::thread::id> threads;
};

void record_step(const ostrel_alg_progress *progress, void *user) {
    auto *r = static_cast<recorded *>(user);
    r->steps.push_back(*progress);
    r->threads.push_back(std::this_thread::get_id());
}

std::vector<std::string> lines_of(const std::string &log) {
    std::vector<std::string> lines;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

size_t count_stage(const recorded &r, int32_t stage) {
    size_t n = 0;
    for (const ostrel_alg_progress &p : r.steps) n += p.stage == stage ? 1 : 0;
    return n;
}

class ProgressHandler : public testing::Test {
protected:
    void SetUp() override {
        picture_ = load_blood_picture("BloodImage_00000");
        ASSERT_FALSE(picture_.pixels.empty());
    }
    // A seeded engine of profile, trained on the blood picture; its log and
    // exported model go to *log and *model.
    void train(int32_t profile, recorded *into, std::string *log, file_bytes *model) {
        ostrel_alg *engine = nullptr;
        ASSERT_EQ(ostrel_alg_create(&engine), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine, 4), 0);
        ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, profile), 0);
        if (into != nullptr) {
            ASSERT_EQ(ostrel_alg_setProgressHandler(engine, &record_step, into), 0);
        }
        ASSERT_EQ(set_up(engine, picture_.record(1), picture_.boxes, log), 0);
        const std::string path = temp_path("progress.model");
        ASSERT_EQ(ostrel_alg_exportModel_ptr(engine, path.c_str()), 0);
        *model = read_bytes(path);
        std::remove(path.c_str());
        EXPECT_EQ(ostrel_alg_destroy(engine), 0);
    }

    blood_picture picture_;
};

}  // namespace

TEST_F(ProgressHandler, ClassicStepsMatchTheLogLines) {
    recorded r;
    std::string log;
    file_bytes model;
    train(OSTREL_ALG_PROFILE_CLASSIC, &r, &log, &model);
    ASSERT_FALSE(r.steps.empty());
    const std::vector<std::string> lines = lines_of(log);

    // Every "Total size of Acfs" line is a SAMPLES step with that count.
    std::vector<int32_t> logged_samples;
    std::vector<int32_t> reported_samples;
    size_t trained_lines = 0, skipped_lines = 0, filter_lines = 0;
    std::vector<std::vector<int32_t>> logged_passes;
    for (const std::string &line : lines) {
        int a = 0, b = 0, c = 0;
        if (std::sscanf(line.c_str(), "[Debug] Total size of Acfs: %d", &a) == 1) logged_samples.push_back(a);
        if (line == "[Alg. Scc] Training done...") ++trained_lines;
        if (line.rfind("[Debug] box ", 0) == 0 && line.find(": skipped") != std::string::npos) ++skipped_lines;
        if (line == "[Alg. Scc] Outlier rejection ...") ++filter_lines;
        if (std::sscanf(line.c_str(),
                        "[Alg. Scc] Auto-training pass %d: %d false positives and %d low-confidence negatives added",
                        &a, &b, &c) == 3) {
            logged_passes.push_back({a, b, c});
        }
    }
    std::vector<std::vector<int32_t>> reported_passes;
    double last_seconds = 0.0;
    for (const ostrel_alg_progress &p : r.steps) {
        if (p.stage == OSTREL_ALG_STAGE_SAMPLES) reported_samples.push_back(p.samples);
        if (p.stage == OSTREL_ALG_STAGE_PASS) reported_passes.push_back({p.round, p.false_positives, p.low_confidence});
        EXPECT_GE(p.seconds, last_seconds);
        last_seconds = p.seconds;
    }
    ASSERT_FALSE(logged_samples.empty());
    EXPECT_EQ(reported_samples, logged_samples);
    EXPECT_EQ(count_stage(r, OSTREL_ALG_STAGE_TRAINED), trained_lines);
    EXPECT_EQ(count_stage(r, OSTREL_ALG_STAGE_BOX_SKIPPED), skipped_lines);
    EXPECT_EQ(count_stage(r, OSTREL_ALG_STAGE_FILTER_REBUILT), filter_lines);
    ASSERT_FALSE(logged_passes.empty());
    EXPECT_EQ(reported_passes, logged_passes);
    // The marked boxes' samples come before any training.
    size_t first_samples = r.steps.size(), first_trained = r.steps.size();
    for (size_t i = r.steps.size(); i-- > 0;) {
        if (r.steps[i].stage == OSTREL_ALG_STAGE_SAMPLES) first_samples = i;
        if (r.steps[i].stage == OSTREL_ALG_STAGE_TRAINED) first_trained = i;
    }
    EXPECT_LT(first_samples, first_trained);
}

TEST_F(ProgressHandler, AccurateStepsMatchTheLogLines) {
    recorded r;
    std::string log;
    file_bytes model;
    train(OSTREL_ALG_PROFILE_ACCURATE, &r, &log, &model);
    std::vector<std::vector<int32_t>> logged_first, logged_rounds;
    for (const std::string &line : lines_of(log)) {
        int a = 0, b = 0, c = 0;
        if (std::sscanf(line.c_str(), "[Alg. Scc] Accurate training: %d objects, %d background windows", &a, &b) == 2) {
            logged_first.push_back({a, b});
        }
        if (std::sscanf(line.c_str(), "[Alg. Scc] Accurate mining round %d: %d of %d hard background windows added", &a,
                        &b, &c) == 3) {
            logged_rounds.push_back({a, b, c});
        }
    }
    std::vector<std::vector<int32_t>> reported_first, reported_rounds;
    for (const ostrel_alg_progress &p : r.steps) {
        if (p.stage == OSTREL_ALG_STAGE_ACCURATE_TRAINING)
            reported_first.push_back({p.object_windows, p.background_windows});
        if (p.stage == OSTREL_ALG_STAGE_MINING_ROUND) {
            reported_rounds.push_back({p.round, p.hard_windows_added, p.hard_windows_found});
        }
    }
    ASSERT_FALSE(logged_first.empty());
    EXPECT_GT(logged_first.front()[0], 0);
    EXPECT_EQ(reported_first, logged_first);
    EXPECT_EQ(reported_rounds, logged_rounds);
    EXPECT_EQ(count_stage(r, OSTREL_ALG_STAGE_TRAINED), 1u);
    EXPECT_EQ(r.steps.back().stage, OSTREL_ALG_STAGE_TRAINED);
}

TEST_F(ProgressHandler, AHandlerChangesNeitherTheLogNorTheModel) {
    for (const int32_t profile : {OSTREL_ALG_PROFILE_CLASSIC, OSTREL_ALG_PROFILE_ACCURATE}) {
        recorded r;
        std::string with_log, without_log;
        file_bytes with_model, without_model;
        train(profile, &r, &with_log, &with_model);
        train(profile, nullptr, &without_log, &without_model);
        EXPECT_EQ(with_log, without_log) << "profile " << profile;
        EXPECT_EQ(with_model, without_model) << "profile " << profile;
        EXPECT_FALSE(r.steps.empty());
    }
}

TEST_F(ProgressHandler, CalledOnTheCallingThread) {
    recorded r;
    std::thread worker([&] {
        std::string log;
        file_bytes model;
        train(OSTREL_ALG_PROFILE_CLASSIC, &r, &log, &model);
        for (const std::thread::id &id : r.threads) EXPECT_EQ(id, std::this_thread::get_id());
    });
    worker.join();
    EXPECT_FALSE(r.threads.empty());
}

TEST_F(ProgressHandler, KeptByInitAndRemovedByNull) {
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    ASSERT_EQ(ostrel_alg_setRandomSeed(engine, 4), 0);
    recorded r;
    ASSERT_EQ(ostrel_alg_setProgressHandler(engine, &record_step, &r), 0);
    ASSERT_EQ(ostrel_alg_init(engine), 0);
    ASSERT_EQ(set_up(engine, picture_.record(1), picture_.boxes), 0);
    const size_t after_first = r.steps.size();
    EXPECT_GT(after_first, 0u);
    ASSERT_EQ(ostrel_alg_setProgressHandler(engine, nullptr, &r), 0);
    ASSERT_EQ(set_up(engine, picture_.record(2), picture_.boxes), 0);
    EXPECT_EQ(r.steps.size(), after_first);
    EXPECT_EQ(ostrel_alg_destroy(engine), 0);
}

TEST_F(ProgressHandler, NullHandleIsRefused) {
    recorded r;
    std::string log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_setProgressHandler(nullptr, &record_step, &r), 1); });
    EXPECT_EQ(log, "[Alg.Fail] ostrel_alg_setProgressHandler (ostrel_alg_lib line:643)\n");
    int32_t code = -1;
    EXPECT_EQ(ostrel_alg_getLastError(nullptr, &code, nullptr, 0), 0);
    EXPECT_EQ(code, OSTREL_ALG_ERR_BAD_ARGUMENT);
}

// Detection runs of the host's calls: each run that returns boxes reports one
// DETECTION record (1 of 1 pictures), a failing run none, and a handler
// changes neither the boxes nor the log lines of a run.
TEST_F(ProgressHandler, DetectionRunsAreReportedAndChangeNothing) {
    for (const int32_t profile : {OSTREL_ALG_PROFILE_CLASSIC, OSTREL_ALG_PROFILE_ACCURATE}) {
        ostrel_alg *engine = nullptr;
        ASSERT_EQ(ostrel_alg_create(&engine), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine, 4), 0);
        ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, profile), 0);
        recorded r;
        ASSERT_EQ(ostrel_alg_setProgressHandler(engine, &record_step, &r), 0);
        ASSERT_EQ(set_up(engine, picture_.record(1), picture_.boxes), 0);
        EXPECT_EQ(count_stage(r, OSTREL_ALG_STAGE_DETECTION), 0u) << "the training's own runs are not reported";

        r.steps.clear();
        const detection with = detect(engine, picture_.record(2));
        ASSERT_EQ(with.status, 0);
        ASSERT_EQ(r.steps.size(), 1u) << "profile " << profile;
        const ostrel_alg_progress &step = r.steps.front();
        EXPECT_EQ(step.stage, OSTREL_ALG_STAGE_DETECTION);
        EXPECT_EQ(step.done, 1);
        EXPECT_EQ(step.total, 1);
        EXPECT_GE(step.seconds, 0.0);
        EXPECT_EQ(step.round + step.samples + step.boxes_skipped + step.false_positives + step.low_confidence +
                      step.object_windows + step.background_windows + step.hard_windows_added + step.hard_windows_found,
                  0);

        // The same picture without a handler (a new key: computed afresh).
        ASSERT_EQ(ostrel_alg_setProgressHandler(engine, nullptr, nullptr), 0);
        const detection without = detect(engine, picture_.record(3));
        ASSERT_EQ(without.status, 0);
        EXPECT_TRUE(same_boxes(with.boxes, without.boxes)) << "profile " << profile;
        EXPECT_EQ(with.log, without.log) << "profile " << profile;
        EXPECT_FALSE(with.boxes.empty());

        // A run that fails reports nothing.
        ASSERT_EQ(ostrel_alg_setProgressHandler(engine, &record_step, &r), 0);
        r.steps.clear();
        ostrel_alg_image broken = picture_.record(4);
        broken.channels = 1;
        EXPECT_EQ(detect(engine, broken).status, 1);
        EXPECT_TRUE(r.steps.empty());
        EXPECT_EQ(ostrel_alg_destroy(engine), 0);
    }
}
