"""COCO dataset files (instances_*.json) and results files
(tools/ostrel/labels/coco_labels.*)."""
from __future__ import annotations

import json
import math
import os
from typing import Any, Optional

from ._pictures import find_picture, picture_name_for
from ._records import LabelBox, LabelError, LabelledPicture, LabelSet
from ._text import JsonReader, json_path, parse_json, read_label_file, MAX_LABEL_SET_BYTES


def looks_like_dataset(value: Any) -> bool:
    return isinstance(value, dict) and "images" in value and ("annotations" in value or "categories" in value)


def looks_like_results(value: Any) -> bool:
    return (isinstance(value, list) and len(value) > 0 and isinstance(value[0], dict) and "image_id" in value[0]
            and "bbox" in value[0])


def _bbox(r: JsonReader, entry: Any, path: str) -> tuple[float, float, float, float]:
    where = json_path(path, "bbox")
    bbox = r.member(entry, path, "bbox")
    if not isinstance(bbox, list) or len(bbox) != 4:
        r.fail(where, "[x, y, width, height] expected")
    x, y, w, h = (r.number(bbox[i], json_path(where, i)) for i in range(4))
    if not (w > 0.0) or not (h > 0.0):
        r.fail(where, "width and height must be above 0")
    return x, y, w, h


def parse_coco(data: bytes, source: str) -> LabelSet:
    document = parse_json(data, source)
    r = JsonReader(source)
    if not isinstance(document, dict):
        r.fail("", 'a COCO file is an object with "images", "annotations" and "categories"')
    result = LabelSet(format="coco", source=source)
    names: dict[int, str] = {}
    categories = r.optional(document, "categories")
    if categories is not None:
        r.require_array(categories, "categories")
        for i, c in enumerate(categories):
            path = json_path("categories", i)
            r.require_object(c, path)
            cid = r.integer(r.member(c, path, "id"), json_path(path, "id"))
            name = r.text(r.member(c, path, "name"), json_path(path, "name"))
            if cid in names:
                r.fail(json_path(path, "id"), f"category id {cid} given twice")
            names[cid] = name
            result.classes.append(name)
            result.class_ids.append(cid)
    images = r.member(document, "", "images")
    r.require_array(images, "images")
    by_id: dict[str, int] = {}
    for i, image in enumerate(images):
        path = json_path("images", i)
        r.require_object(image, path)
        id_value = r.member(image, path, "id")
        image_id = r.id_text(id_value, json_path(path, "id"))
        picture = LabelledPicture(name=r.text(r.member(image, path, "file_name"), json_path(path, "file_name")),
                                  source=f"'{source}' {path}")
        picture.id = i + 1 if isinstance(id_value, str) else r.integer(id_value, json_path(path, "id"))
        for key in ("width", "height"):
            v = r.optional(image, key)
            if v is not None:
                n = r.integer(v, json_path(path, key))
                if n < 0 or n > 1000000:
                    r.fail(json_path(path, key), "0..1000000 expected")
                setattr(picture, key, n)
        if image_id in by_id:
            r.fail(json_path(path, "id"), f"image id {image_id} given twice")
        by_id[image_id] = len(result.pictures)
        result.pictures.append(picture)
    annotations = r.optional(document, "annotations")
    if annotations is not None:
        r.require_array(annotations, "annotations")
        for i, a in enumerate(annotations):
            path = json_path("annotations", i)
            r.require_object(a, path)
            image_id = r.id_text(r.member(a, path, "image_id"), json_path(path, "image_id"))
            if image_id not in by_id:
                r.fail(json_path(path, "image_id"), f"no image has id {image_id}")
            category = r.integer(r.member(a, path, "category_id"), json_path(path, "category_id"))
            if category not in names:
                r.fail(json_path(path, "category_id"), f"no category has id {category}")
            x, y, w, h = _bbox(r, a, path)
            box = LabelBox(names[category], x, y, w, h)
            crowd = r.optional(a, "iscrowd")
            if crowd is not None:
                box.crowd = r.flag(crowd, json_path(path, "iscrowd"))
            area = r.optional(a, "area")
            if area is not None:
                box.area = r.number(area, json_path(path, "area"))
            score = r.optional(a, "score")
            if score is not None:
                box.score = r.number(score, json_path(path, "score"))
            result.pictures[by_id[image_id]].boxes.append(box)
    return result


def read_coco(path: str) -> LabelSet:
    result = parse_coco(read_label_file(path, MAX_LABEL_SET_BYTES), path)
    folder = os.path.dirname(path) or "."
    parent = os.path.dirname(folder)
    folders = [folder, os.path.join(folder, "images"), parent, os.path.join(parent, "images")]
    stem = os.path.splitext(os.path.basename(path))[0]
    if stem.startswith("instances_"):
        split = stem[len("instances_"):]
        folders += [os.path.join(parent, split), os.path.join(parent, "images", split)]
    for picture in result.pictures:
        find_picture(picture, folders)
    return result


def _coordinate(v: float) -> Any:
    return int(v) if v == math.floor(v) and abs(v) < 1e15 else v


def _category_id(result: LabelSet, name: str) -> int:
    for i, c in enumerate(result.classes):
        if c == name:
            return result.class_ids[i] if i < len(result.class_ids) else i + 1
    return -1


def write_dataset(result: LabelSet, base: str = "") -> str:
    images, annotations = [], []
    next_id = 0
    for p in result.pictures:
        where = p.picture or p.name
        images.append({"id": p.id, "file_name": picture_name_for(where, base), "width": p.width, "height": p.height})
        for b in p.boxes:
            next_id += 1
            entry = {"id": next_id, "image_id": p.id, "category_id": _category_id(result, b.class_name),
                     "bbox": [_coordinate(b.x), _coordinate(b.y), _coordinate(b.w), _coordinate(b.h)],
                     "area": _coordinate(b.area if b.area is not None else b.w * b.h), "iscrowd": 1 if b.crowd else 0}
            if b.score is not None:
                entry["score"] = b.score
            annotations.append(entry)
    categories = [{"id": _category_id(result, c), "name": c, "supercategory": "none"} for c in result.classes]
    document = {"info": {"description": "written by ostrel"}, "images": images, "annotations": annotations,
                "categories": categories}
    return json.dumps(document, indent=1, ensure_ascii=False) + "\n"


def write_results(detections: LabelSet, ids_from: Optional[LabelSet] = None) -> str:
    """[{image_id, category_id, bbox, score}], ids from a COCO dataset when given."""
    from ._index import PictureIndex

    index = PictureIndex(ids_from) if ids_from is not None else None
    out = []
    for p in detections.pictures:
        image_id = p.id
        if ids_from is not None and index is not None:
            where = p.picture or p.name
            i = index.find(where)
            if i < 0:
                raise LabelError(f"'{ids_from.source}' has no image for '{where}'")
            image_id = ids_from.pictures[i].id
        for b in p.boxes:
            category = _category_id(ids_from if ids_from is not None else detections, b.class_name)
            if category < 0:
                raise LabelError(f"'{ids_from.source if ids_from else 'the detections'}' has no category '{b.class_name}'")
            out.append({"image_id": image_id, "category_id": category,
                        "bbox": [_coordinate(b.x), _coordinate(b.y), _coordinate(b.w), _coordinate(b.h)],
                        "score": b.score if b.score is not None else 1.0})
    return json.dumps(out, separators=(",", ":"), ensure_ascii=False) + "\n"


def parse_results(data: bytes, source: str, dataset: LabelSet) -> LabelSet:
    document = parse_json(data, source)
    r = JsonReader(source)
    r.require_array(document, "")
    result = LabelSet(format="coco", source=source, classes=list(dataset.classes), class_ids=list(dataset.class_ids))
    by_id = {}
    for i, p in enumerate(dataset.pictures):
        result.pictures.append(LabelledPicture(name=p.name, picture=p.picture, width=p.width, height=p.height,
                                               id=p.id, source=p.source))
        by_id.setdefault(p.id, i)
    names = {(dataset.class_ids[i] if i < len(dataset.class_ids) else i + 1): c for i, c in enumerate(dataset.classes)}
    for i, entry in enumerate(document):
        path = json_path("", i)
        r.require_object(entry, path)
        image_id = r.integer(r.member(entry, path, "image_id"), json_path(path, "image_id"))
        if image_id not in by_id:
            r.fail(json_path(path, "image_id"), f"'{dataset.source}' has no image of id {image_id}")
        category = r.integer(r.member(entry, path, "category_id"), json_path(path, "category_id"))
        if category not in names:
            r.fail(json_path(path, "category_id"), f"'{dataset.source}' has no category of id {category}")
        x, y, w, h = _bbox(r, entry, path)
        box = LabelBox(names[category], x, y, w, h, score=r.number(r.member(entry, path, "score"), json_path(path, "score")))
        result.pictures[by_id[image_id]].boxes.append(box)
    return result
