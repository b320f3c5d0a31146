"""Shared pictures, boxes, models and paths of the Python package's tests.

The tests use the blood-cell pictures shipped in data/bccd. The training
boxes are built as the ostrel demo builds them: every annotated red blood
cell, given the median annotated size and centred on its annotation.

Paths: the checkout is two folders up; the project's build folder is
OSTREL_BUILD_DIR or <checkout>/build (it holds the ostrel tool for the
comparisons; the package finds the library on its own).
"""
from __future__ import annotations

import os
import statistics
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import numpy as np
import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
BCCD = CHECKOUT / "data" / "bccd"
TRAINING_PICTURE = "BloodImage_00000"
SEED = 1


def build_dir() -> Path:
    return Path(os.environ.get("OSTREL_BUILD_DIR", CHECKOUT / "build"))


def blood_picture_paths() -> list[Path]:
    return sorted((BCCD / "images").glob("*.jpg"))


def read_picture(path: Path) -> np.ndarray:
    cv2 = pytest.importorskip("cv2")
    pixels = cv2.imread(str(path), cv2.IMREAD_COLOR)
    assert pixels is not None, path
    return pixels


def annotated_cells(stem: str) -> list[tuple[int, int, int, int]]:
    """The RBC boxes of a Pascal VOC annotation, as (x, y, width, height)."""
    root = ElementTree.parse(BCCD / "annotations" / f"{stem}.xml").getroot()
    cells = []
    for item in root.iter("object"):
        if item.findtext("name") != "RBC":
            continue
        box = item.find("bndbox")
        x0, y0, x1, y1 = (int(float(box.findtext(k))) for k in ("xmin", "ymin", "xmax", "ymax"))
        cells.append((x0, y0, x1 - x0, y1 - y0))
    return cells


def marked_boxes(stem: str) -> list[tuple[int, int, int, int]]:
    """Every annotated cell with the (lower) median size, centred on it."""
    cells = annotated_cells(stem)
    width = statistics.median_low(c[2] for c in cells)
    height = statistics.median_low(c[3] for c in cells)
    return [(x + (w - width) // 2, y + (h - height) // 2, width, height) for x, y, w, h in cells]


@pytest.fixture(scope="session")
def training_picture() -> np.ndarray:
    return read_picture(BCCD / "images" / f"{TRAINING_PICTURE}.jpg")


@pytest.fixture(scope="session")
def training_boxes() -> list[tuple[int, int, int, int]]:
    return marked_boxes(TRAINING_PICTURE)


@pytest.fixture(scope="session")
def test_pictures() -> dict[str, np.ndarray]:
    """The shipped pictures other than the training one, by file name."""
    return {p.name: read_picture(p) for p in blood_picture_paths() if p.stem != TRAINING_PICTURE}


@pytest.fixture(scope="session")
def model_file(tmp_path_factory: pytest.TempPathFactory, training_picture, training_boxes) -> Path:
    """A classic model trained through the package (seed 1) on the training
    picture. The tests that read it compare with the C interface and the
    tool on the classic system's boxes and scores; the accurate profile
    (Detector's default) has tests of its own (test_model_profiles.py)."""
    import ostrel

    path = tmp_path_factory.mktemp("model") / "blood.model"
    with ostrel.Detector(seed=SEED, profile="classic") as detector:
        detector.train(training_picture, training_boxes)
        detector.save(path)
    return path


@pytest.fixture()
def trained(model_file):
    import ostrel

    with ostrel.Detector.load(model_file) as detector:
        yield detector


@pytest.fixture(scope="session")
def ostrel_tool() -> Path:
    tool = build_dir() / "tools" / "ostrel"
    if not tool.is_file():
        pytest.fail(f"the ostrel tool is not built at {tool}: cmake --build build --target ostrel")
    return tool
