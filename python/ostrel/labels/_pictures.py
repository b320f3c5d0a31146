"""Finding the pictures that label files name, and their sizes (the same
rules as the ostrel tool's tools/ostrel/labels/picture_lookup.*)."""
from __future__ import annotations

import os
import struct
from typing import Optional, Sequence

from ._records import LabelError, LabelledPicture

PICTURE_EXTENSIONS = (".jpg", ".jpeg", ".png", ".bmp", ".tif", ".tiff", ".webp", ".ppm", ".pgm")
_HEADER_BYTES = 512 * 1024


def is_picture_file_name(path: str) -> bool:
    return os.path.splitext(path)[1].lower() in PICTURE_EXTENSIONS


def find_picture(picture: LabelledPicture, folders: Sequence[str]) -> None:
    picture.looked_in = []
    name = picture.name
    if os.path.isabs(name):
        picture.looked_in.append(os.path.dirname(name))
        if os.path.isfile(name):
            picture.picture = name
            return
    for folder in folders:
        picture.looked_in.append(folder)
        candidate = os.path.join(folder, name)
        if not os.path.isabs(name) and os.path.isfile(candidate):
            picture.picture = candidate
            return
    if os.path.dirname(name):
        for folder in folders:
            candidate = os.path.join(folder, os.path.basename(name))
            if os.path.isfile(candidate):
                picture.picture = candidate
                return


def _header_size(d: bytes) -> Optional[tuple[int, int]]:
    if len(d) >= 24 and d[:8] == b"\x89PNG\r\n\x1a\n" and d[12:16] == b"IHDR":
        width, height = struct.unpack(">II", d[16:24])
        return width, height
    if len(d) >= 4 and d[0] == 0xFF and d[1] == 0xD8:
        i = 2
        while i + 4 <= len(d):
            if d[i] != 0xFF:
                return None
            marker = d[i + 1]
            if marker == 0xFF:
                i += 1
                continue
            if marker == 0x01 or 0xD0 <= marker <= 0xD7:
                i += 2
                continue
            if marker in (0xD9, 0xDA):
                return None
            length = (d[i + 2] << 8) | d[i + 3]
            if length < 2:
                return None
            if 0xC0 <= marker <= 0xCF and marker not in (0xC4, 0xC8, 0xCC):
                if i + 9 > len(d) or length < 7:
                    return None
                height = (d[i + 5] << 8) | d[i + 6]
                width = (d[i + 7] << 8) | d[i + 8]
                return width, height
            i += 2 + length
        return None
    if len(d) >= 26 and d[:2] == b"BM":
        info = struct.unpack("<I", d[14:18])[0]
        if info == 12:
            return struct.unpack("<HH", d[18:22])
        if info >= 40:
            width, height = struct.unpack("<ii", d[18:26])
            return width, abs(height)
    return None


def picture_size(path: str) -> tuple[int, int]:
    """(width, height) from the header (JPEG, PNG, BMP), else decoded with OpenCV."""
    try:
        with open(path, "rb") as file:
            head = file.read(_HEADER_BYTES)
    except OSError as error:
        raise LabelError(f"cannot open picture '{path}': {error.strerror}") from None
    size = _header_size(head)
    if size is not None and 0 < size[0] <= 1000000 and 0 < size[1] <= 1000000:
        return int(size[0]), int(size[1])
    try:
        import cv2  # type: ignore
    except ImportError:
        raise LabelError(f"the size of picture '{path}' cannot be read without OpenCV (cv2)") from None
    pixels = cv2.imread(path, cv2.IMREAD_UNCHANGED)
    if pixels is None:
        raise LabelError(f"cannot read picture '{path}': not a picture format OpenCV can decode")
    return int(pixels.shape[1]), int(pixels.shape[0])


def picture_name_for(picture_path: str, base: str) -> str:
    """The picture relative to base when it lies below it, else as given (with '/')."""
    try:
        relative = os.path.relpath(os.path.abspath(picture_path), os.path.abspath(base or "."))
    except ValueError:
        relative = ""
    if relative and not relative.startswith(".."):
        return relative.replace(os.sep, "/")
    return picture_path.replace(os.sep, "/")
