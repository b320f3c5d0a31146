// The training monitor turns the library's lines into the steps the page shows.
#include <gtest/gtest.h>

#include "training_monitor.h"

using namespace ostrel_tool::studio;

TEST(StudioTrainingMonitor, FirstTrainingAndEachPassBecomeSteps) {
    TrainingMonitor m;
    EXPECT_EQ(m.begin("a.jpg"), 1);
    m.picture("a.jpg");
    for (const char *line : {"[Debug] Total size of Acfs: 24", "[Debug] box 3 (1, 2, 3 x 4) lies outside: skipped",
                             "[Alg. Scc] Training done...", "[Debug] Total size of Acfs: 31",
                             "[Alg. Scc] Training done...",
                             "[Alg. Scc] Auto-training pass 1: 6 false positives and 1 low-confidence negatives added",
                             "[Debug] Total size of Acfs: 35", "[Alg. Scc] Training done...",
                             "[Alg. Scc] Auto-training pass 2: 4 false positives and 0 low-confidence negatives added"}) {
        m.on_library_line(line);
    }
    const nlohmann::ordered_json running = m.to_json();
    EXPECT_TRUE(running["running"].get<bool>());
    m.end(true);
    const auto steps = m.steps();
    ASSERT_EQ(steps.size(), 3u);
    EXPECT_EQ(steps[0].pass, 0);
    EXPECT_EQ(steps[0].samples, 24);
    EXPECT_EQ(steps[1].pass, 1);
    EXPECT_EQ(steps[1].false_positives, 6);
    EXPECT_EQ(steps[1].low_confidence, 1);
    EXPECT_EQ(steps[1].samples, 31);
    EXPECT_EQ(steps[2].samples, 35);
    EXPECT_EQ(steps[2].picture, "a.jpg");
    EXPECT_EQ(m.passes_of_last_picture(), 2);
    EXPECT_EQ(m.skipped_boxes(), 1);
    const nlohmann::ordered_json done = m.to_json();
    EXPECT_FALSE(done["running"].get<bool>());
    EXPECT_TRUE(done["ok"].get<bool>());
    EXPECT_EQ(done["steps"].size(), 3u);
}

TEST(StudioTrainingMonitor, LinesOutsideARunAreIgnoredAndARunStartsEmpty) {
    TrainingMonitor m;
    m.on_library_line("[Alg. Scc] Training done...");
    EXPECT_TRUE(m.steps().empty());
    m.begin("x");
    m.on_library_line("[Alg. Scc] Training done...");
    m.end(true);
    EXPECT_EQ(m.steps().size(), 1u);
    EXPECT_EQ(m.begin("y"), 2);
    EXPECT_TRUE(m.steps().empty());
    EXPECT_EQ(m.passes_of_last_picture(), 0);
}
