"""ctypes mirrors of the records of ``ostrel_alg.h``.

The sizes and field offsets are checked at import time against the values
the header pins with static assertions, so a layout slip fails loudly here
instead of letting the library read the wrong bytes.
"""
from __future__ import annotations

import ctypes

FORMAT_INTERLEAVED = 0


class ImageRecord(ctypes.Structure):
    """``ostrel_alg_image``: a picture passed in by the host (40 bytes)."""

    _fields_ = [
        ("width", ctypes.c_int32),
        ("height", ctypes.c_int32),
        ("channels", ctypes.c_int32),
        ("data", ctypes.POINTER(ctypes.c_uint8)),
        ("image_key", ctypes.c_int64),
        ("aux", ctypes.c_int32),
        ("format", ctypes.c_int32),
    ]


class BoxRecord(ctypes.Structure):
    """``ostrel_alg_box``: one box, in both directions (32 bytes)."""

    _fields_ = [
        ("x", ctypes.c_int32),
        ("y", ctypes.c_int32),
        ("width", ctypes.c_int32),
        ("height", ctypes.c_int32),
        ("score", ctypes.c_float),
        ("label", ctypes.c_int32),
        ("color_main", ctypes.c_int32),
        ("color_second", ctypes.c_int32),
    ]


class ThumbImageRecord(ctypes.Structure):
    """``ostrel_alg_thumb_image``: the pixels of a sample thumbnail (32 bytes)."""

    _fields_ = [
        ("width", ctypes.c_int32),
        ("height", ctypes.c_int32),
        ("channels", ctypes.c_int32),
        ("data", ctypes.POINTER(ctypes.c_uint8)),
        ("image_key", ctypes.c_int64),
    ]


class SampleRecord(ctypes.Structure):
    """``ostrel_alg_sample``: one sample thumbnail (48 bytes)."""

    _fields_ = [
        ("label", ctypes.c_int32),
        ("reserved0", ctypes.c_int32),
        ("image", ThumbImageRecord),
        ("reserved1", ctypes.c_int64),
    ]


LOG_HANDLER = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_void_p)
"""``ostrel_alg_log_handler``: ``void (*)(const char *message, void *user)``."""


def _check_layout() -> None:
    expected = {
        ImageRecord: (40, {"width": 0, "height": 4, "channels": 8, "data": 16, "image_key": 24,
                           "aux": 32, "format": 36}),
        BoxRecord: (32, {"x": 0, "y": 4, "width": 8, "height": 12, "score": 16, "label": 20,
                         "color_main": 24, "color_second": 28}),
        ThumbImageRecord: (32, {"width": 0, "height": 4, "channels": 8, "data": 16, "image_key": 24}),
        SampleRecord: (48, {"label": 0, "reserved0": 4, "image": 8, "reserved1": 40}),
    }
    for record, (size, offsets) in expected.items():
        if ctypes.sizeof(record) != size:
            raise ImportError(f"{record.__name__} is {ctypes.sizeof(record)} bytes, the library's is {size}")
        for name, offset in offsets.items():
            actual = getattr(record, name).offset
            if actual != offset:
                raise ImportError(f"{record.__name__}.{name} at {actual}, the library's at {offset}")


_check_layout()
