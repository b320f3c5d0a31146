"""The neutral label record every annotation format is read into and written from.

The same record as the ostrel tool's (tools/ostrel/labels/label_set.h):
boxes in picture pixels on a continuous axis, ``x``/``y`` the top-left
corner and ``w``/``h`` the size, with a class name and flags.
"""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, Optional

FORMATS = ("voc", "coco", "yolo", "cvat", "labelstudio", "imglab")
_ALIASES = {"pascal": "voc", "pascal-voc": "voc", "pascalvoc": "voc", "label-studio": "labelstudio",
            "label_studio": "labelstudio", "ls": "labelstudio", "dlib": "imglab", "dlib-xml": "imglab"}


class LabelError(ValueError):
    """A label file that cannot be read: the message names the file, the
    line or key, and the reason (what the ostrel tool reports with exit
    code 3)."""


def format_of_name(name: str) -> str:
    """The format a name means (``"voc"``, ``"coco"``, ...; also
    ``"pascal-voc"``, ``"label-studio"``, ``"dlib"``). Raises ValueError for
    an unknown one."""
    lowered = name.lower()
    if lowered in FORMATS:
        return lowered
    if lowered in _ALIASES:
        return _ALIASES[lowered]
    raise ValueError(f"unknown label format {name!r}: one of {', '.join(FORMATS)}")


@dataclass
class LabelBox:
    """One box: class name, pixels (left, top, width, height), flags.

    ``difficult``: don't care in evaluation. ``crowd``: a region of many
    objects (COCO's iscrowd). ``score``: a prediction's confidence.
    ``area``: COCO's own area of the object, when the file gives it."""

    class_name: str
    x: float
    y: float
    w: float
    h: float
    difficult: bool = False
    truncated: bool = False
    occluded: bool = False
    crowd: bool = False
    score: Optional[float] = None
    area: Optional[float] = None

    def rounded(self) -> tuple[int, int, int, int]:
        """The box in whole pixels: each edge rounded (halves away from
        zero), at least 1 x 1, as (x, y, w, h)."""
        left, top = _round(self.x), _round(self.y)
        right = max(_round(self.x + self.w), left + 1)
        bottom = max(_round(self.y + self.h), top + 1)
        return left, top, right - left, bottom - top

    def as_dict(self) -> dict[str, Any]:
        return {"class": self.class_name, "x": self.x, "y": self.y, "w": self.w, "h": self.h,
                "difficult": self.difficult, "truncated": self.truncated, "occluded": self.occluded,
                "crowd": self.crowd, "score": self.score, "area": self.area}


def _round(value: float) -> int:
    """llround: halves away from zero."""
    import math

    return int(math.floor(value + 0.5)) if value >= 0 else -int(math.floor(-value + 0.5))


@dataclass
class LabelledPicture:
    """One picture: its name in the labels, where it was found (``None``
    when it was not), its size (0 when unknown), its id, its boxes."""

    name: str
    picture: Optional[str] = None
    width: int = 0
    height: int = 0
    id: int = 0
    boxes: list[LabelBox] = field(default_factory=list)
    source: str = ""
    looked_in: list[str] = field(default_factory=list)

    def as_dict(self) -> dict[str, Any]:
        """The record as ``ostrel labels --json`` prints it."""
        return {"name": self.name, "picture": self.picture, "width": self.width, "height": self.height,
                "id": self.id, "boxes": [b.as_dict() for b in self.boxes]}


@dataclass
class LabelSet:
    """What a label file or folder holds: its format, the classes (as
    declared, then any others used), the pictures, notes met while
    reading. Iterating gives the pictures."""

    format: str
    source: str = ""
    classes: list[str] = field(default_factory=list)
    class_ids: list[int] = field(default_factory=list)
    pictures: list[LabelledPicture] = field(default_factory=list)
    notes: list[str] = field(default_factory=list)

    def __iter__(self):
        return iter(self.pictures)

    def __len__(self) -> int:
        return len(self.pictures)

    def add_used_classes(self) -> None:
        known = set(self.classes)
        for picture in self.pictures:
            for box in picture.boxes:
                if box.class_name not in known:
                    known.add(box.class_name)
                    self.classes.append(box.class_name)

    def missing_pictures(self) -> str:
        """One message about the pictures that were not found; "" when all were."""
        missing = [p for p in self.pictures if p.picture is None]
        if not missing:
            return ""
        first = missing[0]
        places = ", ".join(first.looked_in)
        message = f"no picture for '{first.name}' (labels {first.source}" + (f"; looked in: {places}" if places else "") + ")"
        if len(missing) > 1:
            message += f" and for {len(missing) - 1} more of the {len(self.pictures)} pictures"
        return message
