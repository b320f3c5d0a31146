// Pictures are sized up from their header before decoding, and a JPEG cut
// short is recognised by its missing end-of-image marker.
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "cli/tool_error.h"
#include "files/picture.h"
#include "files/picture_file.h"
#include "support/test_data.h"
#include "tools/support/tool_test_support.h"

using namespace ostrel_tool;
namespace fs = std::filesystem;

namespace {

std::string png_claiming(uint32_t w, uint32_t h) {
    std::string s("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16);
    for (uint32_t v : {w, h}) {
        for (int shift = 24; shift >= 0; shift -= 8) s.push_back(static_cast<char>((v >> shift) & 0xff));
    }
    return s + std::string("\x08\x02\0\0\0", 5) + "....";
}

// SOI, an APP0 segment, SOF0 of w x h, then SOS: only the header.
std::string jpeg_claiming(uint16_t w, uint16_t h) {
    std::string s("\xFF\xD8\xFF\xE0\x00\x04xx\xFF\xC0\x00\x11\x08", 13);
    for (uint16_t v : {h, w}) {
        s.push_back(static_cast<char>(v >> 8));
        s.push_back(static_cast<char>(v & 0xff));
    }
    return s + std::string("\x03\x01\x11\x00\x02\x11\x00\x03\x11\x00\xFF\xDA", 12);
}

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

PictureFacts facts_of(const std::string &bytes) {
    return picture_facts_from_header(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

bool jpeg_complete(const std::string &bytes) {
    JpegEndScanner scanner;
    scanner.feed(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    return scanner.complete();
}

}  // namespace

TEST(PictureFacts, SizesComeFromTheHeader) {
    const PictureFacts png = facts_of(png_claiming(30000, 20000));
    EXPECT_EQ(png.kind, PictureFormat::png);
    EXPECT_EQ(png.width, 30000);
    EXPECT_EQ(png.height, 20000);
    const PictureFacts jpeg = facts_of(jpeg_claiming(30000, 20000));
    EXPECT_EQ(jpeg.kind, PictureFormat::jpeg);
    EXPECT_EQ(jpeg.width, 30000);
    EXPECT_EQ(jpeg.height, 20000);
    const PictureFacts real = facts_of(file_bytes(ostrel_test::data_path("bccd/images/BloodImage_00000.jpg")));
    EXPECT_EQ(real.width, 640);
    EXPECT_EQ(real.height, 480);
    EXPECT_EQ(facts_of("not a picture").kind, PictureFormat::unknown);
}

TEST(JpegEnd, AWholeFileReachesItsEndAndACutOneDoesNot) {
    const std::string whole = file_bytes(ostrel_test::data_path("bccd/images/BloodImage_00001.jpg"));
    EXPECT_TRUE(jpeg_complete(whole));
    EXPECT_FALSE(jpeg_complete(whole.substr(0, whole.size() / 2)));
    EXPECT_FALSE(jpeg_complete(whole.substr(0, whole.size() - 2)));
    // Bytes after the end-of-image marker do not matter.
    EXPECT_TRUE(jpeg_complete(whole + std::string(100, '\0')));
}

TEST(JpegEnd, AThumbnailsEndMarkerDoesNotCountForTheMainPicture) {
    // A thumbnail (its own scan and end marker) inside the metadata, then
    // the main picture's scan, cut short.
    const std::string thumbnail("\xFF\xD8\xFF\xDA\x01\x02\xFF\xD9", 8);
    const std::string cut = std::string("\xFF\xD8\xFF\xE1", 4) + thumbnail + std::string("\xFF\xDA\x05\x06\xFF\x00", 6);
    EXPECT_FALSE(jpeg_complete(cut));
    EXPECT_TRUE(jpeg_complete(cut + "\xFF\xD9"));
}

TEST(LoadPicture, APictureAboveTheLimitIsRefusedFromItsHeader) {
    const fs::path dir = fs::temp_directory_path() / "ostrel_picture_file";
    fs::remove_all(dir);
    fs::create_directories(dir);
    std::ofstream(dir / "huge.png", std::ios::binary) << png_claiming(30000, 20000);
    std::ofstream(dir / "huge.jpg", std::ios::binary) << jpeg_claiming(30000, 20000);
    for (const char *name : {"huge.png", "huge.jpg"}) {
        const std::string message = message_of([&] { load_picture((dir / name).string()); });
        EXPECT_NE(message.find("30000x20000 pixels, above the limit of 134217728 pixels (the default; "
                               "--max-pixels raises it)"),
                  std::string::npos)
            << message;
    }
    fs::remove_all(dir);
}

// The default limit can be raised up to the library's own: a 12000 x 12000
// picture passes the size check then (and fails here only because the file
// holds nothing but a header), a 30000 x 20000 one never does.
TEST(LoadPicture, TheLimitCanBeRaisedToTheLibrarysOwn) {
    const fs::path dir = fs::temp_directory_path() / "ostrel_picture_file_raised";
    fs::remove_all(dir);
    fs::create_directories(dir);
    std::ofstream(dir / "large.png", std::ios::binary) << png_claiming(12000, 12000);
    std::ofstream(dir / "huge.png", std::ios::binary) << png_claiming(30000, 20000);
    const std::string large = (dir / "large.png").string(), huge = (dir / "huge.png").string();
    EXPECT_NE(message_of([&] { load_picture(large); }).find("above the limit of 134217728"), std::string::npos);
    set_max_picture_pixels(kLargestMaxPicturePixels);
    const std::string raised = message_of([&] { load_picture(large); });
    EXPECT_FALSE(raised.empty());
    EXPECT_EQ(raised.find("above the limit"), std::string::npos) << raised;
    EXPECT_NE(message_of([&] {
                  load_picture(huge);
              }).find("above the limit of 268435456 pixels (the library's own limit)"),
              std::string::npos);
    set_max_picture_pixels(kDefaultMaxPicturePixels);
    fs::remove_all(dir);
}

TEST(LoadPicture, TheLimitCanBeLoweredAndACutJpegIsRefused) {
    const std::string picture = ostrel_test::data_path("bccd/images/BloodImage_00000.jpg");
    set_max_picture_pixels(640 * 480 - 1);
    EXPECT_NE(message_of([&] { load_picture(picture); }).find("set by --max-pixels"), std::string::npos);
    set_max_picture_pixels(640 * 480);
    EXPECT_EQ(load_picture(picture).width(), 640);
    set_max_picture_pixels(kDefaultMaxPicturePixels);

    const fs::path cut = fs::temp_directory_path() / "ostrel_cut.jpg";
    const std::string whole = file_bytes(picture);
    std::ofstream(cut, std::ios::binary) << whole.substr(0, whole.size() / 2);
    EXPECT_NE(message_of([&] { load_picture(cut.string()); }).find("cut short"), std::string::npos);
    fs::remove(cut);
}
