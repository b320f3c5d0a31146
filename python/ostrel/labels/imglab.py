"""dlib's imglab XML (tools/ostrel/labels/imglab_labels.*)."""
from __future__ import annotations

import math
import os
from xml.sax.saxutils import escape, quoteattr

from ._pictures import find_picture, picture_name_for
from ._records import LabelBox, LabelError, LabelledPicture, LabelSet
from ._text import MAX_LABEL_SET_BYTES, XmlNode, flag_text, number_text, parse_real, parse_xml, read_label_file

UNLABELLED_CLASS = "object"


def _fail(source: str, node: XmlNode, reason: str) -> None:
    raise LabelError(f"'{source}' line {node.line}: {reason}")


def _whole(source: str, node: XmlNode, name: str) -> int:
    if name not in node.attrib:
        _fail(source, node, f"<{node.tag}> has no {name}='...'")
    value = parse_real(node.attrib[name])
    if value is None or value != math.floor(value):
        _fail(source, node, f"{name}='{node.attrib[name]}' is not a whole number")
    return int(value)  # type: ignore[arg-type]


def _flag(source: str, node: XmlNode, name: str) -> bool:
    if name not in node.attrib:
        return False
    f = flag_text(node.attrib[name])
    if f is None:
        _fail(source, node, f"{name}='{node.attrib[name]}' is not 0 or 1")
    return bool(f)


def parse_imglab(data: bytes, source: str) -> LabelSet:
    root = parse_xml(data, source)
    if root.tag != "dataset":
        raise LabelError(f"'{source}' is not an imglab file: no <dataset> element")
    result = LabelSet(format="imglab", source=source)
    images = root.child("images")
    for image in images.children_named("image") if images is not None else []:
        name = image.attrib.get("file", "")
        if not name:
            _fail(source, image, "<image> has no file='...'")
        picture = LabelledPicture(name=name, source=f"'{source}' line {image.line}", id=len(result.pictures) + 1)
        if "width" in image.attrib:
            picture.width = _whole(source, image, "width")
        if "height" in image.attrib:
            picture.height = _whole(source, image, "height")
        for b in image.children_named("box"):
            top, left = _whole(source, b, "top"), _whole(source, b, "left")
            width, height = _whole(source, b, "width"), _whole(source, b, "height")
            if width < 1 or height < 1 or abs(top) > 1000000000 or abs(left) > 1000000000 or width > 1000000000 \
                    or height > 1000000000:
                _fail(source, b, "width and height must be at least 1, and values within +-1e9")
            label = b.child_text("label") or ""
            box = LabelBox(label or UNLABELLED_CLASS, float(left), float(top), float(width), float(height),
                           difficult=_flag(source, b, "ignore") or _flag(source, b, "difficult"),
                           truncated=_flag(source, b, "truncated"), occluded=_flag(source, b, "occluded"))
            if "detection_score" in b.attrib:
                score = parse_real(b.attrib["detection_score"])
                if score is not None:
                    box.score = score
            picture.boxes.append(box)
        result.pictures.append(picture)
    result.add_used_classes()
    return result


def read_imglab(path: str) -> LabelSet:
    result = parse_imglab(read_label_file(path, MAX_LABEL_SET_BYTES), path)
    folder = os.path.dirname(path) or "."
    for picture in result.pictures:
        find_picture(picture, [folder])
    return result


def write_imglab(result: LabelSet, base: str = "") -> bytes:
    """The file as imglab writes it: ISO-8859-1 declared (other characters as references)."""
    out = ['<?xml version="1.0" encoding="ISO-8859-1"?>', "<dataset>", "  <name>imglab dataset</name>",
           "  <comment>Written by ostrel.</comment>", "  <images>"]
    for p in result.pictures:
        where = p.picture or p.name
        size = f' width="{p.width}" height="{p.height}"' if p.width > 0 and p.height > 0 else ""
        out.append(f"    <image file={quoteattr(picture_name_for(where, base))}{size}>")
        for b in p.boxes:
            x, y, w, h = b.rounded()
            attributes = f'top="{y}" left="{x}" width="{w}" height="{h}"'
            if b.difficult:
                attributes += ' ignore="1"'
            if b.truncated:
                attributes += ' truncated="1"'
            if b.occluded:
                attributes += ' occluded="1"'
            if b.score is not None:
                attributes += f' detection_score="{number_text(b.score)}"'
            out += [f"      <box {attributes}>", f"        <label>{escape(b.class_name)}</label>", "      </box>"]
        out.append("    </image>")
    out += ["  </images>", "</dataset>"]
    return ("\n".join(out) + "\n").encode("latin-1", errors="xmlcharrefreplace")
