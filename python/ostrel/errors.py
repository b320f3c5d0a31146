"""Exceptions of the ostrel package.

Wrong Python values (a float picture, boxes of the wrong shape, a negative
sensitivity) raise the built-in ``TypeError``/``ValueError``/``IndexError``,
and paths that are missing or are folders raise ``FileNotFoundError``/
``IsADirectoryError``, before the library is called. Everything the library
itself refuses raises :class:`Error` or one of its subclasses.
"""
from __future__ import annotations

from typing import Sequence


class Error(Exception):
    """The library refused a call.

    ``code`` is the library's error code for the failure (one of the
    ``OSTREL_ALG_ERR_*`` numbers of ``ostrel_alg.h``, 0 when the package
    itself refused); ``log`` holds the library's own messages of the failing
    call, in order, each as the library wrote it (with its line end), for a
    person to read; the exception's text says what failed, the library's
    reason and, where it can, what to do about it.
    """

    def __init__(self, message: str, log: Sequence[str] = ()) -> None:
        super().__init__(message)
        self.log: list[str] = list(log)
        self.code: int = 0


class ModelError(Error):
    """A model file exists but the library finds it damaged or invalid
    (wrong records, wrong CRC-32, truncated), or cannot read it."""


class NotTrainedError(Error):
    """The detector holds no model yet: train it or load a model first."""


class PictureError(Error):
    """A picture of :func:`ostrel.detect_files` could not be read or searched.

    ``detect_files`` does not raise it: it yields it in place of the boxes of
    that picture, so that one bad file never stops a run. ``path`` is the
    picture's path as given.
    """

    def __init__(self, message: str, path: str = "", log: Sequence[str] = ()) -> None:
        super().__init__(message, log)
        self.path = path
