"""ostrel.evaluate: the hand-worked cases of the tool's evaluation tests
(tests/tools/evaluation/test_detection_quality.cpp, derived there in the
comments), and agreement with `ostrel eval --json` to 1e-9 on the same
detections: a model's, and a detections file's."""
from __future__ import annotations

import json
import subprocess

import pytest

import ostrel
from conftest import BCCD, TRAINING_PICTURE
from ostrel.labels import LabelBox, LabelledPicture, LabelSet

EXACT = 1e-12


def labels_of(*pictures: list[LabelBox]) -> LabelSet:
    result = LabelSet(format="coco", classes=["cell"])
    for i, boxes in enumerate(pictures, start=1):
        result.pictures.append(LabelledPicture(name=f"p{i}.jpg", picture=f"p{i}.jpg", id=i, boxes=list(boxes)))
    return result


def cell(x, y, w, h, **flags) -> LabelBox:
    return LabelBox("cell", x, y, w, h, **flags)


def test_two_pictures_counts_at_the_threshold_and_ranks_every_box():
    labels = labels_of([cell(0, 0, 10, 10), cell(20, 0, 10, 10)], [])
    results = {"p1.jpg": [(0, 0, 10, 10, 0.9, 1), (1, 0, 10, 10, 0.8, 1), (20, 0, 10, 10, 0.3, -1)],
               "p2.jpg": [(50, 50, 10, 10, 0.85, 1)]}
    f = ostrel.evaluate(results, labels).classes[0]
    assert (f.objects, f.detections, f.true_positives, f.false_positives) == (2, 3, 1, 2)
    assert f.precision == pytest.approx(1 / 3, abs=EXACT) and f.recall == 0.5 and f.f1 == pytest.approx(0.4, abs=EXACT)
    assert f.ranked == 4 and f.ap == pytest.approx(0.75, abs=EXACT)
    assert f.coco_ap == pytest.approx(76 / 101, abs=EXACT)
    assert f.coco_ap50 == pytest.approx(76 / 101, abs=EXACT) and f.coco_ap75 == pytest.approx(76 / 101, abs=EXACT)


def test_crowd_regions_and_difficult_boxes_count_neither_way():
    crowd = labels_of([cell(0, 0, 100, 100, crowd=True), cell(200, 0, 10, 10)])
    f = ostrel.evaluate({"p1.jpg": [(10, 10, 10, 10, 0.9), (200, 0, 10, 10, 0.8), (300, 300, 10, 10, 0.7)]},
                        crowd).classes[0]
    assert (f.objects, f.detections) == (1, 2)
    assert f.f1 == pytest.approx(2 / 3, abs=EXACT) and f.ap == 1.0 and f.coco_ap == pytest.approx(1.0, abs=EXACT)
    difficult = labels_of([cell(0, 0, 10, 10, difficult=True), cell(50, 0, 10, 10)])
    f = ostrel.evaluate({"p1.jpg": [(0, 0, 10, 10, 0.9), (50, 0, 10, 10, 0.6)]}, difficult).classes[0]
    assert (f.objects, f.detections, f.true_positives) == (1, 1, 1)
    assert f.ap == 1.0 and f.coco_ap == pytest.approx(1.0, abs=EXACT)


def test_equal_scores_keep_the_detectors_order():
    labels = labels_of([cell(0, 0, 10, 10)])
    f = ostrel.evaluate({"p1.jpg": [(30, 30, 10, 10, 0.5), (0, 0, 10, 10, 0.5)]}, labels).classes[0]
    assert f.ap == 0.5 and f.coco_ap == pytest.approx(0.5, abs=EXACT)
    assert ostrel.evaluate({"p1.jpg": [(0, 0, 10, 10, 0.5), (30, 30, 10, 10, 0.5)]}, labels).classes[0].ap == 1.0


def test_coco_takes_at_most_100_boxes_a_picture():
    labels = labels_of([cell(0, 0, 10, 10)])
    boxes = [(1000 + 20 * i, 1000, 10, 10, 0.9, -1) for i in range(100)] + [(0, 0, 10, 10, 0.5, -1)]
    f = ostrel.evaluate({"p1.jpg": boxes}, labels).classes[0]
    assert f.ap == pytest.approx(1 / 101, abs=EXACT)
    assert f.coco_ap == pytest.approx(0.0, abs=EXACT)


def test_coco_averages_over_the_ten_iou_thresholds():
    f = ostrel.evaluate({"p1.jpg": [(0, 0, 10, 7.2, 0.9)]}, labels_of([cell(0, 0, 10, 10)])).classes[0]
    assert f.coco_ap == pytest.approx(0.5, abs=EXACT)
    assert f.coco_ap50 == pytest.approx(1.0, abs=EXACT) and f.coco_ap75 == pytest.approx(0.0, abs=EXACT)


def test_results_must_cover_every_picture_and_skip_must_name_one():
    labels = labels_of([cell(0, 0, 10, 10)], [cell(0, 0, 10, 10)])
    with pytest.raises(ostrel.LabelError, match="no detections for 'p2.jpg'"):
        ostrel.evaluate({"p1.jpg": []}, labels)
    assert ostrel.evaluate({"p1.jpg": []}, labels, skip=["p2.jpg"]).left_out == \
        [{"picture": "p2.jpg", "reason": "--skip p2.jpg"}]
    with pytest.raises(ValueError, match="names no picture"):
        ostrel.evaluate({"p1.jpg": []}, labels, skip=["p3.jpg"])


def close(a, b, tolerance=1e-9) -> bool:
    if isinstance(a, dict):
        return a.keys() == b.keys() and all(close(a[k], b[k], tolerance) for k in a)
    if isinstance(a, list):
        return len(a) == len(b) and all(close(x, y, tolerance) for x, y in zip(a, b))
    if isinstance(a, float) or isinstance(b, float):
        return a is not None and b is not None and abs(a - b) <= tolerance
    return a == b


def tool_eval(tool, *arguments) -> dict:
    run = subprocess.run([str(tool), "eval", "--json", *map(str, arguments)], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    return json.loads(run.stdout)


def test_agrees_with_ostrel_eval_on_a_model(ostrel_tool, model_file):
    skip = f"{TRAINING_PICTURE}.jpg"
    tool = tool_eval(ostrel_tool, "--model", model_file, "--labels", BCCD, "--class", "RBC", "--skip", skip)
    with ostrel.Detector.load(model_file) as detector:
        mine = ostrel.evaluate(detector, BCCD, classes=["RBC"], skip=[skip]).as_dict()
    for key in ("classes", "overall", "per_picture", "left_out", "pictures"):
        assert close(mine[key], tool[key]), key
    assert tool["overall"]["ranked"] > tool["overall"]["detections"]  # boxes below the threshold are ranked


def test_agrees_with_ostrel_eval_on_a_detections_file(ostrel_tool, model_file, tmp_path):
    lines = tmp_path / "found.jsonl"
    run = subprocess.run([str(ostrel_tool), "detect", "--json", "--sensitivity", "100", "--model", str(model_file),
                          str(BCCD / "images")], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    lines.write_text(run.stdout)
    tool = tool_eval(ostrel_tool, "--detections", lines, "--labels", BCCD, "--class", "RBC", "--iou", "0.3")
    mine = ostrel.evaluate(lines, BCCD, iou=0.3, classes=["RBC"]).as_dict()
    for key in ("classes", "overall", "per_picture"):
        assert close(mine[key], tool[key]), key
