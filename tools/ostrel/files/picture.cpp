#include "files/picture.h"

#include <atomic>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>

#include "cli/tool_error.h"
#include "files/picture_file.h"

namespace ostrel_tool {

namespace {

// Every picture gets its own key: the library reuses the features it computed
// for the last key it saw, so two different pictures must never share one.
int64_t next_picture_key() {
    static std::atomic<int64_t> counter{1};
    return counter++;
}

}  // namespace

ostrel_alg_image Picture::record() const {
    ostrel_alg_image image{};
    image.width = pixels.cols;
    image.height = pixels.rows;
    image.channels = 3;
    image.data = const_cast<uint8_t *>(pixels.ptr<uint8_t>(0));
    image.image_key = key;
    image.aux = 0;
    image.format = OSTREL_ALG_FORMAT_INTERLEAVED;
    return image;
}

Picture load_picture(const std::string &path) {
    namespace fs = std::filesystem;
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        throw input_error("cannot open picture '" + path + "': no such file");
    }
    if (fs::is_directory(path, ec)) {
        throw input_error("cannot read picture '" + path + "': it is a folder");
    }
    if (!fs::is_regular_file(path, ec)) {
        throw input_error("cannot read picture '" + path + "': not a regular file");
    }
    // Sized up before decoding: a small file may claim a huge picture.
    const PictureFacts facts = read_picture_facts(path);
    require_pixels_within_limit(path, facts.width, facts.height);
    if (facts.cut_short) {
        throw input_error("cannot read picture '" + path +
                          "': it is cut short (its JPEG data end before the end-of-image marker)");
    }
    cv::Mat pixels;
    try {
        pixels = cv::imread(path, cv::IMREAD_COLOR);
    } catch (const cv::Exception &) {
        pixels.release();
    }
    if (pixels.empty() || pixels.type() != CV_8UC3) {
        throw input_error("cannot read picture '" + path + "': not a picture format OpenCV can decode");
    }
    // Formats whose header the tool does not read are held to the limit
    // after decoding (OpenCV's own limit applies while it decodes them).
    require_pixels_within_limit(path, pixels.cols, pixels.rows);
    return picture_from_pixels(pixels, path);
}

Picture picture_from_pixels(const cv::Mat &bgr, const std::string &name) {
    Picture picture;
    picture.path = name;
    picture.pixels = bgr.isContinuous() ? bgr : bgr.clone();
    picture.key = next_picture_key();
    return picture;
}

std::string file_name_of(const std::string &path) { return std::filesystem::path(path).filename().string(); }

std::string stem_of(const std::string &path) { return std::filesystem::path(path).stem().string(); }

}  // namespace ostrel_tool
