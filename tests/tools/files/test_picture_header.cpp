// Pictures are sized up from their first bytes before they are decoded.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <zlib.h>

#include "files/picture_header.h"
#include "support/exif_pictures.h"
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
    const unsigned char raw[] = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x04, 'a',  'b',  0xFF, 0xFF,
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
    bmp[18] = 0x20;              // width 32
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
    // A BMP of negative width (found by fuzzing) is no picture, never a negative size.
    std::string bmp(54, '\0');
    bmp[0] = 'B';
    bmp[1] = 'M';
    bmp[14] = 40;
    for (int i = 18; i < 22; ++i) bmp[i] = '\xff';
    EXPECT_EQ(read_picture_header(bmp).format, PictureFormat::unknown);
    EXPECT_STREQ(media_type(PictureFormat::unknown), "application/octet-stream");
}

namespace {

// A 60 x 40 picture with a mark in its top-left corner, so that every
// orientation stores different pixels.
cv::Mat upright_picture() {
    cv::Mat m(40, 60, CV_8UC3, cv::Scalar(30, 90, 150));
    m(cv::Rect(0, 0, 20, 10)).setTo(cv::Scalar(250, 250, 250));
    return m;
}

cv::Mat decoded(const std::string &bytes) {
    return cv::imdecode(cv::Mat(1, static_cast<int>(bytes.size()), CV_8UC1, const_cast<char *>(bytes.data())),
                        cv::IMREAD_COLOR);
}

}  // namespace

// A phone stores a portrait photo on its side with EXIF orientation 6;
// OpenCV's decoder turns it upright. The header gives the size the decoder
// gives, for all eight orientations, in JPEG (APP1) and PNG (eXIf), so that
// size checks before and after decoding agree.
TEST(StudioPictureHeader, SizeIsTheUprightSizeTheDecoderGives) {
    const cv::Mat upright = upright_picture();
    for (int orientation = 1; orientation <= 8; ++orientation) {
        const cv::Mat stored = ostrel_test::stored_for_orientation(upright, orientation);
        for (const std::string &bytes : {ostrel_test::jpeg_with_orientation(stored, orientation, true),
                                         ostrel_test::jpeg_with_orientation(stored, orientation, false),
                                         ostrel_test::png_with_orientation(stored, orientation)}) {
            const PictureHeader h = read_picture_header(bytes);
            const cv::Mat pixels = decoded(bytes);
            ASSERT_FALSE(pixels.empty());
            EXPECT_EQ(h.orientation, orientation);
            EXPECT_EQ(h.width, pixels.cols) << "orientation " << orientation;
            EXPECT_EQ(h.height, pixels.rows) << "orientation " << orientation;
            EXPECT_EQ(h.width, 60) << "orientation " << orientation;
            EXPECT_EQ(h.height, 40) << "orientation " << orientation;
        }
    }
}

TEST(StudioPictureHeader, OrientationOfTheFirstApplicationSegmentOneOnly) {
    const cv::Mat stored = ostrel_test::stored_for_orientation(upright_picture(), 6);
    const std::string exif = ostrel_test::jpeg_with_orientation(stored, 6);
    // Another APP1 segment (XMP) first: the decoder reads only the first
    // APP1 segment, so the picture is not turned, and neither is the size.
    const std::string xmp_body = "http://ns.adobe.com/xap/1.0/";
    const std::string xmp = std::string("\xFF\xE1\x00", 3) + static_cast<char>(xmp_body.size() + 2) + xmp_body;
    const std::string xmp_first = exif.substr(0, 2) + xmp + exif.substr(2);
    const cv::Mat pixels = decoded(xmp_first);
    ASSERT_FALSE(pixels.empty());
    const PictureHeader h = read_picture_header(xmp_first);
    EXPECT_EQ(h.orientation, 1);
    EXPECT_EQ(h.width, pixels.cols);
    EXPECT_EQ(h.height, pixels.rows);
    // Orientations the decoder does not know (0, 9, 65535) leave the picture as stored.
    for (int odd : {0, 9, 65535}) {
        const std::string bytes = ostrel_test::jpeg_with_orientation(stored, odd);
        const PictureHeader o = read_picture_header(bytes);
        EXPECT_EQ(o.width, decoded(bytes).cols) << odd;
        EXPECT_EQ(o.width, 40) << odd;
    }
}

// Damaged EXIF data: the header reads what the decoder reads (an
// orientation found before the damage still counts), never past the bytes.
TEST(StudioPictureHeader, DamagedExifGivesTheDecodersSize) {
    const cv::Mat stored = ostrel_test::stored_for_orientation(upright_picture(), 6);
    const std::string good = ostrel_test::jpeg_with_orientation(stored, 6);
    const size_t tiff = 2 + 4 + 6;  // SOI, APP1 marker and length, "Exif\0\0"
    std::vector<std::string> damaged;
    std::string s = good;
    s[tiff + 4] = '\x7f';  // the first directory far beyond the segment
    damaged.push_back(s);
    s = good;
    s[tiff + 8] = '\x7f';  // 32512 entries in a segment that holds one
    s[tiff + 9] = '\x00';
    damaged.push_back(s);
    s = good;
    s[tiff + 2] = '\x00';  // not the TIFF mark 42
    s[tiff + 3] = '\x2b';
    damaged.push_back(s);
    s = good;
    s[tiff + 1] = 'I';  // "MI": no byte order (the decoder reads it as big-endian)
    damaged.push_back(s);
    s = good;
    s[tiff] = 'I';  // "II" over big-endian data: the mark reads 0x2a00, not 42
    s[tiff + 1] = 'I';
    damaged.push_back(s);
    for (const std::string &bytes : damaged) {
        const PictureHeader h = read_picture_header(bytes);
        const cv::Mat pixels = decoded(bytes);
        ASSERT_FALSE(pixels.empty());
        EXPECT_EQ(h.format, PictureFormat::jpeg);
        EXPECT_EQ(h.width, pixels.cols) << "damaged case " << (&bytes - damaged.data());
        EXPECT_EQ(h.height, pixels.rows) << "damaged case " << (&bytes - damaged.data());
    }
    // Every cut of the EXIF segment is read without reading past the bytes.
    for (size_t n = 0; n <= good.size() && n < 200; ++n) {
        const PictureHeader h = read_picture_header(reinterpret_cast<const uint8_t *>(good.data()), n);
        EXPECT_TRUE(h.width == 0 || h.width == 40 || h.width == 60) << n;
    }
}

// Random damage to the EXIF data of a phone photo: whenever the decoder
// still decodes it, the header gives the size the decoder gives.
TEST(StudioPictureHeader, DamagedExifNeverDisagreesWithTheDecoder) {
    const cv::Mat stored = ostrel_test::stored_for_orientation(upright_picture(), 6);
    for (const bool big_endian : {true, false}) {
        const std::string good = ostrel_test::jpeg_with_orientation(stored, 6, big_endian);
        const size_t first = 2 + 4;  // the APP1 segment's data
        const size_t end = first + 6 + ostrel_test::exif_orientation_tiff(6).size();
        std::mt19937 random(big_endian ? 7 : 8);
        int compared = 0;
        for (int trial = 0; trial < 1500; ++trial) {
            std::string bytes = good;
            const int changes = 1 + static_cast<int>(random() % 3);
            for (int c = 0; c < changes; ++c) {
                bytes[first + random() % (end - first)] = static_cast<char>(random() % 256);
            }
            const cv::Mat pixels = decoded(bytes);
            const PictureHeader h = read_picture_header(bytes);
            if (pixels.empty() || h.width == 0) {
                continue;
            }
            ++compared;
            ASSERT_EQ(h.width, pixels.cols) << "trial " << trial;
            ASSERT_EQ(h.height, pixels.rows) << "trial " << trial;
        }
        EXPECT_GT(compared, 1000);
    }
    // The same for a PNG's eXIf chunk (its length, type, data and CRC).
    const std::string good = ostrel_test::png_with_orientation(stored, 6);
    std::mt19937 random(9);
    for (int trial = 0; trial < 1500; ++trial) {
        std::string bytes = good;
        bytes[33 + random() % (12 + 26)] = static_cast<char>(random() % 256);
        const cv::Mat pixels = decoded(bytes);
        const PictureHeader h = read_picture_header(bytes);
        if (!pixels.empty()) {
            ASSERT_EQ(h.width, pixels.cols) << "trial " << trial;
            ASSERT_EQ(h.height, pixels.rows) << "trial " << trial;
        }
    }
}

namespace {

std::string png_chunk(const std::string &type, const std::string &data) {
    std::string chunk;
    for (uint32_t v : {static_cast<uint32_t>(data.size())}) {
        for (int shift = 24; shift >= 0; shift -= 8) chunk.push_back(static_cast<char>((v >> shift) & 0xff));
    }
    const std::string typed = type + data;
    const uint32_t crc = static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef *>(typed.data()), typed.size()));
    chunk += typed;
    for (int shift = 24; shift >= 0; shift -= 8) chunk.push_back(static_cast<char>((crc >> shift) & 0xff));
    return chunk;
}

}  // namespace

// libpng takes the first eXIf chunk it accepts (2 bytes at least, "MM" or
// "II", a correct CRC), before the image data or after it; the header
// reads the same one.
TEST(StudioPictureHeader, PngOrientationFromTheChunkTheDecoderTakes) {
    const cv::Mat stored = ostrel_test::stored_for_orientation(upright_picture(), 6);
    std::vector<uint8_t> encoded;
    ASSERT_TRUE(cv::imencode(".png", stored, encoded));
    const std::string png(encoded.begin(), encoded.end());
    const size_t after_ihdr = 33, before_iend = png.size() - 12;
    const std::string six = ostrel_test::exif_orientation_tiff(6), one = ostrel_test::exif_orientation_tiff(1);
    std::string bad_crc = png_chunk("eXIf", six);
    bad_crc.back() = static_cast<char>(bad_crc.back() ^ 1);
    const std::vector<std::string> cases = {
        png.substr(0, after_ihdr) + png_chunk("eXIf", six) + png.substr(after_ihdr),
        png.substr(0, after_ihdr) + bad_crc + png.substr(after_ihdr),
        png.substr(0, after_ihdr) + png_chunk("eXIf", "MI" + six.substr(2)) + png.substr(after_ihdr),
        png.substr(0, after_ihdr) + png_chunk("eXIf", "M") + png.substr(after_ihdr),
        png.substr(0, after_ihdr) + png_chunk("eXIf", one) + png_chunk("eXIf", six) + png.substr(after_ihdr),
        png.substr(0, after_ihdr) + bad_crc + png_chunk("eXIf", six) + png.substr(after_ihdr),
        png.substr(0, before_iend) + png_chunk("eXIf", six) + png.substr(before_iend),
    };
    for (size_t k = 0; k < cases.size(); ++k) {
        const cv::Mat pixels = decoded(cases[k]);
        ASSERT_FALSE(pixels.empty()) << "case " << k;
        const PictureHeader h = read_picture_header(cases[k]);
        EXPECT_EQ(h.width, pixels.cols) << "case " << k;
        EXPECT_EQ(h.height, pixels.rows) << "case " << k;
    }
}
