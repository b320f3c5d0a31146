#!/usr/bin/python3
"""The README's commands for the ostrel tool run as written, with the built
tool as `ostrel`: the model is trained, every shipped blood picture gets its
JSON line and its drawing, and eval prints its figures.

Usage: test_readme_commands.py CHECKOUT OSTREL_BINARY"""
from __future__ import annotations

import json
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from check_docs import report  # noqa: E402

MARKER = "<!-- ostrel-example -->"


def example(readme: Path) -> str:
    found = re.search(re.escape(MARKER) + r"\n```sh\n(.*?)```", readme.read_text(encoding="utf-8"), re.DOTALL)
    if not found:
        sys.exit(f"README.md has no {MARKER} block")
    return found.group(1)


def main() -> int:
    checkout, ostrel = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    commands = example(checkout / "README.md")
    with tempfile.TemporaryDirectory() as work:
        folder = Path(work)
        (folder / "data").symlink_to(checkout / "data")
        tools = folder / "bin"
        tools.mkdir()
        (tools / "ostrel").symlink_to(ostrel)
        environment = dict(os.environ, PATH=f"{tools}{os.pathsep}{os.environ.get('PATH', '')}")
        result = subprocess.run(["bash", "-e", "-c", commands], cwd=folder, env=environment,
                                capture_output=True, text=True, timeout=600)
        problems = []
        if result.returncode != 0:
            problems.append(f"the commands failed ({result.returncode}): {result.stderr.strip()}")
        pictures = sorted(p.name for p in (checkout / "data/bccd/images").glob("*.jpg"))
        lines = (folder / "cells.jsonl").read_text().splitlines() if (folder / "cells.jsonl").is_file() else []
        found = [Path(json.loads(line)["file"]).name for line in lines]
        if found != pictures:
            problems.append(f"cells.jsonl names {found}, not the shipped pictures {pictures}")
        drawn = sorted(p.name for p in (folder / "out").glob("*.png")) if (folder / "out").is_dir() else []
        if len(drawn) != len(pictures):
            problems.append(f"out/ holds {drawn}, not one drawing a picture")
        if not re.search(r"\bF1\b", result.stdout):
            problems.append(f"eval printed no F1: {result.stdout.strip()[:400]}")
    return report(problems, f"the README's {len(commands.splitlines())} command lines ran: {len(found)} pictures detected")


if __name__ == "__main__":
    sys.exit(main())
