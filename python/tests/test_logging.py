"""The library's messages go to Python's logging (logger "ostrel") through the
log record handler, never to standard output, at the level of the severity
the library gives each, and a failing call carries its own messages in
Error.log. The messages are found by words they contain, not by how they
begin, so that the tests hold when the library rewords its lines (the test
build of scripts/test-reworded-log.sh prefixes every one)."""
from __future__ import annotations

import logging
import subprocess
import sys

import pytest

import ostrel


def test_training_messages_reach_the_logger_not_stdout(capfd, caplog, training_picture, training_boxes):
    caplog.set_level(logging.DEBUG, logger="ostrel")
    # The classic profile's auto-training passes.
    with ostrel.Detector(seed=1, profile="classic") as detector:
        detector.train(training_picture, training_boxes)
    out, _ = capfd.readouterr()
    assert out == ""
    records = [r for r in caplog.records if r.name == "ostrel"]
    messages = [r.getMessage() for r in records]
    passes = [r for r in records if "Auto-training pass" in r.getMessage()]
    assert passes, messages
    # The training's steps are progress, its notes details; it fails nowhere.
    assert all(r.levelno == logging.INFO for r in records if "[Alg. Scc]" in r.getMessage())
    assert all(r.levelno == logging.DEBUG for r in records if "[Debug]" in r.getMessage())
    assert {r.levelno for r in records} == {logging.INFO, logging.DEBUG}
    # Line ends are the record's business, not the message's.
    assert not any(m.endswith("\n") for m in messages)


def test_failure_lines_are_warnings_and_travel_with_the_error(capfd, caplog, tmp_path, model_file):
    caplog.set_level(logging.DEBUG, logger="ostrel")
    damaged = tmp_path / "damaged.model"
    damaged.write_bytes(model_file.read_bytes()[:-1] + b"\0")
    with pytest.raises(ostrel.ModelError) as caught:
        ostrel.Detector.load(damaged)
    out, _ = capfd.readouterr()
    assert out == ""
    error = caught.value
    assert error.log, "the library's messages of the failing call"
    assert all(isinstance(line, str) for line in error.log)
    # The exception's text quotes the library's last message.
    assert error.log[-1].strip() in str(error)
    logged = [r.getMessage() for r in caplog.records if r.name == "ostrel"]
    for line in error.log:
        assert line.rstrip("\n") in logged
    assert any(r.levelno == logging.WARNING for r in caplog.records
               if r.name == "ostrel" and "[CRC values ERROR]" in r.getMessage())
    # The check's note of the stored length is a detail, not a failure.
    assert all(r.levelno == logging.DEBUG for r in caplog.records
               if r.name == "ostrel" and "[file size without CRC]" in r.getMessage())


def test_error_log_holds_only_the_failing_calls_messages(tmp_path, model_file, training_picture, training_boxes):
    damaged = tmp_path / "damaged.model"
    damaged.write_bytes(b"\1" * 64)
    with ostrel.Detector(seed=1) as detector:
        detector.train(training_picture, training_boxes)  # logs plenty
    with pytest.raises(ostrel.ModelError) as caught:
        ostrel.Detector.load(damaged)
    assert caught.value.log
    assert not any("Auto-training" in line for line in caught.value.log)


def test_levels_follow_the_librarys_severities():
    from ostrel import _log, _records

    assert _log.level_of(_records.LOG_FAILURE) == logging.WARNING
    assert _log.level_of(_records.LOG_PROGRESS) == logging.INFO
    assert _log.level_of(_records.LOG_DETAIL) == logging.DEBUG
    # A severity a later library adds counts as a detail.
    assert _log.level_of(7) == logging.DEBUG


def test_refusals_are_warnings_whatever_their_words(caplog, training_picture):
    # Every line of a refused call is a failure, found by its level.
    caplog.set_level(logging.DEBUG, logger="ostrel")
    with ostrel.Detector(seed=1, profile="accurate") as detector:
        with pytest.raises(ostrel.Error) as caught:
            detector.train(training_picture, [(10, 10, 2, 2)])  # far too small to learn
    records = [r for r in caplog.records if r.name == "ostrel"]
    assert records
    assert all(r.levelno == logging.WARNING for r in records)
    assert [r.getMessage() for r in records] == [line.rstrip("\n") for line in caught.value.log]


def test_a_whole_program_prints_nothing_of_the_librarys(training_picture, tmp_path, model_file):
    # Without any logging set up (Python's last-resort handler shows
    # WARNING and above on standard error), standard output stays clean
    # across training, detection, a failure and interpreter exit.
    picture = tmp_path / "picture.npy"
    import numpy as np

    np.save(picture, training_picture)
    code = f"""
import numpy as np, ostrel
picture = np.load({str(picture)!r})
with ostrel.Detector(seed=1) as d:
    d.train(picture, [(83, 336, 96, 99), (68, 237, 96, 99), (219, 362, 96, 99)])
    d.detect(picture)
try:
    ostrel.Detector.load({str(model_file) + '.missing'!r})
except FileNotFoundError:
    pass
dropped = ostrel.Detector.load({str(model_file)!r})
print("done")
"""
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    assert result.stdout == "done\n"
