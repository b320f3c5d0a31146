#include "files/picture_file.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <vector>

#include "cli/tool_error.h"
#include "cli/tool_output.h"

namespace ostrel_tool {

namespace {

std::atomic<int64_t> g_max_pixels{kDefaultMaxPicturePixels};

// JPEG files may carry long metadata (EXIF, ICC profiles, thumbnails) before
// their frame header; 1 MiB holds every real one.
constexpr size_t kHeaderBytes = 1 << 20;
constexpr size_t kScanBlock = 1 << 16;

}  // namespace

void set_max_picture_pixels(int64_t pixels) { g_max_pixels = pixels; }
int64_t max_picture_pixels() { return g_max_pixels; }

PictureFacts picture_facts_from_header(const uint8_t *data, size_t size) {
    PictureFacts f;
    const PictureHeader header = read_picture_header(data, size);
    f.kind = header.format;
    f.width = header.width;
    f.height = header.height;
    // A JPEG whose frame header is missing or lies beyond the bytes read is
    // still a JPEG here, of unknown size: it is scanned for its end all the
    // same.
    if (f.kind == PictureFormat::unknown && data != nullptr && size >= 3 && data[0] == 0xFF && data[1] == 0xD8 &&
        data[2] == 0xFF) {
        f.kind = PictureFormat::jpeg;
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
    if (f.kind == PictureFormat::jpeg) {
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
                                    limit == kDefaultMaxPicturePixels   ? "the default; --max-pixels raises it"
                                    : limit == kLargestMaxPicturePixels ? "the library's own limit"
                                                                        : "set by --max-pixels"));
    }
}

}  // namespace ostrel_tool
