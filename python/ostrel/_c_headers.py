"""Numbers the package takes from the C sources instead of copying them.

The pixel limits of pictures read from files are defined once, in C: the
library's OSTREL_ALG_MAX_PICTURE_PIXELS in ``include/ostrel_alg.h`` and the
ostrel tool's default limit, kDefaultMaxPicturePixels in
``tools/ostrel/files/picture_file.h``; so are the window sizes a model holds,
OSTREL_ALG_MIN_WINDOW_WEIGHTS and OSTREL_ALG_MAX_WINDOW_WEIGHTS, the
sensitivities a detector takes, OSTREL_ALG_MIN_SENSITIVITY and
OSTREL_ALG_MAX_SENSITIVITY, and the
version, OSTREL_ALG_VERSION_*, in ``include/ostrel_alg.h``. ``setup.py`` reads them from the checkout
when the package is installed and writes them into ``_header_values.py``;
a package used straight from its checkout reads them here.

This module imports nothing of the package: setup.py loads it on its own.
"""
from __future__ import annotations

import re
from pathlib import Path

# name: (file in the checkout, pattern whose group 1 is the number)
_VALUES = {
    "MAX_PICTURE_PIXELS": ("include/ostrel_alg.h", r"#define\s+OSTREL_ALG_MAX_PICTURE_PIXELS\s+(\d+)\b"),
    "DEFAULT_MAX_PICTURE_PIXELS": ("tools/ostrel/files/picture_file.h", r"\bkDefaultMaxPicturePixels\s*=\s*(\d+)\s*;"),
    "MIN_WINDOW_WEIGHTS": ("include/ostrel_alg.h", r"#define\s+OSTREL_ALG_MIN_WINDOW_WEIGHTS\s+(\d+)\b"),
    "MAX_WINDOW_WEIGHTS": ("include/ostrel_alg.h", r"#define\s+OSTREL_ALG_MAX_WINDOW_WEIGHTS\s+(\d+)\b"),
    "MIN_SENSITIVITY": ("include/ostrel_alg.h", r"#define\s+OSTREL_ALG_MIN_SENSITIVITY\s+(\d+)\b"),
    "MAX_SENSITIVITY": ("include/ostrel_alg.h", r"#define\s+OSTREL_ALG_MAX_SENSITIVITY\s+(\d+)\b"),
    "VERSION_MAJOR": ("include/ostrel_alg.h", r"#define\s+OSTREL_ALG_VERSION_MAJOR\s+(\d+)\b"),
    "VERSION_MINOR": ("include/ostrel_alg.h", r"#define\s+OSTREL_ALG_VERSION_MINOR\s+(\d+)\b"),
    "VERSION_PATCH": ("include/ostrel_alg.h", r"#define\s+OSTREL_ALG_VERSION_PATCH\s+(\d+)\b"),
}


def read_values(checkout: Path) -> dict[str, int]:
    """The numbers, read from the C sources of a checkout. Raises
    RuntimeError naming the file when one cannot be found."""
    values = {}
    for name, (relative, pattern) in _VALUES.items():
        path = Path(checkout) / relative
        try:
            found = re.search(pattern, path.read_text(encoding="utf-8"))
        except OSError as error:
            raise RuntimeError(f"cannot read {path} for {name}: {error}") from None
        if found is None:
            raise RuntimeError(f"{path} does not define {name} as the package expects ({pattern})")
        values[name] = int(found.group(1))
    return values
