"""The library's messages: to Python's ``logging`` and to the failing call.

The package installs one process-wide log handler when it loads the
library, so nothing the library says reaches standard output. Each message
goes to the logger ``"ostrel"``:

- failures at WARNING: messages whose bracketed tag says so
  (``[Alg.Fail]``, ``[Alg. FAIL!]``, ``[Alg.Exc!]``, ``[exception]``,
  ``[CRC values ERROR]``, ``[SVM model values wrong]``, ...) and reports of
  invalid image data,
- training progress (``[Alg. Scc]``) at INFO,
- everything else (``[Debug]`` and the channel routines' lines) at DEBUG,

with its line end removed. The messages that a call made on the current
thread are also collected, so that an :class:`ostrel.Error` can carry them
in ``.log``. The library calls the handler on the thread that is inside the
library call, so collecting per thread gives each call exactly its own.
"""
from __future__ import annotations

import atexit
import logging
import threading
from typing import TYPE_CHECKING, Any, Callable, Optional

from . import _records as rec

if TYPE_CHECKING:
    from ._library import Library

logger = logging.getLogger("ostrel")

# Words of the library's bracketed tags that mark a failure.
_FAILURE_TAG_WORDS = ("fail", "wrong", "error", "exc")
_PROGRESS_PREFIX = "[Alg. Scc]"

_collected = threading.local()


def level_of(message: str) -> int:
    """The logging level of one library message."""
    text = message.lstrip()
    tag = text[:text.find("]") + 1].lower() if text.startswith("[") else ""
    if any(word in tag for word in _FAILURE_TAG_WORDS) or "invalid image data" in text:
        return logging.WARNING
    if text.startswith(_PROGRESS_PREFIX):
        return logging.INFO
    return logging.DEBUG


def _on_message(message: Optional[bytes], user: Any) -> None:
    # An exception must not escape into the library's stack frame: ctypes
    # would only print it. Whatever happens, the message is not lost from
    # the call's own record.
    try:
        text = (message or b"").decode("utf-8", errors="replace")
        lines = getattr(_collected, "lines", None)
        if lines is not None:
            lines.append(text)
        logger.log(level_of(text), "%s", text.rstrip("\r\n"))
    except BaseException:  # noqa: BLE001 - nothing may escape into C
        pass


# The C function pointer must live as long as the library may call it.
_handler = rec.LOG_HANDLER(_on_message)
_installed: Optional["Library"] = None


def install(library: "Library") -> None:
    """Routes the library's messages to this module for the rest of the process."""
    global _installed
    if library.setLogHandler(_handler, None) != 0:
        raise OSError(f"the ostrel_alg library at {library.path} refused the log handler")
    _installed = library
    atexit.register(_uninstall)


def _uninstall() -> None:
    # While the interpreter shuts down, a late message (an engine freed by
    # the last garbage collection) must not call into Python any more.
    if _installed is not None:
        _installed.setLogHandler(rec.LOG_HANDLER(), None)


def call(function: Callable[..., int], *arguments: Any) -> tuple[int, list[str]]:
    """Calls a library function; returns its status and the messages it logged."""
    outer = getattr(_collected, "lines", None)
    _collected.lines = []
    try:
        status = function(*arguments)
        return status, _collected.lines
    finally:
        lines = _collected.lines
        _collected.lines = outer
        if outer is not None:
            outer.extend(lines)
