"""Files the package reads and writes, by the ostrel tool's rules.

Reading: only a regular file is read. A folder raises IsADirectoryError, a
device, FIFO or socket OSError, before anything opens it for good: the path
is looked at first (opening some devices does something), then opened
without waiting (O_NONBLOCK: a FIFO would wait for a writer for ever) and
looked at again through the open file, in case it was swapped meanwhile.

Writing (the model files of Detector.save), as tools/ostrel/files/atomic_file
does for every output of the tool:

- a symbolic link is written through: its target is replaced and the link
  kept; a dangling link's target is created;
- an existing folder (IsADirectoryError), device, FIFO or socket (OSError)
  is refused and left as it is; so is a target whose folder is missing
  (FileNotFoundError) or cannot be written into (PermissionError);
- the bytes go to a temporary file in the target's folder,
  ".<name>.tmp-<pid>-<n>" (shortened to 255 bytes), made with the mode the
  umask gives (like any file the user creates), and renamed over the
  target when complete; a replaced file's mode (and, for root, its owner)
  passes to the new one.

Paths are bytes (os.fsencode), so that any name the system takes works;
messages show them with display(), undecodable bytes as ``\\xff``.
"""
from __future__ import annotations

import errno
import itertools
import os
import stat
import sys
from typing import Callable

# Symbolic links followed before giving up (the kernel's own limit).
_MOST_LINKS = 40
# The longest file name (in bytes) of the usual file systems.
_LONGEST_NAME = 255

_temporary_numbers = itertools.count()

_NOT_REGULAR = "is not a regular file (a device, FIFO or socket)"


def display(path: bytes) -> str:
    """A path for messages: its bytes decoded, those that cannot be as
    ``\\xHH``, so that the text can always be printed."""
    return path.decode(sys.getfilesystemencoding(), "backslashreplace")


def _refuse(mode: int, path: bytes, what: str, consequence: str) -> None:
    if stat.S_ISDIR(mode):
        raise IsADirectoryError(f"{what} '{display(path)}' is a folder; give the path of a file")
    if not stat.S_ISREG(mode):
        raise OSError(f"{what} '{display(path)}' {_NOT_REGULAR}; {consequence}")


def open_regular(path: bytes, what: str) -> int:
    """An open file descriptor (read only) of the regular file at path.
    Raises FileNotFoundError, IsADirectoryError, or OSError for a device,
    FIFO or socket (never waiting on it) and for what cannot be opened."""
    try:
        mode = os.stat(path).st_mode
    except FileNotFoundError:
        raise FileNotFoundError(f"{what} '{display(path)}' does not exist") from None
    _refuse(mode, path, what, "it is not read")
    flags = os.O_RDONLY | getattr(os, "O_NONBLOCK", 0) | getattr(os, "O_NOCTTY", 0) | getattr(os, "O_CLOEXEC", 0) \
        | getattr(os, "O_BINARY", 0)
    try:
        descriptor = os.open(path, flags)
    except FileNotFoundError:
        raise FileNotFoundError(f"{what} '{display(path)}' does not exist") from None
    except OSError as error:
        raise type(error)(f"cannot open {what} '{display(path)}': {error.strerror}") from None
    try:
        _refuse(os.fstat(descriptor).st_mode, path, what, "it is not read")
    except BaseException:
        os.close(descriptor)
        raise
    return descriptor


def require_regular(path: bytes, what: str) -> None:
    """Raises as open_regular() does unless path is a regular file that can
    be opened for reading."""
    os.close(open_regular(path, what))


def _through_links(path: bytes, what: str) -> bytes:
    """The path that path's symbolic links finally name (it need not exist)."""
    current = path
    for _ in range(_MOST_LINKS):
        if not os.path.islink(current):
            return current
        try:
            link = os.readlink(current)
        except OSError as error:
            raise type(error)(f"cannot write {what} '{display(path)}': {error.strerror}") from None
        current = link if os.path.isabs(link) else os.path.join(os.path.dirname(current), link)
    raise OSError(f"cannot write {what} '{display(path)}': too many symbolic links")


def output_target(path: bytes, what: str) -> bytes:
    """The file that writing to path replaces (through links), checked: see
    the module's text for what is refused."""
    target = _through_links(path, what)
    try:
        mode = os.stat(target).st_mode
    except FileNotFoundError:
        pass
    else:
        _refuse(mode, path, what, "it is left as it is")
    folder = os.path.dirname(target) or b"."
    if not os.path.isdir(folder):
        raise FileNotFoundError(f"{what} '{display(path)}': folder '{display(folder)}' does not exist")
    if not os.access(folder, os.W_OK | os.X_OK):
        raise PermissionError(f"{what} '{display(path)}': cannot write into folder '{display(folder)}': "
                              f"{os.strerror(errno.EACCES)}")
    return target


def temporary_name_for(target: bytes) -> bytes:
    """A new name in target's folder: ".<name>.tmp-<pid>-<n>", the name cut
    short so that the whole stays within 255 bytes."""
    suffix = f".tmp-{os.getpid()}-{next(_temporary_numbers)}".encode()
    name = os.path.basename(target)[:_LONGEST_NAME - 1 - len(suffix)]
    return os.path.join(os.path.dirname(target), b"." + name + suffix)


def _keep_mode_of(target: bytes, temporary: bytes) -> None:
    """Gives the temporary file the mode (and, where the writer may, the
    owner) of the regular file it is about to replace."""
    try:
        status = os.stat(target)
    except FileNotFoundError:
        return  # a new file: the mode the umask gave
    if not stat.S_ISREG(status.st_mode):
        return
    if hasattr(os, "chown"):
        try:
            os.chown(temporary, status.st_uid, status.st_gid)
        except OSError:
            pass  # only root may give a file away; it then belongs to the writer
    os.chmod(temporary, stat.S_IMODE(status.st_mode))


def write_atomically(path: bytes, what: str, write: Callable[[bytes], None]) -> None:
    """Has write(temporary) fill a new temporary file next to path's target,
    then renames it over the target (see the module's text). On any failure
    the temporary file is removed and the target left as it was."""
    target = output_target(path, what)
    flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | getattr(os, "O_NOFOLLOW", 0) | getattr(os, "O_CLOEXEC", 0)
    for _ in range(100):
        temporary = temporary_name_for(target)
        try:
            os.close(os.open(temporary, flags, 0o666))  # the umask applies
            break
        except FileExistsError:
            continue  # left behind by an earlier process of the same number
    else:
        raise FileExistsError(f"cannot write {what} '{display(path)}': no free temporary name")
    try:
        write(temporary)
        # Checked again: the target may have become a FIFO or a folder meanwhile.
        target = output_target(path, what)
        _keep_mode_of(target, temporary)
        os.replace(temporary, target)
    except BaseException:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise
