"""The profiles as a Python user meets them: ``Detector()`` trains with the
accurate profile unless ``profile="classic"``; a saved model records its
profile and ``Detector.load`` and ``detect_files`` take it from the file (a
``profile`` that contradicts the file is refused, saying so); round trips
under each profile give the same boxes and scores in a fresh engine and in
one set to the other profile; boxes of any size and float boxes train the
accurate profile; a model that loads but cannot search is one ModelError,
not an error for every picture; the library's reason is in the exception."""
from __future__ import annotations

import ctypes
import struct
import zlib

import numpy as np
import pytest

import ostrel
from conftest import SEED, annotated_cells, blood_picture_paths
from ostrel import _library, _log

PROFILE_NUMBERS = {"classic": 0, "accurate": 1}


def engine_profile(detector: ostrel.Detector) -> int:
    value = ctypes.c_int32(-1)
    status, _ = _log.call(_library.get().getOption, detector._live_handle(), 1, ctypes.byref(value))
    assert status == 0
    return value.value


def detections(detector: ostrel.Detector, pictures) -> list[list[ostrel.Box]]:
    return [[b for b in detector.detect(p) if b.label == 1] for p in pictures]


@pytest.fixture(scope="module")
def cells() -> list[tuple[int, int, int, int]]:
    """The annotated cells of the training picture, each at its own size."""
    boxes = annotated_cells("BloodImage_00000")
    assert len({(w, h) for _, _, w, h in boxes}) > 1
    return boxes


@pytest.fixture(scope="module")
def accurate_model(tmp_path_factory, training_picture, cells, test_pictures):
    """An accurate model, and the training engine's detections."""
    path = tmp_path_factory.mktemp("accurate") / "cells.model"
    pictures = list(test_pictures.values())
    with ostrel.Detector(seed=SEED, profile="accurate") as detector:
        detector.train(training_picture, cells)
        detector.save(path)
        found = detections(detector, pictures)
    assert sum(len(f) for f in found) > 20
    return path, found


def test_the_default_profile_is_accurate():
    with ostrel.Detector() as detector:
        assert detector.profile == "accurate"
        assert engine_profile(detector) == PROFILE_NUMBERS["accurate"]
    with ostrel.Detector(profile="classic") as detector:
        assert detector.profile == "classic"
        assert engine_profile(detector) == PROFILE_NUMBERS["classic"]


def test_load_of_an_accurate_model_detects_without_a_profile(accurate_model, test_pictures):
    path, found = accurate_model
    with ostrel.Detector.load(path) as loaded:
        assert loaded.profile == "accurate"
        assert engine_profile(loaded) == PROFILE_NUMBERS["accurate"]
        assert detections(loaded, list(test_pictures.values())) == found


def test_detect_files_of_an_accurate_model(accurate_model, test_pictures, tmp_path):
    path, found = accurate_model
    names = [p for p in blood_picture_paths() if p.name in test_pictures]
    results = list(ostrel.detect_files(path, [str(p) for p in names], jobs=2))
    assert all(isinstance(boxes, list) for _, boxes in results), results
    by_name = dict(zip(test_pictures, found))
    for name, (_, boxes) in zip(names, results):
        assert [b for b in boxes if b.label == 1] == by_name[name.name]


@pytest.mark.parametrize("profile", ["accurate", "classic"])
def test_round_trip_in_a_fresh_engine_and_one_set_to_the_other_profile(profile, training_picture, cells,
                                                                        training_boxes, test_pictures, tmp_path):
    pictures = list(test_pictures.values())
    path = tmp_path / f"{profile}.model"
    with ostrel.Detector(seed=SEED, profile=profile) as trained:
        trained.train(training_picture, cells if profile == "accurate" else training_boxes)
        trained.save(path)
        found = detections(trained, pictures)
    assert sum(len(f) for f in found) > 0
    with ostrel.Detector.load(path) as fresh:
        assert fresh.profile == profile
        assert detections(fresh, pictures) == found
    other = "classic" if profile == "accurate" else "accurate"
    with ostrel.Detector(profile=other) as engine:
        status, _ = _log.call(_library.get().importModel_ptr, engine._live_handle(), bytes(path))
        assert status == 0
        assert engine_profile(engine) == PROFILE_NUMBERS[profile]
        assert detections(engine, pictures) == found


@pytest.mark.parametrize("given", ["classic", "accurate"])
def test_a_profile_that_contradicts_the_file_is_refused(accurate_model, model_file, given):
    path = accurate_model[0] if given == "classic" else model_file
    made = "accurate" if given == "classic" else "classic"
    message = f"made under the {made} profile, but profile='{given}' was given: leave profile out"
    with pytest.raises(ostrel.ModelError, match=message):
        ostrel.Detector.load(path, profile=given)
    with pytest.raises(ostrel.ModelError, match=message):
        ostrel.detect_files(path, [], profile=given)
    with ostrel.Detector.load(path, profile=made) as agreeing:
        assert agreeing.profile == made


def test_boxes_of_any_size_train_without_a_warning(training_picture, recwarn):
    with ostrel.Detector(seed=SEED) as detector:
        detector.train(training_picture, [(63, 237, 106, 99), (155, 74, 92, 100), (300, 300, 60, 55)])
        assert detector.is_trained
    assert not [w for w in recwarn if "differ in size" in str(w.message)]


def test_float_boxes_are_rounded_edge_by_edge():
    from ostrel._inputs import rounded_edges

    rounded = rounded_edges(np.array([[10.5, 10.49, 20.2, 30.5], [-0.5, 2.5, 0.9, 1.0]]))
    # Edges: 10.5 -> 11, 30.7 -> 31; 10.49 -> 10, 40.99 -> 41; -0.5 -> 0, 0.4 -> 0; 2.5 -> 3, 3.5 -> 4.
    assert rounded.tolist() == [[11, 10, 20, 31], [0, 3, 0, 1]]
    with pytest.raises(ValueError, match="not a finite number"):
        rounded_edges(np.array([[1.0, np.nan, 3.0, 4.0]]))


def test_float_boxes_train_the_model_of_their_rounded_boxes(training_picture, cells, tmp_path):
    from ostrel._inputs import rounded_edges

    shifted = [(x + 0.3, y - 0.2, w + 0.1, h - 0.4) for x, y, w, h in cells]
    whole = rounded_edges(np.array(shifted)).astype(int).tolist()
    models = []
    for name, boxes in (("float", shifted), ("whole", whole)):
        with ostrel.Detector(seed=SEED) as detector:
            detector.train(training_picture, boxes)
            detector.save(tmp_path / name)
        models.append((tmp_path / name).read_bytes())
    assert models[0] == models[1]
    with ostrel.Detector(profile="classic") as classic, pytest.raises(TypeError, match="whole pixels"):
        classic.train(training_picture, shifted)


def test_the_exception_carries_the_library_reason(training_picture):
    # Boxes whose shapes differ five times cannot share one window.
    with ostrel.Detector(seed=SEED) as detector, pytest.raises(ostrel.Error) as caught:
        detector.train(training_picture, [(10, 10, 100, 20), (200, 200, 20, 100)])
    assert "the library says:" in str(caught.value)
    # The reason, not only the line naming the failing function.
    reason_lines = [line for line in caught.value.log if "window" in line]
    assert reason_lines and reason_lines[0].strip() in str(caught.value)


def unusable_model(classic_model, target):
    """The classic model with a trained box wider than any picture and its
    CRC made right: the library validates and loads it but cannot search."""
    data = classic_model.read_bytes()
    length = struct.unpack_from("<Q", data, len(data) - 12)[0]
    body = bytearray(data[:length])
    struct.pack_into("<i", body, 4, 2147483647)
    target.write_bytes(bytes(body) + struct.pack("<QI", len(body), zlib.crc32(bytes(body)) & 0xFFFFFFFF))
    return target


def test_detect_files_does_not_blame_the_pictures_for_the_model(model_file, tmp_path):
    path = unusable_model(model_file, tmp_path / "wide.model")
    assert ostrel.check_model(path)
    with pytest.raises(ostrel.ModelError, match="cannot search any picture.*the library says: ") as caught:
        ostrel.detect_files(path, [str(p) for p in blood_picture_paths()], jobs=2)
    assert caught.value.log
