// Every reported score lies in 0..1, also for models that pass validation
// with extreme values (a bias or weights at the int32 limits), where the
// fast exponential of the scoring leaves its range; and a trained model's
// own scores stay what they always were.
#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"

using namespace ostrel_test;

namespace {

constexpr int64_t kKeys = 74000;

class ScoreRange : public testing::Test {
protected:
    void SetUp() override {
        picture_ = load_blood_picture("BloodImage_00000");
        other_ = load_blood_picture("BloodImage_00002");
        ASSERT_EQ(ostrel_alg_create(&source_), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(source_, 9), 0);
        ASSERT_EQ(ostrel_alg_setSensitivity(source_, 50), 0);
        ASSERT_EQ(set_up(source_, picture_.record(kKeys + 1), picture_.boxes), 0);
        const std::string p = path("trained.model");
        capture_stdout([&] { ASSERT_EQ(ostrel_alg_exportModel_ptr(source_, p.c_str()), 0); });
        trained_ = read_bytes(p);
        ASSERT_GT(trained_.size(), kWeightsAt);
    }
    void TearDown() override {
        EXPECT_EQ(ostrel_alg_destroy(source_), 0);
        for (const std::string &p : created_) std::remove(p.c_str());
    }
    std::string path(const std::string &name) {
        created_.push_back(temp_path(name));
        return created_.back();
    }
    // Imports `model` into a new engine at `sensitivity` and detects on
    // both pictures.
    std::vector<detection> detections_of(const file_bytes &model, uint32_t sensitivity) {
        const std::string p = path("edited.model");
        write_bytes(p, model);
        ostrel_alg *engine = nullptr;
        EXPECT_EQ(ostrel_alg_create(&engine), 0);
        EXPECT_EQ(ostrel_alg_setSensitivity(engine, sensitivity), 0);
        capture_stdout([&] {
            EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(engine, p.c_str()), 0);
            EXPECT_EQ(ostrel_alg_importModel_ptr(engine, p.c_str()), 0);
        });
        std::vector<detection> found = {detect(engine, picture_.record(kKeys + 2)),
                                        detect(engine, other_.record(kKeys + 3))};
        EXPECT_EQ(ostrel_alg_destroy(engine), 0);
        return found;
    }

    blood_picture picture_;
    blood_picture other_;
    ostrel_alg *source_ = nullptr;
    file_bytes trained_;

private:
    std::vector<std::string> created_;
};

void expect_scores_in_range(const std::vector<detection> &found, const std::string &what) {
    for (const detection &d : found) {
        EXPECT_EQ(d.status, 0) << what;
        for (const ostrel_alg_box &b : d.boxes) {
            EXPECT_GE(b.score, 0.0f) << what;
            EXPECT_LE(b.score, 1.0f) << what;
        }
    }
}

}  // namespace

// A bias at either int32 limit: the margin of every window is far beyond
// what the fast exponential covers. The logistic there is 1 (every window
// is the object) or 0 (none is).
TEST_F(ScoreRange, ExtremeBiasGivesScoresOfZeroOrOne) {
    for (const int32_t bias : {INT_MAX, INT_MIN, INT_MAX / 2, INT_MIN / 2, 300000000, -300000000}) {
        file_bytes b = without_trailer(trained_);
        put_i32_at(b, kBiasAt, bias);
        const std::vector<detection> found = detections_of(with_trailer(b), 100);
        expect_scores_in_range(found, "bias " + std::to_string(bias));
        for (const detection &d : found) {
            for (const ostrel_alg_box &box : d.boxes) {
                EXPECT_TRUE(box.score == 0.0f || box.score == 1.0f) << "bias " << bias << ": " << box.score;
            }
        }
    }
}

// Weights at the int32 limits (all of one sign, or alternating) wrap the
// 32-bit dot product: whatever margin comes out, the score is in 0..1.
TEST_F(ScoreRange, ExtremeWeightsGiveScoresInRange) {
    const int32_t n = i32_at(trained_, kWeightCountAt);
    for (int pattern = 0; pattern < 4; ++pattern) {
        file_bytes b = without_trailer(trained_);
        for (int32_t i = 0; i < n; ++i) {
            const int32_t value = pattern == 0   ? INT_MAX
                                  : pattern == 1 ? INT_MIN
                                  : pattern == 2 ? (i % 2 ? INT_MAX : INT_MIN)
                                                 : (i % 3 ? 1000000000 : -2000000000);
            put_i32_at(b, kWeightsAt + 4 * static_cast<size_t>(i), value);
        }
        for (const uint32_t sensitivity : {0u, 100u}) {
            expect_scores_in_range(detections_of(with_trailer(b), sensitivity),
                                   "weights pattern " + std::to_string(pattern));
        }
    }
}

// The trained model itself: imported as it was exported, it finds exactly
// the boxes the engine that trained it finds.
TEST_F(ScoreRange, TrainedModelKeepsItsScores) {
    const std::vector<detection> imported = detections_of(trained_, 50);
    const detection own = detect(source_, other_.record(kKeys + 3));
    ASSERT_EQ(own.status, 0);
    std::vector<ostrel_alg_box> own_detections;
    for (const ostrel_alg_box &b : own.boxes)
        if (b.label == 1) own_detections.push_back(b);
    ASSERT_FALSE(own_detections.empty());
    EXPECT_TRUE(same_boxes(imported[1].boxes, own_detections));
}
