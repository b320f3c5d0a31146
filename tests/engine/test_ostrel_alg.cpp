// The engine object: defaults, parameters and what init keeps.
#include "engine/ostrel_alg.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

std::unique_ptr<ostrel_alg> initialised_engine() {
    auto engine = std::make_unique<ostrel_alg>();
    EXPECT_EQ(engine->init(), 0);
    return engine;
}

}  // namespace

// A fresh engine: id unset, threshold 15, no sensitivity yet, nothing trained.
TEST(EngineDefaults, FreshEngine) {
    auto engine = initialised_engine();
    EXPECT_EQ(engine->model_id, -1);
    EXPECT_EQ(engine->pca_filter.fp_threshold, 15.0f);
    EXPECT_EQ(engine->confidence_threshold, 0);
    EXPECT_EQ(engine->cached_image_key, -1);
    EXPECT_EQ(engine->detector_set, 0);
    EXPECT_EQ(engine->pca_filter.pca_filter_ready, 0);
    EXPECT_EQ(engine->pca_filter.pca_filter_frozen, 0);
    EXPECT_EQ(engine->pca_filter.fp_filter_enabled, 0);
    EXPECT_EQ(engine->train_width, 0u);
    EXPECT_EQ(engine->train_height, 0u);
    EXPECT_EQ(engine->train_input_width, 0u);
    EXPECT_EQ(engine->train_input_height, 0u);
    EXPECT_EQ(engine->scaled_width, 0);
    EXPECT_EQ(engine->scaled_height, 0);
    EXPECT_EQ(engine->acf_scale_idx, 0);
    EXPECT_EQ(engine->random_negatives_added, 0);
    EXPECT_EQ(engine->positive_sample_count, 0u);
    EXPECT_EQ(engine->new_positive_count, 0u);
    EXPECT_TRUE(engine->marked_boxes.empty());
    EXPECT_TRUE(engine->training_samples.empty());
    EXPECT_TRUE(engine->sample_thumbs.empty());
    EXPECT_FALSE(engine->isTrained());
    EXPECT_TRUE(engine->cached_image.empty());
    EXPECT_EQ(engine->svm_model.support_vector_size, 0);
    EXPECT_EQ(engine->svm_model.bias, 0);
}

// init allocates the extractor, the SVM (linear C-SVC), the 256-box result
// buffer and a zero-filled scratch block.
TEST(EngineDefaults, InitAllocatesWhatTheEngineOwns) {
    auto engine = initialised_engine();
    ASSERT_NE(engine->feat_extractor, nullptr);
    ASSERT_FALSE(engine->svm.empty());
    EXPECT_EQ(engine->svm->getType(), cv::ml::SVM::C_SVC);
    EXPECT_EQ(engine->svm->getKernelType(), cv::ml::SVM::LINEAR);
    ASSERT_NE(engine->result_boxes, nullptr);
    EXPECT_EQ(engine->result_box_count, 0u);
    ASSERT_NE(engine->work_block, nullptr);
    for (size_t i = 0; i < ostrel_alg::kWorkBlockSize; ++i) {
        ASSERT_EQ(engine->work_block[i], 0) << i;
    }
}

// Sensitivity v reaches the engine as 100 - v and is inverted back.
TEST(Sensitivity, ThresholdsAtTheCornerValues) {
    auto engine = initialised_engine();
    const struct {
        uint32_t sensitivity;
        int32_t threshold;
    } cases[] = {{0, 90}, {40, 70}, {79, 50}, {80, 50}, {90, 40}, {100, 30}};
    for (const auto &c : cases) {
        EXPECT_EQ(engine->setSensitivity(100u - c.sensitivity), 0);
        EXPECT_EQ(engine->confidence_threshold, c.threshold) << "sensitivity " << c.sensitivity;
    }
}

TEST(Sensitivity, Above100ChangesNothing) {
    auto engine = initialised_engine();
    ASSERT_EQ(engine->setSensitivity(100u - 40u), 0);
    EXPECT_EQ(engine->setSensitivity(100u - 101u), 1);
    EXPECT_EQ(engine->confidence_threshold, 70);
    EXPECT_EQ(engine->setSensitivity(101), 1);
    EXPECT_EQ(engine->confidence_threshold, 70);
}

TEST(TrainingSize, StoresTheFourValuesInArgumentOrder) {
    auto engine = initialised_engine();
    engine->setTrainingSize(11, 22, 640, 480);
    EXPECT_EQ(engine->train_width, 11u);
    EXPECT_EQ(engine->train_height, 22u);
    EXPECT_EQ(engine->train_input_width, 640u);
    EXPECT_EQ(engine->train_input_height, 480u);
}

// init on a trained engine rebuilds samples and extractor but keeps the
// model, the filter and its threshold; the model id becomes unset again.
TEST(Init, KeepsTheModelAndResetsTheId) {
    auto engine = initialised_engine();
    engine->svm_model.support_vector_size = 3;
    engine->svm_model.vector = std::make_unique<int32_t[]>(3);
    engine->svm_model.vector[1] = 42;
    engine->pca_filter.fp_threshold = 7.5f;
    engine->pca_filter.pca_filter_ready = 1;
    engine->marked_boxes.push_back(ostrel_alg_box{1, 2, 3, 4, 0.0f, 1, 0, 0});
    engine->training_samples.emplace_back();
    ASSERT_EQ(engine->setModelId(9), 0);

    EXPECT_EQ(engine->init(), 0);

    EXPECT_TRUE(engine->isTrained());
    EXPECT_EQ(engine->svm_model.vector[1], 42);
    EXPECT_EQ(engine->pca_filter.fp_threshold, 7.5f);
    EXPECT_EQ(engine->pca_filter.pca_filter_ready, 1);
    EXPECT_EQ(engine->marked_boxes.size(), 1u);
    EXPECT_TRUE(engine->training_samples.empty());
    EXPECT_NE(engine->feat_extractor, nullptr);
    uint32_t id = 123;
    EXPECT_EQ(engine->getModelId(&id), 1);
    EXPECT_EQ(id, 123u);
}

// release frees the thumbnails' pixels and the result buffer, keeps the boxes.
TEST(Release, FreesSamplesThumbnailsAndResults) {
    auto engine = initialised_engine();
    ostrel_alg_sample thumb{};
    thumb.label = 1;
    thumb.image.width = 2;
    thumb.image.height = 2;
    thumb.image.channels = 3;
    thumb.image.data = new uint8_t[12]();
    engine->sample_thumbs.push_back(thumb);
    engine->result_box_count = 4;
    engine->marked_boxes.push_back(ostrel_alg_box{});
    engine->release();
    EXPECT_TRUE(engine->sample_thumbs.empty());
    EXPECT_EQ(engine->result_boxes, nullptr);
    EXPECT_EQ(engine->result_box_count, 0u);
    EXPECT_EQ(engine->feat_extractor, nullptr);
    EXPECT_EQ(engine->marked_boxes.size(), 1u);
}

// Groups and their nested samples are counted by label: 1 is positive,
// everything else negative.
TEST(CountSamples, CountsGroupsAndVariantsByLabel) {
    auto engine = initialised_engine();
    ostrel::training_sample positive;
    positive.label = 1;
    positive.variants.resize(3);
    for (auto &v : positive.variants) v.label = 1;
    ostrel::training_sample negative;
    negative.label = -1;
    negative.variants.resize(2);
    for (auto &v : negative.variants) v.label = -1;
    ostrel::training_sample random_negative;
    random_negative.label = -2;
    ostrel::training_sample zero;
    zero.label = 0;
    engine->training_samples = {positive, negative, random_negative, zero};
    uint32_t positives = 99, negatives = 99;
    engine->countSamples(&positives, &negatives);
    EXPECT_EQ(positives, 4u);
    EXPECT_EQ(negatives, 5u);
}

TEST(NegativeMethod, IsAlwaysBelowConf) {
    auto engine = initialised_engine();
    EXPECT_EQ(engine->getAddNegativeMethod(), "BELOW_CONF");
}
