#include "picture_file.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <vector>

#include "tool_error.h"
#include "tool_output.h"

namespace ostrel_tool {

namespace {

std::atomic<int64_t> g_max_pixels{kDefaultMaxPicturePixels};

// JPEG files may carry long metadata (EXIF, ICC profiles, thumbnails) before
// their frame header; 1 MiB holds every real one.
constexpr size_t kHeaderBytes = 1 << 20;
constexpr size_t kScanBlock = 1 << 16;

uint32_t be16(const uint8_t *p) { return (uint32_t(p[0]) << 8) | p[1]; }
uint32_t be32(const uint8_t *p) { return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3]; }
uint32_t le32(const uint8_t *p) { return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24); }

bool png_facts(const uint8_t *d, size_t n, PictureFacts &f) {
    static const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    if (n < 8 || std::memcmp(d, signature, 8) != 0) {
        return false;
    }
    f.kind = PictureKind::png;
    if (n >= 24 && std::memcmp(d + 12, "IHDR", 4) == 0) {
        f.width = be32(d + 16);
        f.height = be32(d + 20);
    }
    return true;
}

bool bmp_facts(const uint8_t *d, size_t n, PictureFacts &f) {
    if (n < 26 || d[0] != 'B' || d[1] != 'M') {
        return false;
    }
    f.kind = PictureKind::bmp;
    const uint32_t info_size = le32(d + 14);
    if (info_size == 12) {  // the old OS/2 header: 16-bit sizes
        f.width = d[18] | (d[19] << 8);
        f.height = d[20] | (d[21] << 8);
    } else if (info_size >= 40) {
        const int64_t width = static_cast<int32_t>(le32(d + 18));
        const int64_t height = static_cast<int32_t>(le32(d + 22));
        f.width = width < 0 ? -width : width;
        f.height = height < 0 ? -height : height;  // negative: rows stored top-down
    }
    return true;
}

bool is_start_of_frame(uint8_t marker) {
    // SOF0..SOF15 except DHT (C4), JPG (C8) and DAC (CC).
    return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

bool jpeg_facts(const uint8_t *d, size_t n, PictureFacts &f) {
    if (n < 3 || d[0] != 0xFF || d[1] != 0xD8 || d[2] != 0xFF) {
        return false;
    }
    f.kind = PictureKind::jpeg;
    size_t i = 2;
    while (i + 4 <= n && d[i] == 0xFF) {
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
            return true;  // no frame header before the data: the size stays unknown
        }
        const size_t length = be16(d + i + 2);
        if (length < 2) {
            return true;
        }
        if (is_start_of_frame(marker)) {
            if (i + 9 <= n && length >= 7) {
                f.height = be16(d + i + 5);
                f.width = be16(d + i + 7);
            }
            return true;
        }
        i += 2 + length;
    }
    return true;
}

}  // namespace

void set_max_picture_pixels(int64_t pixels) { g_max_pixels = pixels; }
int64_t max_picture_pixels() { return g_max_pixels; }

PictureFacts picture_facts_from_header(const uint8_t *data, size_t size) {
    PictureFacts f;
    if (data == nullptr) {
        return f;
    }
    if (!png_facts(data, size, f) && !jpeg_facts(data, size, f) && !bmp_facts(data, size, f)) {
        f = PictureFacts{};
    }
    return f;
}

void JpegEndScanner::feed(const uint8_t *data, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        const uint8_t byte = data[i];
        if (previous_ff_) {
            if (byte == 0xDA) {
                seen_scan_ = true;
                end_after_scan_ = false;
            } else if (byte == 0xD9 && seen_scan_) {
                end_after_scan_ = true;
            }
        }
        previous_ff_ = byte == 0xFF;
    }
}

PictureFacts read_picture_facts(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw input_error("cannot read picture '" + path + "'");
    }
    // The file's size bounds what is read, so that a small picture costs
    // no megabyte buffer.
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    std::vector<uint8_t> head(size > 0 ? std::min<size_t>(kHeaderBytes, static_cast<size_t>(size)) : kHeaderBytes);
    in.read(reinterpret_cast<char *>(head.data()), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(in.gcount()));
    PictureFacts f = picture_facts_from_header(head.data(), head.size());
    if (f.kind == PictureKind::jpeg) {
        JpegEndScanner scanner;
        scanner.feed(head.data(), head.size());
        std::vector<uint8_t> block(kScanBlock);
        while (in) {
            in.read(reinterpret_cast<char *>(block.data()), static_cast<std::streamsize>(block.size()));
            scanner.feed(block.data(), static_cast<size_t>(in.gcount()));
        }
        f.cut_short = !scanner.complete();
    }
    return f;
}

void require_pixels_within_limit(const std::string &path, int64_t width, int64_t height) {
    const int64_t limit = max_picture_pixels();
    // Both sides are below 2^32, so the product fits.
    if (width > 0 && height > 0 && width * height > limit) {
        throw input_error(strformat("picture '%s' is %lldx%lld pixels, above the limit of %lld pixels (%s)",
                                    path.c_str(), static_cast<long long>(width), static_cast<long long>(height),
                                    static_cast<long long>(limit),
                                    limit == kDefaultMaxPicturePixels  ? "the default; --max-pixels raises it"
                                    : limit == kLargestMaxPicturePixels ? "the library's own limit"
                                                                        : "set by --max-pixels"));
    }
}

}  // namespace ostrel_tool
