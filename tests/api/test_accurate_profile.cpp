// The accurate profile through the public header only: trained on one blood
// picture with every red blood cell marked, it ranks the cells of three
// other pictures better than the classic profile does; its model file is
// valid, imports (turning the engine accurate) and detects the same again,
// and a classic model file turns an accurate engine classic; training
// repeats bit for bit with a seed; bad input is refused with a log line.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "ostrel_alg.h"
#include "support/bccd_picture.h"
#include "support/stdout_capture.h"
#include "support/test_data.h"
#include "support/voc.h"

using ostrel_test::data_path;

namespace {

constexpr uint32_t kSeed = 1;
const char *const kTestPictures[] = {"BloodImage_00001", "BloodImage_00003", "BloodImage_00005"};

using picture = ostrel_test::bccd_picture;
using ostrel_test::image_record;
using ostrel_test::load_bccd;
using ostrel_test::overlap;

// Picture keys unique in the process: the last picture's features are kept
// per thread across engines (and tests), and equal keys mean equal pixels.
int64_t fresh_key() {
    static int64_t next = 2000000;
    return next++;
}

int count_lines(const std::string &text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// An engine of one profile trained on BloodImage_00000.
ostrel_alg *trained_engine(int32_t profile) {
    ostrel_alg *engine = nullptr;
    EXPECT_EQ(ostrel_alg_create(&engine), 0);
    EXPECT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, profile), 0);
    EXPECT_EQ(ostrel_alg_setRandomSeed(engine, kSeed), 0);
    const picture training = load_bccd("BloodImage_00000");
    std::vector<ostrel_alg_box> marked = ostrel_test::median_size_boxes(training.objects, "RBC");
    const ostrel_alg_image image = image_record(training.pixels, fresh_key());
    EXPECT_EQ(ostrel_alg_setDetector_ptr(engine, &image, marked.data(), static_cast<int32_t>(marked.size())), 0);
    return engine;
}

// Average precision (all points, detections pooled over the pictures and
// matched greedily at IoU 0.5) of every box an engine reports on the test
// pictures, ranked by score.
double average_precision(ostrel_alg *engine) {
    std::vector<std::pair<float, bool>> ranked;
    size_t objects = 0;
    for (const char *stem : kTestPictures) {
        const picture p = load_bccd(stem);
        const std::vector<ostrel_alg_box> truth = ostrel_test::annotation_boxes(p.objects, "RBC");
        objects += truth.size();
        const ostrel_alg_image image = image_record(p.pixels, fresh_key());
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 0);
        std::vector<ostrel_alg_box> found(boxes, boxes + count);
        found.erase(std::remove_if(found.begin(), found.end(), [](const ostrel_alg_box &b) { return b.score < 0.0f; }),
                    found.end());
        std::stable_sort(found.begin(), found.end(),
                         [](const ostrel_alg_box &a, const ostrel_alg_box &b) { return a.score > b.score; });
        std::vector<bool> used(truth.size(), false);
        for (const ostrel_alg_box &d : found) {
            int best = -1;
            float best_overlap = 0.5f;
            for (size_t t = 0; t < truth.size(); ++t) {
                const float o = overlap(d, truth[t]);
                if (!used[t] && o >= best_overlap) {
                    best = static_cast<int>(t);
                    best_overlap = o;
                }
            }
            if (best >= 0) used[static_cast<size_t>(best)] = true;
            ranked.emplace_back(d.score, best >= 0);
        }
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const std::pair<float, bool> &a, const std::pair<float, bool> &b) {
                         return a.first > b.first;
                     });
    std::vector<double> precision, recall;
    double tp = 0.0;
    for (size_t i = 0; i < ranked.size(); ++i) {
        tp += ranked[i].second ? 1.0 : 0.0;
        precision.push_back(tp / static_cast<double>(i + 1));
        recall.push_back(tp / static_cast<double>(objects));
    }
    for (size_t i = precision.size(); i-- > 1;) precision[i - 1] = std::max(precision[i - 1], precision[i]);
    double ap = 0.0;
    double last_recall = 0.0;
    for (size_t i = 0; i < ranked.size(); ++i) {
        if (ranked[i].second) {
            ap += (recall[i] - last_recall) * precision[i];
            last_recall = recall[i];
        }
    }
    return ap;
}

TEST(AccurateProfile, RanksTheCellsOfThreeOtherPicturesBetterThanTheClassicProfile) {
    ostrel_alg *classic = trained_engine(OSTREL_ALG_PROFILE_CLASSIC);
    ostrel_alg *accurate = trained_engine(OSTREL_ALG_PROFILE_ACCURATE);
    const double classic_ap = average_precision(classic);
    const double accurate_ap = average_precision(accurate);
    std::printf("average precision over %zu pictures: classic %.3f, accurate %.3f\n", std::size(kTestPictures),
                classic_ap, accurate_ap);
    EXPECT_GT(accurate_ap, classic_ap + 0.1);
    ostrel_alg_destroy(classic);
    ostrel_alg_destroy(accurate);
}

TEST(AccurateProfile, ItsModelFileIsValidAndImportsOnlyUnderTheAccurateProfile) {
    ostrel_alg *trained = trained_engine(OSTREL_ALG_PROFILE_ACCURATE);
    const std::string path = testing::TempDir() + "accurate_profile.model";
    ASSERT_EQ(ostrel_alg_exportModel_ptr(trained, path.c_str()), 0);
    EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(trained, path.c_str()), 0);

    // Imported under the accurate profile, it finds the same boxes.
    ostrel_alg *imported = nullptr;
    ASSERT_EQ(ostrel_alg_create(&imported), 0);
    ASSERT_EQ(ostrel_alg_setOption(imported, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(imported, path.c_str()), 0);
    const picture p = load_bccd("BloodImage_00003");
    const ostrel_alg_image first = image_record(p.pixels, fresh_key());
    const ostrel_alg_image second = image_record(p.pixels, fresh_key());
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(ostrel_alg_runDetector_ptr(trained, &first, &boxes, &count), 0);
    std::vector<ostrel_alg_box> expected;
    for (uint32_t i = 0; i < count; ++i) {
        if (boxes[i].label == 1) expected.push_back(boxes[i]);
    }
    ASSERT_FALSE(expected.empty());
    ASSERT_EQ(ostrel_alg_runDetector_ptr(imported, &second, &boxes, &count), 0);
    ASSERT_EQ(count, expected.size());  // an imported engine reports no boxes below the threshold
    for (uint32_t i = 0; i < count; ++i) {
        EXPECT_EQ(boxes[i].x, expected[i].x);
        EXPECT_EQ(boxes[i].y, expected[i].y);
        EXPECT_EQ(boxes[i].width, expected[i].width);
        EXPECT_EQ(boxes[i].height, expected[i].height);
        EXPECT_EQ(boxes[i].score, expected[i].score);
    }

    // Under another window option the import is refused with a clear line.
    ostrel_alg *other = nullptr;
    ASSERT_EQ(ostrel_alg_create(&other), 0);
    ASSERT_EQ(ostrel_alg_setOption(other, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    ASSERT_EQ(ostrel_alg_setOption(other, OSTREL_ALG_OPTION_ACCURATE_CELLS, 200), 0);
    int32_t status = 0;
    const std::string printed =
        ostrel_test::capture_stdout([&] { status = ostrel_alg_importModel_ptr(other, path.c_str()); });
    EXPECT_EQ(status, 1);
    EXPECT_NE(printed.find("the model has 1000 weights where the accurate profile's window has"), std::string::npos)
        << printed;
    uint8_t is_trained = 1;
    ASSERT_EQ(ostrel_alg_istraied(other, &is_trained), 0);
    EXPECT_EQ(is_trained, 0);

    ostrel_alg_destroy(trained);
    ostrel_alg_destroy(imported);
    ostrel_alg_destroy(other);
    std::remove(path.c_str());
}

TEST(AccurateProfile, AClassicModelFileMakesAnAccurateEngineClassic) {
    // The file decides: a classic model imported by an engine set to the
    // accurate profile is read as classic, turns the engine classic and
    // detects as the engine that made it.
    ostrel_alg *classic = trained_engine(OSTREL_ALG_PROFILE_CLASSIC);
    const std::string path = testing::TempDir() + "classic_for_accurate.model";
    ASSERT_EQ(ostrel_alg_exportModel_ptr(classic, path.c_str()), 0);
    ostrel_alg *accurate = nullptr;
    ASSERT_EQ(ostrel_alg_create(&accurate), 0);
    ASSERT_EQ(ostrel_alg_setOption(accurate, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    int32_t status = 1;
    const std::string printed =
        ostrel_test::capture_stdout([&] { status = ostrel_alg_importModel_ptr(accurate, path.c_str()); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(printed, "");
    int32_t profile = -1;
    ASSERT_EQ(ostrel_alg_getOption(accurate, OSTREL_ALG_OPTION_PROFILE, &profile), 0);
    EXPECT_EQ(profile, OSTREL_ALG_PROFILE_CLASSIC);
    const picture p = load_bccd("BloodImage_00003");
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    const ostrel_alg_image first = image_record(p.pixels, fresh_key());
    ASSERT_EQ(ostrel_alg_runDetector_ptr(classic, &first, &boxes, &count), 0);
    std::vector<ostrel_alg_box> expected;
    for (uint32_t i = 0; i < count; ++i) {
        if (boxes[i].label == 1) expected.push_back(boxes[i]);
    }
    const ostrel_alg_image second = image_record(p.pixels, fresh_key());
    ASSERT_EQ(ostrel_alg_runDetector_ptr(accurate, &second, &boxes, &count), 0);
    std::vector<ostrel_alg_box> found;
    for (uint32_t i = 0; i < count; ++i) {
        if (boxes[i].label == 1) found.push_back(boxes[i]);
    }
    ASSERT_EQ(found.size(), expected.size());
    for (size_t i = 0; i < found.size(); ++i) {
        EXPECT_EQ(found[i].x, expected[i].x);
        EXPECT_EQ(found[i].y, expected[i].y);
        EXPECT_EQ(found[i].score, expected[i].score);
    }
    ostrel_alg_destroy(classic);
    ostrel_alg_destroy(accurate);
    std::remove(path.c_str());
}

TEST(AccurateProfile, TheSameSeedGivesTheSameModelFile) {
    ostrel_alg *a = trained_engine(OSTREL_ALG_PROFILE_ACCURATE);
    ostrel_alg *b = trained_engine(OSTREL_ALG_PROFILE_ACCURATE);
    const std::string pa = testing::TempDir() + "accurate_a.model";
    const std::string pb = testing::TempDir() + "accurate_b.model";
    ASSERT_EQ(ostrel_alg_exportModel_ptr(a, pa.c_str()), 0);
    ASSERT_EQ(ostrel_alg_exportModel_ptr(b, pb.c_str()), 0);
    EXPECT_FALSE(file_bytes(pa).empty());
    EXPECT_EQ(file_bytes(pa), file_bytes(pb));
    ostrel_alg_destroy(a);
    ostrel_alg_destroy(b);
    std::remove(pa.c_str());
    std::remove(pb.c_str());
}

std::vector<ostrel_alg_box> detect(ostrel_alg *engine, const ostrel_alg_image &image) {
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 0);
    return std::vector<ostrel_alg_box>(boxes, boxes + count);
}

void expect_same_boxes(const std::vector<ostrel_alg_box> &a, const std::vector<ostrel_alg_box> &b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].x, b[i].x);
        EXPECT_EQ(a[i].y, b[i].y);
        EXPECT_EQ(a[i].width, b[i].width);
        EXPECT_EQ(a[i].score, b[i].score);
        EXPECT_EQ(a[i].label, b[i].label);
    }
}

TEST(AccurateProfile, ClassicAndAccurateEnginesOnOneThreadNeverShareFeatures) {
    ostrel_alg *classic = trained_engine(OSTREL_ALG_PROFILE_CLASSIC);
    ostrel_alg *accurate = trained_engine(OSTREL_ALG_PROFILE_ACCURATE);
    const picture p = load_bccd("BloodImage_00005");
    // Alone, each on a key of its own.
    const std::vector<ostrel_alg_box> classic_alone = detect(classic, image_record(p.pixels, fresh_key()));
    const std::vector<ostrel_alg_box> accurate_alone = detect(accurate, image_record(p.pixels, fresh_key()));
    // Alternating on one key, on this thread.
    const ostrel_alg_image shared = image_record(p.pixels, fresh_key());
    for (int round = 0; round < 2; ++round) {
        expect_same_boxes(detect(classic, shared), classic_alone);
        expect_same_boxes(detect(accurate, shared), accurate_alone);
    }
    ostrel_alg_destroy(classic);
    ostrel_alg_destroy(accurate);
}

TEST(AccurateProfile, EnginesOnTwoThreadsDetectAsTheyDoOneAfterTheOther) {
    ostrel_alg *engines[2] = {trained_engine(OSTREL_ALG_PROFILE_ACCURATE), trained_engine(OSTREL_ALG_PROFILE_ACCURATE)};
    std::vector<picture> pictures;
    for (const char *stem : kTestPictures) pictures.push_back(load_bccd(stem));
    std::vector<std::vector<ostrel_alg_box>> serial;
    for (const picture &p : pictures) serial.push_back(detect(engines[0], image_record(p.pixels, fresh_key())));
    std::vector<std::vector<ostrel_alg_box>> found[2];
    std::vector<int64_t> keys;
    for (size_t i = 0; i < 2 * pictures.size(); ++i) keys.push_back(fresh_key());
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (size_t i = 0; i < pictures.size(); ++i) {
                found[t].push_back(detect(engines[t], image_record(pictures[i].pixels, keys[t * pictures.size() + i])));
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    for (int t = 0; t < 2; ++t) {
        ASSERT_EQ(found[t].size(), serial.size());
        for (size_t i = 0; i < serial.size(); ++i) expect_same_boxes(found[t][i], serial[i]);
    }
    ostrel_alg_destroy(engines[0]);
    ostrel_alg_destroy(engines[1]);
}

class AccurateBadInput : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ostrel_alg_create(&engine_), 0);
        ASSERT_EQ(ostrel_alg_setOption(engine_, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    }
    void TearDown() override { ostrel_alg_destroy(engine_); }

    // Trains on a grey picture of the given size with one box; returns the
    // status and the log lines.
    int32_t train(int width, int height, ostrel_alg_box box, std::string *printed) {
        cv::Mat pixels(height, width, CV_8UC3, cv::Scalar::all(128));
        const ostrel_alg_image image = image_record(pixels, fresh_key());
        int32_t status = 0;
        *printed = ostrel_test::capture_stdout([&] { status = ostrel_alg_setDetector_ptr(engine_, &image, &box, 1); });
        return status;
    }

    ostrel_alg *engine_ = nullptr;
};

TEST_F(AccurateBadInput, ABoxTooSmallForAWindowIsRefused) {
    std::string printed;
    EXPECT_EQ(train(640, 480, ostrel_alg_box{100, 100, 4, 4, 0.0f, 1, 0, 0}, &printed), 1);
    EXPECT_NE(printed.find("the object is too small for a window"), std::string::npos) << printed;
}

TEST_F(AccurateBadInput, APictureSmallerThanAWindowIsRefused) {
    std::string printed;
    EXPECT_EQ(train(50, 50, ostrel_alg_box{0, 0, 100, 100, 0.0f, 1, 0, 0}, &printed), 1);
    EXPECT_NE(printed.find("the picture is smaller than a window"), std::string::npos) << printed;
}

TEST_F(AccurateBadInput, AnAbsurdBoxIsRefused) {
    std::string printed;
    EXPECT_EQ(train(640, 480, ostrel_alg_box{0, 0, INT32_MAX, 5, 0.0f, 1, 0, 0}, &printed), 1);
    EXPECT_EQ(train(640, 480, ostrel_alg_box{0, 0, -20, 40, 0.0f, 1, 0, 0}, &printed), 1);
    EXPECT_NE(printed.find("cannot be learnt"), std::string::npos) << printed;
}

TEST_F(AccurateBadInput, BoxesWithoutAnObjectAreRefused) {
    std::string printed;
    EXPECT_EQ(train(640, 480, ostrel_alg_box{100, 100, 64, 64, 0.0f, -1, 0, 0}, &printed), 1);
    EXPECT_NE(printed.find("no box is labelled 1"), std::string::npos) << printed;
    EXPECT_EQ(count_lines(printed), 1) << printed;
}

TEST_F(AccurateBadInput, PicturesOfAnySizeAreSearchedWithoutReadingPastThem) {
    // Trained on dark squares, the detector searches pictures of any size
    // (each is resampled to the working size), down to one pixel; every box
    // it reports lies inside the picture.
    cv::Mat pixels(240, 320, CV_8UC3, cv::Scalar::all(200));
    std::vector<ostrel_alg_box> marked;
    for (int i = 0; i < 4; ++i) {
        marked.push_back(ostrel_alg_box{20 + 70 * i, 40 + 30 * (i % 2), 40, 40, 0.0f, 1, 0, 0});
        cv::rectangle(pixels, cv::Rect(30 + 70 * i, 50 + 30 * (i % 2), 20, 20), cv::Scalar::all(30), cv::FILLED);
    }
    const ostrel_alg_image image = image_record(pixels, fresh_key());
    ASSERT_EQ(ostrel_alg_setDetector_ptr(engine_, &image, marked.data(), static_cast<int32_t>(marked.size())), 0);
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(3, 2000), cv::Size(2000, 3), cv::Size(640, 480)}) {
        cv::Mat other(size, CV_8UC3, cv::Scalar::all(90));
        const ostrel_alg_image record = image_record(other, fresh_key());
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        ASSERT_EQ(ostrel_alg_runDetector_ptr(engine_, &record, &boxes, &count), 0);
        for (uint32_t i = 0; i < count; ++i) {
            EXPECT_GE(boxes[i].x, 0);
            EXPECT_GE(boxes[i].y, 0);
            EXPECT_LE(boxes[i].x + boxes[i].width, size.width);
            EXPECT_LE(boxes[i].y + boxes[i].height, size.height);
        }
    }
}

}  // namespace
