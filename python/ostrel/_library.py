"""Finding and loading the shared library, and declaring its functions.

Lookup order (the first that loads wins):

1. ``OSTREL_ALG_LIBRARY``: the path of the library file, or of a folder that
   holds it. When it is set, nothing else is tried.
2. The library the package carries (``ostrel/_lib/``, in a wheel), when it
   carries one: a wheel's package and its library always go together.
3. The ``build/`` folder of the source checkout the package was installed
   from (recorded at install time in ``_build_tree.py``).
4. ``<sys.prefix>/lib``: the virtual environment (or Python prefix), for a
   library installed there with ``cmake --install build --prefix <venv>``.
5. The dynamic loader's own search by soname (``LD_LIBRARY_PATH``, then the
   ``ldconfig`` cache: ``/usr/lib``, and ``/usr/local/lib`` once ``ldconfig``
   has run). This is how the Debian package's Python package finds the
   library installed with it.
6. ``/usr/local/lib`` and ``/usr/lib``, the default prefixes of
   ``cmake --install``, in case ``ldconfig`` has not run.
"""
from __future__ import annotations

import ctypes
import os
import sys
import threading
from pathlib import Path
from typing import Callable, Optional

from . import _records as rec
from ._library_names import names
from ._limits import VERSION_MAJOR

LIBRARY_FILE, LIBRARY_SONAME = names(VERSION_MAJOR)
# Where a wheel carries its library (setup.py puts it there).
CARRIED_LIBRARY = Path(__file__).resolve().parent / "_lib" / LIBRARY_SONAME

ENV_VARIABLE = "OSTREL_ALG_LIBRARY"

_c_int32 = ctypes.c_int32
_c_uint32 = ctypes.c_uint32
_p = ctypes.POINTER

# name: (argument types); every function returns int32_t.
_REQUIRED = {
    "ostrel_alg_create": [_p(ctypes.c_void_p)],
    "ostrel_alg_destroy": [ctypes.c_void_p],
    "ostrel_alg_setSensitivity": [ctypes.c_void_p, _c_uint32],
    "ostrel_alg_setRandomSeed": [ctypes.c_void_p, _c_uint32],
    "ostrel_alg_istraied": [ctypes.c_void_p, _p(ctypes.c_uint8)],
    "ostrel_alg_setDetector_ptr": [ctypes.c_void_p, _p(rec.ImageRecord), _p(rec.BoxRecord), _c_int32],
    "ostrel_alg_runDetector_ptr": [ctypes.c_void_p, _p(rec.ImageRecord), _p(_p(rec.BoxRecord)), _p(_c_uint32)],
    "ostrel_alg_getSamples_ptr": [ctypes.c_void_p, _p(_p(rec.SampleRecord)), _p(_c_uint32)],
    "ostrel_alg_removeSample": [ctypes.c_void_p, _c_uint32],
    "ostrel_alg_getFeatureMap_ptr": [ctypes.c_void_p, _p(rec.ImageRecord), _p(_p(ctypes.c_uint8)),
                                     _p(_c_uint32), _p(_c_uint32), _p(_c_uint32)],
    "ostrel_alg_exportModel_ptr": [ctypes.c_void_p, ctypes.c_char_p],
    "ostrel_alg_importModel_ptr": [ctypes.c_void_p, ctypes.c_char_p],
    "ostrel_alg_checkModelValidation_ptr": [ctypes.c_void_p, ctypes.c_char_p],
    "ostrel_alg_setLogRecordHandler": [rec.LOG_RECORD_HANDLER, ctypes.c_void_p],
}

# Functions that older libraries lack; the package looks them up and says
# clearly what cannot be done without them.
_OPTIONAL = {
    "ostrel_alg_setOption": [ctypes.c_void_p, _c_int32, _c_int32],
    "ostrel_alg_getOption": [ctypes.c_void_p, _c_int32, _p(_c_int32)],
    "ostrel_alg_addClass": [ctypes.c_void_p, ctypes.c_char_p, _p(_c_uint32)],
    "ostrel_alg_setClass": [ctypes.c_void_p, _c_uint32],
    "ostrel_alg_getClass": [ctypes.c_void_p, _p(_c_uint32)],
    "ostrel_alg_getClassCount": [ctypes.c_void_p, _p(_c_uint32)],
    "ostrel_alg_getClassName_ptr": [ctypes.c_void_p, _c_uint32, _p(ctypes.c_char_p)],
    "ostrel_alg_getBoxClasses_ptr": [ctypes.c_void_p, _p(_p(_c_uint32)), _p(_c_uint32)],
    "ostrel_alg_getVersion": [_p(_c_int32), _p(_c_int32), _p(_c_int32)],
    "ostrel_alg_getLastError": [ctypes.c_void_p, _p(_c_int32), ctypes.c_char_p, ctypes.c_size_t],
    "ostrel_alg_setProgressHandler": [ctypes.c_void_p, rec.PROGRESS_HANDLER, ctypes.c_void_p],
    "ostrel_alg_checkBox": [ctypes.c_void_p, _c_int32, _c_int32, _p(rec.BoxRecord), _p(_c_int32)],
}


class Library:
    """The loaded library: its path and its declared functions."""

    def __init__(self, cdll: ctypes.CDLL, path: str) -> None:
        self.cdll = cdll
        self.path = path
        missing = [name for name in _REQUIRED if not hasattr(cdll, name)]
        if missing:
            raise OSError(
                f"the ostrel_alg library at {path} lacks {', '.join(missing)}: it is older than this "
                f"package; rebuild it from the same source checkout (cmake --build build)")
        self.functions: dict[str, Callable[..., int]] = {}
        for name, argtypes in {**_REQUIRED, **_OPTIONAL}.items():
            if hasattr(cdll, name):
                function = getattr(cdll, name)
                function.argtypes = argtypes
                function.restype = ctypes.c_int32
                self.functions[name] = function

    def has(self, name: str) -> bool:
        return name in self.functions

    def version(self) -> Optional[tuple[int, int, int]]:
        """The library's own version (major, minor, patch), or None for a
        library too old to say."""
        if not self.has("ostrel_alg_getVersion"):
            return None
        parts = [ctypes.c_int32(-1) for _ in range(3)]
        self.functions["ostrel_alg_getVersion"](*(ctypes.byref(p) for p in parts))
        return (parts[0].value, parts[1].value, parts[2].value)

    def last_error(self, handle: Optional[ctypes.c_void_p]) -> tuple[int, str]:
        """The code and sentence of the last failure of engine ``handle``
        (None: of the calling thread's calls without an engine); (ERR_FAILED,
        "") from a library too old to say."""
        if not self.has("ostrel_alg_getLastError"):
            return rec.ERR_FAILED, ""
        code = ctypes.c_int32(rec.ERR_OK)
        buffer = ctypes.create_string_buffer(rec.MAX_ERROR_MESSAGE_BYTES)
        if self.functions["ostrel_alg_getLastError"](handle, ctypes.byref(code), buffer, len(buffer)) != 0:
            return rec.ERR_FAILED, ""
        return code.value, buffer.value.decode("utf-8", errors="replace")

    def __getattr__(self, name: str) -> Callable[..., int]:
        try:
            return self.functions["ostrel_alg_" + name]
        except KeyError:
            raise AttributeError(name) from None


def _recorded_build_dir() -> Optional[Path]:
    try:
        from ._build_tree import BUILD_DIR  # written when the package is installed
    except ImportError:
        return None
    return Path(BUILD_DIR) if BUILD_DIR else None


def candidates() -> list[str]:
    """Where the library is looked for, in order (see the module's text)."""
    override = os.environ.get(ENV_VARIABLE)
    if override:
        path = Path(override)
        return [str(path / LIBRARY_FILE) if path.is_dir() else str(path)]
    found: list[str] = []
    if CARRIED_LIBRARY.is_file():
        found.append(str(CARRIED_LIBRARY))
    build_dir = _recorded_build_dir()
    if build_dir is not None:
        found.append(str(build_dir / LIBRARY_FILE))
    found.append(str(Path(sys.prefix) / "lib" / LIBRARY_FILE))
    found.append(LIBRARY_SONAME)
    for prefix in ("/usr/local/lib", "/usr/lib"):
        found.append(str(Path(prefix) / LIBRARY_FILE))
    return found


def _load() -> Library:
    tried: list[str] = []
    for candidate in candidates():
        is_path = os.sep in candidate
        if is_path and not os.path.isfile(candidate):
            tried.append(f"{candidate} (no such file)")
            continue
        try:
            cdll = ctypes.CDLL(candidate)
        except OSError as error:
            tried.append(f"{candidate} ({error})")
            continue
        return Library(cdll, candidate if is_path else _loaded_path(cdll, candidate))
    raise OSError(
        "cannot find the ostrel_alg library; build it (cmake -S . -B build && cmake --build build), "
        f"install it (cmake --install build), or set {ENV_VARIABLE} to its path. Tried: " + "; ".join(tried))


def _loaded_path(cdll: ctypes.CDLL, name: str) -> str:
    """The file the dynamic loader picked for a soname, for error messages."""
    try:
        with open("/proc/self/maps", encoding="utf-8", errors="replace") as maps:
            for line in maps:
                if name.split(".so")[0] in line:
                    return line.split()[-1]
    except OSError:
        pass
    return name


_lock = threading.Lock()
_library: Optional[Library] = None


def get() -> Library:
    """The library, loaded on first use (``import ostrel`` alone loads nothing)."""
    global _library
    if _library is None:
        with _lock:
            if _library is None:
                library = _load()
                from . import _log
                _log.install(library)
                _library = library
    return _library
