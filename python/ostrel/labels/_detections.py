"""Detections written for other tools: what ``ostrel detect --format`` writes
(tools/ostrel/batch/detection_output.*), from Python results."""
from __future__ import annotations

import json
import os
from typing import Any, Iterable, Mapping, Optional, Sequence, Union

from ._pictures import picture_size
from ._records import LabelBox, LabelledPicture, LabelSet, format_of_name
from . import coco, yolo

ResultsLike = Union[Mapping[str, Iterable[Any]], Iterable[tuple[str, Iterable[Any]]]]


def _pairs(results: ResultsLike) -> list[tuple[str, list[Any]]]:
    items = results.items() if isinstance(results, Mapping) else results
    return [(os.fspath(path), list(boxes)) for path, boxes in items]


def _json_line(path: str, width: int, height: int, boxes: list[Any], class_name: Optional[str]) -> str:
    out = []
    for b in boxes:
        entry: dict[str, Any] = {"x": b.x, "y": b.y, "w": b.width, "h": b.height, "score": round(b.score, 2),
                                 "label": b.label, "color_main": b.color_main, "color_second": b.color_second,
                                 "color_main_name": b.color_main_name, "color_second_name": b.color_second_name}
        own = getattr(b, "class_name", "")
        if own or class_name is not None:
            entry["class"] = own or class_name
        out.append(entry)
    return json.dumps({"file": path, "width": width, "height": height, "boxes": out}, separators=(",", ":"),
                      ensure_ascii=False)


def write_detections(results: ResultsLike, format: str, out: "Optional[str | os.PathLike[str]]" = None, *,
                     classes: Sequence[str] = ("object",), class_given: Optional[bool] = None,
                     model: str = "", image_ids: "Optional[str | os.PathLike[str] | LabelSet]" = None) -> Optional[str]:
    """Writes detections as ``ostrel detect --format`` does.

    ``results``: ``{picture path: boxes}`` or ``(path, boxes)`` pairs (as
    :func:`ostrel.detect_files` yields), boxes :class:`ostrel.Box`; label -1
    boxes (below the threshold) are left out except in jsonl. ``format``:
    jsonl, coco (a results file; ids from the COCO labels ``image_ids`` when
    given, else 1, 2, ... and classes from 1), labelstudio (predictions with
    ``model_version`` "ostrel <model file name>" and scores), cvat, imglab,
    voc or yolo (a file per picture into the folder ``out``). ``classes``:
    the detector's class names (``Detector.classes`` for a detector of
    several classes; default "object"); jsonl adds "class" to each box when
    classes are given or the box has its own ``class_name``. Whole-run formats
    return the text when ``out`` is None."""
    fmt = "jsonl" if format in ("jsonl", "json") else format_of_name(format)
    classes = list(classes)
    given = class_given if class_given is not None else classes != ["object"]
    pairs = _pairs(results)
    from . import _write, picture_text, set_text

    if fmt == "jsonl":
        lines = []
        for path, boxes in pairs:
            width, height = picture_size(path)
            lines.append(_json_line(path, width, height, boxes, classes[0] if given else None) + "\n")
        text = "".join(lines)
        if out is None:
            return text
        _write(os.fspath(out), text)
        return None
    detections = LabelSet(format=fmt, classes=classes)
    for i, (path, boxes) in enumerate(pairs, start=1):
        width, height = picture_size(path)
        picture = LabelledPicture(name=os.path.basename(path), picture=path, width=width, height=height, id=i)
        for b in boxes:
            if getattr(b, "label", 1) != 1:
                continue
            # A box of a detector with named classes carries its own.
            own = getattr(b, "class_name", "")
            if own and own not in classes:
                raise ValueError(f"a box of class {own!r} is not among classes {classes!r}: give the detector's "
                                 f"classes (Detector.classes)")
            picture.boxes.append(LabelBox(own or classes[0], float(b.x), float(b.y), float(b.width),
                                          float(b.height), score=round(float(b.score), 2)))
        detections.pictures.append(picture)
    if fmt in ("voc", "yolo"):
        if out is None:
            raise ValueError(f"format {fmt} writes a file per picture: give the folder as out")
        folder = os.fspath(out)
        os.makedirs(folder, exist_ok=True)
        used: dict[str, int] = {}
        for p in detections.pictures:
            stem = os.path.splitext(os.path.basename(p.picture or p.name))[0]
            used[stem] = used.get(stem, 0) + 1
            name = (stem if used[stem] == 1 else f"{stem}-{used[stem]}") + (".txt" if fmt == "yolo" else ".xml")
            _write(os.path.join(folder, name), picture_text(p, fmt, classes, folder))
        if fmt == "yolo":
            _write(os.path.join(folder, "classes.txt"), yolo.write_names(classes))
        return None
    base = os.path.dirname(os.fspath(out)) if out is not None else ""
    if fmt == "coco":
        ids = image_ids
        if ids is not None and not isinstance(ids, LabelSet):
            from . import read_labels

            ids = read_labels(ids, "coco")
        text = coco.write_results(detections, ids)
    else:
        text = set_text(detections, fmt, base, predictions=True,
                        model_version="ostrel " + os.path.basename(model) if model else "ostrel")
    if out is None:
        return text if isinstance(text, str) else text.decode("latin-1")
    _write(os.fspath(out), text)
    return None
