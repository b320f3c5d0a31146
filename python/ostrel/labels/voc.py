"""Pascal VOC: one XML file per picture (1-based, inclusive corners), and
folders of them (tools/ostrel/files/voc_annotations.*, labels/voc_labels.*)."""
from __future__ import annotations

import math
import os
from typing import Optional
from xml.sax.saxutils import escape

from ._pictures import find_picture, is_picture_file_name, picture_name_for
from ._records import LabelBox, LabelError, LabelledPicture, LabelSet
from ._text import XmlNode, number_text, parse_real, parse_xml, read_label_file

_MAX_ANNOTATION_BYTES = 512 * 1024 * 1024


def _number(text: Optional[str]) -> Optional[float]:
    return None if text is None or text == "" else parse_real(text)


def _flag(text: Optional[str]) -> bool:
    if text is None:
        return False
    v = text.lower()
    if v in ("true", "yes"):
        return True
    n = parse_real(v)
    return n is not None and n != 0.0


def _lround(v: float) -> int:
    return int(math.floor(v + 0.5)) if v >= 0 else -int(math.floor(-v + 0.5))


def parse_voc(data: bytes, source: str) -> tuple[LabelledPicture, str]:
    """One annotation file: the picture record (name = <filename>) and <path>."""
    root = parse_xml(data, source)
    if root.tag != "annotation":
        raise LabelError(f"'{source}' is not a Pascal VOC annotation: no <annotation> element")
    picture = LabelledPicture(name=root.child_text("filename") or "", source=f"'{source}'")
    size = root.child("size")
    if size is not None:
        w, h = _number(size.child_text("width") or ""), _number(size.child_text("height") or "")
        picture.width = _lround(w) if w is not None else 0
        picture.height = _lround(h) if h is not None else 0
    for index, obj in enumerate(root.children_named("object"), start=1):
        where = f"'{source}', object {index}"
        name = obj.child_text("name") or ""
        if not name:
            raise LabelError(f"{where}: no <name>")
        bndbox = obj.child("bndbox")
        if bndbox is None:
            raise LabelError(f"{where}: no <bndbox>")
        values = []
        for tag in ("xmin", "ymin", "xmax", "ymax"):
            text = bndbox.child_text(tag)
            number = _number(text) if text is not None else None
            if number is None:
                raise LabelError(f"{where}: <{tag}> is missing or not a number")
            values.append(_lround(number))
        xmin, ymin, xmax, ymax = values
        if xmax < xmin or ymax < ymin:
            raise LabelError(f"{where}: xmax/ymax lie before xmin/ymin")
        x, y = max(xmin - 1, 0), max(ymin - 1, 0)
        box = LabelBox(name, float(x), float(y), float(xmax - x), float(ymax - y),
                       difficult=_flag(obj.child_text("difficult")), truncated=_flag(obj.child_text("truncated")),
                       occluded=_flag(obj.child_text("occluded")))
        for tag in ("score", "confidence"):
            score = _number(obj.child_text(tag))
            if score is not None:
                box.score = score
                break
        picture.boxes.append(box)
    return picture, root.child_text("path") or ""


def _first_dir(base: str, names: tuple[str, ...]) -> Optional[str]:
    for n in names:
        if os.path.isdir(os.path.join(base, n)):
            return os.path.join(base, n)
    return None


def _by_path(recorded: str, folder: str) -> Optional[str]:
    if not recorded:
        return None
    candidate = recorded if os.path.isabs(recorded) else os.path.join(folder, recorded)
    return candidate if os.path.isfile(candidate) else None


def read_voc(path: str) -> LabelSet:
    result = LabelSet(format="voc", source=path)
    if not os.path.isfile(path):
        if not os.path.isdir(path):
            raise LabelError(f"cannot open VOC folder '{path}': no such folder")
        annotations = _first_dir(path, ("Annotations", "annotations")) or path
        pictures = _first_dir(path, ("JPEGImages", "images", "Images")) or annotations
        files = sorted(f for f in os.listdir(annotations)
                       if f.lower().endswith(".xml") and os.path.isfile(os.path.join(annotations, f)))
        if not files:
            raise LabelError(f"VOC folder '{path}' holds no annotation (.xml) file")
        for file in files:
            xml_path = os.path.join(annotations, file)
            picture, recorded = parse_voc(read_label_file(xml_path, _MAX_ANNOTATION_BYTES, "annotation file"), xml_path)
            found = None
            if picture.name and os.path.isfile(os.path.join(pictures, picture.name)):
                found = os.path.join(pictures, picture.name)
            else:
                stem = os.path.splitext(file)[0]
                for candidate in sorted(os.listdir(pictures)):
                    full = os.path.join(pictures, candidate)
                    if os.path.splitext(candidate)[0] == stem and is_picture_file_name(candidate) and os.path.isfile(full):
                        found = full
                        break
            if found is None:
                found = _by_path(recorded, annotations)
            if found is None:
                raise LabelError(f"no picture for annotation '{xml_path}' in '{pictures}'")
            picture.picture = found
            if not picture.name:
                picture.name = os.path.basename(found)
            result.pictures.append(picture)
    else:
        picture, recorded = parse_voc(read_label_file(path, _MAX_ANNOTATION_BYTES, "annotation file"), path)
        folder = os.path.dirname(path) or "."
        parent = os.path.dirname(os.path.dirname(path))
        if not picture.name:
            picture.name = os.path.splitext(os.path.basename(path))[0] + ".jpg"
        find_picture(picture, [folder, os.path.join(parent, "JPEGImages"), os.path.join(parent, "images")])
        if picture.picture is None:
            picture.picture = _by_path(recorded, folder)
        result.pictures.append(picture)
    for i, p in enumerate(result.pictures, start=1):
        p.id = i
    result.add_used_classes()
    return result


def _rounded(box: LabelBox) -> tuple[int, int, int, int]:
    return box.rounded()


def write_voc(picture: LabelledPicture, base: str = "") -> str:
    """One picture's annotation file, as LabelImg writes it (a score as <score>)."""
    where = picture.picture or picture.name
    folder = os.path.basename(os.path.dirname(where))
    lines = ["<annotation>", f"\t<folder>{escape(folder)}</folder>",
             f"\t<filename>{escape(os.path.basename(where))}</filename>",
             f"\t<path>{escape(picture_name_for(where, base))}</path>",
             "\t<source>", "\t\t<database>Unknown</database>", "\t</source>",
             "\t<size>", f"\t\t<width>{picture.width}</width>", f"\t\t<height>{picture.height}</height>",
             "\t\t<depth>3</depth>", "\t</size>", "\t<segmented>0</segmented>"]
    for box in picture.boxes:
        x, y, w, h = _rounded(box)
        lines += ["\t<object>", f"\t\t<name>{escape(box.class_name)}</name>", "\t\t<pose>Unspecified</pose>",
                  f"\t\t<truncated>{1 if box.truncated else 0}</truncated>",
                  f"\t\t<difficult>{1 if box.difficult else 0}</difficult>"]
        if box.occluded:
            lines.append("\t\t<occluded>1</occluded>")
        if box.score is not None:
            lines.append(f"\t\t<score>{number_text(box.score)}</score>")
        lines += ["\t\t<bndbox>", f"\t\t\t<xmin>{x + 1}</xmin>", f"\t\t\t<ymin>{y + 1}</ymin>",
                  f"\t\t\t<xmax>{x + w}</xmax>", f"\t\t\t<ymax>{y + h}</ymax>", "\t\t</bndbox>", "\t</object>"]
    lines.append("</annotation>")
    return "\n".join(lines) + "\n"
