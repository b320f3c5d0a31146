"""Detectors of several classes (accurate profile): each class taught from
its own picture and boxes with ``train(..., class_name=)``, listed by
``Detector.classes``; one ``detect`` gives every ``Box`` its
``class_name``; ``save`` writes every class into one file and ``load`` reads
them back, detecting the same boxes; bad names and the classic profile are
refused with an :class:`ostrel.Error` that quotes the library."""
from __future__ import annotations

import xml.etree.ElementTree as ElementTree

import pytest

import ostrel
from conftest import BCCD, read_picture

# RBC and WBC from one picture, Platelets from another.
TAUGHT = (("RBC", "BloodImage_00000"), ("WBC", "BloodImage_00000"), ("Platelets", "BloodImage_00005"))


def annotations(stem: str, name: str) -> list[tuple[int, int, int, int]]:
    root = ElementTree.parse(BCCD / "annotations" / f"{stem}.xml").getroot()
    boxes = []
    for item in root.iter("object"):
        if item.findtext("name") != name:
            continue
        b = item.find("bndbox")
        x0, y0, x1, y1 = (int(float(b.findtext(k))) for k in ("xmin", "ymin", "xmax", "ymax"))
        boxes.append((x0, y0, x1 - x0, y1 - y0))
    return boxes


@pytest.fixture(scope="module")
def blood() -> ostrel.Detector:
    detector = ostrel.Detector(seed=1, profile="accurate")
    for name, stem in TAUGHT:
        detector.train(read_picture(BCCD / "images" / f"{stem}.jpg"), annotations(stem, name), class_name=name)
    yield detector
    detector.close()


def test_classes_are_listed_in_the_order_taught(blood):
    assert blood.classes == ["RBC", "WBC", "Platelets"]
    with ostrel.Detector(profile="accurate") as fresh:
        assert fresh.classes == []


def test_one_detection_names_every_box_class(blood):
    boxes = blood.detect(read_picture(BCCD / "images" / "BloodImage_00003.jpg"))
    assert boxes and {b.class_name for b in boxes} <= {"RBC", "WBC", "Platelets"}
    detections = [b for b in boxes if b.label == 1]
    assert sum(b.class_name == "RBC" for b in detections) >= 5
    white = annotations("BloodImage_00003", "WBC")[0]
    def iou(a, b):
        ix = max(0, min(a[0] + a[2], b.x + b.width) - max(a[0], b.x))
        iy = max(0, min(a[1] + a[3], b.y + b.height) - max(a[1], b.y))
        return ix * iy / (a[2] * a[3] + b.width * b.height - ix * iy)
    assert any(b.class_name == "WBC" and iou(white, b) >= 0.5 for b in detections)
    scores = [b.score for b in detections]
    assert scores == sorted(scores, reverse=True)


def test_a_detector_of_one_unnamed_class_gives_no_class_name(training_picture, training_boxes):
    with ostrel.Detector(seed=1, profile="accurate") as one:
        one.train(training_picture, training_boxes)
        assert one.classes == [""]
        assert all(b.class_name == "" for b in one.detect(training_picture))


def test_save_and_load_keep_every_class(blood, tmp_path):
    path = tmp_path / "blood.model"
    blood.save(path)
    assert ostrel.check_model(path)
    picture = read_picture(BCCD / "images" / "BloodImage_00006.jpg")
    with ostrel.Detector.load(path, profile="accurate") as loaded:
        assert loaded.classes == ["RBC", "WBC", "Platelets"]
        # The loaded detector was never set up, so it reports no boxes below
        # the threshold (as for one class); the detections are the same.
        def detections(boxes):
            return [b for b in boxes if b.label == 1]
        assert detections(loaded.detect(picture, key=1)) == detections(blood.detect(picture, key=2))


def test_write_detections_and_evaluate_use_each_box_class(blood, tmp_path):
    path = BCCD / "images" / "BloodImage_00003.jpg"
    boxes = blood.detect(read_picture(path))
    coco = ostrel.write_detections({str(path): boxes}, "coco", classes=blood.classes)
    import json
    found = json.loads(coco)
    assert {r["category_id"] for r in found} <= {1, 2, 3}
    assert len(found) == sum(b.label == 1 for b in boxes)
    line = json.loads(ostrel.write_detections({str(path): boxes}, "jsonl"))
    assert [b["class"] for b in line["boxes"]] == [b.class_name for b in boxes]
    with pytest.raises(ValueError, match="not among classes"):
        ostrel.write_detections({str(path): boxes}, "coco")
    # Each class is measured on its own boxes only.
    labels = ostrel.read_labels(BCCD)
    others = [p.name for p in (BCCD / "images").glob("*.jpg") if p != path]
    white = ostrel.evaluate({str(path): boxes}, labels, classes=["WBC"], skip=others)
    assert white.overall.objects == 1 and white.overall.recall == 1.0
    red = ostrel.evaluate({str(path): boxes}, labels, classes=["RBC"], skip=others)
    assert red.overall.detections == sum(b.label == 1 and b.class_name == "RBC" for b in boxes)


def test_bad_names_and_the_classic_profile_are_refused():
    with ostrel.Detector(profile="accurate") as detector:
        assert detector.add_class("pawn") == 0
        for bad, reason in (("", "must not be empty"), ("x" * 256, "longer than 255"), ("pawn", "already named"),
                            ("tab\there", "control character")):
            with pytest.raises(ostrel.Error, match=reason):
                detector.add_class(bad)
        assert detector.classes == ["pawn"]
        with pytest.raises(ValueError, match="NUL"):
            detector.add_class("a\0b")
    with ostrel.Detector(profile="classic") as classic:
        with pytest.raises(ostrel.Error, match="only the accurate profile"):
            classic.add_class("pawn")


def test_evaluate_measures_every_class_of_the_detector_from_one_pass(blood):
    # Without classes=, a detector of several classes is measured class by
    # class (one detection pass per picture, each box counted for its own
    # class); each class's figures are exactly those of measuring that class
    # alone, and classes= names the ones to measure, each on its own.
    labels = ostrel.read_labels(BCCD)
    taught = sorted({f"{stem}.jpg" for _, stem in TAUGHT})
    together = ostrel.evaluate(blood, labels, skip=taught)
    assert [c.name for c in together.classes] == ["RBC", "WBC", "Platelets"]
    for mine in together.classes:
        alone = ostrel.evaluate(blood, labels, classes=[mine.name], skip=taught)
        assert len(alone.classes) == 1
        assert mine == alone.classes[0]
    assert together.overall.objects == sum(c.objects for c in together.classes)
    two = ostrel.evaluate(blood, labels, classes=["RBC", "WBC"], skip=taught)
    assert two.classes == together.classes[:2]
    with pytest.raises(ValueError, match="the detector has no class 'pawn'"):
        ostrel.evaluate(blood, labels, classes=["pawn"], skip=taught)
