"""Detections through Python equal, box for box, those of the C interface
(a small C host compiled against the public header) and of the ostrel tool
(`ostrel detect --json`), on the shipped pictures with the same model; and
training through Python writes the same model file as `ostrel train`."""
from __future__ import annotations

import json
import os
import shutil
import subprocess

import numpy as np
import pytest

import ostrel
from conftest import CHECKOUT, SEED, blood_picture_paths, build_dir, read_picture


def as_tuple(box) -> tuple:
    return (box.x, box.y, box.width, box.height, box.score, box.label, box.color_main, box.color_second)


@pytest.fixture(scope="module")
def c_host(tmp_path_factory) -> str:
    compiler = shutil.which("cc") or shutil.which("gcc")
    if compiler is None:
        pytest.fail("no C compiler (cc) to build the C host; install build-essential")
    library_dir = build_dir()
    if not (library_dir / "libostrel_alg.so").is_file():
        pytest.fail(f"libostrel_alg.so is not built in {library_dir}")
    program = tmp_path_factory.mktemp("c_host") / "detect_raw"
    source = CHECKOUT / "python" / "tests" / "c_host" / "detect_raw.c"
    subprocess.run([compiler, "-std=c11", "-O1", "-Wall", "-Werror", f"-I{CHECKOUT / 'include'}", str(source),
                    "-o", str(program), f"-L{library_dir}", "-lostrel_alg", f"-Wl,-rpath,{library_dir}"],
                   check=True)
    return str(program)


def run_c_host(c_host: str, model, pictures: list[np.ndarray], folder, sensitivity: int = 80) -> list[list[tuple]]:
    arguments = [c_host, str(model), str(sensitivity)]
    for i, picture in enumerate(pictures):
        raw = folder / f"picture{i}.bgr"
        raw.write_bytes(np.ascontiguousarray(picture).tobytes())
        arguments += [str(raw), str(picture.shape[1]), str(picture.shape[0])]
    output = subprocess.run(arguments, check=True, capture_output=True, text=True).stdout
    results: list[list[tuple]] = []
    for line in output.splitlines():
        words = line.split()
        if words[:1] == ["picture"]:
            results.append([])
        elif words[:1] == ["box"]:
            x, y, w, h = map(int, words[1:5])
            results[-1].append((x, y, w, h, float(words[5]), *map(int, words[6:9])))
    assert len(results) == len(pictures), output
    return results


@pytest.mark.parametrize("sensitivity", [80, 100])
def test_python_equals_the_c_interface(c_host, model_file, tmp_path, sensitivity):
    pictures = [read_picture(p) for p in blood_picture_paths()]
    # A picture of another size and a grey one, converted by the package.
    pictures.append(np.ascontiguousarray(pictures[1][40:440, 100:600]))
    expected = run_c_host(c_host, model_file, pictures, tmp_path, sensitivity)
    assert sum(len(r) for r in expected) > 20
    with ostrel.Detector.load(model_file, sensitivity=sensitivity) as detector:
        for picture, c_boxes in zip(pictures, expected):
            python_boxes = [as_tuple(b) for b in detector.detect(picture)]
            assert len(python_boxes) == len(c_boxes)
            for mine, theirs in zip(python_boxes, c_boxes):
                assert mine[:4] == theirs[:4] and mine[5:] == theirs[5:]
                # The same float32 score.
                assert np.float32(mine[4]) == np.float32(theirs[4])


def test_python_equals_ostrel_detect_json(ostrel_tool, model_file):
    paths = blood_picture_paths()
    output = subprocess.run([str(ostrel_tool), "detect", "--json", "--model", str(model_file),
                             *map(str, paths)], check=True, capture_output=True, text=True).stdout
    lines = [json.loads(line) for line in output.splitlines()]
    assert [line["file"] for line in lines] == [str(p) for p in paths]
    total = 0
    with ostrel.Detector.load(model_file) as detector:
        for path, line in zip(paths, lines):
            boxes = detector.detect(read_picture(path))
            assert len(boxes) == len(line["boxes"]), path
            for box, tool_box in zip(boxes, line["boxes"]):
                assert (box.x, box.y, box.width, box.height) == (
                    tool_box["x"], tool_box["y"], tool_box["w"], tool_box["h"])
                assert box.score == tool_box["score"]
                assert box.label == tool_box["label"]
                assert (box.color_main, box.color_second) == (tool_box["color_main"], tool_box["color_second"])
                assert (box.color_main_name, box.color_second_name) == (
                    tool_box["color_main_name"], tool_box["color_second_name"])
                total += 1
    assert total > 20


def test_detect_files_equals_ostrel_detect_json(ostrel_tool, model_file):
    paths = [str(p) for p in blood_picture_paths()]
    output = subprocess.run([str(ostrel_tool), "detect", "--json", "--model", str(model_file), *paths],
                            check=True, capture_output=True, text=True).stdout
    tool = {json.loads(line)["file"]: json.loads(line)["boxes"] for line in output.splitlines()}
    for path, boxes in ostrel.detect_files(model_file, paths, jobs=2):
        assert [(b.x, b.y, b.width, b.height, b.score, b.label) for b in boxes] == [
            (t["x"], t["y"], t["w"], t["h"], t["score"], t["label"]) for t in tool[path]]


def test_training_writes_the_same_model_as_ostrel_train(ostrel_tool, training_picture, training_boxes, tmp_path):
    picture_path = CHECKOUT / "data" / "bccd" / "images" / "BloodImage_00000.jpg"
    tool_model = tmp_path / "tool.model"
    arguments = [str(ostrel_tool), "train", str(picture_path), "--model", str(tool_model), "--seed", str(SEED)]
    for x, y, w, h in training_boxes:
        arguments.append(f"--box={x},{y},{w},{h}")
    subprocess.run(arguments, check=True, capture_output=True, env={**os.environ})
    python_model = tmp_path / "python.model"
    with ostrel.Detector(seed=SEED) as detector:
        detector.train(training_picture, training_boxes)
        detector.save(python_model)
    assert python_model.read_bytes() == tool_model.read_bytes()
