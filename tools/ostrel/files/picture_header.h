// What kind of picture a file holds and how large it is, read from the
// first bytes alone. Pictures (the tool's files, the studio's uploads) are
// sized up this way before anything decodes them, so a small file that
// would unpack into a huge picture is refused without allocating it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ostrel_tool {

enum class PictureFormat { unknown, jpeg, png, bmp };

struct PictureHeader {
    PictureFormat format = PictureFormat::unknown;
    int64_t width = 0;  // upright, as decoded; 0 when the header gives no size
    int64_t height = 0;
    int orientation = 1;  // the EXIF orientation the decoder applies (1: as stored)
};

// Recognises JPEG, PNG and BMP by their signatures and reads the picture's
// size from the header (JPEG: the first start-of-frame segment). format is
// unknown for anything else or for a header cut short.
//
// Phones store a portrait photo on its side and say so with an EXIF
// orientation tag; OpenCV's decoder (IMREAD_COLOR) turns the picture
// upright. The size given here is that upright size (width and height
// swapped for orientations 5 to 8), so that it is the size decoding gives.
// The tag is read where the decoder reads it: a JPEG's first APP1 segment
// (before the scan data), a PNG's first eXIf chunk that libpng accepts
// (before the image data or, within the bytes given, after it).
PictureHeader read_picture_header(const uint8_t *data, size_t size);
PictureHeader read_picture_header(const std::string &bytes);

// True when the bytes reach the picture's end: a JPEG's end-of-image
// marker, a PNG's IEND chunk, a BMP's full file size. Decoders fill a cut
// file with grey instead of failing, so uploads are checked with this.
bool reaches_picture_end(const std::string &bytes, PictureFormat format);

// "image/jpeg", "image/png", "image/bmp"; "application/octet-stream" for unknown.
const char *media_type(PictureFormat format);
// ".jpg", ".png", ".bmp"; "" for unknown.
const char *file_extension(PictureFormat format);

}  // namespace ostrel_tool
