"""ostrel: teach a detector one kind of object from a few marked boxes, then
find it in new pictures.

A thin layer over the ``ostrel_alg`` shared library's C interface (ctypes).
Pictures are numpy arrays, H x W x 3 uint8 in BGR order (as OpenCV reads
them). ``import ostrel`` needs only numpy; :func:`detect_files` reads
pictures with OpenCV (``cv2``) and runs on threads or on a Dask cluster.

The library's own messages go to the logger ``"ostrel"``, never to standard
output; a failing call raises :class:`Error` with those messages in ``.log``.
"""
from __future__ import annotations

from ._limits import DEFAULT_MAX_PICTURE_PIXELS, HEADER_VERSION, MAX_PICTURE_PIXELS
from .batch import detect_files
from .detector import Detector, check_model
from .errors import Error, ModelError, NotTrainedError, PictureError
from .evaluation import Evaluation, Figures, evaluate
from .labels import LabelBox, LabelError, LabelledPicture, LabelSet, read_labels, write_labels
from .labels._detections import write_detections
from .results import COLOR_NAMES, Box, Sample, color_name

__all__ = [
    "Box",
    "COLOR_NAMES",
    "DEFAULT_MAX_PICTURE_PIXELS",
    "Detector",
    "Error",
    "Evaluation",
    "Figures",
    "LabelBox",
    "LabelError",
    "LabelSet",
    "LabelledPicture",
    "MAX_PICTURE_PIXELS",
    "ModelError",
    "NotTrainedError",
    "PictureError",
    "Sample",
    "check_model",
    "color_name",
    "detect_files",
    "evaluate",
    "library_path",
    "library_version",
    "read_labels",
    "write_detections",
    "write_labels",
]

__version__ = ".".join(map(str, HEADER_VERSION))


def library_version() -> tuple[int, int, int]:
    """The version (major, minor, patch) of the ostrel_alg library in use,
    as the library itself reports it (loading it if need be); (0, 0, 0)
    for a library too old to report one."""
    from . import _library

    return _library.get().version() or (0, 0, 0)


def library_path() -> str:
    """The path of the ostrel_alg library in use (loading it if need be)."""
    from . import _library

    return _library.get().path
