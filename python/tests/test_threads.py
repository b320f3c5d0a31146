"""Two threads, each with its own Detector, give the same boxes as one thread
doing the same work serially, in less wall time (the ratio is printed; no
timing is asserted)."""
from __future__ import annotations

import threading
import time

import ostrel
from conftest import blood_picture_paths, read_picture

ROUNDS = 4


def work(model_file, pictures):
    with ostrel.Detector.load(model_file) as detector:
        return [detector.detect(p) for _ in range(ROUNDS) for p in pictures]


def test_two_threads_give_the_serial_boxes(model_file, capsys):
    pictures = [read_picture(p) for p in blood_picture_paths()]
    halves = [pictures[0::2], pictures[1::2]]
    work(model_file, pictures[:1])  # warm-up

    started = time.perf_counter()
    serial = [work(model_file, half) for half in halves]
    serial_seconds = time.perf_counter() - started

    results: list = [None, None]
    errors: list = []

    def run(i):
        try:
            results[i] = work(model_file, halves[i])
        except BaseException as error:  # noqa: BLE001 - reported below
            errors.append(error)

    threads = [threading.Thread(target=run, args=(i,)) for i in range(2)]
    started = time.perf_counter()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    threaded_seconds = time.perf_counter() - started

    assert not errors, errors
    assert results == serial
    assert sum(len(boxes) for run_boxes in serial for boxes in run_boxes) > 0
    with capsys.disabled():
        print(f"\n[threads] {len(pictures) * ROUNDS} detections: serial {serial_seconds:.3f} s, "
              f"2 threads {threaded_seconds:.3f} s, speed-up {serial_seconds / threaded_seconds:.2f}x")


def test_two_threads_train_the_same_models_as_serial(training_picture, training_boxes, test_pictures, tmp_path):
    from conftest import marked_boxes

    jobs = [(training_picture, training_boxes),
            (test_pictures["BloodImage_00001.jpg"], marked_boxes("BloodImage_00001"))]

    def train(i, folder):
        picture, boxes = jobs[i]
        with ostrel.Detector(seed=1) as detector:
            detector.train(picture, boxes)
            detector.save(folder / f"{i}.model")

    serial = tmp_path / "serial"
    threaded = tmp_path / "threaded"
    serial.mkdir()
    threaded.mkdir()
    for i in range(2):
        train(i, serial)
    threads = [threading.Thread(target=train, args=(i, threaded)) for i in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for i in range(2):
        assert (threaded / f"{i}.model").read_bytes() == (serial / f"{i}.model").read_bytes()


def test_one_detector_shared_by_threads_serialises_its_calls(trained, test_pictures):
    picture = test_pictures["BloodImage_00003.jpg"]
    expected = trained.detect(picture)
    seen: list = []

    def run():
        for _ in range(5):
            seen.append(trained.detect(picture))

    threads = [threading.Thread(target=run) for _ in range(3)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert seen == [expected] * 15
