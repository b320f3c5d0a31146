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


LOG_RECORD_HANDLER = ctypes.CFUNCTYPE(None, ctypes.c_int32, ctypes.c_char_p, ctypes.c_void_p)
"""``ostrel_alg_log_record_handler``: ``void (*)(int32_t severity, const char *message, void *user)``."""

# Severities of a library message (OSTREL_ALG_LOG_*).
LOG_DETAIL = 0
LOG_PROGRESS = 1
LOG_FAILURE = 2


class ProgressRecord(ctypes.Structure):
    """``ostrel_alg_progress``: one step of a training, or a detection run."""

    _fields_ = [
        ("stage", ctypes.c_int32),
        ("round", ctypes.c_int32),
        ("samples", ctypes.c_int32),
        ("boxes_skipped", ctypes.c_int32),
        ("false_positives", ctypes.c_int32),
        ("low_confidence", ctypes.c_int32),
        ("object_windows", ctypes.c_int32),
        ("background_windows", ctypes.c_int32),
        ("hard_windows_added", ctypes.c_int32),
        ("hard_windows_found", ctypes.c_int32),
        ("seconds", ctypes.c_double),
        ("done", ctypes.c_int32),
        ("total", ctypes.c_int32),
    ]


PROGRESS_HANDLER = ctypes.CFUNCTYPE(None, ctypes.POINTER(ProgressRecord), ctypes.c_void_p)
"""``ostrel_alg_progress_handler``: ``void (*)(const ostrel_alg_progress *, void *user)``."""

# Stages of a progress record (OSTREL_ALG_STAGE_*).
STAGE_NAMES = {1: "samples", 2: "box_skipped", 3: "filter_rebuilt", 4: "trained", 5: "pass",
               6: "accurate_training", 7: "mining_round", 8: "detection"}

# Codes of the library's last failure (OSTREL_ALG_ERR_*).
ERR_OK = 0
ERR_FAILED = 1
ERR_BAD_ARGUMENT = 2
ERR_BAD_PICTURE = 3
ERR_PICTURE_TOO_LARGE = 4
ERR_TOO_MANY_BOXES = 5
ERR_BOX_NOT_LEARNABLE = 6
ERR_PICTURE_TOO_SMALL = 7
ERR_NOT_TRAINED = 8
ERR_WRONG_PROFILE = 9
ERR_MODEL_FILE_UNREADABLE = 10
ERR_MODEL_INVALID = 11
ERR_MODEL_FILE_UNWRITABLE = 12
ERR_NOTHING_TO_LEARN = 13
ERR_OUT_OF_MEMORY = 14
ERR_INTERNAL = 15
MAX_ERROR_MESSAGE_BYTES = 1024


def _check_layout() -> None:
    expected = {
        ImageRecord: (40, {"width": 0, "height": 4, "channels": 8, "data": 16, "image_key": 24,
                           "aux": 32, "format": 36}),
        BoxRecord: (32, {"x": 0, "y": 4, "width": 8, "height": 12, "score": 16, "label": 20,
                         "color_main": 24, "color_second": 28}),
        ThumbImageRecord: (32, {"width": 0, "height": 4, "channels": 8, "data": 16, "image_key": 24}),
        SampleRecord: (48, {"label": 0, "reserved0": 4, "image": 8, "reserved1": 40}),
        ProgressRecord: (56, {"stage": 0, "round": 4, "samples": 8, "hard_windows_found": 36, "seconds": 40,
                              "done": 48, "total": 52}),
    }
    for record, (size, offsets) in expected.items():
        if ctypes.sizeof(record) != size:
            raise ImportError(f"{record.__name__} is {ctypes.sizeof(record)} bytes, the library's is {size}")
        for name, offset in offsets.items():
            actual = getattr(record, name).offset
            if actual != offset:
                raise ImportError(f"{record.__name__}.{name} at {actual}, the library's at {offset}")


_check_layout()
