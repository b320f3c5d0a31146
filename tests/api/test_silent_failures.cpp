// Which failures are silent. The header lists them: export before training,
// export and import with an empty path, removeSample before training or
// with an index that names no sample (and a negative or unset model id).
// Every other failure logs; a detection that the false-positive filter
// cannot measure (its matrices do not fit one another) logs what was wrong.
// After a failed retraining in removeSample the sample stays removed.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"

using namespace ostrel_test;

namespace {

constexpr int64_t kKeys = 75000;

class SilentFailures : public testing::Test {
protected:
    void SetUp() override {
        picture_ = load_blood_picture("BloodImage_00000");
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, 4), 0);
        ASSERT_EQ(ostrel_alg_setSensitivity(engine_, 50), 0);
    }
    void TearDown() override {
        EXPECT_EQ(ostrel_alg_destroy(engine_), 0);
        for (const std::string &p : created_) std::remove(p.c_str());
    }
    std::string path(const std::string &name) {
        created_.push_back(temp_path(name));
        return created_.back();
    }
    template <typename Call>
    void expect_silent_failure(Call &&call, const std::string &what) {
        int32_t status = -1;
        const std::string log = capture_stdout([&] { status = call(); });
        EXPECT_EQ(status, 1) << what;
        EXPECT_EQ(log, "") << what;
    }

    blood_picture picture_;
    ostrel_alg *engine_ = nullptr;

private:
    std::vector<std::string> created_;
};

}  // namespace

// Before any training.
TEST_F(SilentFailures, BeforeTraining) {
    const std::string p = path("never.model");
    std::remove(p.c_str());
    expect_silent_failure([&] { return ostrel_alg_exportModel_ptr(engine_, p.c_str()); }, "export");
    EXPECT_TRUE(read_bytes(p).empty()) << "no file is created";
    expect_silent_failure([&] { return ostrel_alg_exportModel_ptr(engine_, ""); }, "export, empty path");
    expect_silent_failure([&] { return ostrel_alg_importModel_ptr(engine_, ""); }, "import, empty path");
    expect_silent_failure([&] { return ostrel_alg_removeSample(engine_, 0); }, "removeSample");
    uint32_t id = 77;
    expect_silent_failure([&] { return ostrel_alg_getModelId(engine_, &id); }, "getModelId, unset");
    expect_silent_failure([&] { return ostrel_alg_setModelId(engine_, -3); }, "setModelId, negative");
    EXPECT_EQ(id, 77u);
}

// After training.
TEST_F(SilentFailures, AfterTraining) {
    ASSERT_EQ(set_up(engine_, picture_.record(kKeys + 1), picture_.boxes), 0);
    uint32_t count = 0;
    ostrel_alg_sample *samples = nullptr;
    ASSERT_EQ(ostrel_alg_getSamples_ptr(engine_, &samples, &count), 0);
    expect_silent_failure([&] { return ostrel_alg_exportModel_ptr(engine_, ""); }, "export, empty path");
    expect_silent_failure([&] { return ostrel_alg_importModel_ptr(engine_, ""); }, "import, empty path");
    expect_silent_failure([&] { return ostrel_alg_removeSample(engine_, count); }, "removeSample, index = count");
    expect_silent_failure([&] { return ostrel_alg_removeSample(engine_, 0xffffffffu); }, "removeSample, huge index");
    uint32_t after = 0;
    ASSERT_EQ(ostrel_alg_getSamples_ptr(engine_, &samples, &after), 0);
    EXPECT_EQ(after, count) << "nothing was removed";
}

// A filter whose projected mean does not fit its components cannot measure
// any window: the detection fails, and says so.
TEST_F(SilentFailures, FilterThatDoesNotFitLogs) {
    ASSERT_EQ(set_up(engine_, picture_.record(kKeys + 1), picture_.boxes), 0);
    const std::string trained_path = path("trained.model");
    capture_stdout([&] { ASSERT_EQ(ostrel_alg_exportModel_ptr(engine_, trained_path.c_str()), 0); });
    const file_bytes trained = read_bytes(trained_path);
    const int32_t n = i32_at(trained, kWeightCountAt);

    // Two components, but a projected mean and an inverse covariance of
    // three: each matrix passes the file's checks on its own.
    file_bytes b(trained.begin(), trained.begin() + static_cast<long>(kWeightsAt + 4 * n));
    append_f32(b, 15.0f);
    b.push_back(1);
    append_matrix(b, 1, n, 0.0f);
    append_matrix(b, 2, n, 0.01f);
    append_matrix(b, 1, 3, 0.0f);
    append_matrix(b, 3, 3, 1.0f);
    const std::string p = path("mismatched_filter.model");
    write_bytes(p, with_trailer(b));

    ostrel_alg *importer = nullptr;
    ASSERT_EQ(ostrel_alg_create(&importer), 0);
    ASSERT_EQ(ostrel_alg_setSensitivity(importer, 100), 0);
    capture_stdout([&] {
        ASSERT_EQ(ostrel_alg_checkModelValidation_ptr(importer, p.c_str()), 0);
        ASSERT_EQ(ostrel_alg_importModel_ptr(importer, p.c_str()), 0);
    });
    const detection d = detect(importer, picture_.record(kKeys + 2));
    EXPECT_EQ(d.status, 1);
    EXPECT_EQ(d.log, "[Debug] ostrel_alg::runDetector: the false-positive filter cannot measure a window of " +
                         std::to_string(n) + " features (mean 1 x " + std::to_string(n) + ", eigenvectors 2 x " +
                         std::to_string(n) +
                         ", reduce_mean 1 x 3, reduce_inv_covar 3 x 3)\n"
                         "[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:4113)\n");
    EXPECT_EQ(ostrel_alg_destroy(importer), 0);
}

// When the retraining after a removal fails, the removal is not undone:
// status 1, the failure line, and the sample is gone.
TEST_F(SilentFailures, FailedRetrainingKeepsTheSampleRemoved) {
    // One marked cell: removing it leaves only background to train on.
    const std::vector<ostrel_alg_box> one = {picture_.boxes.front()};
    ASSERT_EQ(set_up(engine_, picture_.record(kKeys + 3), one), 0);
    uint32_t count = 0;
    ostrel_alg_sample *samples = nullptr;
    ASSERT_EQ(ostrel_alg_getSamples_ptr(engine_, &samples, &count), 0);
    ASSERT_EQ(count, 1u);
    int32_t status = -1;
    const std::string log = capture_stdout([&] { status = ostrel_alg_removeSample(engine_, 0); });
    EXPECT_EQ(status, 1);
    const std::string failure = "[Alg. FAIL!] ostrel_alg::removeSample (ostrel_alg line:3953)\n";
    ASSERT_GE(log.size(), failure.size());
    EXPECT_EQ(log.substr(log.size() - failure.size()), failure) << log;
    ASSERT_EQ(ostrel_alg_getSamples_ptr(engine_, &samples, &count), 0);
    EXPECT_EQ(count, 0u);
    uint32_t positives = 9, negatives = 0;
    ASSERT_EQ(ostrel_alg_temp_getNumofSamples(engine_, &positives, &negatives), 0);
    EXPECT_EQ(positives, 0u);
    uint8_t trained = 0;
    ASSERT_EQ(ostrel_alg_istraied(engine_, &trained), 0);
    EXPECT_EQ(trained, 1) << "the model of the last successful training stays";
}
