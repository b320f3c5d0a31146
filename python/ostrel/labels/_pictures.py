"""Finding the pictures that label files name, and their sizes (the same
rules as the ostrel tool's tools/ostrel/labels/picture_lookup.*)."""
from __future__ import annotations

import os
from typing import Sequence

from ._records import LabelError, LabelledPicture

PICTURE_EXTENSIONS = (".jpg", ".jpeg", ".png", ".bmp", ".tif", ".tiff", ".webp", ".ppm", ".pgm")


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


def picture_size(path: str) -> tuple[int, int]:
    """(width, height) of the upright picture: from the header (JPEG, PNG,
    BMP; phone photos with an EXIF orientation of 5 to 8 have their sides
    swapped, as decoding turns them), else decoded with OpenCV."""
    from .._picture_file import HEADER_BYTES, read_picture_header

    try:
        with open(path, "rb") as file:
            head = file.read(HEADER_BYTES)
    except OSError as error:
        raise LabelError(f"cannot open picture '{path}': {error.strerror}") from None
    header = read_picture_header(head)
    # A side beyond a million pixels is no real picture: decoding decides (as the tool does).
    if 0 < header.width <= 1000000 and 0 < header.height <= 1000000:
        return header.width, header.height
    try:
        import cv2  # type: ignore
    except ImportError:
        raise LabelError(f"the size of picture '{path}' cannot be read without OpenCV (cv2)") from None
    pixels = cv2.imread(path, cv2.IMREAD_COLOR)
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
