#!/usr/bin/python3
"""The studio's profile through its JSON interface (real HTTP, a free
loopback port):

  - the default is the accurate profile, `--profile classic` keeps the
    classic one, and GET /api/profile and /api/status agree;
  - POST /api/profile: before training it switches; once trained it answers
    409 with the choice to make and changes nothing, "retrain" learns the
    taught pictures again under the other profile (the same model a studio
    of that profile trains from the same boxes), "forget" drops what was
    learnt; a detector opened from a model file cannot be retrained (409);
  - bad bodies (400), a missing token (403), a wrong method (405) and a
    body that is not JSON (415);
  - POST /api/model: the file decides the profile, read back from the
    engine (an accurate model in a classic studio and the reverse detect);
    a model of another profile than classes it would sit beside is 409 with
    the reason, a damaged or foreign file 422 with the reason, never 500.

Usage: test_studio_profile_api.py OSTREL DATA_DIR
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import traceback

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_process import StudioProcess  # noqa: E402
from studio_client import Client  # noqa: E402

TRAINING = "BloodImage_00000.jpg"
OTHER = "BloodImage_00001.jpg"
CELLS = [[83, 336, 97, 100], [68, 237, 97, 100], [219, 362, 97, 100], [412, 349, 97, 100],
         [153, 75, 97, 100], [9, 74, 97, 100], [538, 40, 97, 100], [386, 12, 97, 100]]
WBC = [[320, 222, 110, 100]]

results = {"passed": 0, "failed": 0}


def case(name):
    def wrap(function):
        def run(*args):
            try:
                function(*args)
                results["passed"] += 1
                print(f"  ok: {name}")
            except Exception:  # noqa: BLE001 - report and go on with the next case
                results["failed"] += 1
                print(f"  FAILED: {name}")
                traceback.print_exc()
        return run
    return wrap


def expect_error(client, status, method, path, body=None, content_type="application/json", contains="", **kwargs):
    got, ctype, data = client.request(method, path, body, content_type if body is not None else None, **kwargs)
    assert got == status, (method, path, got, data[:300])
    assert ctype.startswith("application/json"), (method, path, ctype)
    message = json.loads(data)["error"]
    assert isinstance(message, str) and message and contains.lower() in message.lower(), (message, contains)
    return message


def train(c, boxes=CELLS, cls=None):
    body = {"picture": TRAINING, "boxes": boxes}
    if cls:
        body["class"] = cls
    return c.json("POST", "/api/train", body)


def model_of(c, cls=None):
    status, _, data = c.request("GET", "/api/model" + (f"?class={cls}" if cls else ""))
    assert status == 200, (status, data[:200])
    return data


def open_model(c, data, name, cls=None, expect=200):
    return c.json("POST", f"/api/model?name={name}" + (f"&class={cls}" if cls else ""), data,
                  "application/octet-stream", expect=expect)


def found(c, picture=OTHER):
    return [b for b in c.json("GET", f"/api/detect?picture={picture}&sensitivity=80")["boxes"] if b["label"] == 1]


def default_profile(ostrel, folder, models):
    studio = StudioProcess(ostrel, folder)
    c = Client(studio.port)
    try:
        @case("started without --profile the studio trains with the accurate profile; both routes say so")
        def default(c):
            assert c.json("GET", "/api/status")["profile"] == "accurate"
            assert c.json("GET", "/api/profile") == {"profile": "accurate", "profiles": ["accurate", "classic"]}
            train(c)
            st = c.json("GET", "/api/status")
            assert st["trained"] and [d["profile"] for d in st["detectors"]] == ["accurate"], st["detectors"]
            models["accurate"] = model_of(c)
            models["accurate_found"] = found(c)
        default(c)

        @case("POST /api/profile once trained: 409 naming the choice, nothing changed")
        def needs_choice(c):
            before = c.json("GET", "/api/status")
            message = expect_error(c, 409, "POST", "/api/profile", {"profile": "classic"}, contains="retrain")
            assert "forget" in message and "labels stay" in message, message
            after = c.json("GET", "/api/status")
            assert after == before, (before, after)
            assert c.json("POST", "/api/profile", {"profile": "accurate"})["model"] == "unchanged"
        needs_choice(c)

        @case("POST /api/profile with \"retrain\": the taught picture learnt again under the classic profile")
        def retrain(c):
            reply = c.json("POST", "/api/profile", {"profile": "classic", "model": "retrain"})
            assert reply["profile"] == "classic" and reply["from"] == "accurate" and reply["model"] == "retrained"
            assert reply["retrained"]["trained"] and reply["retrained"]["samples"] == len(CELLS), reply["retrained"]
            st = reply["status"]
            assert st["profile"] == "classic" and st["trained"] and [d["profile"] for d in st["detectors"]] == ["classic"]
            assert st["taught"] == c.json("GET", "/api/status")["taught"]
            models["retrained_classic"] = model_of(c)
            assert found(c), "the retrained detector finds nothing"
        retrain(c)

        @case("POST /api/profile with \"forget\": what it learnt is dropped, the profile switched")
        def forget(c):
            reply = c.json("POST", "/api/profile", {"profile": "accurate", "model": "forget"})
            assert reply["model"] == "forgotten" and reply["profile"] == "accurate", reply
            assert not reply["status"]["trained"] and c.json("GET", "/api/status")["profile"] == "accurate"
            expect_error(c, 409, "GET", f"/api/detect?picture={OTHER}", contains="nothing is trained")
            reply = c.json("POST", "/api/profile", {"profile": "classic"})
            assert reply["model"] == "none" and c.json("GET", "/api/profile")["profile"] == "classic"
            reply = c.json("POST", "/api/profile", {"profile": "accurate"})
            assert reply["model"] == "none" and c.json("GET", "/api/profile")["profile"] == "accurate"
        forget(c)

        @case("bad profile requests: 400 for bodies, 403 without the token, 405, 415; nothing changes")
        def bad(c):
            for body in ("{", "[]", "null", {"profile": 1}, {"profile": "fast"}, {"profile": "Classic"}, {},
                         {"model": "retrain"}, {"profile": "classic", "model": "keep"},
                         {"profile": "classic", "model": True}):
                expect_error(c, 400, "POST", "/api/profile", body)
            expect_error(c, 403, "POST", "/api/profile", {"profile": "classic"}, headers={"X-Ostrel-Token": "x"})
            expect_error(c, 405, "DELETE", "/api/profile")
            expect_error(c, 415, "POST", "/api/profile", '{"profile": "classic"}', content_type="text/plain")
            expect_error(c, 404, "POST", "/api/profile/classic", {})
            assert c.json("GET", "/api/profile")["profile"] == "accurate"
        bad(c)

        @case("Open model: a classic model file in this studio turns it classic and detects")
        def open_classic(c):
            st = open_model(c, models["classic"], "classic.model")
            assert st["profile"] == "classic" and [d["profile"] for d in st["detectors"]] == ["classic"], st
            assert found(c), "the classic model finds nothing"
        open_classic(c)

        @case("a model of the other profile beside a trained class: 409 with the reason; nothing changes")
        def beside(c):
            before = c.json("GET", "/api/status")
            message = expect_error(c, 409, "POST", "/api/model?name=accurate.model&class=WBC", models["accurate"],
                                   "application/octet-stream", contains="accurate profile")
            assert "classic profile" in message and "object" in message, message
            after = c.json("GET", "/api/status")
            assert after["detectors"] == before["detectors"] and after["classes"] == before["classes"], after
            # Without a class the model replaces the whole detector: no conflict.
            st = open_model(c, models["accurate"], "accurate.model")
            assert st["profile"] == "accurate" and [d["name"] for d in st["detectors"] if d["trained"]] == ["object"]
            assert found(c) == models["accurate_found"]
        beside(c)

        @case("a detector opened from a model file cannot be retrained under another profile: 409")
        def not_retrainable(c):
            expect_error(c, 409, "POST", "/api/profile", {"profile": "classic", "model": "retrain"},
                         contains="model file")
            assert c.json("GET", "/api/status")["profile"] == "accurate"
        not_retrainable(c)

        @case("damaged and foreign model files: 422 with the reason, never 500; the model stays")
        def damaged(c):
            for name in ("accurate", "classic"):
                data = bytearray(models[name])
                data[len(data) // 2] ^= 0xFF
                expect_error(c, 422, "POST", "/api/model?name=damaged.model", bytes(data), "application/octet-stream",
                             contains="CRC")
                expect_error(c, 422, "POST", "/api/model?name=cut.model", bytes(models[name][:len(models[name]) // 3]),
                             "application/octet-stream")
            expect_error(c, 422, "POST", "/api/model?name=picture.jpg",
                         open(os.path.join(FOLDER, TRAINING), "rb").read()[:4000], "application/octet-stream")
            assert c.json("GET", "/api/status")["profile"] == "accurate" and found(c) == models["accurate_found"]
        damaged(c)
    finally:
        code, _, err, _ = studio.stop()
    assert code == 0, err


def classic_studio(ostrel, folder, models):
    studio = StudioProcess(ostrel, folder, extra=("--profile", "classic"))
    c = Client(studio.port)
    try:
        @case("--profile classic keeps the classic profile; its model equals the one retrained under classic")
        def classic(c):
            assert c.json("GET", "/api/profile")["profile"] == "classic"
            train(c)
            assert model_of(c) == models["retrained_classic"]
        classic(c)

        @case("Open model: an accurate model file in a classic studio turns it accurate and detects as exported")
        def open_accurate(c):
            st = open_model(c, models["accurate"], "accurate.model")
            assert st["profile"] == "accurate" and st["detectors"][0]["profile"] == "accurate", st
            assert found(c) == models["accurate_found"]
            assert c.json("GET", "/api/status")["model"] == "accurate.model"
        open_accurate(c)
    finally:
        code, _, err, _ = studio.stop()
    assert code == 0, err


# The cells of the training picture each marked at its own size (the
# marked sizes spread over 80 to 120 pixels).
CELLS_OF_THEIR_SIZES = [[83, 336, 97, 100], [68, 237, 88, 92], [219, 362, 104, 100], [412, 349, 97, 112],
                        [153, 75, 84, 90], [9, 74, 97, 100], [538, 40, 100, 96], [386, 12, 110, 104]]


def boxes_of_their_sizes(ostrel, folder):
    """Boxes of any size: under the accurate profile the studio hands each
    box to the library at the size it was marked; under the classic one it
    still makes a class's boxes one size."""
    labels = {"boxes": [{"class": "RBC", "x": x, "y": y, "w": w, "h": h} for x, y, w, h in CELLS_OF_THEIR_SIZES]}
    for extra, profile in (((), "accurate"), (("--profile", "classic"), "classic")):
        studio = StudioProcess(ostrel, folder, extra=extra)
        c = Client(studio.port)
        try:
            @case(f"boxes marked at their own sizes train under the {profile} profile"
                  + (" as marked" if profile == "accurate" else ", made one size"))
            def own_sizes(c):
                c.json("PUT", "/api/labels/" + TRAINING, labels)
                reply = c.json("POST", "/api/train/labels", {"picture": TRAINING})
                learnt = reply["classes"][0]
                if profile == "accurate":
                    assert learnt["resized"] == 0, learnt
                    assert sorted(learnt["boxes"]) == sorted(CELLS_OF_THEIR_SIZES), learnt["boxes"]
                    assert found(c), "no cell found on another picture"
                else:
                    assert learnt["resized"] > 0, learnt
                    assert len({(w, h) for _, _, w, h in learnt["boxes"]}) == 1, learnt["boxes"]
                c.json("PUT", "/api/labels/" + TRAINING, {"boxes": []})
            own_sizes(c)
        finally:
            code, _, err, _ = studio.stop()
        assert code == 0, err


def main():
    global FOLDER
    ostrel, data = sys.argv[1], sys.argv[2]
    work = tempfile.mkdtemp(prefix="ostrel-studio-profile-")
    FOLDER = os.path.join(work, "pictures")
    os.makedirs(FOLDER)
    for name in sorted(os.listdir(os.path.join(data, "bccd", "images"))):
        shutil.copy(os.path.join(data, "bccd", "images", name), FOLDER)
    models = {}
    classic_model = os.path.join(work, "classic.model")
    boxes = [a for b in CELLS for a in ("--box", ",".join(map(str, b)))]
    subprocess.run([ostrel, "train", "--profile", "classic", os.path.join(FOLDER, TRAINING), *boxes,
                    "--model", classic_model], check=True, capture_output=True)
    models["classic"] = open(classic_model, "rb").read()
    try:
        default_profile(ostrel, FOLDER, models)
        classic_studio(ostrel, FOLDER, models)
        boxes_of_their_sizes(ostrel, FOLDER)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print(f"studio profile API: {results['passed']} passed, {results['failed']} failed")
    sys.exit(1 if results["failed"] else 0)


if __name__ == "__main__":
    main()
