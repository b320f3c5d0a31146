#!/usr/bin/python3
"""A folder opened in the studio shows the labels another tool left there, in
every format the tool reads: for each of YOLO, CVAT, Label Studio and imglab
(VOC and COCO have their own cases in test_studio_labels_api.py) the shipped
blood pictures' VOC labels are converted by `ostrel labels --to FORMAT` into
a copy of the folder, and a studio opened on it lists the classes and shows
every box of a picture, with the other tool's file left as it was.

Usage: test_studio_label_formats.py OSTREL DATA_DIR
"""
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_process import StudioProcess  # noqa: E402
from studio_client import Client  # noqa: E402
from test_studio_labels_api import TRAINING, case, copy_pictures, digest, results  # noqa: E402

# Where each format's file goes: a file beside the pictures, or (YOLO) the
# .txt files and classes.txt beside them.
TARGETS = {"yolo": None, "cvat": "annotations.xml", "labelstudio": "export.json", "imglab": "training.xml"}


def voc_boxes(path):
    root = ET.parse(path).getroot()
    return sorted((o.findtext("name"),) + tuple(round(float(o.find("bndbox").findtext(k))) for k in
                                               ("xmin", "ymin", "xmax", "ymax")) for o in root.iter("object"))


def run(ostrel, data, work):
    voc = os.path.join(work, "voc")
    copy_pictures(data, voc)
    for path in glob.glob(os.path.join(data, "bccd", "annotations", "*.xml")):
        shutil.copy(path, voc)
    expected = voc_boxes(os.path.join(voc, TRAINING[:-4] + ".xml"))
    for fmt, target in TARGETS.items():
        folder = os.path.join(work, fmt)
        copy_pictures(data, folder)
        # Converted where the pictures are, so that the file names them as the
        # other tool's export does (by their names, beside it); then the VOC
        # files go.
        voc_files = []
        for path in glob.glob(os.path.join(voc, "*.xml")):
            shutil.copy(path, folder)
            voc_files.append(os.path.join(folder, os.path.basename(path)))
        out = os.path.join(work, fmt + "-converted") if target is None else target
        subprocess.run([ostrel, "labels", ".", "--to", fmt, "--out", out], check=True, capture_output=True, cwd=folder)
        for path in voc_files:
            os.remove(path)
        if target is None:
            for name in os.listdir(out):
                if name.endswith(".txt"):
                    shutil.copy(os.path.join(out, name), folder)
        files = {p: digest(p) for p in glob.glob(os.path.join(folder, "*.txt")) + glob.glob(os.path.join(folder, "*.json"))
                 + glob.glob(os.path.join(folder, "*.xml"))}
        studio = StudioProcess(ostrel, folder)
        c = Client(studio.port)
        try:
            @case(f"a folder with {fmt} labels from another tool: classes and boxes shown, its file kept")
            def shown():
                names = {k["name"] for k in c.json("GET", "/api/classes")["classes"]}
                assert {"RBC", "WBC"} <= names, (fmt, names)
                boxes = c.json("GET", "/api/labels/" + TRAINING)["boxes"]
                got = sorted((b["class"], b["x"], b["y"], b["x"] + b["w"] - 1, b["y"] + b["h"] - 1) for b in boxes)
                # YOLO keeps normalised centres: a pixel either way.
                close = len(got) == len(expected) and all(
                    a[0] == b[0] and all(abs(p - q) <= 1 for p, q in zip(a[1:], b[1:])) for a, b in zip(got, expected))
                assert close, (fmt, got[:3], expected[:3], len(got), len(expected))
                assert {p: digest(p) for p in files} == files, f"{fmt}: the other tool's file was rewritten"
            shown()
        finally:
            studio.stop()


def main():
    # The conversions run in the pictures' folder: the tool by its full path.
    ostrel, data = os.path.abspath(sys.argv[1]), sys.argv[2]
    work = tempfile.mkdtemp(prefix="ostrel-studio-label-formats-")
    try:
        run(ostrel, data, work)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print(f"studio label formats: {results['passed']} passed, {results['failed']} failed")
    sys.exit(1 if results["failed"] else 0)


if __name__ == "__main__":
    main()
