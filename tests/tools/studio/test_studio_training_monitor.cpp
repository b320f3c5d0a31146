// The training monitor turns the library's progress records into the steps
// the page shows.
#include <gtest/gtest.h>

#include "studio/training_monitor.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool::studio;

namespace {

ostrel_alg_progress trained() {
    ostrel_alg_progress p{};
    p.stage = OSTREL_ALG_STAGE_TRAINED;
    return p;
}

}  // namespace

TEST(StudioTrainingMonitor, FirstTrainingAndEachPassBecomeSteps) {
    TrainingMonitor m;
    EXPECT_EQ(m.begin("a.jpg"), 1);
    m.picture("a.jpg");
    for (const ostrel_alg_progress &step : {samples(24), skipped(), trained(), samples(31), trained(), pass(1, 6, 1),
                                            samples(35), trained(), pass(2, 4, 0)}) {
        m.on_progress(step);
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

TEST(StudioTrainingMonitor, RecordsOutsideARunAreIgnoredAndARunStartsEmpty) {
    TrainingMonitor m;
    m.on_progress(trained());
    EXPECT_TRUE(m.steps().empty());
    m.begin("x");
    m.on_progress(trained());
    m.end(true);
    EXPECT_EQ(m.steps().size(), 1u);
    EXPECT_EQ(m.begin("y"), 2);
    EXPECT_TRUE(m.steps().empty());
    EXPECT_EQ(m.passes_of_last_picture(), 0);
}
