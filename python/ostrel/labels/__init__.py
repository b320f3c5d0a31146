"""Annotation formats: read labels from the tools people label with, and
write labels and detections for them.

One neutral record (:class:`LabelSet` of :class:`LabelledPicture` with
:class:`LabelBox`), a reader and a writer per format - Pascal VOC, COCO,
YOLO, CVAT for images 1.1, Label Studio and dlib's imglab - with the same
rules as the ostrel tool (``ostrel labels``, ``train --labels``, ``eval``,
``detect --format``): the same records from the same files.
"""
from __future__ import annotations

import json
import os
from typing import Any, Optional

from . import coco, cvat, imglab, labelstudio, voc, yolo
from ._pictures import is_picture_file_name
from ._records import FORMATS, LabelBox, LabelError, LabelledPicture, LabelSet, format_of_name
from ._text import MAX_LABEL_SET_BYTES, parse_xml, read_label_file, without_bom

__all__ = ["FORMATS", "LabelBox", "LabelError", "LabelSet", "LabelledPicture", "detect_format", "read_labels",
           "write_labels"]


def _xml_kind(path: str) -> Optional[str]:
    try:
        root = parse_xml(read_label_file(path, MAX_LABEL_SET_BYTES), path)
    except LabelError:
        return None
    return {"annotation": "voc", "annotations": "cvat", "dataset": "imglab"}.get(root.tag)


def _json_kind(path: str) -> Optional[str]:
    try:
        value = json.loads(without_bom(read_label_file(path, MAX_LABEL_SET_BYTES)).decode("utf-8"))
    except (LabelError, ValueError, UnicodeDecodeError):
        return None
    if coco.looks_like_dataset(value):
        return "coco"
    if coco.looks_like_results(value):
        return "coco-results"
    if labelstudio.looks_like_labelstudio(value):
        return "labelstudio"
    return None


_YOLO_NAMES = ("data.yaml", "data.yml", "classes.txt", "obj.names")


def _file_kind(path: str) -> Optional[str]:
    name = os.path.basename(path).lower()
    ext = os.path.splitext(name)[1]
    if ext == ".xml":
        return _xml_kind(path)
    if ext == ".json":
        return _json_kind(path)
    if name in _YOLO_NAMES or ext == ".txt":
        return "yolo"
    try:
        head = without_bom(read_label_file(path, MAX_LABEL_SET_BYTES)).lstrip(b" \t\r\n")
    except LabelError:
        return None
    if head.startswith(b"<") or head.startswith(b"\xff\xfe") or head.startswith(b"\xfe\xff"):
        return _xml_kind(path)
    if head[:1] in (b"{", b"["):
        return _json_kind(path)
    return None


def _sorted_files(folder: str) -> list[str]:
    try:
        names = sorted(os.listdir(folder))
    except OSError:
        return []
    return [os.path.join(folder, n) for n in names if not n.startswith(".") and os.path.isfile(os.path.join(folder, n))]


def _formats_in(directory: str) -> dict[str, list[str]]:
    found: dict[str, list[str]] = {}
    folders = [directory] + [os.path.join(directory, s) for s in ("annotations", "Annotations", "labels")
                             if os.path.isdir(os.path.join(directory, s))]
    pictures_here = False
    for folder in folders:
        xml_seen = 0
        for file in _sorted_files(folder):
            name = os.path.basename(file).lower()
            ext = os.path.splitext(name)[1]
            if folder == directory and is_picture_file_name(file):
                pictures_here = True
            kind = None
            if ext == ".xml":
                xml_seen += 1
                if xml_seen > 3 and name != "annotations.xml":
                    continue
                kind = _xml_kind(file)
            elif ext == ".json":
                kind = _json_kind(file)
            elif name in _YOLO_NAMES or (ext == ".txt" and os.path.basename(folder).lower() == "labels"):
                kind = "yolo"
            if kind is None or kind == "coco-results":
                continue
            where = folder if kind in ("voc", "yolo") else file
            places = found.setdefault(kind, [])
            if where not in places:
                places.append(where)
    if pictures_here and "yolo" not in found:
        for file in _sorted_files(directory):
            if is_picture_file_name(file) and os.path.isfile(os.path.splitext(file)[0] + ".txt"):
                found["yolo"] = [directory]
                break
    return found


def detect_format(path: str) -> str:
    """The format of a label file or folder, from its content; raises
    LabelError when it holds none, several, or a COCO results file."""
    if not os.path.exists(path):
        raise LabelError(f"cannot open labels '{path}': no such file or folder")
    if os.path.isdir(path):
        found = _formats_in(path)
        if not found:
            raise LabelError(f"found no labels in '{path}' (looked for VOC, CVAT and imglab XML, COCO and Label "
                             "Studio JSON, YOLO .txt with data.yaml or classes.txt, there and in annotations/ and "
                             "labels/)")
        order = [f for f in FORMATS if f in found]
        if len(order) > 1:
            listing = "; ".join(f"{f}: {found[f][0]}" + (f" and {len(found[f]) - 1} more" if len(found[f]) > 1 else "")
                                for f in order)
            raise LabelError(f"'{path}' holds labels in several formats ({listing}): choose one with format=")
        return order[0]
    kind = _file_kind(path)
    if kind is None:
        # A JSON or XML file that is not well-formed: say where.
        from ._text import parse_json

        data = read_label_file(path, MAX_LABEL_SET_BYTES)
        head = without_bom(data).lstrip(b" \t\r\n")[:1]
        if head in (b"{", b"["):
            parse_json(data, path)
        elif head == b"<":
            parse_xml(data, path)
    if kind == "coco-results":
        raise LabelError(f"'{path}' is a COCO results file (detections): pass it to evaluate() with the labels")
    if kind is None:
        raise LabelError(f"'{path}' is not a label file of a known format ({', '.join(FORMATS)})")
    return kind


def _label_path_in(directory: str, fmt: str) -> str:
    if fmt in ("voc", "yolo"):
        return directory
    places = _formats_in(directory).get(fmt, [])
    if not places:
        raise LabelError(f"'{directory}' holds no {fmt} label file")
    if len(places) > 1:
        raise LabelError(f"'{directory}' holds several {fmt} label files ({places[0]}, {places[1]}): give the one "
                         "to read")
    return places[0]


def read_labels(path: "str | os.PathLike[str]", format: Optional[str] = None) -> LabelSet:
    """Reads labels in any of the formats (``format`` names it; by default it
    is found from the content). Pictures are looked for where each tool's
    export puts them (``LabelledPicture.picture`` is ``None`` for one not
    found); YOLO reads picture sizes from the pictures. Raises
    :class:`LabelError` for a malformed file, naming the file, line or key
    and the reason."""
    path = os.fspath(path)
    fmt = format_of_name(format) if format else detect_format(path)
    file = _label_path_in(path, fmt) if os.path.isdir(path) else path
    readers = {"voc": voc.read_voc, "coco": coco.read_coco, "yolo": yolo.read_yolo, "cvat": cvat.read_cvat,
               "labelstudio": labelstudio.read_labelstudio, "imglab": imglab.read_imglab}
    return readers[fmt](file)


def _fill_sizes(labels: LabelSet) -> None:
    from ._pictures import picture_size

    for p in labels.pictures:
        if (p.width <= 0 or p.height <= 0) and p.picture is not None:
            p.width, p.height = picture_size(p.picture)


def set_text(labels: LabelSet, fmt: str, base: str = "", predictions: bool = False, model_version: str = "") -> Any:
    """The file of a whole-set format (str; bytes for imglab's Latin-1)."""
    if fmt == "coco":
        return coco.write_dataset(labels, base)
    if fmt == "cvat":
        return cvat.write_cvat(labels, base)
    if fmt == "labelstudio":
        return labelstudio.write_labelstudio(labels, base, predictions, model_version)
    if fmt == "imglab":
        return imglab.write_imglab(labels, base)
    raise ValueError(f"{fmt} writes a file per picture")


def picture_text(picture: LabelledPicture, fmt: str, classes: list[str], base: str = "") -> str:
    return yolo.write_label_text(picture, classes) if fmt == "yolo" else voc.write_voc(picture, base)


def _write(path: str, content: Any) -> None:
    """Written to a temporary file beside it and renamed: whole or not at all."""
    if os.path.isdir(path):
        raise IsADirectoryError(path)
    temporary = os.path.join(os.path.dirname(path) or ".", f".{os.path.basename(path)}.tmp-{os.getpid()}")
    mode = "wb" if isinstance(content, bytes) else "w"
    with open(temporary, mode, **({} if mode == "wb" else {"encoding": "utf-8", "newline": "\n"})) as file:
        file.write(content)
    os.replace(temporary, path)


def write_labels(labels: LabelSet, format: str, out: "str | os.PathLike[str]") -> None:
    """Writes labels in a format: coco, cvat, labelstudio and imglab into the
    file ``out``; voc and yolo a file per picture into the folder ``out``
    (``<picture stem>.xml|.txt``, ``-2``, ``-3`` ... for a repeated stem, and
    classes.txt for yolo). Pictures are named relative to the written file's
    folder where they lie below it."""
    fmt = format_of_name(format)
    out = os.fspath(out)
    _fill_sizes(labels)
    if fmt not in ("voc", "yolo"):
        _write(out, set_text(labels, fmt, os.path.dirname(out)))
        return
    os.makedirs(out, exist_ok=True)
    used: dict[str, int] = {}
    for p in labels.pictures:
        stem = os.path.splitext(os.path.basename(p.picture or p.name))[0]
        used[stem] = used.get(stem, 0) + 1
        name = (stem if used[stem] == 1 else f"{stem}-{used[stem]}") + (".txt" if fmt == "yolo" else ".xml")
        _write(os.path.join(out, name), picture_text(p, fmt, labels.classes, out))
    if fmt == "yolo":
        _write(os.path.join(out, "classes.txt"), yolo.write_names(labels.classes))
