"""The Python examples of the documentation run as written: the complete
example of the README (train, detect, save, load), and the threads and Dask
examples of docs/python.md."""
from __future__ import annotations

import re
import subprocess
import sys

import pytest

from conftest import CHECKOUT


# Where each example is shown: the README holds the first one a newcomer
# runs, docs/python.md the others.
EXAMPLE_DOCUMENTS = {
    "python-example": "README.md",
    "python-threads": "docs/python.md",
    "python-dask": "docs/python.md",
    "python-evaluate": "docs/python.md",
}


def example(marker: str) -> str:
    document = EXAMPLE_DOCUMENTS[marker]
    text = (CHECKOUT / document).read_text(encoding="utf-8")
    found = re.search(rf"<!-- {marker} -->\n```python\n(.*?)```", text, re.DOTALL)
    assert found, f"{document} has no {marker} block"
    return found.group(1)


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    """A working folder with the repository's data/ in it, as the examples expect."""
    path = tmp_path_factory.mktemp("readme")
    (path / "data").symlink_to(CHECKOUT / "data")
    return path


def run(folder, marker: str) -> str:
    script = folder / f"{marker}.py"
    script.write_text(example(marker), encoding="utf-8")
    result = subprocess.run([sys.executable, str(script)], cwd=folder, capture_output=True, text=True,
                            timeout=300)
    assert result.returncode == 0, result.stderr
    return result.stdout


def test_complete_example(folder):
    output = run(folder, "python-example").splitlines()
    assert output[-1] == "True"
    cells = output[:-1]
    assert len(cells) > 5
    # The accurate profile (the example's default) finds each cell at its own size.
    assert all(re.fullmatch(r"\d+,\d+ \d+x\d+ score 0\.\d+ \w+", line) for line in cells), cells
    assert (folder / "blood.model").is_file()


def test_threads_example(folder):
    if not (folder / "blood.model").is_file():
        run(folder, "python-example")
    code = example("python-threads") + "\nprint(sum(len(r) for r in results), [len(r) for r in results])\n"
    result = subprocess.run([sys.executable, "-c", code], cwd=folder, capture_output=True, text=True,
                            timeout=300)
    assert result.returncode == 0, result.stderr
    total, lengths = result.stdout.split(" ", 1)
    assert lengths.strip() == "[3, 3]" and int(total) == 6


def test_dask_example(folder):
    if not (folder / "blood.model").is_file():
        run(folder, "python-example")
    lines = run(folder, "python-dask").splitlines()
    assert len(lines) == 8
    assert all(re.fullmatch(r"data/bccd/images/BloodImage_000\d\d\.jpg \d+ cells", line) for line in lines[:7])
    assert lines[7].startswith("missing.jpg error: cannot open picture 'missing.jpg': no such file")
