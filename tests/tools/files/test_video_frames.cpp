// Video frames: the start/end syntax, and which frames a choice takes from
// a small MJPEG video written by the test, with their indices and times.
#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "files/video_frames.h"
#include "tools/support/tool_test_support.h"

#if OSTREL_TOOL_VIDEO
#include <opencv2/videoio.hpp>

using namespace ostrel_tool;
namespace fs = std::filesystem;

namespace {

// 30 frames at 10 fps; frame i is filled with grey level 8 * i.
std::string make_video() {
    const std::string path =
        (fs::temp_directory_path() / ("ostrel_frames_" + std::to_string(::getpid()) + ".avi")).string();
    cv::VideoWriter writer(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10.0, cv::Size(64, 48));
    for (int i = 0; i < 30; ++i) {
        writer.write(cv::Mat(48, 64, CV_8UC3, cv::Scalar::all(8 * i)));
    }
    return path;
}

std::vector<int64_t> taken(const std::string &path, const FrameChoice &choice, std::vector<double> *times = nullptr) {
    VideoFrames frames(path, choice);
    EXPECT_TRUE(frames.ok()) << frames.problem();
    std::vector<int64_t> indices;
    VideoFrame frame;
    while (frames.next(frame)) {
        indices.push_back(frame.index);
        if (times != nullptr) {
            times->push_back(frame.time_ms);
        }
        // The pixels are those of that frame (JPEG changes them a little).
        EXPECT_NEAR(frame.pixels.at<cv::Vec3b>(20, 30)[0], 8 * frame.index, 4);
    }
    EXPECT_TRUE(frames.ok()) << frames.problem();
    return indices;
}

class VideoFramesTest : public testing::Test {
protected:
    static void SetUpTestSuite() { path_ = make_video(); }
    static void TearDownTestSuite() { fs::remove(path_); }
    static std::string path_;
};
std::string VideoFramesTest::path_;

}  // namespace

TEST(VideoPoint, FramesSecondsAndTimes) {
    EXPECT_FALSE(parse_video_point("120", "--start").is_time);
    EXPECT_EQ(parse_video_point("120", "--start").frame, 120);
    EXPECT_DOUBLE_EQ(parse_video_point("4.5s", "--start").ms, 4500.0);
    EXPECT_DOUBLE_EQ(parse_video_point("1:30", "--start").ms, 90000.0);
    EXPECT_DOUBLE_EQ(parse_video_point("1:02:03.5", "--start").ms, 3723500.0);
    for (const char *bad : {"", "-1", "1.5", "s", "1:60", "1:2:3:4", "a:10", "4.5.1s", "1e3s"}) {
        EXPECT_EQ(code_of([&] { parse_video_point(bad, "--end"); }), ExitCode::usage) << bad;
    }
}

TEST_F(VideoFramesTest, EveryFrameInOrderWithItsTime) {
    std::vector<double> times;
    const auto indices = taken(path_, FrameChoice{}, &times);
    ASSERT_EQ(indices.size(), 30u);
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(indices[i], i);
        EXPECT_DOUBLE_EQ(times[i], 100.0 * i);
    }
    VideoFrames frames(path_, FrameChoice{});
    EXPECT_DOUBLE_EQ(frames.fps(), 10.0);
    EXPECT_EQ(frames.declared_frames(), 30);
    EXPECT_EQ(frames.frames_to_take(), 30);
}

TEST_F(VideoFramesTest, EveryNthBetweenStartAndEnd) {
    FrameChoice choice;
    choice.every = 4;
    choice.start = parse_video_point("5", "--start");
    choice.end = parse_video_point("2s", "--end");  // frame 20, not taken
    EXPECT_EQ(taken(path_, choice), (std::vector<int64_t>{5, 9, 13, 17}));
    EXPECT_EQ(VideoFrames(path_, choice).frames_to_take(), 4);
    choice.every = 1;
    choice.start = parse_video_point("0:02.55", "--start");  // frame 26 is the first at or after 2.55 s
    choice.end.reset();
    EXPECT_EQ(taken(path_, choice), (std::vector<int64_t>{26, 27, 28, 29}));
    choice.start = parse_video_point("40", "--start");
    EXPECT_TRUE(taken(path_, choice).empty());
}

TEST(VideoFrames, FarStartSeeksToTheRightFrame) {
    // 400 frames; frame i shows i in two grey levels, so a frame that comes
    // from the wrong place is seen.
    const std::string path =
        (fs::temp_directory_path() / ("ostrel_seek_" + std::to_string(::getpid()) + ".avi")).string();
    {
        cv::VideoWriter writer(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 25.0,
                               cv::Size(64, 48));
        for (int i = 0; i < 400; ++i) {
            writer.write(cv::Mat(48, 64, CV_8UC3, cv::Scalar(8 * (i % 32), 8 * (i / 32), 0)));
        }
    }
    FrameChoice choice;
    choice.start = parse_video_point("300", "--start");
    choice.end = parse_video_point("12.2s", "--end");  // frame 305
    VideoFrames frames(path, choice);
    VideoFrame frame;
    std::vector<int64_t> indices;
    while (frames.next(frame)) {
        indices.push_back(frame.index);
        const cv::Vec3b pixel = frame.pixels.at<cv::Vec3b>(20, 30);
        EXPECT_NEAR(pixel[0], 8 * (frame.index % 32), 4) << frame.index;
        EXPECT_NEAR(pixel[1], 8 * (frame.index / 32), 4) << frame.index;
    }
    EXPECT_TRUE(frames.ok()) << frames.problem();
    EXPECT_EQ(indices, (std::vector<int64_t>{300, 301, 302, 303, 304}));
    EXPECT_DOUBLE_EQ(frames.time_of(300), 12000.0);
    fs::remove(path);
}

TEST(VideoFrames, NotAVideoIsAProblem) {
    VideoFrames frames("/nonexistent/clip.mp4", FrameChoice{});
    EXPECT_FALSE(frames.ok());
    EXPECT_EQ(frames.problem(), "cannot read video '/nonexistent/clip.mp4': not a video OpenCV can decode");
    VideoFrame frame;
    EXPECT_FALSE(frames.next(frame));
}
#endif  // OSTREL_TOOL_VIDEO
