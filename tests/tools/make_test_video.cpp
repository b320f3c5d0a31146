// Writes a short video from pictures, for the command-line tests of
// `ostrel detect` on videos:
//   ostrel_make_test_video OUT FPS FOURCC REPEATS PICTURE...
// The pictures are written REPEATS times in turn, each as one frame, at the
// size of the first one. FOURCC: avc1 (H.264 in .mp4), MJPG (.avi), ...
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

int main(int argc, char **argv) {
    if (argc < 6) {
        std::fprintf(stderr, "usage: %s OUT FPS FOURCC REPEATS PICTURE...\n", argv[0]);
        return 2;
    }
    const std::string out = argv[1];
    const double fps = std::atof(argv[2]);
    const std::string fourcc = argv[3];
    const int repeats = std::atoi(argv[4]);
    std::vector<cv::Mat> pictures;
    for (int i = 5; i < argc; ++i) {
        cv::Mat picture = cv::imread(argv[i], cv::IMREAD_COLOR);
        if (picture.empty()) {
            std::fprintf(stderr, "cannot read %s\n", argv[i]);
            return 1;
        }
        if (!pictures.empty() && picture.size() != pictures.front().size()) {
            cv::resize(picture, picture, pictures.front().size());
        }
        pictures.push_back(picture);
    }
    if (fourcc.size() != 4 || fps <= 0 || repeats < 1) {
        std::fprintf(stderr, "bad FPS, FOURCC or REPEATS\n");
        return 2;
    }
    cv::VideoWriter writer(out, cv::CAP_FFMPEG, cv::VideoWriter::fourcc(fourcc[0], fourcc[1], fourcc[2], fourcc[3]),
                           fps, pictures.front().size());
    if (!writer.isOpened()) {
        std::fprintf(stderr, "cannot write %s\n", out.c_str());
        return 1;
    }
    for (int r = 0; r < repeats; ++r) {
        for (const auto &picture : pictures) {
            writer.write(picture);
        }
    }
    writer.release();
    return 0;
}
