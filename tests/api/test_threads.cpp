// Engines on many threads, through the public header: four threads, each
// with its own engine, train on their own shipped picture (seeded) and
// detect on twenty pictures, five times over, all at the same time. Every
// thread's models, boxes and log messages must equal those of the same work
// run on one thread, one engine after the other; the log handler must
// receive whole messages only. The README's test command also runs this
// under ThreadSanitizer.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"
#include "support/test_data.h"
#include "support/voc.h"

using ostrel_test::data_path;

namespace {

constexpr int kThreads = 4;
constexpr int kRepeats = 5;
constexpr int kDetectionPictures = 20;

struct training_set {
    cv::Mat pixels;
    std::vector<ostrel_alg_box> boxes;
    uint32_t seed = 0;
};

// What one unit of work produced.
struct work_result {
    std::vector<uint8_t> model;
    std::vector<std::vector<ostrel_alg_box>> boxes;  // per detection picture
    std::vector<std::string> messages;
    int32_t failures = 0;
};

// The numbers of the shipped blood pictures.
constexpr int kShippedPictures[] = {0, 1, 2, 3, 4, 5, 6, 8};

std::string stem(int i) {
    char name[32];
    std::snprintf(name, sizeof name, "BloodImage_%05d", i);
    return name;
}

// The eight shipped pictures and their mirror images: twenty pictures.
std::vector<cv::Mat> detection_pictures() {
    std::vector<cv::Mat> originals;
    for (int i : kShippedPictures) originals.push_back(cv::imread(data_path("bccd/images/" + stem(i) + ".jpg")));
    std::vector<cv::Mat> pictures = originals;
    for (int flip : {1, 0}) {
        for (const cv::Mat &original : originals) {
            if (static_cast<int>(pictures.size()) == kDetectionPictures) break;
            cv::Mat mirrored;
            cv::flip(original, mirrored, flip);
            pictures.push_back(mirrored);
        }
    }
    return pictures;
}

std::vector<uint8_t> read_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Messages per thread: the handler files each under the thread it runs on.
struct messages_by_thread {
    std::mutex lock;
    std::map<std::thread::id, std::vector<std::string>> messages;
};

void record_by_thread(const char *message, void *user) {
    auto *all = static_cast<messages_by_thread *>(user);
    std::lock_guard<std::mutex> hold(all->lock);
    all->messages[std::this_thread::get_id()].emplace_back(message);
}

std::vector<std::string> take_messages_of_this_thread(messages_by_thread &all) {
    std::lock_guard<std::mutex> hold(all.lock);
    std::vector<std::string> mine = std::move(all.messages[std::this_thread::get_id()]);
    all.messages.erase(std::this_thread::get_id());
    return mine;
}

work_result run_work(const training_set &training, const std::vector<cv::Mat> &pictures, const std::string &model_path,
                     messages_by_thread &messages) {
    work_result result;
    ostrel_alg *engine = nullptr;
    if (ostrel_alg_create(&engine) != 0) {
        result.failures = 1;
        return result;
    }
    result.failures += ostrel_alg_setRandomSeed(engine, training.seed);
    result.failures += ostrel_alg_setSensitivity(engine, 60);
    const ostrel_alg_image train_image{
        training.pixels.cols, training.pixels.rows, 3, training.pixels.data, 1000, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    result.failures += ostrel_alg_setDetector_ptr(engine, &train_image, training.boxes.data(),
                                                  static_cast<int32_t>(training.boxes.size()));
    for (size_t i = 0; i < pictures.size(); ++i) {
        const ostrel_alg_image image{pictures[i].cols,
                                     pictures[i].rows,
                                     3,
                                     pictures[i].data,
                                     static_cast<int64_t>(i + 1),
                                     0,
                                     OSTREL_ALG_FORMAT_INTERLEAVED};
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        result.failures += ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count);
        result.boxes.emplace_back(boxes, boxes + count);
    }
    result.failures += ostrel_alg_exportModel_ptr(engine, model_path.c_str());
    result.failures += ostrel_alg_checkModelValidation_ptr(engine, model_path.c_str());
    result.model = read_bytes(model_path);
    std::remove(model_path.c_str());
    result.failures += ostrel_alg_destroy(engine);
    result.messages = take_messages_of_this_thread(messages);
    return result;
}

bool same_boxes(const std::vector<ostrel_alg_box> &a, const std::vector<ostrel_alg_box> &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].x != b[i].x || a[i].y != b[i].y || a[i].width != b[i].width || a[i].height != b[i].height ||
            a[i].score != b[i].score || a[i].label != b[i].label || a[i].color_main != b[i].color_main ||
            a[i].color_second != b[i].color_second) {
            return false;
        }
    }
    return true;
}

class ThreadedEngines : public testing::Test {
protected:
    void SetUp() override {
        pictures_ = detection_pictures();
        ASSERT_EQ(static_cast<int>(pictures_.size()), kDetectionPictures);
        for (const cv::Mat &picture : pictures_) ASSERT_FALSE(picture.empty());
        // Each thread trains on a picture of its own, with a seed of its own.
        const int training_pictures[kThreads] = {0, 3, 5, 8};
        for (int t = 0; t < kThreads; ++t) {
            training_set set;
            set.pixels = cv::imread(data_path("bccd/images/" + stem(training_pictures[t]) + ".jpg"));
            ASSERT_FALSE(set.pixels.empty());
            set.boxes = ostrel_test::median_size_boxes(
                ostrel_test::read_voc(data_path("bccd/annotations/" + stem(training_pictures[t]) + ".xml")), "RBC");
            ASSERT_FALSE(set.boxes.empty());
            set.seed = 1000u + static_cast<uint32_t>(t);
            training_.push_back(set);
        }
        ASSERT_EQ(ostrel_alg_setLogHandler(&record_by_thread, &messages_), 0);
    }
    void TearDown() override { EXPECT_EQ(ostrel_alg_setLogHandler(nullptr, nullptr), 0); }

    std::string model_path(int thread, int repeat) const {
        return testing::TempDir() + "ostrel_threads_" + std::to_string(thread) + "_" + std::to_string(repeat) +
               ".model";
    }

    std::vector<cv::Mat> pictures_;
    std::vector<training_set> training_;
    messages_by_thread messages_;
};

TEST_F(ThreadedEngines, FourThreadsGiveTheResultsOfOneThread) {
    // The reference: the same work, one engine after the other, here.
    std::vector<work_result> serial;
    for (int t = 0; t < kThreads; ++t) {
        serial.push_back(run_work(training_[t], pictures_, model_path(t, -1), messages_));
        ASSERT_EQ(serial.back().failures, 0);
        ASSERT_GT(serial.back().model.size(), 32u);
        ASSERT_FALSE(serial.back().messages.empty());
    }
    // Different trainings give different models: the comparison below can tell threads apart.
    EXPECT_NE(serial[0].model, serial[1].model);

    std::vector<std::vector<work_result>> threaded(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int r = 0; r < kRepeats; ++r) {
                threaded[t].push_back(run_work(training_[t], pictures_, model_path(t, r), messages_));
            }
        });
    }
    for (std::thread &thread : threads) thread.join();

    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(threaded[t].size(), static_cast<size_t>(kRepeats));
        for (int r = 0; r < kRepeats; ++r) {
            const work_result &got = threaded[t][r];
            SCOPED_TRACE("thread " + std::to_string(t) + ", repeat " + std::to_string(r));
            EXPECT_EQ(got.failures, 0);
            EXPECT_EQ(got.model, serial[t].model);
            ASSERT_EQ(got.boxes.size(), serial[t].boxes.size());
            for (size_t p = 0; p < got.boxes.size(); ++p) {
                EXPECT_TRUE(same_boxes(got.boxes[p], serial[t].boxes[p])) << "picture " << p;
            }
            // Whole messages only: the same messages, in the same order, as
            // on one thread, each one complete.
            EXPECT_EQ(got.messages, serial[t].messages);
            for (const std::string &message : got.messages) {
                const size_t line_end = message.find('\n');
                EXPECT_TRUE(line_end == std::string::npos || line_end + 1 == message.size()) << message;
            }
        }
    }
}

// The last picture's features are kept per thread: on one thread a second
// engine reuses them for the same key (the host promised equal pixels), and
// an engine on another thread computes its own.
TEST_F(ThreadedEngines, TheLastPictureIsSharedOnAThreadOnly) {
    ostrel_alg *a = nullptr, *b = nullptr;
    ASSERT_EQ(ostrel_alg_create(&a), 0);
    ASSERT_EQ(ostrel_alg_create(&b), 0);
    for (ostrel_alg *engine : {a, b}) {
        ASSERT_EQ(ostrel_alg_setRandomSeed(engine, 5), 0);
        const ostrel_alg_image image{
            training_[0].pixels.cols,     training_[0].pixels.rows, 3, training_[0].pixels.data, 1000, 0,
            OSTREL_ALG_FORMAT_INTERLEAVED};
        ASSERT_EQ(ostrel_alg_setDetector_ptr(engine, &image, training_[0].boxes.data(),
                                             static_cast<int32_t>(training_[0].boxes.size())),
                  0);
    }
    auto detect = [](ostrel_alg *engine, const cv::Mat &pixels, int64_t key) {
        const ostrel_alg_image image{pixels.cols, pixels.rows, 3, pixels.data, key, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 0);
        return std::vector<ostrel_alg_box>(boxes, boxes + count);
    };
    const cv::Mat &first = pictures_[1];
    const cv::Mat &other = pictures_[9];  // a different picture
    const std::vector<ostrel_alg_box> of_first = detect(a, first, 77);
    const std::vector<ostrel_alg_box> of_other = detect(b, other, 78);
    ASSERT_FALSE(same_boxes(of_first, of_other));

    // Engine a detects `first` with key 55; engine b, same thread, is given
    // `other` with the same key and reuses the features of `first`.
    detect(a, first, 55);
    EXPECT_TRUE(same_boxes(detect(b, other, 55), of_first));

    // On another thread the key means nothing yet: b computes `other` afresh.
    std::vector<ostrel_alg_box> on_other_thread;
    std::thread([&] { on_other_thread = detect(b, other, 55); }).join();
    EXPECT_TRUE(same_boxes(on_other_thread, of_other));

    EXPECT_EQ(ostrel_alg_destroy(a), 0);
    EXPECT_EQ(ostrel_alg_destroy(b), 0);
}

}  // namespace
