"""CVAT for images 1.1 XML (tools/ostrel/labels/cvat_labels.*)."""
from __future__ import annotations

import math
import os
from xml.sax.saxutils import quoteattr, escape

from ._pictures import find_picture, picture_name_for
from ._records import LabelBox, LabelError, LabelledPicture, LabelSet
from ._text import MAX_LABEL_SET_BYTES, XmlNode, flag_text, number_text, parse_real, parse_xml, read_label_file


def _fail(source: str, node: XmlNode, reason: str) -> None:
    raise LabelError(f"'{source}' line {node.line}: {reason}")


def _number(source: str, node: XmlNode, name: str) -> float:
    if name not in node.attrib:
        _fail(source, node, f'<{node.tag}> has no {name}="..."')
    value = parse_real(node.attrib[name])
    if value is None:
        _fail(source, node, f'{name}="{node.attrib[name]}" is not a number')
    return value  # type: ignore[return-value]


def _unrotate(box: LabelBox, degrees: float) -> None:
    r = degrees * math.pi / 180.0
    c, s = abs(math.cos(r)), abs(math.sin(r))
    cx, cy = box.x + box.w / 2, box.y + box.h / 2
    w, h = box.w * c + box.h * s, box.w * s + box.h * c
    box.x, box.y, box.w, box.h = cx - w / 2, cy - h / 2, w, h


def _labels(node: XmlNode, out: list[str]) -> None:
    """meta//labels/label names, in document order."""
    for child in node.children:
        if child.tag == "labels":
            for label in child.children_named("label"):
                name = label.child_text("name") or ""
                if name and name not in out:
                    out.append(name)
        else:
            _labels(child, out)


def parse_cvat(data: bytes, source: str) -> LabelSet:
    root = parse_xml(data, source)
    if root.tag != "annotations":
        raise LabelError(f"'{source}' is not a CVAT file: no <annotations> element")
    track = root.child("track")
    if track is not None:
        _fail(source, track, 'a CVAT for video file (<track>): export the task as "CVAT for images 1.1"')
    result = LabelSet(format="cvat", source=source)
    meta = root.child("meta")
    if meta is not None:
        _labels(meta, result.classes)
    others = 0
    ids: set[int] = set()
    for image in root.children_named("image"):
        name = image.attrib.get("name", "")
        if not name:
            _fail(source, image, '<image> has no name="..."')
        picture = LabelledPicture(name=name, source=f"'{source}' line {image.line}")
        image_id = _number(source, image, "id") if "id" in image.attrib else float(len(result.pictures))
        if image_id < 0 or image_id != math.floor(image_id) or int(image_id) in ids:
            _fail(source, image, f'id="{image.attrib.get("id", "")}" is not a new whole number')
        ids.add(int(image_id))
        picture.id = int(image_id)
        if "width" in image.attrib:
            picture.width = int(math.floor(_number(source, image, "width") + 0.5))
        if "height" in image.attrib:
            picture.height = int(math.floor(_number(source, image, "height") + 0.5))
        for shape in image.children:
            if shape.tag != "box":
                others += 1
                continue
            label = shape.attrib.get("label", "")
            if not label:
                _fail(source, shape, '<box> has no label="..."')
            xtl, ytl = _number(source, shape, "xtl"), _number(source, shape, "ytl")
            xbr, ybr = _number(source, shape, "xbr"), _number(source, shape, "ybr")
            if not (xbr > xtl) or not (ybr > ytl):
                _fail(source, shape, "xbr/ybr must lie beyond xtl/ytl")
            box = LabelBox(label, xtl, ytl, xbr - xtl, ybr - ytl)
            if "occluded" in shape.attrib:
                box.occluded = bool(flag_text(shape.attrib["occluded"]))
            for attribute in shape.children_named("attribute"):
                key = attribute.attrib.get("name", "")
                on = flag_text(attribute.text)
                if key == "difficult":
                    box.difficult = bool(on)
                elif key in ("crowd", "iscrowd", "is_crowd"):
                    box.crowd = bool(on)
                elif key == "truncated":
                    box.truncated = bool(on)
                elif key in ("score", "confidence"):
                    value = parse_real(attribute.text.strip(" \t\r\n"))
                    if value is not None:
                        box.score = value
            if "rotation" in shape.attrib:
                degrees = _number(source, shape, "rotation")
                if degrees != 0.0:
                    _unrotate(box, degrees)
            picture.boxes.append(box)
        result.pictures.append(picture)
    if others:
        result.notes.append(f"'{source}': {others} shape{'' if others == 1 else 's'} other than boxes "
                            "(polygons, points, tags, ...) passed over")
    result.add_used_classes()
    return result


def read_cvat(path: str) -> LabelSet:
    result = parse_cvat(read_label_file(path, MAX_LABEL_SET_BYTES), path)
    folder = os.path.dirname(path) or "."
    for picture in result.pictures:
        find_picture(picture, [os.path.join(folder, "images"), folder])
    return result


def write_cvat(result: LabelSet, base: str = "") -> str:
    scores = any(b.score is not None for p in result.pictures for b in p.boxes)
    out = ['<?xml version="1.0" encoding="utf-8"?>', "<annotations>", "  <version>1.1</version>", "  <meta>",
           "    <task>", f"      <size>{len(result.pictures)}</size>", "      <mode>annotation</mode>", "      <labels>"]
    for c in result.classes:
        out += ["        <label>", f"          <name>{escape(c)}</name>", "          <type>rectangle</type>"]
        if scores:
            out += ["          <attributes>", "            <attribute>", "              <name>score</name>",
                    "              <mutable>False</mutable>", "              <input_type>number</input_type>",
                    "              <default_value>0</default_value>", "              <values>0\n1\n0.01</values>",
                    "            </attribute>", "          </attributes>"]
        else:
            out.append("          <attributes />")
        out.append("        </label>")
    out += ["      </labels>", "    </task>", "  </meta>"]
    for p in result.pictures:
        where = p.picture or p.name
        out.append(f'  <image id="{p.id}" name={quoteattr(picture_name_for(where, base))} width="{p.width}" '
                   f'height="{p.height}">')
        for b in p.boxes:
            head = (f'    <box label={quoteattr(b.class_name)} source="{"auto" if b.score is not None else "manual"}" '
                    f'occluded="{1 if b.occluded else 0}" xtl="{b.x:.2f}" ytl="{b.y:.2f}" xbr="{b.x + b.w:.2f}" '
                    f'ybr="{b.y + b.h:.2f}" z_order="0"')
            attributes = []
            if b.score is not None:
                attributes.append(f'      <attribute name="score">{number_text(b.score)}</attribute>')
            if b.difficult:
                attributes.append('      <attribute name="difficult">true</attribute>')
            if b.crowd:
                attributes.append('      <attribute name="is_crowd">true</attribute>')
            if attributes:
                out += [head + ">"] + attributes + ["    </box>"]
            else:
                out.append(head + " />")
        out.append("  </image>")
    out.append("</annotations>")
    return "\n".join(out) + "\n"
