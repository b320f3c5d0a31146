"""Detector.save follows the ostrel tool's rules for output files: a
folder, device, FIFO or socket is refused and left as it is; a symbolic link
is written through (its target replaced, the link kept, a dangling link's
target created); a replaced file keeps its mode, a new file gets the mode
the umask gives; the file is written under a temporary name in the same
folder and renamed over the target when complete.

Nothing here touches a real device: the device is a node of this test's
own in a temporary folder (made with the numbers of /dev/null), and where
making one is not allowed that case is skipped."""
from __future__ import annotations

import os
import socket
import stat

import pytest

import ostrel


@pytest.fixture()
def umask_022():
    old = os.umask(0o022)
    yield
    os.umask(old)


def test_a_fifo_is_refused_and_left_as_it_is(tmp_path, trained):
    fifo = tmp_path / "pipe.model"
    os.mkfifo(fifo)
    with pytest.raises(OSError, match="not a regular file.*left as it is"):
        trained.save(fifo)
    assert stat.S_ISFIFO(os.lstat(fifo).st_mode)
    assert os.listdir(tmp_path) == ["pipe.model"]


def test_a_device_of_our_own_is_refused_and_left_as_it_is(tmp_path, trained):
    device = tmp_path / "null.model"
    null = os.stat("/dev/null")
    try:
        os.mknod(device, stat.S_IFCHR | 0o666, null.st_rdev)
    except (PermissionError, OSError) as error:
        pytest.skip(f"cannot make a device node here: {error}")
    with pytest.raises(OSError, match="not a regular file"):
        trained.save(device)
    assert stat.S_ISCHR(os.lstat(device).st_mode)
    assert os.lstat(device).st_rdev == null.st_rdev


def test_a_socket_is_refused_and_left_as_it_is(tmp_path, trained):
    path = tmp_path / "socket.model"
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listening:
        listening.bind(str(path))
        with pytest.raises(OSError, match="not a regular file"):
            trained.save(path)
        assert stat.S_ISSOCK(os.lstat(path).st_mode)


def test_a_link_is_written_through_and_kept(tmp_path, trained, model_file):
    target = tmp_path / "target.model"
    target.write_bytes(b"old")
    link = tmp_path / "link.model"
    link.symlink_to("target.model")
    trained.save(link)
    assert link.is_symlink() and os.readlink(link) == "target.model"
    assert target.read_bytes() == model_file.read_bytes()
    # A dangling link: its target is created, the link kept.
    (tmp_path / "sub").mkdir()
    dangling = tmp_path / "dangling.model"
    dangling.symlink_to("sub/new.model")
    trained.save(dangling)
    assert dangling.is_symlink()
    assert (tmp_path / "sub" / "new.model").read_bytes() == model_file.read_bytes()
    # A link to a FIFO is refused like the FIFO.
    os.mkfifo(tmp_path / "pipe")
    (tmp_path / "to_pipe.model").symlink_to("pipe")
    with pytest.raises(OSError, match="not a regular file"):
        trained.save(tmp_path / "to_pipe.model")
    assert stat.S_ISFIFO(os.lstat(tmp_path / "pipe").st_mode)


def test_a_replaced_file_keeps_its_mode_and_a_new_one_takes_the_umask(tmp_path, trained, umask_022):
    kept = tmp_path / "kept.model"
    kept.write_bytes(b"old")
    os.chmod(kept, 0o644)
    trained.save(kept)
    assert stat.S_IMODE(os.stat(kept).st_mode) == 0o644
    os.chmod(kept, 0o600)
    trained.save(kept)
    assert stat.S_IMODE(os.stat(kept).st_mode) == 0o600
    trained.save(tmp_path / "new.model")
    assert stat.S_IMODE(os.stat(tmp_path / "new.model").st_mode) == 0o644
    os.umask(0o027)
    trained.save(tmp_path / "private.model")
    assert stat.S_IMODE(os.stat(tmp_path / "private.model").st_mode) == 0o640


def test_the_temporary_file_lies_in_the_target_folder(tmp_path, trained, monkeypatch, model_file):
    renamed = []
    real_replace = os.replace

    def spy(source, destination, *args, **kwargs):
        renamed.append((os.fsdecode(source), os.fsdecode(destination)))
        return real_replace(source, destination, *args, **kwargs)

    monkeypatch.setattr(os, "replace", spy)
    long_name = "m" * 249 + ".model"  # 255 bytes: the temporary name is shortened
    for name in ("plain.model", long_name):
        trained.save(tmp_path / name)
        assert (tmp_path / name).read_bytes() == model_file.read_bytes()
    assert [os.path.dirname(source) for source, _ in renamed] == [str(tmp_path)] * 2
    assert all(os.path.basename(source).startswith(".") for source, _ in renamed)
    assert all(len(os.fsencode(os.path.basename(source))) <= 255 for source, _ in renamed)
    assert sorted(os.listdir(tmp_path)) == sorted(["plain.model", long_name])


def test_a_folder_that_cannot_be_written_is_refused_before_the_library_writes(model_file):
    """Root writes into any folder: as root, the save runs as the
    unprivileged user nobody. nobody may not reach the checkout or the
    test's folders, so the package, its library and the model are copied
    into a folder of the test's own that everyone may read."""
    import shutil
    import subprocess
    import sys
    import tempfile

    stage = tempfile.mkdtemp(prefix="ostrel-as-nobody-")
    try:
        os.chmod(stage, 0o755)
        shutil.copytree(os.path.dirname(ostrel.__file__), os.path.join(stage, "ostrel"),
                        ignore=shutil.ignore_patterns("__pycache__"))
        library = os.path.join(stage, os.path.basename(ostrel.library_path()))
        shutil.copyfile(ostrel.library_path(), library)
        model = os.path.join(stage, "m.model")
        shutil.copyfile(model_file, model)
        folder = os.path.join(stage, "read-only")
        os.mkdir(folder)
        for root, folders, files in os.walk(stage):
            for name in folders + files:
                os.chmod(os.path.join(root, name), 0o755)
        os.chmod(folder, 0o555)
        as_user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
        code = ("import sys, ostrel\n"
                "with ostrel.Detector.load(sys.argv[1]) as d:\n"
                "    try:\n"
                "        d.save(sys.argv[2])\n"
                "    except PermissionError as error:\n"
                "        print('refused:', error)\n")
        environment = dict(os.environ, PYTHONPATH=stage, OSTREL_ALG_LIBRARY=library)
        done = subprocess.run(as_user + [os.path.realpath(sys.executable), "-c", code, model,
                                         os.path.join(folder, "new.model")],
                              capture_output=True, text=True, timeout=120, env=environment, cwd=stage)
        assert done.returncode == 0, done.stderr
        assert "refused:" in done.stdout and "cannot write into folder" in done.stdout, done.stdout
        assert os.listdir(folder) == []
    finally:
        shutil.rmtree(stage, ignore_errors=True)
