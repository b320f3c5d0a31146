"""The Detector's functions on the shipped blood pictures: training, detection,
samples, feature maps, model files and the engine's life cycle."""
from __future__ import annotations

import gc
import weakref

import numpy as np
import pytest

import ostrel
from conftest import SEED


def detections(boxes):
    return [b for b in boxes if b.label == 1]


def test_training_then_detection_finds_cells(training_picture, training_boxes, test_pictures):
    # The classic profile: every detection has the trained box's size.
    with ostrel.Detector(seed=SEED, profile="classic") as detector:
        assert not detector.is_trained
        detector.train(training_picture, training_boxes)
        assert detector.is_trained
        for name, picture in test_pictures.items():
            boxes = detector.detect(picture)
            found = detections(boxes)
            assert found, f"no cell found on {name}"
            for box in found:
                assert (box.width, box.height) == training_boxes[0][2:]
                assert 0.5 <= box.score <= 1.0
            scores = [b.score for b in found]
            assert scores == sorted(scores, reverse=True)


def test_box_fields_and_colour_names(trained, test_pictures):
    boxes = trained.detect(next(iter(test_pictures.values())))
    assert boxes
    for box in boxes:
        assert isinstance(box, ostrel.Box)
        assert box.label in (1, -1)
        assert 0 <= box.color_main <= 8 and 0 <= box.color_second <= 9
        assert box.color_main_name == ostrel.COLOR_NAMES[box.color_main]
        assert box.color_second_name == ostrel.COLOR_NAMES[box.color_second]
        # Scores are the library's steps of 0.01, as short decimals.
        assert box.score == round(box.score, 2)


def test_colour_names_are_those_of_the_ostrel_tool():
    assert [ostrel.color_name(i) for i in range(10)] == [
        "dark", "grey", "light", "red", "orange", "yellow", "green", "blue", "purple", "none"]
    assert ostrel.color_name(12) == "class 12"


def test_same_seed_gives_the_same_model(tmp_path, training_picture, training_boxes):
    files = []
    for i in range(2):
        with ostrel.Detector(seed=SEED) as detector:
            detector.train(training_picture, training_boxes)
            files.append(tmp_path / f"{i}.model")
            detector.save(files[-1])
    assert files[0].read_bytes() == files[1].read_bytes()


def test_save_load_round_trip_keeps_detections(tmp_path, training_picture, training_boxes, test_pictures):
    with ostrel.Detector(seed=SEED) as detector:
        detector.train(training_picture, training_boxes)
        path = tmp_path / "round.model"
        detector.save(path)
        assert ostrel.check_model(path)
        assert ostrel.check_model(str(path))
        with ostrel.Detector.load(path) as loaded:
            assert loaded.is_trained
            for picture in test_pictures.values():
                # A trained engine also lists boxes below the threshold; a
                # loaded one reports the detections only.
                assert loaded.detect(picture) == detections(detector.detect(picture))
        # Saving again through the loaded engine gives the same file.
        with ostrel.Detector.load(path) as loaded:
            loaded.save(tmp_path / "again.model")
        assert (tmp_path / "again.model").read_bytes() == path.read_bytes()
    assert not list(tmp_path.glob(".ostrel-*")), "a temporary model file was left behind"


def test_load_takes_the_sensitivity(model_file, test_pictures):
    picture = test_pictures["BloodImage_00003.jpg"]
    with ostrel.Detector.load(model_file, sensitivity=0) as strict, \
            ostrel.Detector.load(model_file, sensitivity=100) as loose:
        assert strict.sensitivity == 0 and loose.sensitivity == 100
        strict_found = detections(strict.detect(picture))
        loose_found = detections(loose.detect(picture))
        assert len(strict_found) < len(loose_found)
        assert all(b.score >= 0.9 for b in strict_found)
        assert all(b.score >= 0.3 for b in loose_found)


def test_samples_are_thumbnails_of_the_marked_boxes(training_picture, training_boxes):
    with ostrel.Detector(seed=SEED) as detector:
        detector.train(training_picture, training_boxes)
        samples = detector.samples
        assert len(samples) == len(training_boxes)
        for sample, (x, y, w, h) in zip(samples, training_boxes):
            assert sample.label == 1
            assert sample.thumbnail.dtype == np.uint8
            inside = x >= 0 and y >= 0 and x + w <= 640 and y + h <= 480
            if inside:
                assert sample.thumbnail.shape == (h, w, 3)
                assert np.array_equal(sample.thumbnail, training_picture[y:y + h, x:x + w])
        # A copy: changing it changes nothing in the engine.
        original = samples[0].thumbnail.copy()
        samples[0].thumbnail[:] = 0
        assert np.array_equal(detector.samples[0].thumbnail, original)


def test_remove_sample_drops_one_thumbnail_and_retrains(training_picture, training_boxes):
    with ostrel.Detector(seed=SEED) as detector:
        detector.train(training_picture, training_boxes)
        before = detector.samples
        detector.remove_sample(1)
        after = detector.samples
        assert len(after) == len(before) - 1
        assert after[0] == before[0]
        assert after[1] == before[2]
        assert detector.is_trained
        with pytest.raises(IndexError, match=f"holds {len(after)} samples"):
            detector.remove_sample(len(after))
        with pytest.raises(IndexError):
            detector.remove_sample(-1)
        with pytest.raises(TypeError, match="integer"):
            detector.remove_sample(1.0)


def test_second_picture_adds_its_samples(training_picture, training_boxes, test_pictures):
    from conftest import marked_boxes

    with ostrel.Detector(seed=SEED) as detector:
        detector.train(training_picture, training_boxes)
        # The second picture's cells at the size the model learnt: a second
        # picture joins the model only when its boxes give the same window.
        _, _, width, height = training_boxes[0]
        second = [(x + (w - width) // 2, y + (h - height) // 2, width, height)
                  for x, y, w, h in marked_boxes("BloodImage_00001")]
        detector.train(test_pictures["BloodImage_00001.jpg"], second)
        assert len(detector.samples) == len(training_boxes) + len(second)


def test_same_training_key_retrains_without_new_samples(training_picture, training_boxes):
    with ostrel.Detector(seed=SEED) as detector:
        detector.train(training_picture, training_boxes, key=7)
        detector.train(training_picture, training_boxes[:2], key=7)
        assert len(detector.samples) == len(training_boxes)


def test_feature_map_is_channels_rows_columns(trained, training_picture, ostrel_tool, tmp_path):
    import subprocess

    cv2 = pytest.importorskip("cv2")
    feature_map = trained.feature_map(training_picture)
    assert feature_map.dtype == np.uint8 and feature_map.ndim == 3
    channels, rows, columns = feature_map.shape
    assert channels == 10 and columns > rows  # a landscape picture gives a landscape map
    assert feature_map.flags.c_contiguous
    # The ostrel tool writes the library's bytes: channel by channel, each
    # column by column.
    picture_path = tmp_path / "picture.png"
    cv2.imwrite(str(picture_path), training_picture)
    raw = tmp_path / "map.raw"
    subprocess.run([str(ostrel_tool), "channels", str(picture_path), "--raw", str(raw)], check=True,
                   capture_output=True)
    stored = np.frombuffer(raw.read_bytes(), dtype=np.uint8).reshape(channels, columns, rows)
    assert np.array_equal(feature_map, stored.transpose(0, 2, 1))


def test_feature_map_needs_no_training(training_picture):
    with ostrel.Detector() as detector:
        assert detector.feature_map(training_picture).shape[0] == 10


def test_keys_reuse_is_consistent(trained, test_pictures):
    a, b = test_pictures["BloodImage_00003.jpg"], test_pictures["BloodImage_00004.jpg"]
    fresh = trained.detect(a)
    assert trained.detect(a, key=11) == fresh
    assert trained.detect(a, key=11) == fresh  # reused features
    assert trained.detect(b, key=12) == trained.detect(b)
    # Without keys, two different pictures never share features.
    assert trained.detect(a) == fresh


def test_key_given_again_with_another_size_is_refused(trained, test_pictures):
    picture = test_pictures["BloodImage_00003.jpg"]
    trained.detect(picture, key=21)
    with pytest.raises(ValueError, match="equal keys mean equal pixels"):
        trained.detect(picture[:200, :300], key=21)


def test_grey_and_bgra_pictures_are_converted(trained, test_pictures):
    cv2 = pytest.importorskip("cv2")
    picture = test_pictures["BloodImage_00003.jpg"]
    grey = cv2.cvtColor(picture, cv2.COLOR_BGR2GRAY)
    assert trained.detect(grey) == trained.detect(cv2.cvtColor(grey, cv2.COLOR_GRAY2BGR))
    assert trained.detect(grey[:, :, np.newaxis]) == trained.detect(cv2.cvtColor(grey, cv2.COLOR_GRAY2BGR))
    bgra = cv2.cvtColor(picture, cv2.COLOR_BGR2BGRA)
    bgra[:, :, 3] = 17
    assert trained.detect(bgra) == trained.detect(picture)


def test_non_contiguous_pictures_are_copied(trained, test_pictures):
    picture = test_pictures["BloodImage_00003.jpg"]
    wide = np.zeros((480, 1280, 3), dtype=np.uint8)
    wide[:, ::2] = picture
    view = wide[:, ::2]
    assert not view.flags.c_contiguous
    assert trained.detect(view) == trained.detect(picture)
    flipped = picture[::-1, ::-1]
    assert trained.detect(flipped) == trained.detect(np.ascontiguousarray(flipped))


def test_boxes_as_array_or_box_objects(training_picture, training_boxes, tmp_path):
    models = []
    for form in (training_boxes, np.array(training_boxes, dtype=np.int64),
                 [ostrel.Box(*b, score=0.0, label=1, color_main=0, color_second=0) for b in training_boxes]):
        with ostrel.Detector(seed=SEED) as detector:
            detector.train(training_picture, form)
            path = tmp_path / f"{len(models)}.model"
            detector.save(path)
            models.append(path.read_bytes())
    assert models[0] == models[1] == models[2]


def test_close_context_manager_and_garbage_collection(training_picture):
    detector = ostrel.Detector()
    assert not detector.closed
    detector.close()
    detector.close()  # harmless
    assert detector.closed
    with pytest.raises(ostrel.Error, match="closed"):
        detector.feature_map(training_picture)
    with ostrel.Detector() as inside:
        pass
    assert inside.closed
    # The garbage collector frees an engine nobody closed.
    dropped = ostrel.Detector()
    finalizer = dropped._finalizer
    reference = weakref.ref(dropped)
    del dropped
    gc.collect()
    assert reference() is None
    assert not finalizer.alive


def test_detector_cannot_be_pickled():
    import pickle

    with ostrel.Detector() as detector, pytest.raises(TypeError, match="save"):
        pickle.dumps(detector)


def test_library_path_is_reported():
    assert "ostrel_alg" in ostrel.library_path()


def test_import_does_not_need_opencv():
    import subprocess
    import sys

    code = ("import sys; sys.modules['cv2'] = None; import ostrel; "
            "d = ostrel.Detector(); print(d.is_trained); d.close()")
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    assert result.stdout == "False\n"


def test_feature_map_keeps_the_key_check(trained, test_pictures):
    # A feature map does not replace the library's last picture, so it does
    # not make the size check of the last key forget it.
    picture = test_pictures["BloodImage_00004.jpg"]
    trained.detect(picture, key=31)
    trained.feature_map(picture)
    with pytest.raises(ValueError, match="equal keys mean equal pixels"):
        trained.detect(picture[:100, :100], key=31)
