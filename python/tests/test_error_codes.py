"""What the library reports besides its log: the code of a failure on the
exception, the training steps through a progress callback, and its
version."""
from __future__ import annotations

import pytest

import ostrel
from ostrel import _records as rec


def test_a_damaged_model_raises_model_error_with_the_code(tmp_path, model_file):
    damaged = tmp_path / "damaged.model"
    damaged.write_bytes(model_file.read_bytes()[:-1] + b"\0")
    with pytest.raises(ostrel.ModelError) as caught:
        ostrel.Detector.load(damaged)
    assert caught.value.code == rec.ERR_MODEL_INVALID
    assert "does not match its contents" in str(caught.value)


def test_boxes_that_cannot_share_a_window_give_their_code(training_picture):
    with ostrel.Detector(seed=1) as detector, pytest.raises(ostrel.Error) as caught:
        detector.train(training_picture, [(10, 10, 100, 20), (200, 200, 20, 100)])
    assert caught.value.code == rec.ERR_BOX_NOT_LEARNABLE
    assert "cannot share one window" in str(caught.value)


def test_a_refused_class_name_gives_bad_argument():
    with ostrel.Detector(seed=1) as detector:
        detector.add_class("cell")
        with pytest.raises(ostrel.Error) as caught:
            detector.add_class("cell")
    assert caught.value.code == rec.ERR_BAD_ARGUMENT


@pytest.mark.parametrize("profile", ["classic", "accurate"])
def test_progress_reports_every_training_step(profile, training_picture, training_boxes):
    steps = []
    with ostrel.Detector(seed=1, profile=profile) as detector:
        detector.train(training_picture, training_boxes, progress=steps.append)
    stages = [s["stage"] for s in steps]
    assert "trained" in stages
    if profile == "classic":
        assert stages.index("samples") < stages.index("trained")
        passes = [s["round"] for s in steps if s["stage"] == "pass"]
        assert 1 <= len(passes) <= 5
        assert passes == list(range(1, len(passes) + 1))
    else:
        first = [s for s in steps if s["stage"] == "accurate_training"]
        assert first and first[0]["object_windows"] > 0 and first[0]["background_windows"] > 0
    seconds = [s["seconds"] for s in steps]
    assert seconds == sorted(seconds)


def test_an_exception_in_the_progress_callback_comes_back_after_training(training_picture, training_boxes):
    def refuse(step):
        raise RuntimeError("stop")

    with ostrel.Detector(seed=1) as detector:
        with pytest.raises(RuntimeError, match="stop"):
            detector.train(training_picture, training_boxes, progress=refuse)
        # The training itself ran to its end; the callback is gone.
        assert detector.is_trained
        detector.train(training_picture, training_boxes)


def test_the_library_reports_the_version_of_the_header():
    assert ostrel.library_version() == tuple(int(p) for p in ostrel.__version__.split("."))
