#include "files/picture_header.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <zlib.h>

namespace ostrel_tool {

namespace {

uint32_t be16(const uint8_t *p) { return (uint32_t(p[0]) << 8) | p[1]; }
uint32_t be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
uint32_t le16(const uint8_t *p) { return uint32_t(p[0]) | (uint32_t(p[1]) << 8); }
uint32_t le32(const uint8_t *p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

// The orientation tag (0x0112) of the first directory of a TIFF structure,
// as EXIF data hold it, read the way OpenCV's decoder reads it: byte order
// "II" little-endian and anything else big-endian (the decoder reads "MM",
// and also a damaged mark, so), the mark 42, the first directory's offset,
// its entries of 12 bytes in turn until the tag (its value a 16-bit number
// in the entry's value field). Reading stops at the first entry that lies
// beyond the data; a tag found before it still counts. 1 (as stored) when
// there is none.
int tiff_orientation(const uint8_t *d, size_t n) {
    if (n < 8) {
        return 1;
    }
    const bool big_endian = !(d[0] == 'I' && d[1] == 'I');
    const auto u16 = [&](size_t at) { return big_endian ? be16(d + at) : le16(d + at); };
    const auto u32 = [&](size_t at) { return big_endian ? be32(d + at) : le32(d + at); };
    if (u16(2) != 42) {
        return 1;
    }
    const size_t directory = u32(4);
    if (directory > n || n - directory < 2) {
        return 1;
    }
    const size_t entries = u16(directory);
    for (size_t k = 0; k < entries; ++k) {
        const size_t entry = directory + 2 + 12 * k;
        if (entry > n || n - entry < 12) {
            return 1;
        }
        if (u16(entry) == 0x0112) {
            return static_cast<int>(u16(entry + 8));
        }
    }
    return 1;
}

// Orientations 5 to 8 turn the picture a quarter: width and height swap.
void apply_orientation(PictureHeader &h, int orientation) {
    h.orientation = orientation;
    if (orientation >= 5 && orientation <= 8) {
        std::swap(h.width, h.height);
    }
}

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
    // The chunks up to IEND, as far as the bytes given reach. The decoder
    // (libpng) takes the first eXIf chunk it accepts: at least 2 bytes, the
    // byte order "MM" or "II", a correct CRC; it holds the TIFF structure
    // directly. One before the image data wins, but one after it counts too.
    size_t i = 8;
    while (i + 8 <= n) {
        const size_t length = be32(d + i);
        const uint8_t *type = d + i + 4;
        if (std::memcmp(type, "IEND", 4) == 0 || length > n - i - 8 || n - i - 8 - length < 4) {
            break;  // the end, or a chunk that goes on beyond the bytes given
        }
        const uint8_t *data = d + i + 8;
        if (std::memcmp(type, "eXIf", 4) == 0 && length >= 2 && data[0] == data[1] &&
            (data[0] == 'M' || data[0] == 'I') &&
            crc32(crc32(0, type, 4), data, static_cast<uInt>(length)) == be32(data + length)) {
            apply_orientation(h, tiff_orientation(data, length));
            break;
        }
        i += 12 + length;  // length, type, data, CRC
    }
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
        const int64_t width = static_cast<int32_t>(le32(d + 18));
        if (width < 0) {
            return h;  // no picture (the decoder refuses it too)
        }
        h.width = width;
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

// The size comes from the first start-of-frame segment; the orientation
// from the first APP1 segment before the scan data (which may follow the
// frame header), its data after the 6 bytes "Exif\0\0" (the decoder does
// not check them, and neither is done here). The segments are walked up to
// the scan data or the end of the bytes given, whichever comes first.
PictureHeader jpeg_header(const uint8_t *d, size_t n) {
    if (n < 4 || d[0] != 0xFF || d[1] != 0xD8) {
        return {};
    }
    PictureHeader frame;
    bool seen_app1 = false;
    int orientation = 1;
    const auto result = [&] {
        if (frame.format == PictureFormat::jpeg) {
            apply_orientation(frame, orientation);
        }
        return frame;
    };
    size_t i = 2;
    while (i + 4 <= n) {
        if (d[i] != 0xFF) {
            return result();  // not at a marker: damaged
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
            return result();  // end of picture or scan data (before any frame header: unknown)
        }
        const size_t length = be16(d + i + 2);
        if (length < 2) {
            return result();
        }
        if (marker == 0xE1 && !seen_app1) {
            seen_app1 = true;
            const size_t available = std::min(length - 2, n - (i + 4));  // the segment's data given
            if (available > 6) {
                orientation = tiff_orientation(d + i + 4 + 6, available - 6);
            }
        }
        if (is_start_of_frame(marker) && frame.format == PictureFormat::unknown) {
            // length, precision, height, width
            if (i + 9 > n || length < 7) {
                return result();
            }
            frame.format = PictureFormat::jpeg;
            frame.height = be16(d + i + 5);
            frame.width = be16(d + i + 7);
        }
        i += 2 + length;
    }
    return result();
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
        case PictureFormat::jpeg:
            return bytes.size() >= 4 && bytes.rfind("\xFF\xD9") != std::string::npos && bytes.rfind("\xFF\xD9") >= 2;
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
