"""The library's file names on each platform, in one place for the package
and for setup.py (which loads this module on its own: it imports nothing of
the package)."""
from __future__ import annotations

import sys


def names(major: int, platform: str = sys.platform) -> tuple[str, str]:
    """(the file a build or install prefix holds, the soname the dynamic
    loader finds and a wheel carries) for a library of version ``major``."""
    if platform == "win32":
        return "ostrel_alg.dll", "ostrel_alg.dll"
    if platform == "darwin":
        return "libostrel_alg.dylib", f"libostrel_alg.{major}.dylib"
    return "libostrel_alg.so", f"libostrel_alg.so.{major}"
