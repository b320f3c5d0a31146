"""Files the package reads, as an adversary or a careless user gives them:
FIFOs and other files that are not regular (refused at once, never waited
on), file names that are not UTF-8, pictures that claim more pixels than
the limit (refused from their header, before decoding), JPEGs cut short,
and phone photos with an EXIF orientation (read upright).

Every call that could hang or kill the interpreter runs in a child
process with a time limit, so that a failure is a failed test."""
from __future__ import annotations

import os
import resource
import shutil
import stat
import struct
import subprocess
import sys
import textwrap
import zlib
from pathlib import Path

import numpy as np
import pytest

import ostrel
from conftest import BCCD, read_picture

PICTURE = BCCD / "images" / "BloodImage_00001.jpg"
OTHER = BCCD / "images" / "BloodImage_00002.jpg"


def run_child(code: str, *arguments: str, timeout: float = 60) -> subprocess.CompletedProcess:
    """Runs code in a fresh interpreter with this package; fails the test
    when it does not end within the time limit."""
    try:
        return subprocess.run([sys.executable, "-c", textwrap.dedent(code), *arguments], capture_output=True,
                              text=True, timeout=timeout)
    except subprocess.TimeoutExpired:
        pytest.fail(f"the call did not end within {timeout} s (it waits on a FIFO?)")


# -- FIFOs and other files that are not regular --------------------------------

def test_a_fifo_as_model_is_refused_at_once(tmp_path, model_file):
    fifo = tmp_path / "pipe.model"
    os.mkfifo(fifo)
    done = run_child("""
        import sys, ostrel
        for call in (ostrel.check_model, ostrel.Detector.load, lambda p: ostrel.detect_files(p, [])):
            try:
                call(sys.argv[1])
                print("accepted")
            except OSError as error:
                print(type(error).__name__, error)
    """, str(fifo), timeout=30)
    assert done.returncode == 0, done.stderr
    lines = done.stdout.splitlines()
    assert len(lines) == 3, done.stdout
    for line in lines:
        assert line.startswith("OSError ") and "not a regular file" in line and "pipe.model" in line, line
    assert stat.S_ISFIFO(os.lstat(fifo).st_mode)


def test_a_fifo_as_picture_is_an_error_for_its_path_only(tmp_path, model_file):
    fifo = tmp_path / "pipe.jpg"
    os.mkfifo(fifo)
    done = run_child("""
        import sys, ostrel
        for path, boxes in ostrel.detect_files(sys.argv[1], sys.argv[2:], jobs=1):
            print(path, type(boxes).__name__, boxes if isinstance(boxes, Exception) else len(boxes))
    """, str(model_file), str(PICTURE), str(fifo), str(OTHER), timeout=60)
    assert done.returncode == 0, done.stderr
    lines = done.stdout.splitlines()
    assert len(lines) == 3, done.stdout
    assert lines[0].startswith(f"{PICTURE} list ")
    assert lines[1].startswith(f"{fifo} PictureError ") and "not a regular file" in lines[1]
    assert lines[2].startswith(f"{OTHER} list ")


# -- file names that are not UTF-8 ------------------------------------------------

def test_names_that_are_not_utf8_are_read_by_their_bytes(tmp_path, model_file):
    folder = os.fsencode(tmp_path)
    bad = folder + b"/bad\xff.jpg"
    shutil.copyfile(PICTURE, bad)
    missing = folder + b"/missing\xfe.jpg"
    done = run_child("""
        import os, sys, ostrel
        bad, missing = os.fsencode(sys.argv[3]), os.fsencode(sys.argv[4])
        given = [sys.argv[2], bad, missing, os.fsdecode(bad)]  # bytes, and str with surrogateescape
        for jobs in (1, 2):
            results = list(ostrel.detect_files(sys.argv[1], given, jobs=jobs))
            assert [p for p, _ in results] == given, results
            ok, from_bytes, error, from_str = (r for _, r in results)
            assert isinstance(ok, list) and from_bytes == ok and from_str == ok, results
            assert isinstance(error, ostrel.PictureError), error
            assert "no such file" in str(error) and error.path == missing, error
            str(error).encode("utf-8")  # the message can be printed
            print(jobs, len(ok), str(error))
    """, str(model_file), str(PICTURE), os.fsdecode(bad), os.fsdecode(missing), timeout=120)
    assert done.returncode == 0, f"exit status {done.returncode}: {done.stderr}"
    lines = done.stdout.splitlines()
    assert [line.split()[0] for line in lines] == ["1", "2"]
    assert "missing\\xfe.jpg" in lines[0], lines[0]


# -- the pixel limit, before decoding ---------------------------------------------

def png_chunk(kind: bytes, body: bytes) -> bytes:
    return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body) & 0xFFFFFFFF)


def black_png(width: int, height: int) -> bytes:
    """A whole, valid black PNG of 1-bit grey: a few hundred kilobytes for
    hundreds of millions of pixels."""
    row = b"\0" * (1 + (width + 7) // 8)
    compressor = zlib.compressobj(9)
    data = b"".join(compressor.compress(row) for _ in range(height)) + compressor.flush()
    header = struct.pack(">IIBBBBB", width, height, 1, 0, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + png_chunk(b"IHDR", header) + png_chunk(b"IDAT", data) + png_chunk(b"IEND", b"")


def test_a_decompression_bomb_is_refused_from_its_header(tmp_path, model_file):
    bomb = tmp_path / "bomb.png"
    bomb.write_bytes(black_png(20000, 15000))
    assert bomb.stat().st_size < 1_000_000
    done = run_child("""
        import resource, sys, ostrel
        results = list(ostrel.detect_files(sys.argv[1], [sys.argv[2], sys.argv[3]], jobs=1))
        print(type(results[0][1]).__name__, results[0][1])
        print(type(results[1][1]).__name__)
        print(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss // 1024)
    """, str(model_file), str(bomb), str(PICTURE), timeout=120)
    assert done.returncode == 0, done.stderr
    error, other, peak_mb = done.stdout.splitlines()
    assert error.startswith("PictureError ")
    assert "20000x15000 pixels, above the limit of 134217728 pixels" in error
    assert other == "list"
    # Decoding it would take 900 MB for the pixels alone.
    assert int(peak_mb) < 600, f"peak resident memory {peak_mb} MB"


def header_only_png(width: int, height: int) -> bytes:
    return (b"\x89PNG\r\n\x1a\n" + png_chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + png_chunk(b"IDAT", zlib.compress(b"\0" * 100)) + png_chunk(b"IEND", b""))


def header_only_jpeg(width: int, height: int) -> bytes:
    sof = b"\xff\xc0" + struct.pack(">HBHHB", 17, 8, height, width, 3) + bytes([1, 0x11, 0, 2, 0x11, 0, 3, 0x11, 0])
    return b"\xff\xd8" + sof + b"\xff\xda" + b"\0" * 100 + b"\xff\xd9"


def header_only_bmp(width: int, height: int) -> bytes:
    return b"BM" + struct.pack("<IHHIIiiHHIIiiII", 54, 0, 0, 54, 40, width, -height, 1, 24, 0, 0, 0, 0, 0, 0)


@pytest.mark.parametrize("make", [header_only_png, header_only_jpeg, header_only_bmp])
def test_the_limit_is_the_tools(tmp_path, model_file, make):
    """Just above the default limit (2^27 pixels) is refused from the header;
    max_pixels raises the limit up to the library's own."""
    assert ostrel.DEFAULT_MAX_PICTURE_PIXELS == 2**27
    assert ostrel.MAX_PICTURE_PIXELS == 2**28
    above = tmp_path / "above"
    above.write_bytes(make(16384, 8193))
    [(_, error)] = ostrel.detect_files(model_file, [above], jobs=1)
    assert isinstance(error, ostrel.PictureError)
    assert "16384x8193 pixels, above the limit of 134217728 pixels (the default; max_pixels raises it)" in str(error)
    # With the library's limit it is decoded (and found damaged: there are no pixels).
    [(_, error)] = ostrel.detect_files(model_file, [above], jobs=1, max_pixels=ostrel.MAX_PICTURE_PIXELS)
    assert isinstance(error, ostrel.PictureError) and "above the limit" not in str(error), error


def test_max_pixels_lowers_the_limit_and_has_the_tools_range(model_file):
    [(_, error)] = ostrel.detect_files(model_file, [PICTURE], jobs=1, max_pixels=1000)
    assert isinstance(error, ostrel.PictureError)
    assert "640x480 pixels, above the limit of 1000 pixels (set by max_pixels)" in str(error)
    [(_, boxes)] = ostrel.detect_files(model_file, [PICTURE], jobs=1, max_pixels=640 * 480)
    assert isinstance(boxes, list)
    for wrong in (0, ostrel.MAX_PICTURE_PIXELS + 1):
        with pytest.raises(ValueError, match="max_pixels must be 1 to 268435456"):
            ostrel.detect_files(model_file, [PICTURE], max_pixels=wrong)


def test_the_tool_and_the_package_agree_on_the_limit(tmp_path, model_file, ostrel_tool):
    done = subprocess.run([str(ostrel_tool), "detect", "--help"], capture_output=True, text=True, timeout=60)
    assert f"default {ostrel.DEFAULT_MAX_PICTURE_PIXELS} = 2^27" in done.stdout
    assert f"at most {ostrel.MAX_PICTURE_PIXELS}, the library's limit" in done.stdout
    header = Path(__file__).resolve().parents[2] / "include" / "ostrel_alg.h"
    assert f"#define OSTREL_ALG_MAX_PICTURE_PIXELS {ostrel.MAX_PICTURE_PIXELS}" in header.read_text()


# -- JPEGs cut short --------------------------------------------------------------

def test_a_jpeg_cut_short_is_refused_as_the_tool_refuses_it(tmp_path, model_file, ostrel_tool):
    data = PICTURE.read_bytes()
    cut = tmp_path / "cut.jpg"
    cut.write_bytes(data[:len(data) // 2])
    [(_, error), (_, boxes)] = ostrel.detect_files(model_file, [cut, OTHER], jobs=1)
    assert isinstance(error, ostrel.PictureError) and "cut short" in str(error), error
    assert isinstance(boxes, list)
    tool = subprocess.run([str(ostrel_tool), "detect", "--model", str(model_file), str(cut)], capture_output=True,
                          text=True, timeout=60)
    assert tool.returncode == 3 and "cut short" in tool.stderr


# -- phone photos -------------------------------------------------------------------

def exif_jpeg(upright: np.ndarray, orientation: int = 6) -> bytes:
    """A phone photo: the pixels stored a quarter turned to the left, and an
    APP1 segment whose EXIF orientation 6 tells viewers to turn them back."""
    cv2 = pytest.importorskip("cv2")
    ok, encoded = cv2.imencode(".jpg", cv2.rotate(upright, cv2.ROTATE_90_COUNTERCLOCKWISE),
                               [cv2.IMWRITE_JPEG_QUALITY, 95])
    assert ok
    tiff = b"MM" + struct.pack(">HIH", 42, 8, 1) + struct.pack(">HHIHH", 0x112, 3, 1, orientation, 0) + b"\0" * 4
    body = b"Exif\0\0" + tiff
    jpeg = encoded.tobytes()
    return jpeg[:2] + b"\xff\xe1" + struct.pack(">H", len(body) + 2) + body + jpeg[2:]


def test_a_phone_photo_is_read_upright(tmp_path, model_file, trained, ostrel_tool):
    cv2 = pytest.importorskip("cv2")
    phone = tmp_path / "phone.jpg"
    phone.write_bytes(exif_jpeg(read_picture(PICTURE)))
    upright = cv2.imread(str(phone), cv2.IMREAD_COLOR)
    assert upright.shape == (480, 640, 3)
    [(_, boxes)] = ostrel.detect_files(model_file, [phone], jobs=1)
    assert boxes == trained.detect(upright)
    # The limit speaks of the upright size.
    [(_, error)] = ostrel.detect_files(model_file, [phone], jobs=1, max_pixels=1000)
    assert "640x480 pixels" in str(error), error
    # The tool reads it the same way: the same boxes.
    tool = subprocess.run([str(ostrel_tool), "detect", "--json", "--model", str(model_file), str(phone)],
                          capture_output=True, text=True, timeout=60)
    import json
    line = json.loads(tool.stdout)
    assert (line["width"], line["height"]) == (640, 480)
    assert [(b["x"], b["y"], b["w"], b["h"]) for b in line["boxes"]] == [(b.x, b.y, b.width, b.height) for b in boxes]
