#include "support/exif_pictures.h"

#include <stdexcept>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <zlib.h>

namespace ostrel_test {

namespace {

void put16(std::string &s, uint32_t v, bool big_endian) {
    const char b[2] = {static_cast<char>(v & 0xff), static_cast<char>((v >> 8) & 0xff)};
    s += big_endian ? std::string{b[1], b[0]} : std::string{b[0], b[1]};
}

void put32(std::string &s, uint32_t v, bool big_endian) {
    if (big_endian) {
        put16(s, v >> 16, true);
        put16(s, v & 0xffff, true);
    } else {
        put16(s, v & 0xffff, false);
        put16(s, v >> 16, false);
    }
}

std::string encoded(const cv::Mat &pixels, const char *extension) {
    std::vector<uint8_t> bytes;
    if (!cv::imencode(extension, pixels, bytes)) {
        throw std::runtime_error("cannot encode the test picture");
    }
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace

std::string exif_orientation_tiff(int orientation, bool big_endian) {
    std::string t = big_endian ? "MM" : "II";
    put16(t, 42, big_endian);
    put32(t, 8, big_endian);  // the first directory follows the header
    put16(t, 1, big_endian);  // one entry
    put16(t, 0x0112, big_endian);
    put16(t, 3, big_endian);  // SHORT
    put32(t, 1, big_endian);  // one value, held in the entry itself
    put16(t, static_cast<uint32_t>(orientation), big_endian);
    put16(t, 0, big_endian);
    put32(t, 0, big_endian);  // no further directory
    return t;
}

std::string jpeg_with_orientation(const cv::Mat &stored, int orientation, bool big_endian) {
    const std::string jpeg = encoded(stored, ".jpg");
    const std::string body = std::string("Exif\0\0", 6) + exif_orientation_tiff(orientation, big_endian);
    std::string app1 = "\xFF\xE1";
    put16(app1, static_cast<uint32_t>(body.size() + 2), true);
    return jpeg.substr(0, 2) + app1 + body + jpeg.substr(2);
}

std::string png_with_orientation(const cv::Mat &stored, int orientation) {
    const std::string png = encoded(stored, ".png");
    const std::string body = exif_orientation_tiff(orientation, true);
    std::string chunk;
    put32(chunk, static_cast<uint32_t>(body.size()), true);
    const std::string typed = "eXIf" + body;
    chunk += typed;
    put32(chunk, static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef *>(typed.data()), typed.size())), true);
    const size_t after_ihdr = 8 + 4 + 4 + 13 + 4;  // signature, IHDR's length, type, body and CRC
    return png.substr(0, after_ihdr) + chunk + png.substr(after_ihdr);
}

cv::Mat stored_for_orientation(const cv::Mat &upright, int orientation) {
    cv::Mat out;
    switch (orientation) {
        case 2: cv::flip(upright, out, 1); break;
        case 3: cv::flip(upright, out, -1); break;
        case 4: cv::flip(upright, out, 0); break;
        case 5: cv::transpose(upright, out); break;
        case 6: cv::rotate(upright, out, cv::ROTATE_90_COUNTERCLOCKWISE); break;
        case 7:
            cv::transpose(upright, out);
            cv::flip(out, out, -1);
            break;
        case 8: cv::rotate(upright, out, cv::ROTATE_90_CLOCKWISE); break;
        default: out = upright.clone(); break;
    }
    return out;
}

}  // namespace ostrel_test
