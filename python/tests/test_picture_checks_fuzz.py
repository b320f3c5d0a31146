"""Property-based tests (Hypothesis) of the package's own input checks:
the picture-header reader, the reading of picture files and their names.

Random bytes and random names never crash or hang the reader: it gives a
header (never a negative size, no size for an unknown format), a picture,
or an ostrel.PictureError whose text can be printed. On damaged EXIF data
the header's size is always the size OpenCV's decoder gives, and in a
JPEG or PNG around random EXIF data the size is turned exactly for the
orientations 5 to 8."""
from __future__ import annotations

import os
import struct
import zlib

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import ostrel
from ostrel import _picture_file
from ostrel.batch import read_picture

cv2 = pytest.importorskip("cv2")

# No example database: the tests leave nothing behind in the checkout.
FUZZ = settings(max_examples=300, deadline=None, database=None,
                suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow])


def check_header(header: _picture_file.PictureHeader) -> None:
    assert header.width >= 0 and header.height >= 0
    assert 0 <= header.orientation <= 0xFFFF
    if header.format == _picture_file.UNKNOWN:
        assert header.width == 0 and header.height == 0


@FUZZ
@given(st.binary(max_size=2048))
def test_any_bytes_give_a_header(data):
    check_header(_picture_file.read_picture_header(data))
    _picture_file.jpeg_reaches_its_end(data)


SIGNATURES = [b"\xff\xd8\xff", b"\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", b"BM"]


@FUZZ
@given(st.sampled_from(SIGNATURES), st.binary(max_size=512))
def test_bytes_after_a_signature_give_a_header(signature, rest):
    check_header(_picture_file.read_picture_header(signature + rest))


def jpeg_around(tiff: bytes) -> bytes:
    body = b"Exif\0\0" + tiff[:65000]
    sof = b"\xff\xc0" + struct.pack(">HBHHB", 17, 8, 200, 300, 3) + bytes([1, 0x11, 0, 2, 0x11, 0, 3, 0x11, 0])
    return b"\xff\xd8\xff\xe1" + struct.pack(">H", len(body) + 2) + body + sof + b"\xff\xda"


def png_around(tiff: bytes) -> bytes:
    ihdr = struct.pack(">I", 13) + b"IHDR" + struct.pack(">IIBBBBB", 300, 200, 8, 2, 0, 0, 0) + b"crc!"
    crc = struct.pack(">I", zlib.crc32(b"eXIf" + tiff))
    return b"\x89PNG\r\n\x1a\n" + ihdr + struct.pack(">I", len(tiff)) + b"eXIf" + tiff + crc + b"\0" * 4 + b"IDAT"


TIFF_START = st.sampled_from([b"MM\0\x2a\0\0\0\x08", b"II\x2a\0\x08\0\0\0", b""])


@FUZZ
@given(TIFF_START, st.binary(max_size=300), st.sampled_from([jpeg_around, png_around]))
def test_random_exif_turns_the_size_exactly_for_a_quarter_turn(start, rest, wrap):
    header = _picture_file.read_picture_header(wrap(start + rest))
    check_header(header)
    quarter_turn = 5 <= header.orientation <= 8
    assert (header.width, header.height) == ((200, 300) if quarter_turn else (300, 200))


def phone_photo(orientation: int, big_endian: bool) -> bytes:
    stored = np.full((40, 60, 3), (30, 90, 150), np.uint8)
    stored[:10, :20] = 250
    ok, encoded = cv2.imencode(".jpg", stored)
    order = ">" if big_endian else "<"
    tiff = (b"MM" if big_endian else b"II") + struct.pack(order + "HIH", 42, 8, 1) \
        + struct.pack(order + "HHIHH", 0x112, 3, 1, orientation, 0) + b"\0" * 4
    body = b"Exif\0\0" + tiff
    jpeg = encoded.tobytes()
    return jpeg[:2] + b"\xff\xe1" + struct.pack(">H", len(body) + 2) + body + jpeg[2:]


def phone_png(orientation: int, big_endian: bool) -> bytes:
    """The phone photo as a PNG, its EXIF data in an eXIf chunk after IHDR."""
    jpeg = phone_photo(orientation, big_endian)
    stored = cv2.imdecode(np.frombuffer(jpeg, np.uint8), cv2.IMREAD_IGNORE_ORIENTATION | cv2.IMREAD_COLOR)
    ok, encoded = cv2.imencode(".png", stored)
    tiff = jpeg[12:38]
    chunk = struct.pack(">I", len(tiff)) + b"eXIf" + tiff + struct.pack(">I", zlib.crc32(b"eXIf" + tiff))
    return encoded.tobytes()[:33] + chunk + encoded.tobytes()[33:]


@FUZZ
@given(st.integers(1, 8), st.booleans(), st.booleans(),
       st.lists(st.tuples(st.integers(0, 37), st.integers(0, 255)), min_size=1, max_size=4))
def test_damaged_exif_never_disagrees_with_the_decoder(orientation, big_endian, png, changes):
    data = bytearray(phone_png(orientation, big_endian) if png else phone_photo(orientation, big_endian))
    for at, value in changes:  # the APP1 segment (its length, "Exif", the TIFF) or the eXIf chunk
        data[(33 if png else 4) + at] = value
    data = bytes(data)
    header = _picture_file.read_picture_header(data)
    check_header(header)
    pixels = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
    if pixels is not None and header.width:
        assert (header.width, header.height) == (pixels.shape[1], pixels.shape[0])


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    return os.fsencode(tmp_path_factory.mktemp("fuzz"))


@FUZZ
@given(contents=st.one_of(st.binary(max_size=4096),
                          st.builds(lambda s, r: s + r, st.sampled_from(SIGNATURES), st.binary(max_size=2048))),
       limit=st.integers(1, 2**28))
def test_any_file_gives_a_picture_or_a_clear_error(folder, contents, limit):
    path = os.path.join(folder, b"picture")
    with open(path, "wb") as file:
        file.write(contents)
    try:
        pixels = read_picture(path, limit)
    except ostrel.PictureError as error:
        assert str(error).startswith(("cannot read picture", "cannot open picture", "picture '")), error
        str(error).encode("utf-8")
    else:
        assert pixels.dtype == np.uint8 and pixels.ndim == 3 and pixels.shape[2] == 3
        assert pixels.shape[0] * pixels.shape[1] <= limit


NAME_BYTES = st.binary(min_size=1, max_size=60).filter(lambda b: b"\0" not in b and b"/" not in b
                                                       and b not in (b".", b".."))


@FUZZ
@given(name=NAME_BYTES, exists=st.booleans())
def test_any_name_is_read_by_its_bytes(folder, name, exists):
    path = os.path.join(folder, b"n-" + name)
    if exists:
        with open(path, "wb") as file:
            file.write(b"not a picture")
    try:
        for given_as in (path, os.fsdecode(path)):
            with pytest.raises(ostrel.PictureError) as caught:
                read_picture(given_as)
            message = str(caught.value)
            message.encode("utf-8")
            assert ("not a picture format" if exists else "no such file") in message
    finally:
        if exists:
            os.unlink(path)


def verdict(message: str) -> str:
    """What a refusal says, without the file's name or the option's name."""
    import re

    size = re.search(r"is (\d+x\d+) pixels, above the limit", message)
    if size:
        return "size " + size.group(1)
    for words in ("cut short", "not a picture format OpenCV can decode", "not a regular file", "no such file"):
        if words in message:
            return words
    return "other: " + message


@settings(max_examples=40, deadline=None, database=None,
          suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow])
@given(orientation=st.integers(0, 9), big_endian=st.booleans(), png=st.booleans(),
       changes=st.lists(st.tuples(st.integers(0, 45), st.integers(0, 255)), max_size=3),
       cut=st.sampled_from([None, 0.3, 0.9]))
def test_the_tool_and_the_package_refuse_alike(folder, ostrel_tool, orientation, big_endian, png, changes, cut):
    """The same file, held to a limit of one pixel: the ostrel tool and the
    package give the same verdict (the same size from the header, or the
    same reason)."""
    import subprocess

    data = bytearray(phone_png(orientation, big_endian) if png else phone_photo(orientation, big_endian))
    for at, value in changes:
        data[4 + at] = value
    if cut:
        data = data[:int(len(data) * cut)]
    path = os.path.join(folder, b"compared.png" if png else b"compared.jpg")
    with open(path, "wb") as file:
        file.write(bytes(data))
    with pytest.raises(ostrel.PictureError) as caught:
        read_picture(path, 1)
    tool = subprocess.run([str(ostrel_tool), "channels", os.fsdecode(path), "--max-pixels", "1"],
                          capture_output=True, text=True, timeout=60)
    assert tool.returncode == 3, tool.stderr
    assert verdict(str(caught.value)) == verdict(tool.stderr)
