"""The labels-and-evaluation example of docs/python.md runs as written and
prints the figures `ostrel eval` prints for the same model and pictures."""
from __future__ import annotations

import json
import re
import subprocess

from test_readme_examples import folder, run  # noqa: F401  (the fixture and the runner)


def test_evaluate_example(folder, ostrel_tool):  # noqa: F811
    if not (folder / "blood.model").is_file():
        run(folder, "python-example")
    printed = run(folder, "python-evaluate").strip()
    found = re.fullmatch(r"F1 (\d\.\d{3}), AP (\d\.\d{3}), AP@\[\.5:\.95\] (\d\.\d{3})", printed)
    assert found, printed
    tool = subprocess.run([str(ostrel_tool), "eval", "--json", "--model", "blood.model", "--labels", "data/bccd",
                           "--class", "RBC", "--skip", "BloodImage_00000.jpg"], cwd=folder, capture_output=True,
                          text=True)
    assert tool.returncode == 0, tool.stderr
    overall = json.loads(tool.stdout)["overall"]
    assert found.groups() == tuple(f"{overall[k]:.3f}" for k in ("f1", "ap", "coco_ap"))
    written = json.loads((folder / "bccd.json").read_text())
    assert len(written["images"]) == 8 and {c["name"] for c in written["categories"]} == {"RBC", "WBC", "Platelets"}
