"""Label Studio JSON export, JSON-MIN export, and predictions to import
(tools/ostrel/labels/labelstudio_labels.*)."""
from __future__ import annotations

import json
import math
import os
import re
import urllib.parse
from typing import Any, Callable, Optional

from ._pictures import find_picture, picture_name_for, picture_size
from ._records import LabelBox, LabelError, LabelledPicture, LabelSet
from ._text import MAX_LABEL_SET_BYTES, JsonReader, json_path, parse_json, read_label_file

_UPLOAD_PREFIX = re.compile(r"[0-9a-fA-F]{8}-")


def looks_like_labelstudio(value: Any) -> bool:
    if not isinstance(value, list) or not value or not isinstance(value[0], dict):
        return False
    task = value[0]
    return ("annotations" in task or "predictions" in task or "completions" in task
            or isinstance(task.get("data"), dict) or ("image" in task and "label" in task))


def path_of_address(address: str) -> str:
    d = address.find("?d=")
    if d >= 0:
        return urllib.parse.unquote(address[d + 3:])
    path = re.split(r"[?#]", address, maxsplit=1)[0]
    return urllib.parse.unquote(path.rsplit("/", 1)[-1])


def without_upload_prefix(name: str) -> str:
    return name[9:] if len(name) > 9 and _UPLOAD_PREFIX.match(name[:9]) else name


def _unrotate(box: LabelBox, degrees: float) -> None:
    r = degrees * math.pi / 180.0
    c, s = math.cos(r), math.sin(r)
    xs = [0.0, box.w * c, box.w * c - box.h * s, -box.h * s]
    ys = [0.0, box.w * s, box.w * s + box.h * c, box.h * c]
    box.x += min(xs)
    box.y += min(ys)
    box.w = max(xs) - min(xs)
    box.h = max(ys) - min(ys)


class _Region:
    def __init__(self) -> None:
        self.x = self.y = self.w = self.h = self.rotation = 0.0
        self.labels: list[str] = []
        self.score: Optional[float] = None
        self.original_width = self.original_height = 0.0


def _value(r: JsonReader, value: Any, path: str, region: _Region) -> None:
    region.x = r.number(r.member(value, path, "x"), json_path(path, "x"))
    region.y = r.number(r.member(value, path, "y"), json_path(path, "y"))
    region.w = r.number(r.member(value, path, "width"), json_path(path, "width"))
    region.h = r.number(r.member(value, path, "height"), json_path(path, "height"))
    rotation = r.optional(value, "rotation")
    if rotation is not None:
        region.rotation = r.number(rotation, json_path(path, "rotation"))
    if not (region.w > 0) or not (region.h > 0):
        r.fail(path, "width and height must be above 0")
    labels = r.optional(value, "rectanglelabels")
    if labels is not None:
        r.require_array(labels, json_path(path, "rectanglelabels"))
        for k, label in enumerate(labels):
            region.labels.append(r.text(label, json_path(json_path(path, "rectanglelabels"), k)))


def _original(r: JsonReader, holder: Any, path: str, region: _Region) -> None:
    w = r.optional(holder, "original_width")
    if w is not None:
        region.original_width = r.number(w, json_path(path, "original_width"))
    h = r.optional(holder, "original_height")
    if h is not None:
        region.original_height = r.number(h, json_path(path, "original_height"))


def _regions(r: JsonReader, result: Any, path: str, counts: list[int]) -> list[_Region]:
    r.require_array(result, path)
    regions: list[_Region] = []
    labels_by_id: dict[str, list[str]] = {}
    unlabelled: list[tuple[str, int]] = []
    for i, item in enumerate(result):
        item_path = json_path(path, i)
        r.require_object(item, item_path)
        kind_value = r.optional(item, "type")
        kind = r.text(kind_value, json_path(item_path, "type")) if kind_value is not None else ""
        id_value = r.optional(item, "id")
        id_text = r.id_text(id_value, json_path(item_path, "id")) if id_value is not None else ""
        if kind == "labels":
            value = r.member(item, item_path, "value")
            labels = r.optional(value, "labels")
            if labels is not None:
                r.require_array(labels, json_path(json_path(item_path, "value"), "labels"))
                labels_by_id.setdefault(id_text, []).extend(label for label in labels if isinstance(label, str))
            continue
        if kind not in ("rectanglelabels", "rectangle"):
            counts[0] += 1
            continue
        region = _Region()
        _value(r, r.member(item, item_path, "value"), json_path(item_path, "value"), region)
        _original(r, item, item_path, region)
        score = r.optional(item, "score")
        if score is not None:
            region.score = r.number(score, json_path(item_path, "score"))
        if not region.labels:
            unlabelled.append((id_text, len(regions)))
        regions.append(region)
    for id_text, index in unlabelled:
        if not labels_by_id.get(id_text):
            r.fail(path, f"a rectangle (id '{id_text}') without a label")
        regions[index].labels = labels_by_id[id_text]
    return regions


def _address(r: JsonReader, data: Any, path: str) -> str:
    r.require_object(data, path)
    image = r.optional(data, "image")
    if image is not None:
        return r.text(image, json_path(path, "image"))
    found = ""
    for value in data.values():
        if isinstance(value, str):
            if found:
                r.fail(path, 'no "image" and several text fields: which one names the picture is not known')
            found = value
    if not found:
        r.fail(json_path(path, "image"), "missing")
    return found


Lookup = Callable[[LabelledPicture], None]


def _size(picture: LabelledPicture, regions: list[_Region], lookup: Optional[Lookup]) -> None:
    for region in regions:
        if region.original_width > 0 and region.original_height > 0:
            picture.width = int(math.floor(region.original_width + 0.5))
            picture.height = int(math.floor(region.original_height + 0.5))
    if lookup is not None:
        lookup(picture)
    if (picture.width <= 0 or picture.height <= 0) and regions:
        raise LabelError(f"{picture.source}: no original_width/original_height, and no picture '{picture.name}' "
                         "to take the size from")


def _add(picture: LabelledPicture, regions: list[_Region]) -> None:
    for region in regions:
        for label in region.labels:
            box = LabelBox(label, region.x * picture.width / 100.0, region.y * picture.height / 100.0,
                           region.w * picture.width / 100.0, region.h * picture.height / 100.0, score=region.score)
            if region.rotation != 0.0:
                _unrotate(box, region.rotation)
            picture.boxes.append(box)


def parse_labelstudio(data: bytes, source: str, lookup: Optional[Lookup] = None) -> LabelSet:
    document = parse_json(data, source)
    r = JsonReader(source)
    result = LabelSet(format="labelstudio", source=source)
    tasks = [document] if isinstance(document, dict) else document
    r.require_array(tasks, "")
    counts = [0]
    for i, task in enumerate(tasks):
        path = json_path("", i)
        r.require_object(task, path)
        picture = LabelledPicture(name="", source=f"'{source}' {path}")
        task_id = r.optional(task, "id")
        picture.id = r.integer(task_id, json_path(path, "id")) if isinstance(task_id, int) and not isinstance(task_id, bool) else i + 1
        data_value = r.optional(task, "data")
        if data_value is not None:
            picture.name = _address(r, data_value, json_path(path, "data"))
            chosen, chosen_path = None, ""
            for key in ("annotations", "completions"):
                items = r.optional(task, key)
                if items is None or chosen is not None:
                    continue
                r.require_array(items, json_path(path, key))
                for k, a in enumerate(items):
                    a_path = json_path(json_path(path, key), k)
                    r.require_object(a, a_path)
                    cancelled = r.optional(a, "was_cancelled")
                    if cancelled is not None and r.flag(cancelled, json_path(a_path, "was_cancelled")):
                        continue
                    chosen, chosen_path = a, a_path
                    break
            if chosen is None:
                predictions = r.optional(task, "predictions")
                if predictions is not None:
                    r.require_array(predictions, json_path(path, "predictions"))
                    if predictions:
                        chosen, chosen_path = predictions[0], json_path(json_path(path, "predictions"), 0)
                        r.require_object(chosen, chosen_path)
            if chosen is not None:
                result_list = r.member(chosen, chosen_path, "result")
                regions = _regions(r, result_list, json_path(chosen_path, "result"), counts)
                _size(picture, regions, lookup)
                _add(picture, regions)
            elif lookup is not None:
                lookup(picture)
        elif r.optional(task, "image") is not None:
            picture.name = r.text(task["image"], json_path(path, "image"))
            regions = []
            for key, value in task.items():
                if not isinstance(value, list):
                    continue
                for k, v in enumerate(value):
                    if not isinstance(v, dict) or "rectanglelabels" not in v:
                        continue
                    item_path = json_path(json_path(path, key), k)
                    region = _Region()
                    _value(r, v, item_path, region)
                    _original(r, v, item_path, region)
                    regions.append(region)
            _size(picture, regions, lookup)
            _add(picture, regions)
        else:
            r.fail(json_path(path, "data"), 'missing (a Label Studio task has "data" with the picture)')
        result.pictures.append(picture)
    if counts[0]:
        result.notes.append(f"'{source}': {counts[0]} result{'' if counts[0] == 1 else 's'} other than rectangles "
                            "passed over")
    result.add_used_classes()
    return result


def read_labelstudio(path: str) -> LabelSet:
    folder = os.path.dirname(path) or "."

    def lookup(picture: LabelledPicture) -> None:
        relative = path_of_address(picture.name)
        probe = LabelledPicture(name=relative)
        for name in (relative, without_upload_prefix(relative)):
            probe.name = name
            find_picture(probe, [folder, os.path.join(folder, "images")])
            if probe.picture is not None:
                break
        picture.picture = probe.picture
        picture.looked_in = probe.looked_in
        if (picture.width <= 0 or picture.height <= 0) and picture.picture is not None:
            picture.width, picture.height = picture_size(picture.picture)

    return parse_labelstudio(read_label_file(path, MAX_LABEL_SET_BYTES), path, lookup)


def write_labelstudio(result: LabelSet, base: str = "", predictions: bool = False, model_version: str = "") -> str:
    tasks = []
    for p in result.pictures:
        where = p.picture or p.name
        regions = []
        total = 0.0
        for n, b in enumerate(p.boxes, start=1):
            region: dict[str, Any] = {
                "id": f"r{n}", "from_name": "label", "to_name": "image", "type": "rectanglelabels",
                "original_width": p.width, "original_height": p.height, "image_rotation": 0,
                "value": {"x": b.x * 100.0 / p.width, "y": b.y * 100.0 / p.height, "width": b.w * 100.0 / p.width,
                          "height": b.h * 100.0 / p.height, "rotation": 0, "rectanglelabels": [b.class_name]}}
            if b.score is not None:
                region["score"] = b.score
                total += b.score
            regions.append(region)
        task: dict[str, Any] = {"data": {"image": picture_name_for(where, base)}}
        if predictions:
            task["predictions"] = [{"model_version": model_version or "ostrel",
                                    "score": total / len(regions) if regions else 0.0, "result": regions}]
        else:
            task["annotations"] = [{"result": regions}]
        tasks.append(task)
    return json.dumps(tasks, indent=1, ensure_ascii=False) + "\n"
