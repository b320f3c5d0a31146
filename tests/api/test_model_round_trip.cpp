// A trained model survives the file: export, validate, import into a fresh
// engine, and the imported engine detects exactly what the exporting one
// does. Public header only.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"
#include "support/test_data.h"
#include "support/voc.h"

using ostrel_test::capture_stdout;
using ostrel_test::data_path;

namespace {

ostrel_alg_image image_record(const cv::Mat &pixels, int64_t key) {
    return ostrel_alg_image{pixels.cols, pixels.rows, 3, pixels.data, key, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
}

std::vector<ostrel_alg_box> positives(const ostrel_alg_box *boxes, uint32_t count) {
    std::vector<ostrel_alg_box> out;
    for (uint32_t i = 0; i < count; ++i) {
        if (boxes[i].label == 1) out.push_back(boxes[i]);
    }
    return out;
}

std::vector<char> file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(ModelRoundTrip, ImportedEngineDetectsTheSameBoxes) {
    const std::string model_path = testing::TempDir() + "ostrel_round_trip.model";
    std::remove(model_path.c_str());

    const cv::Mat training = cv::imread(data_path("bccd/images/BloodImage_00000.jpg"), cv::IMREAD_COLOR);
    const std::vector<ostrel_alg_box> marked =
        ostrel_test::median_size_boxes(ostrel_test::read_voc(data_path("bccd/annotations/BloodImage_00000.xml")),
                                       "RBC");
    const cv::Mat other = cv::imread(data_path("bccd/images/BloodImage_00006.jpg"), cv::IMREAD_COLOR);
    ASSERT_FALSE(training.empty());
    ASSERT_FALSE(other.empty());

    ostrel_alg *exporter = nullptr;
    ASSERT_EQ(ostrel_alg_create(&exporter), 0);
    ASSERT_EQ(ostrel_alg_setRandomSeed(exporter, 99), 0);
    ASSERT_EQ(ostrel_alg_setSensitivity(exporter, 50), 0);
    const ostrel_alg_image training_image = image_record(training, 1);
    capture_stdout([&] {
        ASSERT_EQ(ostrel_alg_setDetector_ptr(exporter, &training_image, marked.data(),
                                             static_cast<int32_t>(marked.size())),
                  0);
    });
    std::string log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_exportModel_ptr(exporter, model_path.c_str()), 0); });
    log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(exporter, model_path.c_str()), 0); });
    EXPECT_EQ(log, "");

    // The UTF-16 form reads the same file.
    std::u16string wide(model_path.begin(), model_path.end());
    EXPECT_EQ(ostrel_alg_checkModelValidation_bstr(exporter, wide.c_str()), 0);

    ostrel_alg *importer = nullptr;
    ASSERT_EQ(ostrel_alg_create(&importer), 0);
    ASSERT_EQ(ostrel_alg_setSensitivity(importer, 50), 0);
    uint8_t trained = 0;
    ASSERT_EQ(ostrel_alg_istraied(importer, &trained), 0);
    EXPECT_EQ(trained, 0);
    log = capture_stdout([&] { EXPECT_EQ(ostrel_alg_importModel_ptr(importer, model_path.c_str()), 0); });
    EXPECT_EQ(log, "");
    ASSERT_EQ(ostrel_alg_istraied(importer, &trained), 0);
    EXPECT_EQ(trained, 1);

    // Same picture, keys the exporter has never seen: label-1 detections
    // match box for box and score for score.
    for (int64_t key : {500, 501}) {
        const ostrel_alg_image image = image_record(other, key);
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        std::vector<ostrel_alg_box> from_exporter, from_importer;
        capture_stdout([&] {
            ASSERT_EQ(ostrel_alg_runDetector_ptr(exporter, &image, &boxes, &count), 0);
            from_exporter = positives(boxes, count);
            ASSERT_EQ(ostrel_alg_runDetector_ptr(importer, &image, &boxes, &count), 0);
            from_importer = positives(boxes, count);
        });
        ASSERT_FALSE(from_exporter.empty());
        ASSERT_EQ(from_exporter.size(), from_importer.size());
        for (size_t i = 0; i < from_exporter.size(); ++i) {
            EXPECT_EQ(std::memcmp(&from_exporter[i], &from_importer[i], sizeof(ostrel_alg_box)), 0) << "box " << i;
        }
    }

    // Exporting the imported model writes the same bytes.
    const std::string again = testing::TempDir() + "ostrel_round_trip_again.model";
    capture_stdout([&] { EXPECT_EQ(ostrel_alg_exportModel_ptr(importer, again.c_str()), 0); });
    EXPECT_EQ(file_bytes(model_path), file_bytes(again));

    EXPECT_EQ(ostrel_alg_destroy(exporter), 0);
    EXPECT_EQ(ostrel_alg_destroy(importer), 0);
    std::remove(model_path.c_str());
    std::remove(again.c_str());
}
