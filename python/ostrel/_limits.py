"""The pixel limits of pictures read from files (ostrel.detect_files), the
window sizes a model holds, and the version.

``MAX_PICTURE_PIXELS``: the library's own limit (OSTREL_ALG_MAX_PICTURE_PIXELS,
2**28), above which it refuses a picture. ``DEFAULT_MAX_PICTURE_PIXELS``:
the limit the ostrel tool and detect_files hold pictures to unless asked
for another (2**27). Both come from the C sources (see ``_c_headers``):
written into ``_header_values.py`` at install time, or read from the
checkout the package is used from. ``MIN_WINDOW_WEIGHTS`` and
``MAX_WINDOW_WEIGHTS``: the weights a detector's window may have
(OSTREL_ALG_MIN_WINDOW_WEIGHTS..OSTREL_ALG_MAX_WINDOW_WEIGHTS).
``MIN_SENSITIVITY`` and ``MAX_SENSITIVITY``: the sensitivities a detector
takes (OSTREL_ALG_MIN_SENSITIVITY..OSTREL_ALG_MAX_SENSITIVITY).
"""
from __future__ import annotations

from pathlib import Path

try:
    from ._header_values import (DEFAULT_MAX_PICTURE_PIXELS, MAX_PICTURE_PIXELS, MAX_SENSITIVITY,
                                 MAX_WINDOW_WEIGHTS, MIN_SENSITIVITY, MIN_WINDOW_WEIGHTS, VERSION_MAJOR,
                                 VERSION_MINOR, VERSION_PATCH)
except ImportError:  # used straight from its checkout
    from ._c_headers import read_values

    _values = read_values(Path(__file__).resolve().parents[2])
    MAX_PICTURE_PIXELS = _values["MAX_PICTURE_PIXELS"]
    DEFAULT_MAX_PICTURE_PIXELS = _values["DEFAULT_MAX_PICTURE_PIXELS"]
    MIN_WINDOW_WEIGHTS = _values["MIN_WINDOW_WEIGHTS"]
    MAX_WINDOW_WEIGHTS = _values["MAX_WINDOW_WEIGHTS"]
    MIN_SENSITIVITY = _values["MIN_SENSITIVITY"]
    MAX_SENSITIVITY = _values["MAX_SENSITIVITY"]
    VERSION_MAJOR = _values["VERSION_MAJOR"]
    VERSION_MINOR = _values["VERSION_MINOR"]
    VERSION_PATCH = _values["VERSION_PATCH"]

# The version of the header the package was made with (the library in use
# reports its own: ostrel.library_version()).
HEADER_VERSION = (VERSION_MAJOR, VERSION_MINOR, VERSION_PATCH)
