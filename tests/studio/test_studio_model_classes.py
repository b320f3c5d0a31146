#!/usr/bin/python3
"""One model of several classes in the studio, through real HTTP.

Under the accurate profile (the studio's default) every class the studio
trains is one class of one library engine: detection runs once a picture and
names each box's class; GET /api/model gives one model file holding every
class (`ostrel check` lists them), also when a class is
named; a studio started afresh opens that file and shows its classes, and
so does one given a model of several classes made by
`ostrel train --all-classes`. A renamed class is renamed in the model file.
Refusals: a bad class name, a damaged file; under the classic profile, which
learns one class a model, GET /api/model without a class says that one
model of several classes needs the accurate profile. A one-class studio's
model file stays a file of one unnamed class, as it always was.

Usage: test_studio_model_classes.py OSTREL DATA_DIR
"""
import os
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_process import StudioProcess  # noqa: E402
from studio_client import Client  # noqa: E402
from test_studio_labels_api import (CELLS, TRAINING, OTHER, boxes_of, case, copy_pictures, expect_error,  # noqa: E402
                                    results)

WBC = [[320, 222, 110, 100]]
OCTET = "application/octet-stream"


def model_info(ostrel, work, model, name):
    path = os.path.join(work, name)
    with open(path, "wb") as f:
        f.write(model)
    out = subprocess.run([ostrel, "check", path], capture_output=True, text=True)
    assert out.returncode == 0, out.stderr
    return out.stdout


def classes_line(info):
    return next((line for line in info.splitlines() if line.startswith("classes:")), "")


def trained_names(c):
    return sorted(d["name"] for d in c.json("GET", "/api/status")["detectors"] if d["trained"])


def run_cases(ostrel, data, work):
    folder = os.path.join(work, "pictures")
    copy_pictures(data, folder)
    studio = StudioProcess(ostrel, folder)
    c = Client(studio.port)
    saved = {}
    try:
        @case("one class: its model file is a file of one unnamed class, as before")
        def one_class():
            c.json("PUT", "/api/labels/" + TRAINING, {"boxes": boxes_of(CELLS)})
            reply = c.json("POST", "/api/train/labels", {"picture": TRAINING})
            assert reply["trained"] is True, reply
            status = c.json("GET", "/api/status")
            assert status["profile"] == "accurate" and status["model_files"] == 1, status
            code, ctype, model = c.request("GET", "/api/model")
            assert code == 200 and ctype == OCTET, code
            assert classes_line(model_info(ostrel, work, model, "one.model")) == "", "a one-class model names no class"
        one_class()

        @case("two classes trained: one engine, one detection pass naming both, one model file of both")
        def two_classes():
            c.json("PUT", "/api/labels/" + TRAINING, {"boxes": boxes_of(CELLS) + boxes_of(WBC, "WBC")})
            reply = c.json("POST", "/api/train/labels", {"picture": TRAINING})
            assert sorted(k["class"] if "class" in k else k["name"] for k in reply["classes"]) == ["RBC", "WBC"], reply
            status = c.json("GET", "/api/status")
            assert status["model_files"] == 1, status
            assert all(d["shared"] for d in status["detectors"] if d["trained"]), status["detectors"]
            assert trained_names(c) == ["RBC", "WBC"]
            found = c.json("GET", f"/api/detect?picture={TRAINING}&sensitivity=100")
            assert len(found["box_classes"]) == len(found["boxes"]) and set(found["box_classes"]) == {"RBC", "WBC"}, \
                found["box_classes"]
            samples = c.json("GET", "/api/samples")["samples"]
            assert {s["class"] for s in samples} == {"RBC", "WBC"}, samples
            assert sum(1 for s in samples if s["class"] == "WBC") == 1, samples
            code, ctype, model = c.request("GET", "/api/model")
            assert code == 200 and ctype == OCTET
            assert classes_line(model_info(ostrel, work, model, "two.model")) == "classes: 2 (RBC, WBC)", \
                model_info(ostrel, work, model, "two.model")
            # A class named: the file that holds it, which holds both.
            code, _, named = c.request("GET", "/api/model?class=WBC")
            assert code == 200 and named == model
            saved["two"] = model
        two_classes()

        @case("a third class joins the engine; a picture taught again rebuilds it; a rename reaches the file")
        def more():
            c.json("PUT", "/api/labels/" + OTHER, {"boxes": boxes_of([[10, 10, 100, 90]], "Platelets")})
            c.json("POST", "/api/train/labels", {"picture": OTHER})
            assert trained_names(c) == ["Platelets", "RBC", "WBC"]
            assert c.json("GET", "/api/status")["model_files"] == 1
            c.json("PUT", "/api/labels/" + TRAINING, {"boxes": boxes_of(CELLS[:6]) + boxes_of(WBC, "WBC")})
            reply = c.json("POST", "/api/train/labels", {"picture": TRAINING})
            assert reply["rebuilt"] is True, reply
            found = c.json("GET", f"/api/detect?picture={TRAINING}&sensitivity=100")
            assert {"RBC", "WBC"} <= set(found["box_classes"]), found["box_classes"]
            c.json("PUT", "/api/classes/Platelets", {"name": "PLT"})
            assert trained_names(c) == ["PLT", "RBC", "WBC"]
            _, _, model = c.request("GET", "/api/model")
            assert classes_line(model_info(ostrel, work, model, "three.model")) == "classes: 3 (RBC, WBC, PLT)", \
                model_info(ostrel, work, model, "three.model")
            found = c.json("GET", f"/api/detect?picture={OTHER}&sensitivity=100")
            assert "Platelets" not in found["box_classes"], found["box_classes"]
        more()

        @case("bad model requests: a bad class name, a damaged file; nothing changes")
        def refusals():
            model = saved["two"]
            before = trained_names(c)
            expect_error(c, 422, "POST", "/api/model?class=" + "x" * 300, model, OCTET)
            expect_error(c, 422, "POST", "/api/model?class=a%0Ab", model, OCTET)
            damaged = bytearray(model)
            damaged[len(damaged) // 2] ^= 0xFF
            expect_error(c, 422, "POST", "/api/model", bytes(damaged), OCTET)
            expect_error(c, 404, "GET", "/api/model?class=nobody", contains="no model")
            expect_error(c, 405, "DELETE", "/api/model")
            assert trained_names(c) == before
        refusals()
    finally:
        studio.stop()

    # A fresh studio opens the file of two classes, named or not.
    fresh = os.path.join(work, "fresh")
    copy_pictures(data, fresh)
    studio = StudioProcess(ostrel, fresh)
    c = Client(studio.port)
    try:
        @case("a studio started afresh opens the model of two classes and shows both")
        def reopen():
            reply = c.json("POST", "/api/model?name=two.model&class=object", saved["two"], OCTET)
            assert sorted(d["name"] for d in reply["detectors"] if d["trained"]) == ["RBC", "WBC"], reply["detectors"]
            assert reply["model_files"] == 1, reply
            names = [k["name"] for k in c.json("GET", "/api/classes")["classes"]]
            assert {"RBC", "WBC"} <= set(names), names
            found = c.json("GET", f"/api/detect?picture={OTHER}&sensitivity=100")
            assert set(found["box_classes"]) <= {"RBC", "WBC"} and found["box_classes"], found["box_classes"]
            code, _, again = c.request("GET", "/api/model")
            assert code == 200 and classes_line(model_info(ostrel, work, again, "again.model")) == "classes: 2 (RBC, WBC)"
        reopen()

        @case("a model of twelve classes from `ostrel train --all-classes` shows its classes")
        def all_classes():
            chess = os.path.join(work, "chess.model")
            out = subprocess.run([ostrel, "train", "--voc", os.path.join(data, "chess"), "--all-classes", "--limit", "1",
                                  "--profile", "accurate", "--model", chess], capture_output=True, text=True)
            assert out.returncode == 0, out.stderr
            listed = classes_line(model_info(ostrel, work, open(chess, "rb").read(), "chess-copy.model"))
            names = listed.split("(", 1)[1].rstrip(")").split(", ")
            assert len(names) > 2, listed
            reply = c.json("POST", "/api/model?name=chess.model", open(chess, "rb").read(), OCTET)
            assert [d["name"] for d in reply["detectors"] if d["trained"]] == names, reply["detectors"]
            classes = [k["name"] for k in c.json("GET", "/api/classes")["classes"]]
            assert set(names) <= set(classes), classes
        all_classes()
    finally:
        studio.stop()

    # The classic profile learns one class a model.
    classic = os.path.join(work, "classic")
    copy_pictures(data, classic)
    studio = StudioProcess(ostrel, classic, extra=("--profile", "classic"))
    c = Client(studio.port)
    try:
        @case("classic profile: two classes are two models; the whole model asks for the accurate profile")
        def classic_two():
            c.json("PUT", "/api/labels/" + TRAINING, {"boxes": boxes_of(CELLS[:7]) + boxes_of(WBC, "WBC")})
            c.json("POST", "/api/train/labels", {"picture": TRAINING})
            assert c.json("GET", "/api/status")["model_files"] == 2
            expect_error(c, 409, "GET", "/api/model", contains="accurate profile")
            code, _, model = c.request("GET", "/api/model?class=WBC")
            assert code == 200 and classes_line(model_info(ostrel, work, model, "wbc.model")) == ""
        classic_two()
    finally:
        studio.stop()


def main():
    ostrel, data = sys.argv[1], sys.argv[2]
    work = tempfile.mkdtemp(prefix="ostrel-studio-model-classes-")
    try:
        run_cases(ostrel, data, work)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print(f"studio model of several classes: {results['passed']} passed, {results['failed']} failed")
    sys.exit(1 if results["failed"] else 0)


if __name__ == "__main__":
    main()
