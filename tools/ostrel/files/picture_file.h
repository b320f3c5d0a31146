// What a picture file promises before it is decoded: its size from the
// header (JPEG, PNG, BMP) and, for a JPEG, whether its data reach the
// end-of-image marker. The tool refuses a picture above its pixel limit
// from the header alone, before the decoder allocates anything, and refuses
// a JPEG cut short (decoders fill the missing part with grey and only warn).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "files/picture_header.h"
#include "ostrel_alg.h"

namespace ostrel_tool {

// The pixel limits of the tool. By default 2^27 (a 16384 x 8192 picture,
// larger than any camera's photo): a picture costs three bytes a pixel
// and more again while it is worked on, in every job at once, so larger
// ones are taken only when asked for (--max-pixels), up to the library's
// own limit, above which the library refuses them anyway. The Python
// package holds pictures to the same limits: it reads both numbers from
// this line and from the library's header when it is installed, so the
// default is written as a plain number.
constexpr int64_t kDefaultMaxPicturePixels = 134217728;  // 2^27
constexpr int64_t kLargestMaxPicturePixels = OSTREL_ALG_MAX_PICTURE_PIXELS;
static_assert(kDefaultMaxPicturePixels == int64_t{1} << 27, "the default limit is 2^27 pixels");

// The limit every picture read from a file is held to (width x height), for
// the whole process; commands set it from --max-pixels.
void set_max_picture_pixels(int64_t pixels);
int64_t max_picture_pixels();

struct PictureFacts {
    PictureFormat kind = PictureFormat::unknown;
    int64_t width = 0;  // 0 and 0 when the header gives no size (other formats)
    int64_t height = 0;
    bool cut_short = false;  // JPEG: no end-of-image marker after the last scan
};

// Reads the header from the first bytes of a file (JPEG: up to the first
// start-of-frame segment; metadata before it may be long).
PictureFacts picture_facts_from_header(const uint8_t *data, size_t size);

// Whether JPEG bytes reach their end: an end-of-image marker (FF D9) after
// the start of the last scan (FF DA). Inside scan data every FF byte is
// followed by 00 or a restart marker, so neither marker can appear there by
// chance; a thumbnail in the metadata ends before the main picture's scans.
class JpegEndScanner {
public:
    void feed(const uint8_t *data, size_t size);
    bool complete() const { return seen_scan_ && end_after_scan_; }

private:
    bool previous_ff_ = false;
    bool seen_scan_ = false;
    bool end_after_scan_ = false;
};

// Reads the header of the file and, for a JPEG, scans it to its end (block
// by block). Throws an input error when the file cannot be read.
PictureFacts read_picture_facts(const std::string &path);

// Throws an input error naming path when width x height is above the
// limit: "picture 'P' is WxH pixels, above the limit of N pixels (...)".
void require_pixels_within_limit(const std::string &path, int64_t width, int64_t height);

}  // namespace ostrel_tool
