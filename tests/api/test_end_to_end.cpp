// The whole pipeline through the public header only: train on one blood
// picture with every red blood cell marked, detect on three others, and
// check that the detections find the annotated cells.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"
#include "support/test_data.h"
#include "support/voc.h"

using ostrel_test::data_path;

namespace {

constexpr uint32_t kSeed = 20261121;

struct picture {
    cv::Mat pixels;
    std::vector<ostrel_test::voc_object> objects;
};

picture load_bccd(const std::string &stem) {
    picture p;
    p.pixels = cv::imread(data_path("bccd/images/" + stem + ".jpg"), cv::IMREAD_COLOR);
    p.objects = ostrel_test::read_voc(data_path("bccd/annotations/" + stem + ".xml"));
    return p;
}

ostrel_alg_image image_record(const cv::Mat &pixels, int64_t key) {
    return ostrel_alg_image{pixels.cols, pixels.rows, 3, pixels.data, key, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
}

float overlap(const ostrel_alg_box &a, const ostrel_alg_box &b) {
    const int x0 = std::max(a.x, b.x), y0 = std::max(a.y, b.y);
    const int x1 = std::min(a.x + a.width, b.x + b.width), y1 = std::min(a.y + a.height, b.y + b.height);
    const float inter = (x1 > x0 && y1 > y0) ? static_cast<float>((x1 - x0) * (y1 - y0)) : 0.0f;
    return inter / (static_cast<float>(a.width * a.height + b.width * b.height) - inter);
}

class EndToEnd : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine_, kSeed), 0);
        ASSERT_EQ(ostrel_alg_setSensitivity(engine_, 50), 0);
        training_ = load_bccd("BloodImage_00000");
        ASSERT_FALSE(training_.pixels.empty());
        marked_ = ostrel_test::median_size_boxes(training_.objects, "RBC");
        ASSERT_GE(marked_.size(), 10u);
        const ostrel_alg_image image = image_record(training_.pixels, 1);
        ASSERT_EQ(ostrel_alg_setDetector_ptr(engine_, &image, marked_.data(), static_cast<int32_t>(marked_.size())), 0);
    }
    void TearDown() override { ASSERT_EQ(ostrel_alg_destroy(engine_), 0); }

    ostrel_alg *engine_ = nullptr;
    picture training_;
    std::vector<ostrel_alg_box> marked_;
};

}  // namespace

// After set-up the engine is trained and holds one thumbnail per marked box.
TEST_F(EndToEnd, SetUpTrainsTheEngine) {
    uint8_t trained = 0;
    ASSERT_EQ(ostrel_alg_istraied(engine_, &trained), 0);
    EXPECT_EQ(trained, 1);
    ostrel_alg_sample *samples = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(ostrel_alg_getSamples_ptr(engine_, &samples, &count), 0);
    EXPECT_EQ(count, marked_.size());
    uint32_t positives = 0, negatives = 0;
    ASSERT_EQ(ostrel_alg_temp_getNumofSamples(engine_, &positives, &negatives), 0);
    EXPECT_GE(positives, marked_.size());
    EXPECT_GE(negatives, 10u);
}

// Detections on three other pictures: valid scores and colours, and a recall
// of the annotated red blood cells that only a working pipeline reaches.
TEST_F(EndToEnd, DetectionsFindAnnotatedCells) {
    int annotated = 0, found = 0, detections = 0, correct = 0;
    int64_t key = 100;
    for (const std::string stem : {"BloodImage_00001", "BloodImage_00002", "BloodImage_00003"}) {
        const picture p = load_bccd(stem);
        ASSERT_FALSE(p.pixels.empty()) << stem;
        const ostrel_alg_image image = image_record(p.pixels, ++key);
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        ASSERT_EQ(ostrel_alg_runDetector_ptr(engine_, &image, &boxes, &count), 0) << stem;
        const std::vector<ostrel_alg_box> truth = ostrel_test::annotation_boxes(p.objects, "RBC");
        std::vector<bool> hit(truth.size(), false);
        for (uint32_t i = 0; i < count; ++i) {
            const ostrel_alg_box &b = boxes[i];
            EXPECT_GT(b.score, 0.0f);
            EXPECT_LE(b.score, 1.0f);
            EXPECT_TRUE(b.label == 1 || b.label == -1);
            if (b.label != 1) {
                continue;
            }
            EXPECT_GE(b.color_main, 0);
            EXPECT_LE(b.color_main, 8);
            EXPECT_GE(b.color_second, 0);
            EXPECT_LE(b.color_second, 9);
            ++detections;
            bool matched = false;
            for (size_t t = 0; t < truth.size(); ++t) {
                if (overlap(b, truth[t]) >= 0.3f) {
                    hit[t] = true;
                    matched = true;
                }
            }
            correct += matched ? 1 : 0;
        }
        annotated += static_cast<int>(truth.size());
        for (bool h : hit) found += h ? 1 : 0;
    }
    const double recall = annotated ? static_cast<double>(found) / annotated : 0.0;
    const double precision = detections ? static_cast<double>(correct) / detections : 0.0;
    std::fprintf(stderr, "end-to-end: %d detections, precision %.2f, recall %.2f (%d of %d cells)\n", detections,
                 precision, recall, found, annotated);
    EXPECT_GE(recall, 0.25);
}
