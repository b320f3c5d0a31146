"""Picture files as ostrel.detect_files reads them: by the rules of the
ostrel tool (tools/ostrel/files/picture_header.*, picture_file.*, picture.cpp),
so that the package refuses exactly what the tool refuses.

- Only a regular file is read (never a FIFO, device or folder), by the
  bytes of its name: names that are not UTF-8 work as any other.
- JPEG, PNG and BMP are sized up from their header before they are
  decoded: a picture above the pixel limit is refused without allocating
  it (a 290 KB PNG can claim 20000 x 15000 pixels). The size is the
  upright one: a phone photo stored on its side with an EXIF orientation
  of 5 to 8 has width and height swapped, as decoding turns it.
- A JPEG cut short (no end-of-image marker after the start of its last
  scan; decoders fill the rest with grey and only warn) is refused.
- The bytes are decoded from memory with OpenCV (IMREAD_COLOR, which turns
  phone photos upright); other formats are held to the limit after
  decoding.

The header reader is a line-for-line counterpart of the tool's C++ one: the
two must agree on every file, and the tests check both against OpenCV's
decoder. (Pillow's lazy Image.open reads headers too, but it refuses, by
its own process-wide setting, pictures above 179 million pixels, below the
library's limit of 2**28, and it accepts and refuses malformed headers by
other rules than the tool's reader.)
"""
from __future__ import annotations

import os
import struct
import zlib
from dataclasses import dataclass
from typing import Any, Optional

from . import _files, _limits
from .errors import PictureError

UNKNOWN, JPEG, PNG, BMP = "unknown", "jpeg", "png", "bmp"

# JPEG files may carry long metadata (EXIF, ICC profiles, thumbnails) before
# their frame header; 1 MiB holds every real one (the tool reads as much).
HEADER_BYTES = 1 << 20

_PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"


@dataclass(frozen=True)
class PictureHeader:
    """A picture file's format and upright size from its first bytes (0 x 0
    when the header gives none), and the EXIF orientation (1: as stored)."""

    format: str = UNKNOWN
    width: int = 0
    height: int = 0
    orientation: int = 1


def _be16(d: bytes, at: int) -> int:
    return (d[at] << 8) | d[at + 1]


def _be32(d: bytes, at: int) -> int:
    return struct.unpack_from(">I", d, at)[0]


def _le16(d: bytes, at: int) -> int:
    return d[at] | (d[at + 1] << 8)


def _le32(d: bytes, at: int) -> int:
    return struct.unpack_from("<I", d, at)[0]


def _tiff_orientation(d: bytes) -> int:
    """The orientation tag (0x0112) of a TIFF structure's first directory,
    read as OpenCV's decoder reads it: "II" little-endian and anything else
    big-endian, the mark 42, the directory's entries in turn until the tag
    or the first entry beyond the data. 1 when there is none."""
    n = len(d)
    if n < 8:
        return 1
    big_endian = not (d[0] == 0x49 and d[1] == 0x49)  # "II"
    u16 = _be16 if big_endian else _le16
    u32 = _be32 if big_endian else _le32
    if u16(d, 2) != 42:
        return 1
    directory = u32(d, 4)
    if directory > n or n - directory < 2:
        return 1
    for k in range(u16(d, directory)):
        entry = directory + 2 + 12 * k
        if entry > n or n - entry < 12:
            return 1
        if u16(d, entry) == 0x0112:
            return u16(d, entry + 8)
    return 1


def _oriented(format: str, width: int, height: int, orientation: int) -> PictureHeader:
    if 5 <= orientation <= 8:  # a quarter turn: width and height swap
        width, height = height, width
    return PictureHeader(format, width, height, orientation)


def _png_header(d: bytes) -> PictureHeader:
    """The size of IHDR; the orientation of the first eXIf chunk libpng
    accepts (at least 2 bytes, "MM" or "II", a correct CRC), before the
    image data or, as far as the bytes reach, after it."""
    n = len(d)
    if n < 24 or d[:8] != _PNG_SIGNATURE or d[12:16] != b"IHDR":
        return PictureHeader()
    width, height = _be32(d, 16), _be32(d, 20)
    i = 8
    while i + 8 <= n:
        length = _be32(d, i)
        kind = d[i + 4:i + 8]
        if kind == b"IEND" or length > n - i - 8 or n - i - 8 - length < 4:
            break  # the end, or a chunk that goes on beyond the bytes given
        data = d[i + 8:i + 8 + length]
        if kind == b"eXIf" and length >= 2 and data[0] == data[1] and data[0] in b"MI" \
                and zlib.crc32(kind + data) == _be32(d, i + 8 + length):
            return _oriented(PNG, width, height, _tiff_orientation(data))
        i += 12 + length  # length, type, data, CRC
    return PictureHeader(PNG, width, height)


def _bmp_header(d: bytes) -> PictureHeader:
    n = len(d)
    if n < 26 or d[0:2] != b"BM":
        return PictureHeader()
    info_size = _le32(d, 14)
    if info_size == 12:  # the old OS/2 header: 16-bit sizes
        return PictureHeader(BMP, _le16(d, 18), _le16(d, 20))
    if info_size >= 40:
        width, height = struct.unpack_from("<ii", d, 18)
        if width < 0:
            return PictureHeader()  # no picture (the decoder refuses it too)
        return PictureHeader(BMP, width, abs(height))  # negative height: rows stored top-down
    return PictureHeader()


def _is_start_of_frame(marker: int) -> bool:
    # SOF0..SOF15 except DHT (C4), JPG (C8) and DAC (CC).
    return 0xC0 <= marker <= 0xCF and marker not in (0xC4, 0xC8, 0xCC)


def _jpeg_header(d: bytes) -> PictureHeader:
    """The size of the first start-of-frame segment, the orientation of the
    first APP1 segment (after its 6 bytes "Exif\\0\\0"), the segments walked
    up to the scan data or the end of the bytes."""
    n = len(d)
    if n < 4 or d[0] != 0xFF or d[1] != 0xD8:
        return PictureHeader()
    size: Optional[tuple[int, int]] = None
    seen_app1 = False
    orientation = 1

    def result() -> PictureHeader:
        return _oriented(JPEG, size[0], size[1], orientation) if size else PictureHeader()

    i = 2
    while i + 4 <= n:
        if d[i] != 0xFF:
            return result()  # not at a marker: damaged
        marker = d[i + 1]
        if marker == 0xFF:  # fill byte
            i += 1
            continue
        if marker == 0x01 or 0xD0 <= marker <= 0xD7:  # markers without a segment
            i += 2
            continue
        if marker in (0xD9, 0xDA):
            return result()  # end of picture or scan data
        length = _be16(d, i + 2)
        if length < 2:
            return result()
        if marker == 0xE1 and not seen_app1:
            seen_app1 = True
            available = min(length - 2, n - (i + 4))
            if length - 2 > 6 and available > 6:
                orientation = _tiff_orientation(d[i + 4 + 6:i + 4 + available])
        if _is_start_of_frame(marker) and size is None:
            if i + 9 > n or length < 7:
                return result()
            size = (_be16(d, i + 7), _be16(d, i + 5))  # width, height
        i += 2 + length
    return result()


def read_picture_header(data: bytes) -> PictureHeader:
    """JPEG, PNG or BMP, recognised by their signatures, with the upright
    size from the header; unknown for anything else or a header cut short."""
    for reader in (_png_header, _jpeg_header, _bmp_header):
        header = reader(data)
        if header.format != UNKNOWN:
            return header
    return PictureHeader()


def is_jpeg(data: bytes, header: PictureHeader) -> bool:
    """A JPEG, also one whose frame header is missing or lies beyond the
    bytes read: it is checked for its end all the same."""
    return header.format == JPEG or (header.format == UNKNOWN and data[:3] == b"\xff\xd8\xff")


def jpeg_reaches_its_end(data: bytes) -> bool:
    """An end-of-image marker (FF D9) after the start of the last scan
    (FF DA). Inside scan data every FF byte is followed by 00 or a restart
    marker, so neither marker appears there by chance."""
    last_scan = data.rfind(b"\xff\xda")
    return last_scan >= 0 and data.find(b"\xff\xd9", last_scan + 2) >= 0


def require_pixels_within_limit(name: str, width: int, height: int, limit: int) -> None:
    """Raises PictureError when width x height is above limit, in the tool's words."""
    if width > 0 and height > 0 and width * height > limit:
        why = ("the default; max_pixels raises it" if limit == _limits.DEFAULT_MAX_PICTURE_PIXELS
               else "the library's own limit" if limit == _limits.MAX_PICTURE_PIXELS else "set by max_pixels")
        raise PictureError(f"picture '{name}' is {width}x{height} pixels, above the limit of {limit} pixels ({why})",
                           name)


def _read_all(descriptor: int, first: bytes) -> bytes:
    parts = [first]
    while True:
        block = os.read(descriptor, 1 << 20)
        if not block:
            return b"".join(parts)
        parts.append(block)


def _read_up_to(descriptor: int, count: int) -> bytes:
    parts, total = [], 0
    while total < count:
        block = os.read(descriptor, count - total)
        if not block:
            break
        parts.append(block)
        total += len(block)
    return b"".join(parts)


def read_picture(path: bytes, max_pixels: int, cv2: Any) -> Any:
    """The picture file at path (bytes) as an H x W x 3 uint8 BGR array,
    upright; raises PictureError saying why when it is refused or cannot
    be read."""
    name = _files.display(path)
    try:
        descriptor = _files.open_regular(path, "picture")
    except FileNotFoundError:
        raise PictureError(f"cannot open picture '{name}': no such file", name) from None
    except IsADirectoryError:
        raise PictureError(f"cannot read picture '{name}': it is a folder", name) from None
    except OSError as error:  # a device, FIFO or socket; or "cannot open picture '...': <why>"
        message = f"cannot read picture '{name}': not a regular file" if "not a regular file" in str(error) \
            else str(error)
        raise PictureError(message, name) from None
    try:
        head = _read_up_to(descriptor, HEADER_BYTES)
        header = read_picture_header(head)
        # Sized up before decoding: a small file may claim a huge picture.
        require_pixels_within_limit(name, header.width, header.height, max_pixels)
        data = _read_all(descriptor, head)
    except OSError as error:
        raise PictureError(f"cannot read picture '{name}': {error.strerror or error}", name) from None
    finally:
        os.close(descriptor)
    if is_jpeg(data, header) and not jpeg_reaches_its_end(data):
        raise PictureError(f"cannot read picture '{name}': it is cut short (its JPEG data end before the "
                           f"end-of-image marker)", name)
    import numpy as np

    try:
        pixels = cv2.imdecode(np.frombuffer(data, dtype=np.uint8), cv2.IMREAD_COLOR) if data else None
    except cv2.error:
        pixels = None
    if pixels is None or pixels.size == 0 or pixels.dtype != np.uint8 or pixels.ndim != 3 or pixels.shape[2] != 3:
        raise PictureError(f"cannot read picture '{name}': not a picture format OpenCV can decode", name)
    # Formats whose header is not read here are held to the limit after decoding.
    require_pixels_within_limit(name, pixels.shape[1], pixels.shape[0], max_pixels)
    return pixels
