// Fuzz target: the picture-header reader of the ostrel tool and the studio
// (format, size and EXIF orientation from a picture's first bytes) and the
// check that a JPEG reaches its end-of-image marker. The first byte chooses
// how the rest is read:
//   0  as a whole file's first bytes;
//   1  as the TIFF structure of the first APP1 segment of a JPEG whose frame
//      header (after it) says 300 x 200;
//   2  as the eXIf chunk of a PNG whose IHDR says 300 x 200.
//
// Beyond memory safety the target checks the reader's promises: a size is
// never negative; an unknown format has no size; in the wrapped forms the
// picture is 300 x 200, or 200 x 300 exactly when the orientation is one
// of the four that turn it a quarter.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <zlib.h>

#include "files/picture_file.h"
#include "files/picture_header.h"

namespace {

void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "promise broken: %s\n", what);
        std::abort();
    }
}

std::string be16(size_t v) { return {static_cast<char>((v >> 8) & 0xff), static_cast<char>(v & 0xff)}; }
std::string be32(size_t v) { return be16((v >> 16) & 0xffff) + be16(v & 0xffff); }

std::string jpeg_around(const std::string &tiff) {
    const std::string body = std::string("Exif\0\0", 6) + tiff.substr(0, 65000);
    const std::string sof = std::string("\xFF\xC0\x00\x11\x08", 5) + be16(200) + be16(300) +
                            std::string("\x03\x01\x11\x00\x02\x11\x00\x03\x11\x00", 10);
    return std::string("\xFF\xD8\xFF\xE1", 4) + be16(body.size() + 2) + body + sof + std::string("\xFF\xDA", 2);
}

std::string png_around(const std::string &tiff) {
    const std::string ihdr = be32(13) + "IHDR" + be32(300) + be32(200) + std::string("\x08\x02\0\0\0", 5) + "crc!";
    const std::string typed = "eXIf" + tiff;
    const uLong crc = crc32(0, reinterpret_cast<const Bytef *>(typed.data()), static_cast<uInt>(typed.size()));
    return std::string("\x89PNG\r\n\x1a\n", 8) + ihdr + be32(tiff.size()) + typed + be32(crc) + be32(0) + "IDAT";
}

void check_header(const ostrel_tool::PictureHeader &h) {
    require(h.width >= 0 && h.height >= 0, "a size is never negative");
    require(h.width <= UINT32_MAX && h.height <= UINT32_MAX, "a size fits its field");
    require(h.orientation >= 0 && h.orientation <= 0xffff, "an orientation is a 16-bit value");
    if (h.format == ostrel_tool::PictureFormat::unknown) {
        require(h.width == 0 && h.height == 0, "an unknown format has no size");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const int form = data[0] % 3;
    const std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
    if (form == 0) {
        const ostrel_tool::PictureHeader h = ostrel_tool::read_picture_header(rest);
        check_header(h);
        const ostrel_tool::PictureFacts f =
            ostrel_tool::picture_facts_from_header(reinterpret_cast<const uint8_t *>(rest.data()), rest.size());
        require(f.width == h.width && f.height == h.height, "the facts give the header's size");
        ostrel_tool::JpegEndScanner scanner;
        scanner.feed(reinterpret_cast<const uint8_t *>(rest.data()), rest.size());
        (void)scanner.complete();
        (void)ostrel_tool::reaches_picture_end(rest, h.format);
        return 0;
    }
    const std::string bytes = form == 1 ? jpeg_around(rest) : png_around(rest);
    const ostrel_tool::PictureHeader h = ostrel_tool::read_picture_header(bytes);
    check_header(h);
    require(h.format == (form == 1 ? ostrel_tool::PictureFormat::jpeg : ostrel_tool::PictureFormat::png),
            "the wrapped picture keeps its format");
    const bool quarter_turn = h.orientation >= 5 && h.orientation <= 8;
    require(h.width == (quarter_turn ? 200 : 300) && h.height == (quarter_turn ? 300 : 200),
            "the size is the frame's, turned exactly for orientations 5 to 8");
    return 0;
}
