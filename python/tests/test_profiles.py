"""The profile option: "classic" is the default and is set through the
option interface; "accurate" trains, saves, loads and detects; a library
without the option interface (an older build found on the path) makes the
accurate profile a clear error rather than a silent classic detector."""
from __future__ import annotations

import pytest

import ostrel
from ostrel import _library


def test_classic_profile_is_the_default(trained, model_file, test_pictures):
    picture = test_pictures["BloodImage_00003.jpg"]
    with ostrel.Detector.load(model_file, profile="classic") as classic:
        assert classic.profile == "classic" == trained.profile
        assert classic.detect(picture) == trained.detect(picture)


def test_classic_profile_is_set_through_the_option_interface():
    import ctypes

    from ostrel import _log

    library = _library.get()
    with ostrel.Detector(profile="classic") as detector:
        value = ctypes.c_int32(-1)
        status, _ = _log.call(library.getOption, detector._live_handle(), 1, ctypes.byref(value))
        assert status == 0 and value.value == 0


def test_accurate_profile_without_the_option_interface_is_a_clear_error(monkeypatch):
    library = _library.get()
    assert library.has("ostrel_alg_setOption")
    monkeypatch.delitem(library.functions, "ostrel_alg_setOption")
    with pytest.raises(ostrel.Error, match="accurate profile needs a library with ostrel_alg_setOption"):
        ostrel.Detector(profile="accurate")


def test_accurate_profile_with_the_option_interface(training_picture, training_boxes, test_pictures, tmp_path):
    with ostrel.Detector(seed=1, profile="accurate") as detector:
        assert detector.profile == "accurate"
        detector.train(training_picture, training_boxes)
        path = tmp_path / "accurate.model"
        detector.save(path)
        picture = test_pictures["BloodImage_00003.jpg"]
        found = [b for b in detector.detect(picture) if b.label == 1]
        assert found
    assert ostrel.check_model(path)
    with ostrel.Detector.load(path, profile="accurate") as loaded:
        assert [b for b in loaded.detect(picture) if b.label == 1] == found
