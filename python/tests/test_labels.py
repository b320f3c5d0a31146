"""ostrel.read_labels, write_labels and write_detections: the same records
as the ostrel tool from the same files (the files of
tests/tools/label_files/, in the styles the tools write), refusals that name
the file and the line or key, and round trips through every format."""
from __future__ import annotations

import json
import shutil
import subprocess
from pathlib import Path

import pytest

import ostrel
from conftest import BCCD, CHECKOUT

LABEL_FILES = CHECKOUT / "tests" / "tools" / "label_files"
PICTURES = ("BloodImage_00001.jpg", "BloodImage_00002.jpg")
# Where each tool's export puts the pictures (as the C++ tests lay them out).
PICTURE_FOLDERS = ("coco/images", "yolo_ultralytics/images/train", "yolo_roboflow/train/images", "yolo_side_by_side",
                   "cvat/images", "labelstudio", "imglab", "voc")
SOURCES = ("coco/instances_default.json", "coco/roboflow.json", "yolo_ultralytics", "yolo_roboflow/train",
           "yolo_side_by_side", "cvat", "labelstudio/export.json", "labelstudio/min.json", "imglab/training.xml", "voc",
           "voc/BloodImage_00001.xml")


@pytest.fixture()
def label_files(tmp_path: Path) -> Path:
    root = tmp_path / "label_files"
    shutil.copytree(LABEL_FILES, root)
    for folder in PICTURE_FOLDERS:
        (root / folder).mkdir(parents=True, exist_ok=True)
        for name in PICTURES:
            shutil.copyfile(BCCD / "images" / name, root / folder / name)
    return root


def tool_records(tool: Path, source: Path, *extra: str) -> list[dict]:
    run = subprocess.run([str(tool), "labels", str(source), "--json", *extra], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    return [json.loads(line) for line in run.stdout.splitlines()]


@pytest.mark.parametrize("source", SOURCES)
def test_the_same_records_as_the_tool(ostrel_tool, label_files, source):
    records = [p.as_dict() for p in ostrel.read_labels(label_files / source)]
    assert records, source
    assert records == tool_records(ostrel_tool, label_files / source)


def test_what_the_files_hold(label_files):
    coco = ostrel.read_labels(label_files / "coco" / "instances_default.json")
    assert coco.format == "coco" and coco.classes == ["RBC", "WBC"]
    assert coco.pictures[0].boxes[0].rounded() == (415, 271, 97, 100)
    assert coco.pictures[1].boxes[0].crowd
    assert coco.pictures[2].picture is None and "no picture for 'empty.jpg'" in coco.missing_pictures()
    yolo = ostrel.read_labels(label_files / "yolo_ultralytics")
    assert yolo.classes == ["RBC", "WBC"] and yolo.pictures[0].boxes[0].rounded() == (415, 271, 97, 100)
    assert yolo.pictures[1].boxes == [] and "no label file" in yolo.notes[0]
    cvat = ostrel.read_labels(label_files / "cvat")
    assert cvat.pictures[0].boxes[1].difficult and cvat.pictures[0].boxes[1].occluded
    studio = ostrel.read_labels(label_files / "labelstudio" / "export.json")
    assert studio.pictures[0].boxes[1].class_name == "WBC"
    assert studio.pictures[1].boxes[0].score == 0.87
    imglab = ostrel.read_labels(label_files / "imglab" / "training.xml")
    assert imglab.pictures[0].boxes[0].class_name == "glänzend" and imglab.pictures[0].boxes[1].difficult


@pytest.mark.parametrize("name, text, message", [
    ("coco.json", '{"images": [{"id": 1}], "annotations": []}', "coco.json': images[0].file_name: missing"),
    ("a.json", '{"categories":[{"id":1,"name":"a"}],"images":[{"id":1,"file_name":"x.jpg"}],"annotations":'
               '[{"image_id":1,"category_id":1,"bbox":[0,0,0,1]}]}', "annotations[0].bbox: width and height"),
    ("a.json", '{\n"images": [,]}', "is not valid JSON"),
    ("a.xml", "<annotations><image id='0' name='a.jpg'>\n<box label='x' xtl='1' ytl='1' xbr='0' ybr='5'/>"
              "</image></annotations>", "'{path}' line 2: xbr/ybr must lie beyond xtl/ytl"),
    ("a.xml", "<dataset><images>\n<image file='a.jpg'><box top='1' left='2' width='3'/></image></images></dataset>",
     "line 2: <box> has no height"),
    ("a.xml", "<annotations><image", "is not well-formed XML"),
    ("ls.json", '[{"data":{"image":"a.jpg"},"annotations":[{"result":[{"type":"rectanglelabels","original_width":10,'
                '"original_height":10,"value":{"x":"a","y":1,"width":2,"height":2,"rectanglelabels":["a"]}}]}]}]',
     "[0].annotations[0].result[0].value.x: a number expected"),
])
def test_malformed_files_are_refused_with_the_place(tmp_path, name, text, message):
    path = tmp_path / name
    path.write_text(text, encoding="utf-8")
    with pytest.raises(ostrel.LabelError) as refused:
        ostrel.read_labels(path)
    assert message.format(path=path) in str(refused.value)


def test_yolo_lines_are_refused_with_the_line(tmp_path):
    folder = tmp_path / "yolo"
    folder.mkdir()
    shutil.copyfile(BCCD / "images" / PICTURES[0], folder / PICTURES[0])
    (folder / "classes.txt").write_text("a\nb\n")
    (folder / "BloodImage_00001.txt").write_text("0 0.5 0.5 0.1 0.1\r\n2 0.5 0.5 0.1 0.1\r\n")
    with pytest.raises(ostrel.LabelError, match=r"BloodImage_00001.txt' line 2: class 2, but the class names list 2"):
        ostrel.read_labels(folder)


@pytest.mark.parametrize("fmt", ostrel.labels.FORMATS)
def test_every_format_reads_back_what_it_writes(tmp_path, fmt):
    labels = ostrel.read_labels(BCCD)
    (tmp_path / "images").symlink_to(BCCD / "images")
    out = tmp_path / ("annotations" if fmt == "voc" else "labels" if fmt == "yolo" else f"labels.{fmt}")
    ostrel.write_labels(labels, fmt, out)
    back = ostrel.read_labels(tmp_path if fmt in ("voc", "yolo") else out, fmt)
    assert len(back) == len(labels)
    for a, b in zip(labels, back):
        assert sorted((x.class_name, x.rounded()) for x in a.boxes) == sorted((x.class_name, x.rounded()) for x in b.boxes)


@pytest.mark.parametrize("fmt", ["jsonl", "coco", "labelstudio", "cvat", "imglab", "voc", "yolo"])
def test_write_detections_writes_what_detect_format_writes(ostrel_tool, model_file, tmp_path, fmt):
    pictures = [BCCD / "images" / name for name in PICTURES]
    tool_out = tmp_path / ("tool" if fmt in ("voc", "yolo") else f"tool.{fmt}")
    run = subprocess.run([str(ostrel_tool), "detect", "--model", str(model_file), "--class", "RBC", "--format", fmt,
                          "--out", str(tool_out), *map(str, pictures)], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    with ostrel.Detector.load(model_file) as detector:
        results = [(str(p), detector.detect(__import__("cv2").imread(str(p)))) for p in pictures]
    py_out = tmp_path / ("python" if fmt in ("voc", "yolo") else f"python.{fmt}")
    ostrel.write_detections(results, fmt, py_out, classes=["RBC"], model=str(model_file))
    if fmt in ("voc", "yolo"):
        for file in sorted(tool_out.iterdir()):
            python_file = py_out / file.name
            if fmt == "voc":
                assert ostrel.read_labels(file, "voc").pictures[0].as_dict()["boxes"] == \
                    ostrel.read_labels(python_file, "voc").pictures[0].as_dict()["boxes"]
            else:
                assert file.read_text() == python_file.read_text(), file.name
    elif fmt in ("jsonl", "coco", "labelstudio"):
        parse = (lambda t: [json.loads(line) for line in t.splitlines()]) if fmt == "jsonl" else json.loads
        assert parse(py_out.read_text(encoding="utf-8")) == parse(tool_out.read_text(encoding="utf-8"))
    else:
        assert [p.as_dict()["boxes"] for p in ostrel.read_labels(py_out, fmt)] == \
            [p.as_dict()["boxes"] for p in ostrel.read_labels(tool_out, fmt)]


def test_a_phone_photo_has_its_upright_size_in_labels_as_in_the_tool(tmp_path, ostrel_tool):
    """YOLO boxes are fractions of the picture's size: a phone photo stored on
    its side (EXIF orientation 6) must be sized upright, as it is decoded, by
    the package and by the tool alike."""
    from test_input_files import exif_jpeg
    cv2 = pytest.importorskip("cv2")
    upright = cv2.imread(str(BCCD / "images" / "BloodImage_00001.jpg"), cv2.IMREAD_COLOR)
    (tmp_path / "phone.jpg").write_bytes(exif_jpeg(upright))
    (tmp_path / "phone.txt").write_text("0 0.5 0.5 0.25 0.5\n")
    (tmp_path / "classes.txt").write_text("cell\n")
    [picture] = ostrel.read_labels(tmp_path, format="yolo").pictures
    assert (picture.width, picture.height) == (640, 480)
    [box] = picture.boxes
    assert (box.x, box.y, box.w, box.h) == (240, 120, 160, 240)
    [record] = tool_records(ostrel_tool, tmp_path, "--format", "yolo")
    assert (record["width"], record["height"]) == (640, 480)
