"""The library's messages: to Python's ``logging`` and to the failing call.

The package installs one process-wide log record handler when it loads the
library, so nothing the library says reaches standard output. The library
gives every message its severity where it writes it, and each message goes
to the logger ``"ostrel"`` at the level of that severity:

- failures (``OSTREL_ALG_LOG_FAILURE``: the lines of a call that fails) at
  WARNING,
- training progress (``OSTREL_ALG_LOG_PROGRESS``) at INFO,
- details (``OSTREL_ALG_LOG_DETAIL``, and any severity this package does not
  know) at DEBUG,

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

_LEVELS = {rec.LOG_FAILURE: logging.WARNING, rec.LOG_PROGRESS: logging.INFO, rec.LOG_DETAIL: logging.DEBUG}

_collected = threading.local()


def level_of(severity: int) -> int:
    """The logging level of a library message of this severity (OSTREL_ALG_LOG_*)."""
    return _LEVELS.get(severity, logging.DEBUG)


def _on_message(severity: int, message: Optional[bytes], user: Any) -> None:
    # An exception must not escape into the library's stack frame: ctypes
    # would only print it. Whatever happens, the message is not lost from
    # the call's own record.
    try:
        text = (message or b"").decode("utf-8", errors="replace")
        lines = getattr(_collected, "lines", None)
        if lines is not None:
            lines.append(text)
        logger.log(level_of(severity), "%s", text.rstrip("\r\n"))
    except BaseException:  # noqa: BLE001 - nothing may escape into C
        pass


# The C function pointer must live as long as the library may call it.
_handler = rec.LOG_RECORD_HANDLER(_on_message)
_installed: Optional["Library"] = None


def install(library: "Library") -> None:
    """Routes the library's messages to this module for the rest of the process."""
    global _installed
    if library.setLogRecordHandler(_handler, None) != 0:
        raise OSError(f"the ostrel_alg library at {library.path} refused the log handler")
    _installed = library
    atexit.register(_uninstall)


def _uninstall() -> None:
    # While the interpreter shuts down, a late message (an engine freed by
    # the last garbage collection) must not call into Python any more.
    if _installed is not None:
        _installed.setLogRecordHandler(rec.LOG_RECORD_HANDLER(), None)


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
