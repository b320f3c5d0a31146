// Progress lines made from the library's training lines.
#include <algorithm>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "training_progress.h"

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

}  // namespace

// One line for the first training (boxes left out at the picture's edge
// counted apart), one per auto-training pass from the library's pass line,
// and a closing line.
TEST(TrainingProgress, OneLinePerTrainingAndAClosingLine) {
    std::FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    TrainingProgress p(f, 19, "> ");
    p.on_library_line("[Debug] box 5 (88, 56, 18 x 14) lies outside the 121 x 68 feature map: skipped");
    p.on_library_line("[Debug] box 7 (0, 55, 18 x 14) lies outside the 121 x 68 feature map: skipped");
    p.on_library_line("[Debug] Total size of Acfs: 27");
    p.on_library_line("[Alg. Scc] filterPositive_outlier ...");
    p.on_library_line("[Alg. Scc] set_training_mat...");
    p.on_library_line("[Alg. Scc] Training done...");
    p.on_library_line("[Debug] Total size of Acfs: 34");
    p.on_library_line("[Debug] Total size of Acfs: 44");
    p.on_library_line("[Alg. Scc] Outlier rejection ...");
    p.on_library_line("[Alg. Scc] set_training_mat...");
    p.on_library_line("[Alg. Scc] Training done...");
    p.on_library_line("[Alg. Scc] Auto-training pass 1: 7 false positives and 10 low-confidence negatives added");
    p.on_library_line("[Debug] something else");
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
    p.on_library_line("[Debug] Total size of Acfs: 13");
    p.on_library_line("[Alg. Scc] Training done...");
    for (int pass = 1; pass <= 5; ++pass) {
        p.on_library_line("[Alg. Scc] Training done...");
        p.on_library_line("[Alg. Scc] Auto-training pass " + std::to_string(pass) +
                          ": 1 false positives and 0 low-confidence negatives added");
    }
    p.finish();
    const std::string text = read_back(f);
    std::fclose(f);
    EXPECT_NE(text.find("auto-training pass 5: 1 false detection and 0 weak detections"), std::string::npos) << text;
    EXPECT_NE(text.find("auto-training stopped after the maximum of 5 passes"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 7);
}
