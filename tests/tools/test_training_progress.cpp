// Progress lines made from the library's training lines.
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

void first_training(TrainingProgress &p) {
    p.on_library_line("[Debug] Total size of Acfs: 29");
    p.on_library_line("[Alg. Scc] filterPositive_outlier ...");
    p.on_library_line("[Alg. Scc] set_training_mat...");
    p.on_library_line("[Alg. Scc] Training done...");
}

}  // namespace

TEST(TrainingProgress, OneLinePerTrainingAndAClosingLine) {
    std::FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    TrainingProgress p(f, 19, "> ");
    first_training(p);
    p.on_library_line("[Debug] Total size of Acfs: 36");
    p.on_library_line("[Debug] Total size of Acfs: 46");
    p.on_library_line("[Alg. Scc] Outlier rejection ...");
    p.on_library_line("[Alg. Scc] set_training_mat...");
    p.on_library_line("[Alg. Scc] Training done...");
    p.on_library_line("[Debug] something else");
    p.finish();
    const std::string text = read_back(f);
    std::fclose(f);
    EXPECT_NE(text.find("> training 1: 19 marked boxes (each with shifted copies) and 10 random background samples"
                        "  (29 samples, "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("> auto-training pass 1: 17 wrong or weak detections on the training picture became "
                        "background, retrained, false-positive filter rebuilt  (46 samples, "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("> auto-training pass 2: no wrong detection left, done  ("), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    EXPECT_EQ(p.trainings(), 2);
    EXPECT_EQ(p.passes(), 1);
    EXPECT_EQ(p.samples(), 46);
}

TEST(TrainingProgress, FivePassesEndAtTheLimit) {
    std::FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    TrainingProgress p(f, 3);
    first_training(p);
    for (int pass = 0; pass < 5; ++pass) {
        p.on_library_line("[Alg. Scc] Training done...");
    }
    p.finish();
    const std::string text = read_back(f);
    std::fclose(f);
    EXPECT_NE(text.find("auto-training pass 5: "), std::string::npos);
    EXPECT_NE(text.find("auto-training stopped after the maximum of 5 passes"), std::string::npos);
}
