"""Checks and conversions of what a caller passes in, before any pointer
reaches the library: pictures, boxes, keys, numbers and paths.

A value that could make the library read outside a buffer never gets past
these functions: a picture handed on is always a C-contiguous
H x W x 3 uint8 array with H * W * 3 bytes, both sides at least 1 and at most
2**31 - 1, and a box array is always N x 4 int32 with N >= 1.
"""
from __future__ import annotations

import itertools
import os
import threading
from typing import Any, Iterable, Sequence, Union

import numpy as np
import numpy.typing as npt

from . import _files

INT32_MAX = 2**31 - 1
UINT32_MAX = 2**32 - 1

# Keys at and above this value are handed out by the package itself; a
# caller's keys stay below, so the two can never meet in the library's cache.
AUTO_KEY_BASE = 2**62
_auto_keys = itertools.count(AUTO_KEY_BASE)

PathLike = Union[str, "os.PathLike[str]"]
BoxesLike = Union[npt.ArrayLike, Sequence[Sequence[int]], Iterable[Any]]

_PICTURE_HELP = "give an H x W x 3 uint8 BGR array (H x W grey and H x W x 4 BGRA are converted)"


def picture(image: Any, what: str = "image") -> npt.NDArray[np.uint8]:
    """The picture as a C-contiguous H x W x 3 uint8 BGR array (a copy when
    it had to be converted, else the caller's own array)."""
    if not isinstance(image, np.ndarray):
        raise TypeError(f"{what} must be a numpy array, not {type(image).__name__}: {_PICTURE_HELP}")
    if image.dtype != np.uint8:
        raise TypeError(
            f"{what} has dtype {image.dtype}; the library reads 8-bit pixels: {_PICTURE_HELP} "
            f"(for example numpy.clip(image, 0, 255).astype(numpy.uint8))")
    if image.ndim == 2:
        channels = 1
    elif image.ndim == 3 and image.shape[2] in (1, 3, 4):
        channels = image.shape[2]
    else:
        raise ValueError(f"{what} has shape {image.shape}; {_PICTURE_HELP}")
    height, width = image.shape[0], image.shape[1]
    if height < 1 or width < 1:
        raise ValueError(f"{what} is empty (shape {image.shape}); give a picture of at least 1 x 1 pixel")
    if height > INT32_MAX or width > INT32_MAX:
        raise ValueError(f"{what} is {width} x {height} pixels; the library takes at most {INT32_MAX} per side")
    if channels == 1:
        grey = image.reshape(height, width)
        converted = np.repeat(grey[:, :, np.newaxis], 3, axis=2)
    elif channels == 4:
        converted = np.ascontiguousarray(image[:, :, :3])
    else:
        converted = np.ascontiguousarray(image)
    # Whatever happened above, this is what the pointer promises.
    assert converted.dtype == np.uint8 and converted.flags.c_contiguous
    assert converted.shape == (height, width, 3) and converted.nbytes == height * width * 3
    return converted


def _box_rows(boxes: Any) -> Any:
    """Box objects (anything with x, y, width, height) become rows."""
    if isinstance(boxes, np.ndarray):
        return boxes
    rows = list(boxes) if not isinstance(boxes, (str, bytes)) else boxes
    if isinstance(rows, list) and rows and all(
            hasattr(b, "x") and hasattr(b, "width") for b in rows):
        return [(b.x, b.y, b.width, b.height) for b in rows]
    return rows


def rounded_edges(array: npt.NDArray[Any]) -> npt.NDArray[np.float64]:
    """Float boxes (x, y, width, height) in whole pixels: the left and top
    edges and the right and bottom edges (x + width, y + height) each go to
    the nearest whole pixel, halves upwards (floor(v + 0.5)); width and
    height are the differences. Rounding edges rather than sizes keeps
    every edge within half a pixel of where it was marked."""
    values = np.asarray(array, dtype=np.float64)
    if not np.all(np.isfinite(values)):
        raise ValueError("a box value is not a finite number (nan or inf)")
    left_top = np.floor(values[..., 0:2] + 0.5)
    right_bottom = np.floor(values[..., 0:2] + values[..., 2:4] + 0.5)
    return np.concatenate([left_top, right_bottom - left_top], axis=-1)


def boxes(value: Any, width: int, height: int, round_floats: bool = False) -> npt.NDArray[np.int32]:
    """The marked boxes as an N x 4 int32 array (x, y, width, height), each
    at least 1 x 1 and overlapping the width x height picture. Float values
    are refused, or with round_floats rounded by rounded_edges()."""
    help_text = "give a sequence of (x, y, width, height) or an N x 4 integer array"
    if round_floats:
        help_text = "give a sequence of (x, y, width, height) or an N x 4 array of numbers"
    try:
        array = np.asarray(_box_rows(value))
    except TypeError as error:
        raise TypeError(f"boxes cannot be read ({error}); {help_text}") from None
    except ValueError as error:  # rows of different lengths
        raise ValueError(f"boxes are not N x 4 ({error}); {help_text}") from None
    # Floats are rounded below, once the shape is known.
    float_boxes = round_floats and array.dtype.kind == "f"
    if array.size == 0 and array.dtype.kind == "f":
        raise ValueError(f"boxes is empty; give at least one box: {help_text}")
    if not float_boxes and (array.dtype == object or array.dtype.kind not in "iu"):
        if round_floats:
            raise TypeError(f"boxes have dtype {array.dtype}; they must be numbers of pixels: {help_text}")
        raise TypeError(f"boxes have dtype {array.dtype}; they must be whole pixels: {help_text} "
                        f"(round them first)")
    if array.ndim == 1 and array.shape[0] == 4:
        array = array.reshape(1, 4)
    if array.ndim != 2 or array.shape[1] != 4:
        raise ValueError(f"boxes have shape {array.shape}; {help_text}")
    if array.shape[0] == 0:
        raise ValueError(f"boxes is empty; give at least one box: {help_text}")
    if array.shape[0] > INT32_MAX:
        raise ValueError(f"{array.shape[0]} boxes are more than the library takes ({INT32_MAX})")
    if float_boxes:
        array = rounded_edges(array)
    if array.min() < -INT32_MAX - 1 or array.max() > INT32_MAX:
        raise ValueError("a box value lies outside the 32-bit range the library takes")
    result = np.ascontiguousarray(array, dtype=np.int32)
    for i, (x, y, w, h) in enumerate(result.tolist()):
        if w < 1 or h < 1:
            raise ValueError(f"box {i} ({x}, {y}, {w}, {h}) has no area; width and height must be at least 1")
        if x >= width or y >= height or x + w <= 0 or y + h <= 0:
            raise ValueError(f"box {i} ({x}, {y}, {w}, {h}) lies outside the {width} x {height} picture; "
                             f"a box must overlap the picture")
    return result


def integer(value: Any, name: str, low: int, high: int) -> int:
    """An int (numpy integers too, bool not) within low..high."""
    if isinstance(value, bool) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"{name} must be an integer, not {type(value).__name__}")
    number = int(value)
    if not low <= number <= high:
        raise ValueError(f"{name} must be {low} to {high}, not {number}")
    return number


# The library keeps the last picture's features per thread and reuses them
# when the next picture has the same key. A key given again with a picture
# of another size would give boxes computed on the wrong picture (the
# library clips its reads to what it holds, so it is a caller's mistake, not
# a memory hazard): the size that goes with the thread's last key is
# remembered and checked.
_last_on_thread = threading.local()


def fresh_key() -> int:
    """A key no picture has had, for calls that do not touch the library's
    per-thread cache (feature maps)."""
    return next(_auto_keys)


def key(value: Any, shape: tuple[int, ...]) -> int:
    """The library's image_key for a picture: a fresh one for None, else the
    caller's key (0 .. 2**62 - 1), refused when this thread last used it
    for a picture of another size."""
    if value is None:
        chosen = fresh_key()
    else:
        chosen = integer(value, "key", 0, AUTO_KEY_BASE - 1)
        last = getattr(_last_on_thread, "entry", None)
        if last is not None and last[0] == chosen and last[1] != shape[:2]:
            raise ValueError(
                f"key {chosen} was last given with a {last[1][1]} x {last[1][0]} picture; equal keys mean "
                f"equal pixels: give this {shape[1]} x {shape[0]} picture its own key, or none")
    _last_on_thread.entry = (chosen, shape[:2])
    return chosen


def path(value: Any, what: str) -> bytes:
    """A path as the bytes the library's fopen() takes."""
    if not isinstance(value, (str, bytes, os.PathLike)):
        raise TypeError(f"{what} must be a path (str or os.PathLike), not {type(value).__name__}")
    encoded = os.fsencode(value)
    if not encoded:
        raise ValueError(f"{what} is an empty path")
    if b"\0" in encoded:
        raise ValueError(f"{what} contains a NUL character")
    return encoded


def existing_file(value: Any, what: str) -> bytes:
    """A path that must name an existing regular file: a folder raises
    IsADirectoryError, a device, FIFO or socket OSError, at once (see
    _files.open_regular: never waiting on a FIFO)."""
    encoded = path(value, what)
    _files.require_regular(encoded, what)
    return encoded
