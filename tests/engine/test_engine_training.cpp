// Training through the engine: samples from a picture, the filter's rebuild
// when new positives arrive, the SVM and the model record, with the exact
// progress and failure lines.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "engine/bccd_engine.h"
#include "support/stdout_capture.h"
#include "train/model_checks.h"

using engine_test::bccd_picture;
using engine_test::seeded_engine;
using ostrel_test::capture_stdout;

namespace {

class Training : public testing::Test {
protected:
    void SetUp() override {
        engine_ = seeded_engine();
        ASSERT_NE(engine_, nullptr);
        picture_ = bccd_picture("BloodImage_00000");
        ASSERT_FALSE(picture_.pixels.empty());
        ASSERT_EQ(picture_.boxes.size(), 19u);
    }
    std::unique_ptr<ostrel_alg> engine_;
    engine_test::marked_picture picture_;
};

}  // namespace

// The two boxes that reach past the picture's bottom edge give no sample.
const char *const kSkippedEdgeBoxes =
    "[Debug] box 5 (88, 56, 18 x 14) lies outside the 121 x 68 feature map: skipped\n"
    "[Debug] box 7 (0, 55, 18 x 14) lies outside the 121 x 68 feature map: skipped\n";

// Samples of the first picture: one group per box inside the picture plus
// ten random negatives, the window sizes taken from the first box, random
// negatives drawn once.
TEST_F(Training, AddTrainingSamplesCutsBoxesAndTenRandomNegatives) {
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(engine_->addTrainingSamples(picture_.pixels, picture_.boxes), 0); });
    EXPECT_EQ(out, std::string(kSkippedEdgeBoxes) + "[Debug] Total size of Acfs: 27\n");
    EXPECT_EQ(engine_->training_samples.size(), 27u);
    EXPECT_EQ(engine_->train_width, 96u);
    EXPECT_EQ(engine_->train_height, 99u);
    EXPECT_EQ(engine_->train_input_width, 640u);
    EXPECT_EQ(engine_->train_input_height, 480u);
    EXPECT_EQ(engine_->random_negatives_added, 1);
    for (size_t i = 0; i < 17; ++i) {
        EXPECT_EQ(engine_->training_samples[i].label, 1);
        // 96 x 99 pixels are 18 x 14 cells of the 121 x 68 map: 10 planes each.
        EXPECT_EQ(engine_->training_samples[i].features.size(), 18u * 14u * 10u);
    }
    for (size_t i = 17; i < 27; ++i) {
        EXPECT_EQ(engine_->training_samples[i].label, -2);
        EXPECT_TRUE(engine_->training_samples[i].variants.empty());
    }

    // A second picture adds its boxes (one reaches above the top edge) but no
    // more random negatives.
    const engine_test::marked_picture second = bccd_picture("BloodImage_00001");
    ASSERT_EQ(second.boxes.size(), 18u);
    const std::string again =
        capture_stdout([&] { EXPECT_EQ(engine_->addTrainingSamples(second.pixels, second.boxes), 0); });
    EXPECT_EQ(again,
              "[Debug] box 12 (57, -1, 17 x 13) lies outside the 121 x 68 feature map: skipped\n"
              "[Debug] Total size of Acfs: 44\n");
}

// A first picture without positives: the random negatives cannot be drawn
// (their size comes from the first positive), yet the engine never tries again.
TEST_F(Training, FirstPictureWithoutPositivesNeverDrawsRandomNegatives) {
    std::vector<ostrel_alg_box> negatives = {picture_.boxes[0]};
    negatives[0].label = -1;
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(engine_->addTrainingSamples(picture_.pixels, negatives), 0); });
    EXPECT_EQ(out,
              "[ostrel_acf::addRandomNegative] Fail:: wrong pointer! (ostrel_acf line:709)\n"
              "[Debug] Total size of Acfs: 1\n");
    EXPECT_EQ(engine_->random_negatives_added, 1);
    const std::string later =
        capture_stdout([&] { EXPECT_EQ(engine_->addTrainingSamples(picture_.pixels, picture_.boxes), 0); });
    EXPECT_EQ(later, std::string(kSkippedEdgeBoxes) + "[Debug] Total size of Acfs: 18\n");
}

// A picture whose boxes give no sample at all adds nothing and fails.
TEST_F(Training, NoSampleAtAllFails) {
    // 5000 pixels are cell 945 across (5000 * 121 / 640) and 708 down.
    const std::vector<ostrel_alg_box> outside = {ostrel_alg_box{5000, 5000, 96, 99, 0.0f, 1, 0, 0}};
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(engine_->addTrainingSamples(picture_.pixels, outside), 1); });
    EXPECT_EQ(out,
              "[Debug] box 0 (945, 708, 18 x 14) lies outside the 121 x 68 feature map: skipped\n"
              "[ostrel_acf::addRandomNegative] Fail:: wrong pointer! (ostrel_acf line:709)\n");
    EXPECT_TRUE(engine_->training_samples.empty());
    EXPECT_EQ(engine_->random_negatives_added, 1);
}

// The first training records the positive count without building the
// filter; the model record then holds the window's weights in fixed point.
TEST_F(Training, FirstTrainingRecordsPositivesWithoutAFilter) {
    capture_stdout([&] { ASSERT_EQ(engine_->addTrainingSamples(picture_.pixels, picture_.boxes), 0); });
    std::string out = capture_stdout([&] { EXPECT_EQ(engine_->trainClassifier(), 0); });
    EXPECT_EQ(out,
              "[Alg. Scc] filterPositive_outlier ...\n"
              "[Alg. Scc] set_training_mat...\n"
              "[Alg. Scc] Training done...\n");
    uint32_t positives = 0, negatives = 0;
    engine_->countSamples(&positives, &negatives);
    EXPECT_EQ(engine_->positive_sample_count, positives);
    EXPECT_EQ(engine_->new_positive_count, positives);
    EXPECT_EQ(engine_->pca_filter.pca_filter_ready, 0);
    EXPECT_TRUE(engine_->pca_filter.mean.empty());

    const ostrel::svm_model &model = engine_->svm_model;
    ASSERT_TRUE(model.trained());
    EXPECT_EQ(model.class_idx, 0);
    EXPECT_EQ(model.trained_width, 96);
    EXPECT_EQ(model.trained_height, 99);
    EXPECT_EQ(model.input_width, 640);
    EXPECT_EQ(model.input_height, 480);
    EXPECT_EQ(model.trained_acf_scale_idx, 0);
    EXPECT_EQ(model.support_vector_size, 18 * 14 * 10);
    EXPECT_FALSE(ostrel::checkSvmModel(model));

    // The record is the trained SVM's weights and rho, times 100000, truncated.
    const cv::Mat weights = engine_->svm->getSupportVectors();
    ASSERT_EQ(static_cast<int>(weights.total()), model.support_vector_size);
    for (int i = 0; i < model.support_vector_size; i += 97) {
        EXPECT_EQ(model.vector[i], static_cast<int32_t>(weights.at<float>(0, i) * 100000.0f)) << i;
    }
    cv::Mat alpha, index;
    const double rho = engine_->svm->getDecisionFunction(0, alpha, index);
    EXPECT_EQ(model.bias, static_cast<int32_t>(static_cast<float>(rho) * 100000.0f));
}

// Retraining without new positives skips the filter step and its line.
TEST_F(Training, RetrainingWithoutNewPositivesSkipsTheFilter) {
    capture_stdout([&] {
        ASSERT_EQ(engine_->addTrainingSamples(picture_.pixels, picture_.boxes), 0);
        ASSERT_EQ(engine_->trainClassifier(), 0);
    });
    const uint32_t known = engine_->positive_sample_count;
    std::vector<ostrel_alg_box> background = {ostrel_alg_box{250, 200, 96, 99, 0.9f, -1, 0, 0}};
    const std::string out = capture_stdout([&] {
        ASSERT_EQ(engine_->addTrainingSamples(picture_.pixels, background), 0);
        EXPECT_EQ(engine_->trainClassifier(), 0);
    });
    EXPECT_EQ(out,
              "[Debug] Total size of Acfs: 28\n"
              "[Alg. Scc] set_training_mat...\n"
              "[Alg. Scc] Training done...\n");
    EXPECT_EQ(engine_->new_positive_count, 0u);
    EXPECT_EQ(engine_->positive_sample_count, known);
}

// New positives after the first training rebuild the filter from the
// positives known before them; a ready filter is published after training.
TEST_F(Training, NewPositivesRebuildTheFilter) {
    capture_stdout([&] {
        ASSERT_EQ(engine_->addTrainingSamples(picture_.pixels, picture_.boxes), 0);
        ASSERT_EQ(engine_->trainClassifier(), 0);
    });
    const uint32_t known = engine_->positive_sample_count;
    const engine_test::marked_picture second = bccd_picture("BloodImage_00001");
    // The second picture's cells, cut at the first picture's box size.
    std::vector<ostrel_alg_box> boxes = second.boxes;
    for (ostrel_alg_box &b : boxes) {
        b.x += (b.width - 96) / 2;
        b.y += (b.height - 99) / 2;
        b.width = 96;
        b.height = 99;
    }
    capture_stdout([&] { ASSERT_EQ(engine_->addTrainingSamples(second.pixels, boxes), 0); });
    const std::string out = capture_stdout([&] { EXPECT_EQ(engine_->trainClassifier(), 0); });
    EXPECT_EQ(out,
              "[Alg. Scc] Outlier rejection ...\n"
              "[Alg. Scc] filterPositive_outlier ...\n"
              "[Alg. Scc] set_training_mat...\n"
              "[Alg. Scc] Training done...\n");
    uint32_t positives = 0, negatives = 0;
    engine_->countSamples(&positives, &negatives);
    EXPECT_EQ(engine_->new_positive_count, positives - known);
    EXPECT_EQ(engine_->positive_sample_count, positives);
    // With these seeded samples the positives spread widely enough: the
    // filter is ready and published as deep copies of the analysis.
    ASSERT_EQ(engine_->pca_filter.pca_filter_ready, 1);
    EXPECT_EQ(engine_->pca_filter.mean.cols, engine_->svm_model.support_vector_size);
    EXPECT_EQ(engine_->pca_filter.eigenvectors.cols, engine_->svm_model.support_vector_size);
    EXPECT_LE(engine_->pca_filter.eigenvectors.rows, 14);
    EXPECT_EQ(cv::norm(engine_->pca_filter.mean, engine_->pca_filter.pca.mean, cv::NORM_INF), 0.0);
    EXPECT_NE(engine_->pca_filter.mean.data, engine_->pca_filter.pca.mean.data) << "a deep copy";
    EXPECT_FALSE(ostrel::checkPcaFilter(engine_->pca_filter));
}

// No samples: the set-up line, then the training's own failure (3149).
TEST_F(Training, EmptyTrainingSetFails) {
    const std::string out = capture_stdout([&] { EXPECT_EQ(engine_->trainClassifier(), 1); });
    EXPECT_EQ(out,
              "[Debug] No Acf feature ! \n"
              "[Alg. FAIL!] ostrel_alg::trainClassifier (ostrel_alg line:3149)\n");
    EXPECT_FALSE(engine_->isTrained());
}

// One class only: the SVM refuses the set (3162) and the old model stays.
TEST_F(Training, SvmFailureKeepsTheOldModel) {
    std::vector<ostrel_alg_box> negatives = {picture_.boxes[0], picture_.boxes[1]};
    negatives[0].label = -1;
    negatives[1].label = -1;
    capture_stdout([&] { ASSERT_EQ(engine_->addTrainingSamples(picture_.pixels, negatives), 0); });
    engine_->svm_model.support_vector_size = 3;
    engine_->svm_model.vector = std::make_unique<int32_t[]>(3);
    engine_->svm_model.vector[0] = 11;
    const std::string out = capture_stdout([&] { EXPECT_EQ(engine_->trainClassifier(), 1); });
    EXPECT_EQ(out,
              "[Alg. Scc] set_training_mat...\n"
              "[Debug] every training sample has the label -1: nothing to tell apart\n"
              "[Alg. FAIL!] ostrel_alg::trainClassifier (ostrel_alg line:3162)\n");
    EXPECT_EQ(engine_->svm_model.support_vector_size, 3);
    EXPECT_EQ(engine_->svm_model.vector[0], 11);
}

// The same seed, picture and boxes give byte-identical models.
TEST(SeededTraining, SameSeedGivesIdenticalModels) {
    const engine_test::marked_picture picture = bccd_picture("BloodImage_00000");
    std::vector<std::vector<int32_t>> weights;
    std::vector<int32_t> biases;
    for (int run = 0; run < 2; ++run) {
        auto engine = seeded_engine(1234);
        ASSERT_NE(engine, nullptr);
        capture_stdout([&] {
            ASSERT_EQ(engine->addTrainingSamples(picture.pixels, picture.boxes), 0);
            ASSERT_EQ(engine->trainClassifier(), 0);
        });
        const ostrel::svm_model &m = engine->svm_model;
        weights.emplace_back(m.vector.get(), m.vector.get() + m.support_vector_size);
        biases.push_back(m.bias);
    }
    EXPECT_EQ(weights[0], weights[1]);
    EXPECT_EQ(biases[0], biases[1]);
}
