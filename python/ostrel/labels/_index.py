"""Finding a label set's pictures by path: the same file however spelt,
else the same file name when only one picture has it."""
from __future__ import annotations

import os

from ._records import LabelSet


def _canonical(path: str) -> str:
    return os.path.realpath(path)


class PictureIndex:
    def __init__(self, labels: LabelSet) -> None:
        self._by_path: dict[str, int] = {}
        self._by_name: dict[str, int] = {}
        for i, p in enumerate(labels.pictures):
            where = p.picture or p.name
            self._by_path.setdefault(_canonical(where), i)
            name = os.path.basename(where)
            self._by_name[name] = -2 if name in self._by_name else i

    def find(self, path: str) -> int:
        i = self._by_path.get(_canonical(path))
        if i is not None:
            return i
        named = self._by_name.get(os.path.basename(path), -1)
        return named if named >= 0 else -1
