#!/usr/bin/python3
"""Checks the documentation of a checkout: every relative link and picture in
README.md and docs/*.md leads to a file that exists (and, with a #part, to a
heading of that file), and README.md stays short enough to read first.

Usage: check_docs.py [CHECKOUT]   (default: the checkout holding this file)
Prints one line per problem and exits 1 when there is one."""
from __future__ import annotations

import re
import sys
import unicodedata
from pathlib import Path

# The README is what a newcomer reads first; everything else lives in docs/.
README_MAX_LINES = 249

_FENCE = re.compile(r"^\s*(```|~~~)")
_INLINE_CODE = re.compile(r"(`+).*?\1")
# [text](target "title") and ![alt](target); the target ends at a space or ")".
_INLINE_LINK = re.compile(r"!?\[(?:[^\[\]]|\[[^\]]*\])*\]\(\s*<?([^)\s>]*)>?(?:\s+\"[^\"]*\")?\s*\)")
_REFERENCE_LINK = re.compile(r"^\s{0,3}\[[^\]]+\]:\s*<?(\S+?)>?(?:\s+.*)?$")
_HTML_LINK = re.compile(r"<(?:a|img)\b[^>]*?\b(?:href|src)\s*=\s*\"([^\"]*)\"", re.IGNORECASE)
_HEADING = re.compile(r"^\s{0,3}(#{1,6})\s+(.*?)\s*#*\s*$")
_SCHEME = re.compile(r"^[A-Za-z][A-Za-z0-9+.-]*:")


def prose_lines(text: str):
    """(line number, line) for every line outside fenced code blocks."""
    fenced = False
    for number, line in enumerate(text.split("\n"), start=1):
        if _FENCE.match(line):
            fenced = not fenced
            continue
        if not fenced:
            yield number, line


def links(text: str):
    """(line number, target) of every link and picture written in prose."""
    for number, line in prose_lines(text):
        line = _INLINE_CODE.sub("", line)
        for pattern in (_INLINE_LINK, _HTML_LINK):
            for found in pattern.finditer(line):
                yield number, found.group(1)
        reference = _REFERENCE_LINK.match(line)
        if reference:
            yield number, reference.group(1)


def heading_anchor(title: str) -> str:
    """The anchor a heading gets: lower case, punctuation dropped, spaces as hyphens."""
    title = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", title)  # a link's text only
    title = title.replace("`", "").lower()
    kept = "".join(c for c in title if c in " -_" or unicodedata.category(c)[0] in "LN")
    return kept.replace(" ", "-")


def anchors(text: str) -> set[str]:
    """Every anchor a file's headings give (repeated headings get -1, -2, ...)."""
    seen: dict[str, int] = {}
    result = set()
    for _, line in prose_lines(text):
        heading = _HEADING.match(line)
        if not heading:
            continue
        anchor = heading_anchor(heading.group(2))
        count = seen.get(anchor, 0)
        seen[anchor] = count + 1
        result.add(anchor if count == 0 else f"{anchor}-{count}")
    return result


def link_problems(document: Path, checkout: Path) -> list[str]:
    """Every relative link of one document that leads nowhere."""
    problems = []
    text = document.read_text(encoding="utf-8")
    shown = document.relative_to(checkout)
    for number, target in links(text):
        if not target or _SCHEME.match(target) or target.startswith("//"):
            continue  # addresses on the web are not files of the checkout
        path_part, _, fragment = target.partition("#")
        linked = (document.parent / path_part).resolve() if path_part else document
        if not linked.exists():
            problems.append(f"{shown}:{number}: link to '{target}': no such file")
            continue
        if fragment and linked.suffix == ".md" and linked.is_file():
            if fragment not in anchors(linked.read_text(encoding="utf-8")):
                problems.append(f"{shown}:{number}: link to '{target}': "
                                f"{linked.name} has no heading '#{fragment}'")
    return problems


def readme_length_problems(readme: Path) -> list[str]:
    lines = len(readme.read_text(encoding="utf-8").splitlines())
    if lines > README_MAX_LINES:
        return [f"README.md: {lines} lines, more than {README_MAX_LINES}: move the details into docs/"]
    return []


def documents(checkout: Path) -> list[Path]:
    return [checkout / "README.md"] + sorted((checkout / "docs").glob("*.md"))


def check(checkout: Path) -> list[str]:
    problems = readme_length_problems(checkout / "README.md")
    for document in documents(checkout):
        problems += link_problems(document, checkout)
    return problems


def report(problems: list[str], all_well: str) -> int:
    """Prints each problem, or one line saying all is well; the exit status."""
    for problem in problems:
        print(problem)
    if not problems:
        print(all_well)
    return 1 if problems else 0


def main() -> int:
    checkout = (Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).resolve().parents[2]).resolve()
    return report(check(checkout), f"checked {len(documents(checkout))} documents: every relative link leads to a file")


if __name__ == "__main__":
    sys.exit(main())
