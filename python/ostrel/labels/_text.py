"""What every reader shares: reading a label file within a limit, byte-order
marks and Windows line ends, numbers, JSON and XML with messages that name
the file and the line or key (the same rules as the ostrel tool's
tools/ostrel/labels/label_text.*)."""
from __future__ import annotations

import json
import math
import os
import re
import xml.parsers.expat
from dataclasses import dataclass, field
from typing import Any, Optional

from ._records import LabelError

MAX_LABEL_SET_BYTES = 512 * 1024 * 1024
MAX_PICTURE_LABEL_BYTES = 16 * 1024 * 1024

_DECIMAL = re.compile(r"[+-]?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?")


def read_label_file(path: str, max_bytes: int, what: str = "label file") -> bytes:
    if not os.path.lexists(path) or not os.path.exists(path):
        raise LabelError(f"cannot open {what} '{path}': no such file")
    if os.path.isdir(path):
        raise LabelError(f"cannot read {what} '{path}': it is a folder")
    if not os.path.isfile(path):
        raise LabelError(f"cannot read {what} '{path}': not a regular file")
    size = os.path.getsize(path)
    if size > max_bytes:
        raise LabelError(f"{what} '{path}' has {size} bytes; at most {max_bytes} are read")
    with open(path, "rb") as file:
        return file.read()


def without_bom(data: bytes) -> bytes:
    return data[3:] if data.startswith(b"\xef\xbb\xbf") else data


def text_lines(data: bytes) -> list[str]:
    """Lines without '\\n' or '\\r\\n' (a UTF-8 BOM dropped); bytes that are
    not UTF-8 are kept as U+FFFD."""
    body = without_bom(data).decode("utf-8", errors="replace")
    lines = body.split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    return [line[:-1] if line.endswith("\r") else line for line in lines]


def fields_of(line: str) -> list[str]:
    return [f for f in re.split(r"[ \t\r]+", line) if f]


def parse_real(text: str) -> Optional[float]:
    """A finite decimal written in full, within +-1e9; None otherwise."""
    if not _DECIMAL.fullmatch(text):
        return None
    value = float(text)
    if not math.isfinite(value) or abs(value) > 1e9:
        return None
    return value


def _no_constants(name: str) -> Any:
    raise ValueError(f"{name} is not JSON")


def parse_json(data: bytes, source: str, place: str = "") -> Any:
    where = f"'{source}'" + (f" {place}" if place else "")
    try:
        text = without_bom(data).decode("utf-8")
    except UnicodeDecodeError as error:
        raise LabelError(f"{where} is not valid JSON: not UTF-8 at byte {error.start}") from None
    try:
        return json.loads(text, parse_constant=_no_constants)
    except json.JSONDecodeError as error:
        raise LabelError(f"{where} is not valid JSON: {error.msg} at line {error.lineno}, column {error.colno}") from None
    except ValueError as error:
        raise LabelError(f"{where} is not valid JSON: {error}") from None


def json_path(parent: str, key: Any) -> str:
    if isinstance(key, int):
        return f"{parent}[{key}]"
    return f"{parent}.{key}" if parent else key


class JsonReader:
    """Typed reads of JSON members that refuse with "'source': path: reason"."""

    def __init__(self, source: str, place: str = "") -> None:
        self.source = source
        self.place = place

    def fail(self, path: str, reason: str) -> None:
        raise LabelError(f"'{self.source}'" + (f" {self.place}" if self.place else "") + ": "
                         + (f"{path}: " if path else "") + reason)

    def member(self, obj: Any, path: str, key: str) -> Any:
        value = self.optional(obj, key)
        if value is None:
            self.fail(json_path(path, key), "missing")
        return value

    @staticmethod
    def optional(obj: Any, key: str) -> Any:
        if not isinstance(obj, dict):
            return None
        return obj.get(key)

    def require_object(self, value: Any, path: str) -> None:
        if not isinstance(value, dict):
            self.fail(path, "an object ({...}) expected")

    def require_array(self, value: Any, path: str) -> None:
        if not isinstance(value, list):
            self.fail(path, "a list ([...]) expected")

    def number(self, value: Any, path: str) -> float:
        if isinstance(value, (int, float)) and not isinstance(value, bool):
            v = float(value)
            if math.isfinite(v) and abs(v) <= 1e9:
                return v
            self.fail(path, "a number within +-1e9 expected")
        if isinstance(value, str):
            v2 = parse_real(value)
            if v2 is not None:
                return v2
        self.fail(path, "a number expected")
        raise AssertionError

    def integer(self, value: Any, path: str) -> int:
        v = self.number(value, path)
        if v != math.floor(v):
            self.fail(path, "a whole number expected")
        return int(v)

    def text(self, value: Any, path: str) -> str:
        if not isinstance(value, str):
            self.fail(path, "a string expected")
        return value

    def id_text(self, value: Any, path: str) -> str:
        if isinstance(value, str):
            return value
        if isinstance(value, int) and not isinstance(value, bool):
            return str(value)
        if isinstance(value, float) and math.isfinite(value) and value == math.floor(value) and abs(value) < 9e15:
            return str(int(value))
        self.fail(path, "an id (a whole number or a string) expected")
        raise AssertionError

    def flag(self, value: Any, path: str) -> bool:
        if isinstance(value, bool):
            return value
        if isinstance(value, (int, float)) and value in (0, 1):
            return value == 1
        if isinstance(value, str):
            f = flag_text(value)
            if f is not None:
                return f
        self.fail(path, "0 or 1 (false or true) expected")
        raise AssertionError


def flag_text(text: str) -> Optional[bool]:
    v = "".join(c for c in text if c not in " \t\r\n").lower()
    if v in ("1", "true", "yes"):
        return True
    if v in ("0", "false", "no"):
        return False
    return None


@dataclass
class XmlNode:
    """An element with its 1-based line."""

    tag: str
    attrib: dict[str, str]
    line: int
    children: list["XmlNode"] = field(default_factory=list)
    text: str = ""

    def child(self, tag: str) -> Optional["XmlNode"]:
        for c in self.children:
            if c.tag == tag:
                return c
        return None

    def children_named(self, tag: str) -> list["XmlNode"]:
        return [c for c in self.children if c.tag == tag]

    def child_text(self, tag: str) -> Optional[str]:
        c = self.child(tag)
        return None if c is None else c.text.strip(" \t\r\n")


def parse_xml(data: bytes, source: str) -> XmlNode:
    """Parses XML with expat (byte-order marks, UTF-16 and declared
    ISO-8859-1 understood), keeping each element's line; refuses malformed
    XML with the line."""
    parser = xml.parsers.expat.ParserCreate()
    root: list[XmlNode] = []
    stack: list[XmlNode] = []

    def start(tag: str, attrib: dict[str, str]) -> None:
        node = XmlNode(tag, attrib, parser.CurrentLineNumber)
        if stack:
            stack[-1].children.append(node)
        else:
            root.append(node)
        stack.append(node)

    def end(tag: str) -> None:
        stack.pop()

    def characters(text: str) -> None:
        if stack:
            stack[-1].text += text

    parser.StartElementHandler = start
    parser.EndElementHandler = end
    parser.CharacterDataHandler = characters
    try:
        parser.Parse(data, True)
    except xml.parsers.expat.ExpatError as error:
        raise LabelError(f"'{source}' is not well-formed XML: {xml.parsers.expat.ErrorString(error.code)} "
                         f"at line {error.lineno}") from None
    if not root:
        raise LabelError(f"'{source}' is not well-formed XML: no element")
    return root[0]


def number_text(value: float) -> str:
    """The shortest text that reads back as the same number ("12", "0.5")."""
    if value == math.floor(value) and abs(value) < 1e15:
        return str(int(value))
    for digits in range(6, 18):
        text = f"{value:.{digits}g}"
        if float(text) == value:
            return text
    return repr(value)
