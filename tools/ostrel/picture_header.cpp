#include "picture_header.h"

#include <cstring>

namespace ostrel_tool {

namespace {

uint32_t be16(const uint8_t *p) { return (uint32_t(p[0]) << 8) | p[1]; }
uint32_t be32(const uint8_t *p) { return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3]; }
uint32_t le16(const uint8_t *p) { return uint32_t(p[0]) | (uint32_t(p[1]) << 8); }
uint32_t le32(const uint8_t *p) { return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24); }

PictureHeader png_header(const uint8_t *d, size_t n) {
    static const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    PictureHeader h;
    // Signature, then the IHDR chunk: length, "IHDR", width, height.
    if (n < 24 || std::memcmp(d, signature, 8) != 0 || std::memcmp(d + 12, "IHDR", 4) != 0) {
        return h;
    }
    h.format = PictureFormat::png;
    h.width = be32(d + 16);
    h.height = be32(d + 20);
    return h;
}

PictureHeader bmp_header(const uint8_t *d, size_t n) {
    PictureHeader h;
    if (n < 26 || d[0] != 'B' || d[1] != 'M') {
        return h;
    }
    const uint32_t info_size = le32(d + 14);
    if (info_size == 12) {  // the old OS/2 header: 16-bit sizes
        h.width = le16(d + 18);
        h.height = le16(d + 20);
    } else if (info_size >= 40 && n >= 26) {
        h.width = static_cast<int32_t>(le32(d + 18));
        const int64_t height = static_cast<int32_t>(le32(d + 22));
        h.height = height < 0 ? -height : height;  // negative: rows stored top-down
    } else {
        return h;
    }
    h.format = PictureFormat::bmp;
    return h;
}

bool is_start_of_frame(uint8_t marker) {
    // SOF0..SOF15 except DHT (C4), JPG (C8) and DAC (CC).
    return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

PictureHeader jpeg_header(const uint8_t *d, size_t n) {
    PictureHeader h;
    if (n < 4 || d[0] != 0xFF || d[1] != 0xD8) {
        return h;
    }
    size_t i = 2;
    while (i + 4 <= n) {
        if (d[i] != 0xFF) {
            return h;  // not at a marker: damaged
        }
        const uint8_t marker = d[i + 1];
        if (marker == 0xFF) {  // fill byte
            ++i;
            continue;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {  // markers without a segment
            i += 2;
            continue;
        }
        if (marker == 0xD9 || marker == 0xDA) {
            return h;  // end of picture or scan data before any frame header
        }
        const size_t length = be16(d + i + 2);
        if (length < 2) {
            return h;
        }
        if (is_start_of_frame(marker)) {
            // length, precision, height, width
            if (i + 9 > n || length < 7) {
                return h;
            }
            h.format = PictureFormat::jpeg;
            h.height = be16(d + i + 5);
            h.width = be16(d + i + 7);
            return h;
        }
        i += 2 + length;
    }
    return h;
}

}  // namespace

PictureHeader read_picture_header(const uint8_t *data, size_t size) {
    if (data == nullptr) {
        return {};
    }
    PictureHeader h = png_header(data, size);
    if (h.format == PictureFormat::unknown) {
        h = jpeg_header(data, size);
    }
    if (h.format == PictureFormat::unknown) {
        h = bmp_header(data, size);
    }
    return h;
}

PictureHeader read_picture_header(const std::string &bytes) {
    return read_picture_header(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

bool reaches_picture_end(const std::string &bytes, PictureFormat format) {
    switch (format) {
    case PictureFormat::jpeg: return bytes.size() >= 4 && bytes.rfind("\xFF\xD9") != std::string::npos && bytes.rfind("\xFF\xD9") >= 2;
    case PictureFormat::png: return bytes.find("IEND", 8) != std::string::npos;
    case PictureFormat::bmp:
        return bytes.size() >= 6 && le32(reinterpret_cast<const uint8_t *>(bytes.data()) + 2) <= bytes.size();
    default: return false;
    }
}

const char *media_type(PictureFormat format) {
    switch (format) {
    case PictureFormat::jpeg: return "image/jpeg";
    case PictureFormat::png: return "image/png";
    case PictureFormat::bmp: return "image/bmp";
    default: return "application/octet-stream";
    }
}

const char *file_extension(PictureFormat format) {
    switch (format) {
    case PictureFormat::jpeg: return ".jpg";
    case PictureFormat::png: return ".png";
    case PictureFormat::bmp: return ".bmp";
    default: return "";
    }
}

}  // namespace ostrel_tool
