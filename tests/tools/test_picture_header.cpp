// Pictures are sized up from their first bytes before they are decoded.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "picture_header.h"
#include "support/test_data.h"

using namespace ostrel_tool;

namespace {

std::string png_bytes(uint32_t w, uint32_t h) {
    std::string s("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16);
    for (uint32_t v : {w, h}) {
        for (int shift = 24; shift >= 0; shift -= 8) s.push_back(static_cast<char>((v >> shift) & 0xff));
    }
    return s + std::string("\x08\x02\0\0\0", 5) + "....IEND";
}

std::string file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace

TEST(StudioPictureHeader, PngSizeFromItsHeaderChunk) {
    const PictureHeader h = read_picture_header(png_bytes(100000, 7));
    EXPECT_EQ(h.format, PictureFormat::png);
    EXPECT_EQ(h.width, 100000);
    EXPECT_EQ(h.height, 7);
    EXPECT_TRUE(reaches_picture_end(png_bytes(1, 1), PictureFormat::png));
}

TEST(StudioPictureHeader, JpegSizeFromTheFirstFrameHeaderPastOtherSegments) {
    const std::string shipped = file(ostrel_test::data_path("bccd/images/BloodImage_00000.jpg"));
    const PictureHeader h = read_picture_header(shipped);
    EXPECT_EQ(h.format, PictureFormat::jpeg);
    EXPECT_EQ(h.width, 640);
    EXPECT_EQ(h.height, 480);
    EXPECT_TRUE(reaches_picture_end(shipped, PictureFormat::jpeg));
    EXPECT_FALSE(reaches_picture_end(shipped.substr(0, 3000), PictureFormat::jpeg));
    // An application segment, fill bytes, then a progressive frame header.
    const unsigned char raw[] = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x04, 'a', 'b', 0xFF, 0xFF,
                                 0xC2, 0x00, 0x0b, 0x08, 0x01, 0x2c, 0x02, 0x58, 0x03};
    const std::string made(reinterpret_cast<const char *>(raw), sizeof raw);
    const PictureHeader p = read_picture_header(made);
    EXPECT_EQ(p.format, PictureFormat::jpeg);
    EXPECT_EQ(p.width, 600);
    EXPECT_EQ(p.height, 300);
}

TEST(StudioPictureHeader, BmpSizeWithTopDownRows) {
    std::string bmp(54, '\0');
    bmp[0] = 'B';
    bmp[1] = 'M';
    bmp[2] = 54;
    bmp[14] = 40;
    bmp[18] = 0x20;  // width 32
    const int32_t height = -16;  // rows stored top-down
    for (int i = 0; i < 4; ++i) bmp[22 + i] = static_cast<char>((static_cast<uint32_t>(height) >> (8 * i)) & 0xff);
    const PictureHeader h = read_picture_header(bmp);
    EXPECT_EQ(h.format, PictureFormat::bmp);
    EXPECT_EQ(h.width, 32);
    EXPECT_EQ(h.height, 16);
    EXPECT_TRUE(reaches_picture_end(bmp, PictureFormat::bmp));
    EXPECT_FALSE(reaches_picture_end(bmp.substr(0, 40), PictureFormat::bmp));
}

TEST(StudioPictureHeader, AnythingElseIsUnknown) {
    for (const std::string &bytes : {std::string(), std::string("hello"), std::string("GIF89a........"),
                                     png_bytes(1, 1).substr(0, 20), std::string("\xFF\xD8\xFF\xDA\x00\x02", 6),
                                     std::string("\xFF\xD8\xFF\xE0\x00\x01", 6), std::string("BM\0\0", 4)}) {
        EXPECT_EQ(read_picture_header(bytes).format, PictureFormat::unknown) << bytes.size();
    }
    EXPECT_EQ(read_picture_header(nullptr, 10).format, PictureFormat::unknown);
    EXPECT_STREQ(media_type(PictureFormat::unknown), "application/octet-stream");
}
