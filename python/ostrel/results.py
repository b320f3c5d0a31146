"""What the detector hands back: boxes and sample thumbnails."""
from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np
import numpy.typing as npt

# The same words as the ostrel command. The library's chromatic classes are
# nearest reference colours in Lab, all muted: 3 a dark brick red, 4 a
# brownish orange, 5 a pale yellow, 6 an olive green, 7 a slate blue, 8 a
# greyish purple. 9 (second colour only) means no clear second colour.
COLOR_NAMES = ("dark", "grey", "light", "red", "orange", "yellow", "green", "blue", "purple", "none")


def color_name(color_class: int) -> str:
    """The name of a colour class: 0 dark, 1 grey, 2 light, 3 red, 4 orange,
    5 yellow, 6 green, 7 blue, 8 purple, 9 none; ``"class <n>"`` otherwise."""
    if 0 <= color_class < len(COLOR_NAMES):
        return COLOR_NAMES[color_class]
    return f"class {color_class}"


@dataclass(frozen=True)
class Box:
    """One box of a detection run, with the C record's field names.

    ``x``, ``y``, ``width``, ``height``: the box in picture pixels (left,
    top, size). ``score``: confidence 0..1 in steps of 0.01 (the shortest
    decimal that reads back as the library's float32, e.g. ``0.97``); -1.0
    for a box that overlap suppression removed. ``label``: 1 for a detection
    at or above the confidence threshold (or a box marked on this same
    picture that nothing detected), -1 for a box below the threshold.
    ``color_main``/``color_second``: colour classes 0..8 (second: 0..9), see
    :func:`color_name`; ``color_main_name``/``color_second_name`` are their
    names. ``class_name``: the class of the box for a detector whose
    classes have names (several classes, or one named class, see
    :meth:`ostrel.Detector.add_class`); ``""`` for a detector of one unnamed
    class.
    """

    x: int
    y: int
    width: int
    height: int
    score: float
    label: int
    color_main: int
    color_second: int
    class_name: str = ""
    color_main_name: str = field(init=False)
    color_second_name: str = field(init=False)

    def __post_init__(self) -> None:
        object.__setattr__(self, "color_main_name", color_name(self.color_main))
        object.__setattr__(self, "color_second_name", color_name(self.color_second))


def score_of(value: float) -> float:
    """The library's float32 score as the shortest decimal that is the same
    float32 (0.97 rather than 0.9700000286102295)."""
    return float(str(np.float32(value)))


@dataclass(frozen=True, eq=False)
class Sample:
    """One sample thumbnail: a marked box cut out of its training picture.

    ``label``: the marked box's label (1). ``thumbnail``: the cut-out pixels,
    an H x W x 3 uint8 BGR array owned by Python (a copy; 0 x 0 x 3 for a
    box that lay outside the picture).
    """

    label: int
    thumbnail: npt.NDArray[np.uint8]

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Sample):
            return NotImplemented
        return self.label == other.label and np.array_equal(self.thumbnail, other.thumbnail)

    __hash__ = None  # type: ignore[assignment]
