// A failed import changes nothing: whatever the file gets wrong (values the
// record check refuses, a filter the filter check refuses, a file cut
// short, a hostile weight count, a missing file), the engine afterwards is
// the engine before it - the same model, filter and threshold, the same
// samples and thumbnails, the same detections - and none of the file's
// values ever becomes active.
#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/blood_host.h"

using namespace ostrel_test;

namespace {

// Picture keys of this file: detection keeps the features of the last key
// per thread, so every file of the test program keeps keys of its own.
constexpr int64_t kKeys = 71000;
constexpr uint32_t kSeed = 5;

class FailedImport : public testing::Test {
protected:
    void SetUp() override {
        first_ = load_blood_picture("BloodImage_00000");
        second_ = load_blood_picture("BloodImage_00001");
        ASSERT_FALSE(first_.pixels.empty());
        ASSERT_FALSE(second_.pixels.empty());
    }
    void TearDown() override {
        for (const std::string &p : created_) std::remove(p.c_str());
    }
    std::string path(const std::string &name) {
        created_.push_back(temp_path(name));
        return created_.back();
    }
    // An engine trained on two pictures, so that it holds a filter as well.
    ostrel_alg *trained_engine() {
        ostrel_alg *engine = nullptr;
        EXPECT_EQ(ostrel_alg_create(&engine), 0);
        EXPECT_EQ(ostrel_alg_setRandomSeed(engine, kSeed), 0);
        EXPECT_EQ(ostrel_alg_setSensitivity(engine, 50), 0);
        EXPECT_EQ(set_up(engine, first_.record(kKeys + 1), first_.boxes), 0);
        const ostrel_alg_box &learnt = first_.boxes.front();
        EXPECT_EQ(set_up(engine, second_.record(kKeys + 2), at_size(second_.boxes, learnt.width, learnt.height)), 0);
        return engine;
    }
    // The engine's own model, exported.
    file_bytes exported(ostrel_alg *engine) {
        const std::string p = path("source.model");
        capture_stdout([&] { EXPECT_EQ(ostrel_alg_exportModel_ptr(engine, p.c_str()), 0); });
        return read_bytes(p);
    }
    // Files that import refuses, each with what is wrong with it.
    std::vector<std::pair<std::string, file_bytes>> refused_files(const file_bytes &good) {
        std::vector<std::pair<std::string, file_bytes>> files;
        auto edited = [&](const std::string &what, size_t at, int32_t value) {
            file_bytes b = without_trailer(good);
            put_i32_at(b, at, value);
            files.emplace_back(what, with_trailer(b));
        };
        edited("trained_width 0", kTrainedWidthAt, 0);
        edited("input_width 0", kInputWidthAt, 0);
        edited("class_idx -1", kClassIdxAt, -1);
        edited("200 weights", kWeightCountAt, 200);
        edited("hostile weight count", kWeightCountAt, INT_MAX);
        // A filter with 15 components: read in full, then refused by its check.
        const int32_t n = i32_at(good, kWeightCountAt);
        file_bytes filter15(good.begin(), good.begin() + static_cast<long>(kWeightsAt + 4 * n + 4));
        filter15.push_back(1);
        append_matrix(filter15, 1, n, 0.0f);
        append_matrix(filter15, 15, n, 0.5f);
        append_matrix(filter15, 1, 15, 0.0f);
        append_matrix(filter15, 15, 15, 1.0f);
        files.emplace_back("15 filter components", with_trailer(filter15));
        // Cut inside the filter block, after a record that passes.
        files.emplace_back("cut inside the filter",
                           file_bytes(good.begin(), good.begin() + static_cast<long>(kWeightsAt + 4 * n + 40)));
        files.emplace_back("cut inside the weights", file_bytes(good.begin(), good.begin() + 100));
        files.emplace_back("empty file", file_bytes());
        return files;
    }

    blood_picture first_;
    blood_picture second_;

private:
    std::vector<std::string> created_;
};

}  // namespace

// A trained engine keeps everything through every refused file: its
// model, filter and threshold (the exported bytes), its samples and
// thumbnails, and its detections.
TEST_F(FailedImport, TrainedEngineIsLeftExactlyAsItWas) {
    ostrel_alg *engine = trained_engine();
    const file_bytes good = exported(engine);
    ASSERT_GT(good.size(), kWeightsAt + 4 * static_cast<size_t>(i32_at(good, kWeightCountAt)) + 12 + 200)
        << "the engine should hold a filter";
    const ostrel_alg_image probe = first_.record(kKeys + 3);
    const std::string view_path = path("view.model");
    const engine_view before = observe(engine, probe, view_path);
    ASSERT_EQ(before.trained, 1);
    ASSERT_GT(before.thumbnails, 0u);
    ASSERT_EQ(before.found.status, 0);
    ASSERT_FALSE(before.found.boxes.empty());

    for (const auto &[what, content] : refused_files(good)) {
        const std::string p = path("refused.model");
        write_bytes(p, content);
        int32_t status = -1;
        const std::string log = capture_stdout([&] { status = ostrel_alg_importModel_ptr(engine, p.c_str()); });
        EXPECT_EQ(status, 1) << what;
        EXPECT_FALSE(log.empty()) << what << ": a failed import says why";
        expect_same_view(before, observe(engine, probe, view_path), what);
    }

    // A missing file and an empty path change nothing either.
    const std::string missing = path("missing.model");
    std::remove(missing.c_str());
    capture_stdout([&] { EXPECT_EQ(ostrel_alg_importModel_ptr(engine, missing.c_str()), 1); });
    expect_same_view(before, observe(engine, probe, view_path), "missing file");
    capture_stdout([&] { EXPECT_EQ(ostrel_alg_importModel_ptr(engine, ""), 1); });
    expect_same_view(before, observe(engine, probe, view_path), "empty path");

    // The samples that survived still train: removing one retrains.
    std::string log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_removeSample(engine, 0), 0); });
    EXPECT_NE(log.find("[Alg. Scc] Training done...\n"), std::string::npos) << log;
    EXPECT_EQ(ostrel_alg_destroy(engine), 0);
}

// A fresh engine stays untrained after a refused file: the rejected values
// never become a model that detects.
TEST_F(FailedImport, FreshEngineStaysUntrained) {
    ostrel_alg *source = trained_engine();
    const file_bytes good = exported(source);
    EXPECT_EQ(ostrel_alg_destroy(source), 0);

    for (const auto &[what, content] : refused_files(good)) {
        const std::string p = path("refused_fresh.model");
        write_bytes(p, content);
        ostrel_alg *engine = nullptr;
        ASSERT_EQ(ostrel_alg_create(&engine), 0);
        capture_stdout([&] { EXPECT_EQ(ostrel_alg_importModel_ptr(engine, p.c_str()), 1) << what; });
        uint8_t trained = 9;
        EXPECT_EQ(ostrel_alg_istraied(engine, &trained), 0);
        EXPECT_EQ(trained, 0) << what;
        const detection d = detect(engine, first_.record(kKeys + 4));
        EXPECT_EQ(d.status, 1) << what << ": detection before any model";
        EXPECT_EQ(d.log, "[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:1135)\n") << what;
        EXPECT_EQ(ostrel_alg_destroy(engine), 0);
    }
}

// After a refused file, the previous model still imports and replaces the
// engine's model as before: a good import after a bad one is unaffected.
TEST_F(FailedImport, GoodImportAfterARefusedOneWorks) {
    ostrel_alg *source = trained_engine();
    const file_bytes good = exported(source);
    const std::string good_path = path("good.model");
    write_bytes(good_path, good);
    const detection expected = detect(source, first_.record(kKeys + 5));
    EXPECT_EQ(ostrel_alg_destroy(source), 0);

    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    ASSERT_EQ(ostrel_alg_setSensitivity(engine, 50), 0);
    const std::string bad_path = path("bad.model");
    file_bytes bad = without_trailer(good);
    put_i32_at(bad, kTrainedWidthAt, 0);
    write_bytes(bad_path, with_trailer(bad));
    capture_stdout([&] { EXPECT_EQ(ostrel_alg_importModel_ptr(engine, bad_path.c_str()), 1); });
    capture_stdout([&] { EXPECT_EQ(ostrel_alg_importModel_ptr(engine, good_path.c_str()), 0); });
    const detection found = detect(engine, first_.record(kKeys + 5));
    EXPECT_EQ(found.status, 0);
    // The imported engine was never set up, so it reports no boxes below
    // the threshold; its detections are the source's.
    std::vector<ostrel_alg_box> source_detections;
    for (const ostrel_alg_box &b : expected.boxes)
        if (b.label == 1) source_detections.push_back(b);
    EXPECT_TRUE(same_boxes(found.boxes, source_detections));
    const std::string again = path("again.model");
    capture_stdout([&] { EXPECT_EQ(ostrel_alg_exportModel_ptr(engine, again.c_str()), 0); });
    EXPECT_TRUE(read_bytes(again) == good);
    EXPECT_EQ(ostrel_alg_destroy(engine), 0);
}
