"""The library's messages go to Python's logging (logger "ostrel") through the
log handler, never to standard output, and a failing call carries its own
messages in Error.log."""
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
    passes = [m for m in messages if m.startswith("[Alg. Scc] Auto-training pass")]
    assert passes, messages
    assert all(r.levelno == logging.INFO for r in records if r.getMessage().startswith("[Alg. Scc]"))
    assert all(r.levelno == logging.DEBUG for r in records if r.getMessage().startswith("[Debug]"))
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
               if r.name == "ostrel" and r.getMessage().startswith("[CRC values ERROR]"))


def test_error_log_holds_only_the_failing_calls_messages(tmp_path, model_file, training_picture, training_boxes):
    damaged = tmp_path / "damaged.model"
    damaged.write_bytes(b"\1" * 64)
    with ostrel.Detector(seed=1) as detector:
        detector.train(training_picture, training_boxes)  # logs plenty
    with pytest.raises(ostrel.ModelError) as caught:
        ostrel.Detector.load(damaged)
    assert caught.value.log
    assert not any("Auto-training" in line for line in caught.value.log)


def test_level_of_library_messages():
    from ostrel import _log

    assert _log.level_of("[Alg.Fail] ostrel_alg_runDetector (ostrel_alg_lib line:1)\n") == logging.WARNING
    assert _log.level_of("[Alg. FAIL!] ostrel_alg::runDetector (ostrel_alg line:2)\n") == logging.WARNING
    assert _log.level_of("[exception] x (y line:3): z\n") == logging.WARNING
    assert _log.level_of("[Alg.Exc!] x (y line:3): z\n") == logging.WARNING
    assert _log.level_of("[CRC values ERROR] read : 1, calc : 2\n") == logging.WARNING
    assert _log.level_of("[svm model value is wrong!] ostrel_alg::exportModel\n") == logging.WARNING
    assert _log.level_of("[file read FAIL!]\n") == logging.WARNING
    assert _log.level_of("[ostrel_alg::checkImgValid] invalid image data: 0 x 0 @0)\n") == logging.WARNING
    assert _log.level_of("[file size without CRC] read : 1, calc : 1\n") == logging.DEBUG
    assert _log.level_of("PCA is not valid in getBestFPThreshold \n") == logging.DEBUG
    assert _log.level_of("[Alg. Scc] Training done...\n") == logging.INFO
    assert _log.level_of("[Debug] anything\n") == logging.DEBUG


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
