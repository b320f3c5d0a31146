// The studio's picture store: decoded pictures are cached within a bound in
// bytes; uploads are sized up from their header before anything decodes
// them; a listed file that is no longer a regular file (a FIFO put in its
// place) is refused at once instead of blocking the request; and file names
// that are not UTF-8 are listed under a UTF-8 name that finds them.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <opencv2/imgcodecs.hpp>

#include "studio/api_error.h"
#include "studio/picture_store.h"
#include "support/test_data.h"

using namespace ostrel_tool::studio;
namespace fs = std::filesystem;

namespace {

std::string read_all(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_all(const fs::path &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary);
    out << bytes;
}

bool valid_utf8(const std::string &s) {
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        if (n == 0 || i + n > s.size()) return false;
        for (size_t k = 1; k < n; ++k) {
            if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2) return false;
        }
        i += n;
    }
    return true;
}

int status_of(const std::function<void()> &call) {
    try {
        call();
    } catch (const ApiError &e) {
        return e.status();
    }
    return 0;
}

constexpr size_t kShippedBytes = 640 * 480 * 3;  // a shipped picture, decoded

class StudioPictureStore : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() / ("ostrel-studio-store-" + std::to_string(::getpid()));
        fs::remove_all(root_);
        fs::create_directories(root_ / "pictures");
        fs::create_directories(root_ / "uploads");
        for (const auto &entry : fs::directory_iterator(ostrel_test::data_path("bccd/images"))) {
            fs::copy_file(entry.path(), root_ / "pictures" / entry.path().filename());
        }
    }
    void TearDown() override { fs::remove_all(root_); }

    std::unique_ptr<PictureStore> store(PictureLimits limits = {}) {
        return std::make_unique<PictureStore>((root_ / "pictures").string(), (root_ / "uploads").string(), limits);
    }
    std::string shipped(const std::string &name) { return read_all(root_ / "pictures" / name); }

    fs::path root_;
};

}  // namespace

TEST_F(StudioPictureStore, TheCacheIsBoundedInBytesNotInPictures) {
    PictureLimits limits;
    limits.cache_bytes = 2 * kShippedBytes + 1000;
    auto s = store(limits);
    for (const PictureEntry &e : s->list()) {
        const auto picture = s->picture(e.name);
        ASSERT_EQ(picture->width(), 640);
        EXPECT_LE(s->cached_bytes(), limits.cache_bytes) << e.name;
    }
    EXPECT_EQ(s->cached_bytes(), 2 * kShippedBytes);
    // The most recently used ones are kept: asking again gives the same pixels.
    const auto last = s->list().back().name;
    EXPECT_EQ(s->picture(last).get(), s->picture(last).get());
}

TEST_F(StudioPictureStore, APictureLargerThanTheWholeCacheIsDecodedButNotKept) {
    PictureLimits limits;
    limits.cache_bytes = kShippedBytes - 1;
    auto s = store(limits);
    const auto picture = s->picture("BloodImage_00001.jpg");
    EXPECT_EQ(picture->height(), 480);
    EXPECT_EQ(s->cached_bytes(), 0u);
}

TEST_F(StudioPictureStore, UploadsCountAgainstTheSameBound) {
    PictureLimits limits;
    limits.cache_bytes = 3 * kShippedBytes;
    auto s = store(limits);
    for (int i = 0; i < 6; ++i) {
        s->add_upload(shipped("BloodImage_00002.jpg"), "up.jpg");
        EXPECT_LE(s->cached_bytes(), limits.cache_bytes);
    }
    EXPECT_EQ(s->list().size(), 8u + 6u);
}

TEST_F(StudioPictureStore, AnUploadAboveTheMegapixelLimitIsRefusedFromItsHeader) {
    // 16384 x 2441 grey pixels: a PNG of a few dozen KB that would decode to
    // 120 MB of colour pixels.
    std::vector<uint8_t> png;
    ASSERT_TRUE(
        cv::imencode(".png", cv::Mat(2441, 16384, CV_8UC1, cv::Scalar(128)), png, {cv::IMWRITE_PNG_COMPRESSION, 9}));
    EXPECT_LT(png.size(), 200u * 1024);
    auto s = store();
    ASSERT_LT(s->limits().max_pixels, int64_t{16384} * 2441);
    try {
        s->add_upload(std::string(png.begin(), png.end()), "bomb.png");
        ADD_FAILURE() << "the upload was taken";
    } catch (const ApiError &e) {
        EXPECT_EQ(e.status(), 422);
        EXPECT_NE(std::string(e.what()).find("megapixels"), std::string::npos) << e.what();
    }
    EXPECT_EQ(s->cached_bytes(), 0u);
    EXPECT_EQ(s->list().size(), 8u);
    // The limit is whole megapixels: a picture just inside it is taken.
    const int64_t side = 4000;
    const int64_t width = s->limits().max_pixels / side;
    ASSERT_TRUE(
        cv::imencode(".png", cv::Mat(static_cast<int>(side), static_cast<int>(width), CV_8UC1, cv::Scalar(90)), png));
    const PictureEntry e = s->add_upload(std::string(png.begin(), png.end()), "large.png");
    EXPECT_EQ(e.width, width);
}

TEST_F(StudioPictureStore, AListedFileReplacedByAFifoIsRefusedWithoutBlocking) {
    auto s = store();
    const fs::path path = root_ / "pictures" / "BloodImage_00003.jpg";
    fs::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    for (int i = 0; i < 2; ++i) {
        auto answer = std::async(std::launch::async, [&] {
            return i == 0 ? status_of([&] { s->file_bytes("BloodImage_00003.jpg"); })
                          : status_of([&] { s->picture("BloodImage_00003.jpg"); });
        });
        if (answer.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            // Let the blocked reader go (a writer appears and leaves), then fail.
            const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) ::close(fd);
            answer.wait();
            FAIL() << "reading the FIFO blocked";
        }
        EXPECT_EQ(answer.get(), 404) << i;
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK);  // nobody is left reading it
    EXPECT_LT(fd, 0);
    if (fd >= 0) ::close(fd);
    // A file swapped for a folder is refused as well, the others still served.
    fs::remove(root_ / "pictures" / "BloodImage_00004.jpg");
    fs::create_directory(root_ / "pictures" / "BloodImage_00004.jpg");
    EXPECT_EQ(status_of([&] { s->file_bytes("BloodImage_00004.jpg"); }), 404);
    EXPECT_EQ(s->file_bytes("BloodImage_00005.jpg"), shipped("BloodImage_00005.jpg"));
}

TEST_F(StudioPictureStore, NamesThatAreNotUtf8AreListedEscapedAndFoundByThatName) {
    const fs::path folder = root_ / "names";
    fs::create_directory(folder);
    const std::pair<std::string, std::string> files[] = {
        {"cell\xff.jpg", "BloodImage_00000.jpg"},       // a lone byte that is not UTF-8
        {"cell%FF.jpg", "BloodImage_00001.jpg"},        // a real name that looks like the escaped one
        {"caf\xc3\xa9.jpg", "BloodImage_00002.jpg"},    // UTF-8: listed as it is
        {"\xe9t\xe9 50%.jpg", "BloodImage_00003.jpg"},  // Latin-1, with a '%'
        {"half\xe2\x82.jpg", "BloodImage_00004.jpg"},   // a UTF-8 sequence cut short
    };
    for (const auto &f : files) write_all(folder / f.first, shipped(f.second));
    PictureStore s(folder.string(), (root_ / "uploads").string());
    const auto list = s.list();
    ASSERT_EQ(list.size(), 5u);
    std::set<std::string> names;
    for (const PictureEntry &e : list) {
        EXPECT_TRUE(valid_utf8(e.name)) << e.name;
        names.insert(e.name);
    }
    EXPECT_EQ(names.size(), 5u);
    EXPECT_EQ(names.count("cell%FF.jpg"), 1u);
    EXPECT_EQ(names.count("caf\xc3\xa9.jpg"), 1u);
    EXPECT_EQ(names.count("%E9t%E9 50%25.jpg"), 1u);
    EXPECT_EQ(names.count("half%E2%82.jpg"), 1u);
    EXPECT_EQ(names.count("cell%FF-2.jpg"), 1u);  // the escaped form was taken by the real name
    for (const auto &f : files) {
        bool found = false;
        for (const PictureEntry &e : list) {
            if (fs::path(e.path).filename().string() == f.first) {
                found = true;
                EXPECT_EQ(s.file_bytes(e.name), shipped(f.second)) << e.name;
                EXPECT_EQ(s.picture(e.name)->width(), 640);
            }
        }
        EXPECT_TRUE(found) << f.first;
    }
}
