"""Bad input raises the documented exception with a message that says what to
fix, before any pointer reaches the library; nothing crashes the interpreter."""
from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

import ostrel


@pytest.fixture(scope="module")
def picture(training_picture):
    return training_picture


@pytest.mark.parametrize("dtype", [np.float32, np.float64, np.uint16, np.int8, np.int32, bool])
def test_wrong_dtype_is_a_type_error(trained, picture, dtype):
    with pytest.raises(TypeError, match=r"dtype .*8-bit pixels.*uint8"):
        trained.detect(picture.astype(dtype))


@pytest.mark.parametrize("shape", [(480,), (480, 640, 2), (480, 640, 5), (2, 480, 640, 3)])
def test_wrong_shape_is_a_value_error(trained, shape):
    with pytest.raises(ValueError, match=r"has shape .*H x W x 3 uint8 BGR"):
        trained.detect(np.zeros(shape, dtype=np.uint8))


@pytest.mark.parametrize("shape", [(0, 640, 3), (480, 0, 3), (0, 0), (0, 0, 4)])
def test_empty_picture_is_a_value_error(trained, shape):
    with pytest.raises(ValueError, match="is empty.*at least 1 x 1"):
        trained.detect(np.zeros(shape, dtype=np.uint8))


@pytest.mark.parametrize("value", [[[1, 2, 3]], "picture.jpg", None, 3])
def test_not_an_array_is_a_type_error(trained, value):
    with pytest.raises(TypeError, match="must be a numpy array"):
        trained.detect(value)


def test_the_same_checks_hold_for_training_and_feature_maps(picture, training_boxes):
    with ostrel.Detector() as detector:
        with pytest.raises(TypeError, match="dtype"):
            detector.train(picture.astype(np.float32), training_boxes)
        with pytest.raises(ValueError, match="empty"):
            detector.train(picture[:0], training_boxes)
        with pytest.raises(ValueError, match="shape"):
            detector.feature_map(picture[:, :, 0:2])
        assert not detector.is_trained


@pytest.mark.parametrize("boxes, message", [
    ([(10, 10, 50)], r"shape \(1, 3\).*\(x, y, width, height\)"),
    ([(10, 10, 50, 50, 1)], r"shape \(1, 5\)"),
    (np.zeros((2, 3), dtype=np.int32), r"shape \(2, 3\)"),
    (np.zeros((2, 4, 1), dtype=np.int32), r"shape \(2, 4, 1\)"),
    ([(10, 10, 50, 50), (1, 2)], r"not N x 4"),
    ([], "empty; give at least one box"),
    (np.zeros((0, 4), dtype=np.int64), "empty; give at least one box"),
])
def test_boxes_of_the_wrong_shape_are_value_errors(picture, boxes, message):
    with ostrel.Detector() as detector, pytest.raises(ValueError, match=message):
        detector.train(picture, boxes)


@pytest.mark.parametrize("boxes", [[(10.5, 10, 96, 99)], np.ones((1, 4)), [("a", "b", "c", "d")],
                                   np.ones((1, 4), dtype=bool)])
def test_boxes_that_are_not_whole_numbers_are_type_errors(picture, boxes):
    # The classic profile takes whole pixels only (the accurate one rounds floats).
    with ostrel.Detector(profile="classic") as detector, pytest.raises(TypeError, match="whole pixels"):
        detector.train(picture, boxes)


@pytest.mark.parametrize("box", [(640, 10, 96, 99), (10, 480, 96, 99), (-96, 10, 96, 99), (10, -99, 96, 99),
                                 (5000, 5000, 96, 99)])
def test_boxes_outside_the_picture_are_value_errors(picture, box):
    with ostrel.Detector() as detector, pytest.raises(ValueError, match="lies outside the 640 x 480 picture"):
        detector.train(picture, [(100, 100, 96, 99), box])


@pytest.mark.parametrize("box", [(10, 10, 0, 99), (10, 10, 96, -5)])
def test_boxes_without_area_are_value_errors(picture, box):
    with ostrel.Detector() as detector, pytest.raises(ValueError, match="no area"):
        detector.train(picture, [box])


def test_box_values_beyond_32_bits_are_value_errors(picture):
    with ostrel.Detector() as detector, pytest.raises(ValueError, match="32-bit"):
        detector.train(picture, np.array([[10, 10, 2**40, 99]], dtype=np.int64))


def test_box_reaching_over_the_edge_is_accepted(picture, training_boxes):
    # The library leaves such a box out of the samples but counts it as a
    # marked object, so it is not an error.
    assert any(x < 0 or y < 0 for x, y, _, _ in training_boxes)
    with ostrel.Detector(seed=1) as detector:
        detector.train(picture, training_boxes)
        assert detector.is_trained


@pytest.mark.parametrize("size, advice", [((10, 10), "larger"), ((400, 400), "smaller")])
def test_window_a_model_cannot_hold_is_refused_before_training(picture, size, advice):
    # The classic profile's one window (the accurate one chooses its own).
    with ostrel.Detector(profile="classic") as detector:
        with pytest.raises(ValueError, match=f"feature cells.*201 to 5999 values: use a {advice} box"):
            detector.train(picture, [(100, 50, *size)])
        assert not detector.is_trained


def test_the_window_bounds_are_the_headers():
    # The refusal above states the bounds the package read from the C
    # header (installed into it, or read from the checkout).
    from ostrel import _limits
    header = (Path(__file__).resolve().parents[2] / "include" / "ostrel_alg.h").read_text()
    assert f"#define OSTREL_ALG_MIN_WINDOW_WEIGHTS {_limits.MIN_WINDOW_WEIGHTS}\n" in header
    assert f"#define OSTREL_ALG_MAX_WINDOW_WEIGHTS {_limits.MAX_WINDOW_WEIGHTS}\n" in header


def test_boxes_of_several_sizes_give_a_warning(picture):
    # The classic profile learns one window (the accurate one every box at its size).
    with ostrel.Detector(seed=1, profile="classic") as detector, pytest.warns(UserWarning, match="differ in size"):
        detector.train(picture, [(100, 100, 96, 99), (300, 300, 90, 99)])


def test_detect_before_train(picture):
    with ostrel.Detector() as detector:
        with pytest.raises(ostrel.NotTrainedError, match=r"not trained; call train\(\).*Detector.load\(\)"):
            detector.detect(picture)
        with pytest.raises(ostrel.NotTrainedError, match="not trained"):
            detector.save("never.model")
    assert issubclass(ostrel.NotTrainedError, ostrel.Error)


def test_folder_as_path(tmp_path, trained):
    with pytest.raises(IsADirectoryError, match="is a folder; give the path of a file"):
        ostrel.Detector.load(tmp_path)
    with pytest.raises(IsADirectoryError, match="is a folder"):
        ostrel.check_model(tmp_path)
    with pytest.raises(IsADirectoryError, match="is a folder"):
        trained.save(tmp_path)
    with pytest.raises(IsADirectoryError, match="is a folder"):
        list(ostrel.detect_files(tmp_path, []))


def test_missing_paths(tmp_path, trained):
    with pytest.raises(FileNotFoundError, match="does not exist"):
        ostrel.Detector.load(tmp_path / "missing.model")
    with pytest.raises(FileNotFoundError, match="does not exist"):
        ostrel.check_model(tmp_path / "missing.model")
    with pytest.raises(FileNotFoundError, match="folder .* does not exist"):
        trained.save(tmp_path / "no" / "such" / "folder.model")


@pytest.mark.parametrize("damage", ["flip a weight byte", "truncate", "empty", "text"])
def test_damaged_model_file(tmp_path, model_file, damage):
    data = bytearray(model_file.read_bytes())
    if damage == "flip a weight byte":
        data[40] ^= 0x55
    elif damage == "truncate":
        data = data[:len(data) // 2]
    elif damage == "empty":
        data = bytearray()
    else:
        data = bytearray(b"this is not a model\n" * 20)
    path = tmp_path / "damaged.model"
    path.write_bytes(bytes(data))
    assert ostrel.check_model(path) is False
    with pytest.raises(ostrel.ModelError, match="damaged or not a model") as caught:
        ostrel.Detector.load(path)
    assert isinstance(caught.value, ostrel.Error)
    with pytest.raises(ostrel.ModelError):
        ostrel.detect_files(path, [])


def test_failed_save_leaves_the_old_file(tmp_path, model_file, picture):
    target = tmp_path / "kept.model"
    target.write_bytes(model_file.read_bytes())
    with ostrel.Detector() as untrained, pytest.raises(ostrel.NotTrainedError):
        untrained.save(target)
    assert target.read_bytes() == model_file.read_bytes()


@pytest.mark.parametrize("kwargs, error, message", [
    ({"sensitivity": 101}, ValueError, "sensitivity must be 0 to 100"),
    ({"sensitivity": -1}, ValueError, "sensitivity must be 0 to 100"),
    ({"sensitivity": 50.5}, TypeError, "sensitivity must be an integer"),
    ({"sensitivity": True}, TypeError, "sensitivity must be an integer"),
    ({"seed": -1}, ValueError, "seed must be 0 to 4294967295"),
    ({"seed": 2**32}, ValueError, "seed must be 0 to"),
    ({"seed": "1"}, TypeError, "seed must be an integer"),
    ({"profile": "fast"}, ValueError, "profile must be one of 'classic', 'accurate'"),
    ({"profile": None}, ValueError, "profile must be one of"),
])
def test_bad_settings(kwargs, error, message):
    with pytest.raises(error, match=message):
        ostrel.Detector(**kwargs)


@pytest.mark.parametrize("key, error, message", [
    (-1, ValueError, r"key must be 0 to"),
    (2**62, ValueError, r"key must be 0 to"),
    (1.0, TypeError, "key must be an integer"),
    ("a", TypeError, "key must be an integer"),
])
def test_bad_keys(trained, picture, key, error, message):
    with pytest.raises(error, match=message):
        trained.detect(picture, key=key)


def test_path_with_nul_character(trained):
    with pytest.raises(ValueError, match="NUL"):
        trained.save("bad\0name.model")


def test_bad_detect_files_arguments(model_file, tmp_path):
    with pytest.raises(ValueError, match="not both"):
        ostrel.detect_files(model_file, [], jobs=2, client=object())
    with pytest.raises(ValueError, match="jobs must be 1 to"):
        ostrel.detect_files(model_file, [], jobs=0)
    with pytest.raises(TypeError, match="not a single path"):
        ostrel.detect_files(model_file, "picture.jpg")
    with pytest.raises(TypeError, match="dask.distributed.Client"):
        ostrel.detect_files(model_file, [], client="tcp://localhost:8786")
    with pytest.raises(ValueError, match="sensitivity"):
        ostrel.detect_files(model_file, [], sensitivity=200)


def test_the_sensitivity_bounds_are_the_headers():
    # The package refuses sensitivities outside the range the C header gives
    # (installed into it, or read from the checkout).
    from ostrel import _limits
    header = (Path(__file__).resolve().parents[2] / "include" / "ostrel_alg.h").read_text()
    assert f"#define OSTREL_ALG_MIN_SENSITIVITY {_limits.MIN_SENSITIVITY}\n" in header
    assert f"#define OSTREL_ALG_MAX_SENSITIVITY {_limits.MAX_SENSITIVITY}\n" in header
    with pytest.raises(ValueError):
        ostrel.Detector(sensitivity=_limits.MAX_SENSITIVITY + 1)


def test_a_box_of_another_size_than_the_samples_held_is_refused_before_training(picture, training_boxes):
    # The library's own rule, asked before set-up: a model learns one window,
    # and the engine already holds samples of the first picture's.
    with ostrel.Detector(seed=1, profile="classic") as detector:
        detector.train(picture, training_boxes)
        with pytest.raises(ValueError, match="samples the engine holds"):
            detector.train(picture, [(100, 100, 150, 150)])
        assert detector.is_trained
