// Real scenes through the public header: objects marked at their own
// sizes, searched in pixels on pictures of any size.
//   - Trained on boxes of three sizes (40, 80 and 160 pixels high), the
//     accurate profile finds objects of the two sizes between them (57 and
//     113) - on a picture of the training size and on a larger one.
//   - An object of a size in pixels is found at that size on pictures of
//     every size (the search is in pixels, not relative to the picture).
//   - Bad input: boxes whose shapes cannot share one window, a range option
//     out of bounds or below the other, and a host range that cannot fit
//     the picture are refused with one clear line and status 1, changing
//     nothing.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "ostrel_alg.h"
#include "support/stdout_capture.h"

namespace {

int64_t fresh_key() {
    static int64_t next = 7000000;
    return next++;
}

int count_lines(const std::string &text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

// A figure of height h at (x, y): a dark body 0.4 h wide with a light band
// across its upper third and a dark round head - the same shape at every
// size. Its box is 0.5 h wide and h high.
ostrel_alg_box draw_figure(cv::Mat &picture, int x, int y, int h) {
    const int w = h / 2;
    const cv::Point centre(x + w / 2, y + h / 2);
    cv::ellipse(picture, cv::Point(centre.x, y + h * 6 / 10), cv::Size(h / 5, h * 3 / 10), 0, 0, 360,
                cv::Scalar(60, 40, 150), cv::FILLED);
    cv::rectangle(picture, cv::Rect(centre.x - h / 5, y + h * 45 / 100, 2 * (h / 5), std::max(2, h / 12)),
                  cv::Scalar(230, 230, 210), cv::FILLED);
    cv::circle(picture, cv::Point(centre.x, y + h * 17 / 100), std::max(2, h / 8), cv::Scalar(40, 30, 30), cv::FILLED);
    return ostrel_alg_box{x, y, w, h, 0.0f, 1, 0, 0};
}

cv::Mat noise_picture(int width, int height, unsigned seed) {
    cv::Mat picture(height, width, CV_8UC3);
    cv::RNG rng(seed);
    rng.fill(picture, cv::RNG::UNIFORM, cv::Scalar(150, 170, 140), cv::Scalar(200, 210, 190));
    cv::GaussianBlur(picture, picture, cv::Size(5, 5), 1.5);
    return picture;
}

float overlap(const ostrel_alg_box &a, const ostrel_alg_box &b) {
    const int x0 = std::max(a.x, b.x), y0 = std::max(a.y, b.y);
    const int x1 = std::min(a.x + a.width, b.x + b.width), y1 = std::min(a.y + a.height, b.y + b.height);
    const float inter = (x1 > x0 && y1 > y0) ? static_cast<float>((x1 - x0) * (y1 - y0)) : 0.0f;
    return inter / (static_cast<float>(a.width * a.height + b.width * b.height) - inter);
}

std::vector<ostrel_alg_box> detect(ostrel_alg *engine, const cv::Mat &picture) {
    const ostrel_alg_image image{
        picture.cols, picture.rows, 3, picture.data, fresh_key(), 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 0);
    std::vector<ostrel_alg_box> found;
    for (uint32_t i = 0; i < count; ++i) {
        if (boxes[i].label == 1 && boxes[i].score >= 0.0f) found.push_back(boxes[i]);
    }
    return found;
}

// An accurate engine trained on figures 40, 80 and 160 pixels high.
ostrel_alg *three_size_engine() {
    cv::Mat picture = noise_picture(800, 600, 1);
    std::vector<ostrel_alg_box> marked;
    for (int i = 0; i < 4; ++i) marked.push_back(draw_figure(picture, 30 + 60 * i, 30, 40));
    for (int i = 0; i < 3; ++i) marked.push_back(draw_figure(picture, 300 + 100 * i, 20, 80));
    for (int i = 0; i < 3; ++i) marked.push_back(draw_figure(picture, 40 + 130 * i, 250, 160));
    // Background that is not the figure: bare bodies and bars.
    for (int i = 0; i < 5; ++i) {
        cv::ellipse(picture, cv::Point(470 + 60 * i, 300), cv::Size(12, 30), 0, 0, 360, cv::Scalar(60, 40, 150),
                    cv::FILLED);
        cv::rectangle(picture, cv::Rect(460 + 60 * i, 450, 30, 8), cv::Scalar(230, 230, 210), cv::FILLED);
    }
    ostrel_alg *engine = nullptr;
    EXPECT_EQ(ostrel_alg_create(&engine), 0);
    EXPECT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    EXPECT_EQ(ostrel_alg_setRandomSeed(engine, 1), 0);
    EXPECT_EQ(ostrel_alg_setSensitivity(engine, 80), 0);  // the default sensitivity of the front ends
    const ostrel_alg_image image{
        picture.cols, picture.rows, 3, picture.data, fresh_key(), 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    EXPECT_EQ(ostrel_alg_setDetector_ptr(engine, &image, marked.data(), static_cast<int32_t>(marked.size())), 0);
    return engine;
}

// Every figure is found by a detection of about its size; few detections
// are anything else.
void expect_found(const std::vector<ostrel_alg_box> &figures, const std::vector<ostrel_alg_box> &found) {
    size_t matched = 0;
    for (const ostrel_alg_box &f : figures) {
        bool hit = false;
        for (const ostrel_alg_box &d : found) hit = hit || overlap(f, d) >= 0.5f;
        EXPECT_TRUE(hit) << "figure " << f.width << " x " << f.height << " at " << f.x << ", " << f.y;
        matched += hit;
    }
    EXPECT_LE(found.size(), matched + 2);
}

TEST(RealScenes, TrainedOnThreeSizesItFindsTheSizesBetweenThem) {
    ostrel_alg *engine = three_size_engine();
    for (const cv::Size size : {cv::Size(800, 600), cv::Size(1600, 900)}) {
        cv::Mat picture = noise_picture(size.width, size.height, 2);
        std::vector<ostrel_alg_box> figures;
        for (int i = 0; i < 3; ++i) figures.push_back(draw_figure(picture, 40 + 90 * i, 40, 57));
        for (int i = 0; i < 3; ++i) figures.push_back(draw_figure(picture, 60 + 150 * i, 250, 113));
        expect_found(figures, detect(engine, picture));
    }
    ostrel_alg_destroy(engine);
}

TEST(RealScenes, AnObjectIsFoundAtItsPixelSizeOnPicturesOfEverySize) {
    ostrel_alg *engine = three_size_engine();
    for (const cv::Size size : {cv::Size(320, 240), cv::Size(640, 480), cv::Size(1920, 1080), cv::Size(500, 1500)}) {
        cv::Mat picture = noise_picture(size.width, size.height, 3);
        const std::vector<ostrel_alg_box> figures = {draw_figure(picture, 100, 60, 80)};
        const std::vector<ostrel_alg_box> found = detect(engine, picture);
        ASSERT_FALSE(found.empty()) << size.width << " x " << size.height;
        EXPECT_GE(overlap(found.front(), figures.front()), 0.5f) << size.width << " x " << size.height;
        EXPECT_NEAR(found.front().height, 80, 12);
    }
    ostrel_alg_destroy(engine);
}

TEST(RealScenes, BoxesWhoseShapesCannotShareAWindowAreRefused) {
    cv::Mat picture = noise_picture(640, 480, 4);
    std::vector<ostrel_alg_box> marked = {draw_figure(picture, 20, 20, 80), draw_figure(picture, 120, 20, 80),
                                          ostrel_alg_box{300, 100, 200, 60, 0.0f, 1, 0, 0}};
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, fresh_key(), 0, 0};
    int32_t status = 0;
    const std::string printed = ostrel_test::capture_stdout([&] {
        status = ostrel_alg_setDetector_ptr(engine, &image, marked.data(), static_cast<int32_t>(marked.size()));
    });
    EXPECT_EQ(status, 1);
    EXPECT_NE(printed.find("boxes whose shapes cannot share one window: box 2 (200 x 60"), std::string::npos)
        << printed;
    EXPECT_NE(printed.find("ostrel_alg::setDetectorWithAutoTrain"), std::string::npos) << printed;
    uint8_t trained = 1;
    ASSERT_EQ(ostrel_alg_istraied(engine, &trained), 0);
    EXPECT_EQ(trained, 0);
    ostrel_alg_destroy(engine);
}

TEST(RealScenes, RangeOptionsOutOfBoundsAreRefusedWithOneLine) {
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    for (const int32_t option : {OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT}) {
        int32_t value = -1;
        ASSERT_EQ(ostrel_alg_getOption(engine, option, &value), 0);
        EXPECT_EQ(value, 0);  // automatic
        for (const int32_t bad : {-1, 1, 7, 16385, INT32_MAX}) {
            int32_t status = 0;
            const std::string printed =
                ostrel_test::capture_stdout([&] { status = ostrel_alg_setOption(engine, option, bad); });
            EXPECT_EQ(status, 1) << bad;
            EXPECT_EQ(count_lines(printed), 1) << printed;
            EXPECT_NE(printed.find("is outside 0 (automatic) and 8..16384"), std::string::npos) << printed;
        }
        EXPECT_EQ(ostrel_alg_setOption(engine, option, 8), 0);
        EXPECT_EQ(ostrel_alg_setOption(engine, option, 16384), 0);
        EXPECT_EQ(ostrel_alg_setOption(engine, option, 0), 0);
    }
    // A minimum above the maximum, either way round.
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 100), 0);
    int32_t status = 0;
    std::string printed = ostrel_test::capture_stdout(
        [&] { status = ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, 200); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(printed, "[Alg.Fail] ostrel_alg_setOption: accurate min height 200 is above the accurate max height\n");
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, 50), 0);
    printed = ostrel_test::capture_stdout(
        [&] { status = ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 40); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(count_lines(printed), 1);
    int32_t value = 0;
    ASSERT_EQ(ostrel_alg_getOption(engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, &value), 0);
    EXPECT_EQ(value, 100);
    ostrel_alg_destroy(engine);
}

TEST(RealScenes, AHostRangeThatCannotFitThePictureIsRefused) {
    ostrel_alg *engine = three_size_engine();
    cv::Mat picture = noise_picture(320, 240, 5);
    const std::vector<ostrel_alg_box> before = detect(engine, picture);
    // Objects 600 to 1200 pixels high: none could show half of itself on a
    // 320 x 240 picture.
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 1200), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, 600), 0);
    const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, fresh_key(), 0, 0};
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    int32_t status = 0;
    std::string printed =
        ostrel_test::capture_stdout([&] { status = ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(count_lines(printed), 1) << printed;
    EXPECT_NE(printed.find("a picture of 320 x 240 cannot be searched for objects 600 to 1200 pixels high"),
              std::string::npos)
        << printed;
    // A range that fits is searched, however far from the taught sizes.
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, 8), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 16), 0);
    EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 0);
    // Back to the automatic range: the engine detects as before.
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, 0), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 0), 0);
    const std::vector<ostrel_alg_box> after = detect(engine, picture);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
        EXPECT_EQ(after[i].x, before[i].x);
        EXPECT_EQ(after[i].score, before[i].score);
    }
    ostrel_alg_destroy(engine);
}

TEST(RealScenes, BoxesThatCannotShareTheTrainedWindowAreRefusedAndTheModelKept) {
    // A second picture whose object has another shape than the window the
    // first picture fixed: one line, status 1, and the engine detects as
    // before (the picture is not added).
    ostrel_alg *engine = three_size_engine();
    cv::Mat test = noise_picture(640, 480, 6);
    draw_figure(test, 100, 100, 80);
    const std::vector<ostrel_alg_box> before = detect(engine, test);
    ASSERT_FALSE(before.empty());
    cv::Mat picture = noise_picture(640, 480, 7);
    std::vector<ostrel_alg_box> marked = {draw_figure(picture, 20, 20, 80),
                                          ostrel_alg_box{300, 100, 240, 60, 0.0f, 1, 0, 0}};
    const ostrel_alg_image image{picture.cols, picture.rows, 3, picture.data, fresh_key(), 0, 0};
    int32_t status = 0;
    const std::string printed = ostrel_test::capture_stdout([&] {
        status = ostrel_alg_setDetector_ptr(engine, &image, marked.data(), static_cast<int32_t>(marked.size()));
    });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(count_lines(printed), 1) << printed;
    EXPECT_NE(printed.find("boxes whose shapes cannot share one window: box 1 (240 x 60"), std::string::npos)
        << printed;
    uint8_t trained = 0;
    ASSERT_EQ(ostrel_alg_istraied(engine, &trained), 0);
    EXPECT_EQ(trained, 1);
    const std::vector<ostrel_alg_box> after = detect(engine, test);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
        EXPECT_EQ(after[i].x, before[i].x);
        EXPECT_EQ(after[i].y, before[i].y);
        EXPECT_EQ(after[i].height, before[i].height);
        EXPECT_EQ(after[i].score, before[i].score);
    }
    ostrel_alg_destroy(engine);
}

TEST(RealScenes, ARefusedRangeOptionKeepsTheValueBefore) {
    ostrel_alg *engine = three_size_engine();
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, 30), 0);
    ASSERT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, 200), 0);
    cv::Mat picture = noise_picture(640, 480, 8);
    draw_figure(picture, 200, 100, 100);
    const std::vector<ostrel_alg_box> before = detect(engine, picture);
    for (const int32_t option : {OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT}) {
        for (const int32_t bad : {-5, 7, 16385}) {
            int32_t status = 0;
            (void)ostrel_test::capture_stdout([&] { status = ostrel_alg_setOption(engine, option, bad); });
            EXPECT_EQ(status, 1);
        }
    }
    int32_t value = 0;
    ASSERT_EQ(ostrel_alg_getOption(engine, OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, &value), 0);
    EXPECT_EQ(value, 30);
    ASSERT_EQ(ostrel_alg_getOption(engine, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT, &value), 0);
    EXPECT_EQ(value, 200);
    const std::vector<ostrel_alg_box> after = detect(engine, picture);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) EXPECT_EQ(after[i].score, before[i].score);
    ostrel_alg_destroy(engine);
}

}  // namespace
