"""YOLO labels: a .txt per picture with normalised centres, class names from
data.yaml / classes.txt / obj.names (tools/ostrel/labels/yolo_labels.*).

data.yaml's "names" is read in the forms the tools write (flow list, block
list, block or flow mapping of numbers to names), exactly as the ostrel
tool reads it, so that both give the same classes."""
from __future__ import annotations

import math
import os
from typing import Optional

from ._pictures import is_picture_file_name, picture_size
from ._records import LabelBox, LabelError, LabelledPicture, LabelSet
from ._text import MAX_PICTURE_LABEL_BYTES, fields_of, parse_real, read_label_file, text_lines

_SLACK = 1e-4


def _refuse(source: str, line: int, reason: str) -> None:
    raise LabelError(f"'{source}' line {line}: {reason}")


def _without_comment(line: str) -> str:
    quote = ""
    for i, c in enumerate(line):
        if quote:
            if c == quote:
                quote = ""
        elif c in "'\"":
            quote = c
        elif c == "#" and (i == 0 or line[i - 1] in " \t"):
            return line[:i]
    return line


def _scalar(raw: str, source: str, line: int) -> str:
    text = raw.strip(" \t")
    if not text:
        _refuse(source, line, "an empty class name")
    if text[0] in "'\"":
        q = text[0]
        if len(text) < 2 or text[-1] != q:
            _refuse(source, line, f"a quoted name without its closing quote: {text}")
        out, i = [], 1
        while i + 1 < len(text):
            if q == "'" and text[i] == "'" and i + 2 < len(text) and text[i + 1] == "'":
                out.append("'")
                i += 2
                continue
            if q == '"' and text[i] == "\\" and i + 2 < len(text):
                out.append(text[i + 1])
                i += 2
                continue
            out.append(text[i])
            i += 1
        return "".join(out)
    if any(c in text for c in "[]{}") or text[0] in "&*!|>":
        _refuse(source, line, f"a YAML form the reader does not take: {text}")
    return text


def _flow_items(inside: str) -> list[str]:
    items, current, quote = [], "", ""
    for c in inside:
        if quote:
            current += c
            if c == quote:
                quote = ""
        elif c in "'\"":
            quote = c
            current += c
        elif c == ",":
            items.append(current)
            current = ""
        else:
            current += c
    if current.strip(" \t"):
        items.append(current)
    return items


def _from_map(by_index: dict[int, str], source: str, line: int) -> list[str]:
    names = []
    for expected, key in enumerate(sorted(by_index)):
        if key != expected:
            _refuse(source, line, f"class numbers must run 0, 1, 2, ... without a gap; {expected} is missing")
        names.append(by_index[key])
    return names


def _add_numbered(by_index: dict[int, str], item: str, source: str, line: int) -> None:
    colon = item.find(":")
    if colon < 0:
        _refuse(source, line, f"'number: name' expected: {item.strip()}")
    key = parse_real(item[:colon].strip(" \t"))
    if key is None or key < 0 or key != math.floor(key) or key > 100000:
        _refuse(source, line, "a class number 0, 1, 2, ... expected before ':'")
    k = int(key)
    if k in by_index:
        _refuse(source, line, f"class {item[:colon].strip()} given twice")
    by_index[k] = _scalar(item[colon + 1:], source, line)


def parse_data_yaml(data: bytes, source: str) -> list[str]:
    lines = text_lines(data)
    i = 0
    while i < len(lines):
        line = _without_comment(lines[i])
        if not line.startswith("names:"):
            i += 1
            continue
        first = i + 1
        rest = line[6:].strip(" \t")
        if rest:
            opening = rest[0]
            if opening not in "[{":
                _refuse(source, first, "names: a list [a, b] or a mapping {0: a} expected")
            closing = "]" if opening == "[" else "}"
            while closing not in rest and i + 1 < len(lines):
                i += 1
                rest += " " + _without_comment(lines[i]).strip(" \t")
            end = rest.rfind(closing)
            if end < 0 or rest[end + 1:].strip(" \t"):
                _refuse(source, first, f"names: no closing '{closing}'")
            items = _flow_items(rest[1:end])
            if opening == "[":
                return [_scalar(item, source, first) for item in items]
            by_index: dict[int, str] = {}
            for item in items:
                _add_numbered(by_index, item, source, first)
            return _from_map(by_index, source, first)
        names: list[str] = []
        numbered: dict[int, str] = {}
        for k in range(i + 1, len(lines)):
            item_line = _without_comment(lines[k])
            if not item_line.strip(" \t"):
                continue
            if item_line[0] not in " \t-":
                break
            item = item_line.strip(" \t")
            if item[0] == "-":
                if numbered:
                    _refuse(source, k + 1, "names: a list item among numbered names")
                names.append(_scalar(item[1:], source, k + 1))
            else:
                if names:
                    _refuse(source, k + 1, "names: a numbered name among list items")
                _add_numbered(numbered, item, source, k + 1)
        if numbered:
            return _from_map(numbered, source, first)
        if not names:
            _refuse(source, first, "names: no class name follows")
        return names
    raise LabelError(f"'{source}' has no \"names:\" entry")


def parse_names(data: bytes, source: str) -> list[str]:
    lines = text_lines(data)
    while lines and not lines[-1].strip(" \t"):
        lines.pop()
    names = []
    for i, line in enumerate(lines, start=1):
        name = line.strip(" \t")
        if not name:
            _refuse(source, i, "an empty class name")
        names.append(name)
    if not names:
        raise LabelError(f"'{source}' holds no class name")
    return names


def parse_label_text(data: bytes, source: str, width: int, height: int, names: list[str]) -> list[LabelBox]:
    if width <= 0 or height <= 0:
        raise LabelError(f"'{source}': the picture's size is not known, so the boxes cannot be placed")
    boxes = []
    for number, line in enumerate(text_lines(data), start=1):
        fields = fields_of(line)
        if not fields:
            continue
        n = len(fields)
        polygon = n >= 7 and n % 2 == 1
        if n not in (5, 6) and not polygon:
            _refuse(source, number, f"5 values expected (class cx cy w h; a sixth for a confidence, or a polygon of "
                                    f"3 or more points), {n} found")
        v = []
        for f in fields:
            value = parse_real(f)
            if value is None:
                _refuse(source, number, f"'{f}' is not a number")
            v.append(value)
        if v[0] < 0 or v[0] != math.floor(v[0]) or v[0] > 1e6:
            _refuse(source, number, f"the class '{fields[0]}' is not a class number 0, 1, 2, ...")
        cls = int(v[0])
        if names and cls >= len(names):
            _refuse(source, number, f"class {cls}, but the class names list {len(names)} "
                                    f"class{'' if len(names) == 1 else 'es'} (0..{len(names) - 1})")
        coordinates = n - 1 if polygon else 4
        for k in range(1, coordinates + 1):
            if v[k] < -_SLACK or v[k] > 1.0 + _SLACK:
                _refuse(source, number, f"'{fields[k]}' lies outside 0..1 (YOLO coordinates are fractions of the "
                                        "picture's size)")
            v[k] = min(1.0, max(0.0, v[k]))
        score: Optional[float] = None
        if polygon:
            xs, ys = v[1::2], v[2::2]
            left, right, top, bottom = min(xs), max(xs), min(ys), max(ys)
        else:
            if not (v[3] > 0.0) or not (v[4] > 0.0):
                _refuse(source, number, "width and height must be above 0")
            left, right = v[1] - v[3] / 2, v[1] + v[3] / 2
            top, bottom = v[2] - v[4] / 2, v[2] + v[4] / 2
            if n == 6:
                if v[5] < 0.0 or v[5] > 1.0:
                    _refuse(source, number, f"the confidence '{fields[5]}' lies outside 0..1")
                score = v[5]
        if not (right > left) or not (bottom > top):
            _refuse(source, number, "the polygon has no area")
        boxes.append(LabelBox(names[cls] if names else str(cls), left * width, top * height, (right - left) * width,
                              (bottom - top) * height, score=score))
    return boxes


def _names_near(folder: str) -> Optional[list[str]]:
    here = folder
    for _ in range(3):
        if not here:
            break
        for name in ("data.yaml", "data.yml", "classes.txt", "obj.names"):
            candidate = os.path.join(here, name)
            if os.path.isfile(candidate):
                data = read_label_file(candidate, MAX_PICTURE_LABEL_BYTES, "class names file")
                return parse_data_yaml(data, candidate) if name.startswith("data.") else parse_names(data, candidate)
        parent = os.path.dirname(here)
        if parent == here:
            break
        here = parent
    return None


def label_file_for(picture: str) -> str:
    parts = picture.split(os.sep)
    for i in range(len(parts) - 2, -1, -1):
        if parts[i] == "images":
            swapped = os.sep.join(parts[:i] + ["labels"] + parts[i + 1:])
            swapped = os.path.splitext(swapped)[0] + ".txt"
            if os.path.isfile(swapped):
                return swapped
            break
    return os.path.splitext(picture)[0] + ".txt"


def _pictures_under(root: str) -> list[str]:
    found = []
    for folder, folders, files in os.walk(root, followlinks=True):
        depth = os.path.relpath(folder, root).count(os.sep) + (0 if folder == root else 1)
        folders[:] = sorted(f for f in folders if not f.startswith(".")) if depth < 8 else []
        for f in files:
            if not f.startswith(".") and is_picture_file_name(f):
                found.append(os.path.join(folder, f))
    return sorted(found)


def read_yolo(path: str) -> LabelSet:
    result = LabelSet(format="yolo", source=path)
    root = path
    pictures: list[str] = []
    single = False
    if os.path.isfile(path):
        name = os.path.basename(path)
        if name in ("data.yaml", "data.yml"):
            root = os.path.dirname(path) or "."
        else:
            single = True
            folder = os.path.dirname(path) or "."
            folders = [folder] + ([os.path.join(os.path.dirname(folder), "images")]
                                  if os.path.basename(folder) == "labels" else [])
            stem = os.path.splitext(name)[0]
            for f in folders:
                if os.path.isdir(f):
                    pictures = sorted(os.path.join(f, x) for x in os.listdir(f)
                                      if os.path.splitext(x)[0] == stem and is_picture_file_name(x))
                if pictures:
                    break
            if not pictures:
                raise LabelError(f"no picture for YOLO label file '{path}' (looked beside it"
                                 + (" and in ../images" if len(folders) > 1 else "") + ")")
            pictures = pictures[:1]
    elif not os.path.isdir(path):
        raise LabelError(f"cannot open YOLO labels '{path}': no such file or folder")
    if not pictures:
        pictures = _pictures_under(root)
        if not pictures:
            raise LabelError(f"YOLO folder '{path}' holds no picture")
    names = _names_near(root if os.path.isdir(root) else os.path.dirname(root))
    if names is None:
        names = _names_near(os.path.dirname(label_file_for(pictures[0])))
    if names is None:
        names = []
        result.notes.append(f"no data.yaml, classes.txt or obj.names near '{path}': classes are named by their numbers")
    result.classes = list(names)
    result.class_ids = list(range(len(names)))
    without = 0
    for i, p in enumerate(pictures, start=1):
        picture = LabelledPicture(name=os.path.basename(p), picture=p, id=i)
        label = path if single else label_file_for(p)
        picture.source = f"'{label}'"
        if not os.path.isfile(label):
            without += 1
            result.pictures.append(picture)
            continue
        data = read_label_file(label, MAX_PICTURE_LABEL_BYTES)
        picture.width, picture.height = picture_size(p)
        picture.boxes = parse_label_text(data, label, picture.width, picture.height, names)
        result.pictures.append(picture)
    if without:
        result.notes.append(f"{without} picture{'' if without == 1 else 's'} in '{path}' "
                            f"{'has' if without == 1 else 'have'} no label file and {'is' if without == 1 else 'are'} "
                            "taken as showing no object")
    result.add_used_classes()
    if not names:
        result.class_ids = [int(c) for c in result.classes]
    return result


def write_label_text(picture: LabelledPicture, classes: list[str]) -> str:
    if picture.width <= 0 or picture.height <= 0:
        raise LabelError(f"the size of '{picture.name}' is not known: YOLO labels need it")
    lines = []
    for b in picture.boxes:
        if b.class_name not in classes:
            raise LabelError(f"class '{b.class_name}' is not among the classes written to classes.txt")
        w, h = float(picture.width), float(picture.height)
        line = (f"{classes.index(b.class_name)} {(b.x + b.w / 2) / w:.6f} {(b.y + b.h / 2) / h:.6f} "
                f"{b.w / w:.6f} {b.h / h:.6f}")
        if b.score is not None:
            line += f" {b.score:.6f}"
        lines.append(line + "\n")
    return "".join(lines)


def write_names(classes: list[str]) -> str:
    return "".join(c + "\n" for c in classes)
