// Progress lines made from the library's progress records.
#include <algorithm>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "cli/training_progress.h"
#include "tools/support/tool_test_support.h"

using ostrel_tool::TrainingProgress;

namespace {

std::string read_back(std::FILE *f) {
    std::fflush(f);
    std::rewind(f);
    std::string text;
    char buffer[512];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) {
        text.append(buffer, n);
    }
    return text;
}

ostrel_alg_progress record(int32_t stage) {
    ostrel_alg_progress p{};
    p.stage = stage;
    return p;
}

}  // namespace

// One line for the first training (boxes left out at the picture's edge
// counted apart), one per auto-training pass from the library's pass line,
// and a closing line.
TEST(TrainingProgress, OneLinePerTrainingAndAClosingLine) {
    std::FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    TrainingProgress p(f, 19, "> ");
    p.on_progress(skipped());
    p.on_progress(skipped());
    p.on_progress(samples(27));
    p.on_progress(record(OSTREL_ALG_STAGE_TRAINED));
    p.on_progress(samples(34));
    p.on_progress(samples(44));
    p.on_progress(record(OSTREL_ALG_STAGE_FILTER_REBUILT));
    p.on_progress(record(OSTREL_ALG_STAGE_TRAINED));
    p.on_progress(pass(1, 7, 10));
    p.on_progress(record(99));  // a stage this tool does not know
    p.finish();
    const std::string text = read_back(f);
    std::fclose(f);
    EXPECT_NE(text.find("> training 1: 17 marked boxes (each with shifted copies), 2 more reaching past the "
                        "picture's edge left out, 10 random background samples  (27 samples, "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("> auto-training pass 1: 7 false detections and 10 weak detections became background, "
                        "retrained, false-positive filter rebuilt  (44 samples, "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("> auto-training pass 2: no wrong detection left, done  ("), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    EXPECT_EQ(p.trainings(), 2);
    EXPECT_EQ(p.passes(), 1);
    EXPECT_EQ(p.samples(), 44);
}

TEST(TrainingProgress, FivePassesEndAtTheLimit) {
    std::FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    TrainingProgress p(f, 3);
    p.on_progress(samples(13));
    p.on_progress(record(OSTREL_ALG_STAGE_TRAINED));
    for (int round = 1; round <= 5; ++round) {
        p.on_progress(record(OSTREL_ALG_STAGE_TRAINED));
        p.on_progress(pass(round, 1, 0));
    }
    p.finish();
    const std::string text = read_back(f);
    std::fclose(f);
    EXPECT_NE(text.find("auto-training pass 5: 1 false detection and 0 weak detections"), std::string::npos) << text;
    EXPECT_NE(text.find("auto-training stopped after the maximum of 5 passes"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 7);
}

// The accurate profile's first training and mining rounds, one line each.
TEST(TrainingProgress, AccurateTrainingAndRounds) {
    std::FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    TrainingProgress p(f, 4);
    ostrel_alg_progress first = record(OSTREL_ALG_STAGE_ACCURATE_TRAINING);
    first.object_windows = 80;
    first.background_windows = 5000;
    p.on_progress(first);
    ostrel_alg_progress round = record(OSTREL_ALG_STAGE_MINING_ROUND);
    round.round = 1;
    round.hard_windows_added = 120;
    round.hard_windows_found = 300;
    p.on_progress(round);
    p.on_progress(record(OSTREL_ALG_STAGE_TRAINED));
    p.finish();
    const std::string text = read_back(f);
    std::fclose(f);
    EXPECT_NE(text.find("training: 80 object windows (the marked boxes and their mirror images), 5000 background "
                        "windows  (5080 samples, "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("mining round 1: 120 of 300 background windows it got wrong or nearly wrong added, retrained  "
                        "(5200 samples, "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("no background window left that it gets wrong, done"), std::string::npos) << text;
    EXPECT_EQ(p.passes(), 1);
}
