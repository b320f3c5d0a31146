"""Detection over many picture files: on threads, or on a Dask cluster.

Pictures are read by the ``ostrel`` command's rules (see ``_picture_file``:
regular files only, the pixel limit from the header before decoding, JPEGs
cut short refused, phone photos upright) and decoded with OpenCV
(``cv2.imdecode``, 8-bit BGR, the same decoder the command uses), so this
module needs ``cv2``; the rest of the package does not. Paths travel as
the bytes of their names, so names that are not UTF-8 work as any other.
The paths are cut into chunks; each chunk is one task
that loads the model once into its own detector and searches its pictures
one after another. Results come back in input order, with at most a few
chunks per worker in flight, so a list of a million paths does not pile up
results in memory.
"""
from __future__ import annotations

import collections
import itertools
import math
import os
import tempfile
from typing import Any, Callable, Iterable, Iterator, Optional, Sequence, Union

import numpy as np

from . import _files, _inputs, _limits, _picture_file
from .detector import DEFAULT_SENSITIVITY, Detector
from .errors import Error, ModelError, PictureError
from .results import Box

DetectionResult = Union[list[Box], PictureError]

# Chunks per worker: enough for an even spread when pictures take unequal
# time, few enough that loading the model stays a small share of a chunk.
_CHUNKS_PER_WORKER = 4
_MAX_CHUNK = 64
# Chunks waiting or running per worker at any time.
_IN_FLIGHT_PER_WORKER = 2
# Plain grey pictures a usable model searches without failing: a small one
# (a model of small objects may not be able to enlarge a large picture
# enough) and a large one (a classic model trained on a large picture may
# shrink its window below a pixel on a small one). A model that fails on
# both cannot detect at all, and detect_files says so instead of blaming
# every picture.
_PROBE_SIZES = ((240, 320), (720, 1280))


def _cv2() -> Any:
    try:
        import cv2
    except ImportError as error:
        raise ImportError("ostrel.detect_files reads pictures with OpenCV's Python module (cv2), which is not "
                          "installed; on Debian: apt-get install python3-opencv") from error
    return cv2


def read_picture(path: _inputs.PathLike, max_pixels: int = _limits.DEFAULT_MAX_PICTURE_PIXELS) -> Any:
    """A picture file as an H x W x 3 uint8 BGR array, upright; raises
    PictureError saying why when it is refused or cannot be read."""
    return _picture_file.read_picture(_inputs.path(path, "picture path"), max_pixels, _cv2())


def _require_model_detects(detector: Detector, name: str) -> None:
    """Raises ModelError, with the library's reason, when the model loads
    but cannot search any picture (a hand-made file whose parts do not
    agree): decided by the library's status on the probe pictures."""
    failure: Optional[Error] = None
    for height, width in _PROBE_SIZES:
        try:
            detector.detect(np.full((height, width, 3), 128, dtype=np.uint8))
            return
        except Error as error:
            failure = error
    assert failure is not None
    raise ModelError(f"model file '{name}' loads but cannot search any picture: {failure}", failure.log)


def _detect_paths(model: bytes, paths: Iterable[bytes], sensitivity: int, profile: Optional[str],
                  max_pixels: int) -> Iterator[DetectionResult]:
    """Loads the model once and searches each picture; a picture that fails
    gives a PictureError in its place."""
    with tempfile.TemporaryDirectory(prefix="ostrel-") as folder:
        model_path = os.path.join(folder, "model")
        with open(model_path, "wb") as file:
            file.write(model)
        detector = Detector.load(model_path, sensitivity=sensitivity, profile=profile)
    cv2 = _cv2()
    with detector:
        for path in paths:
            try:
                yield detector.detect(_picture_file.read_picture(path, max_pixels, cv2))
            except PictureError as error:
                yield error
            except (Error, ValueError) as error:
                log = error.log if isinstance(error, Error) else []
                name = _files.display(path)
                yield PictureError(f"detection failed on '{name}': {error}", name, log)


def detect_chunk(model: bytes, paths: Sequence[bytes], sensitivity: int, profile: Optional[str],
                 max_pixels: int = _limits.DEFAULT_MAX_PICTURE_PIXELS) -> list[DetectionResult]:
    """One task of :func:`detect_files`: the results of a chunk of paths
    (the bytes of their names). Runs on a worker thread or a Dask worker."""
    return list(_detect_paths(model, paths, sensitivity, profile, max_pixels))


def _in_order(chunks: Iterator[list[str]], submit: Callable[[list[str]], Any], in_flight: int,
              cancel: Callable[[Any], None]) -> Iterator[list[DetectionResult]]:
    """Results of each chunk in submission order, keeping in_flight chunks
    submitted ahead of the one waited for."""
    pending: collections.deque[Any] = collections.deque()
    try:
        for chunk in itertools.islice(chunks, in_flight):
            pending.append(submit(chunk))
        while pending:
            results = pending.popleft().result()
            for chunk in itertools.islice(chunks, 1):
                pending.append(submit(chunk))
            yield results
    finally:
        for future in pending:
            cancel(future)


def _chunks(paths: list[bytes], size: int) -> Iterator[list[bytes]]:
    return (paths[i:i + size] for i in range(0, len(paths), size))


def detect_files(model: _inputs.PathLike, paths: Iterable[_inputs.PathLike], jobs: Optional[int] = None,
                 client: Any = None, sensitivity: int = DEFAULT_SENSITIVITY, profile: Optional[str] = None,
                 max_pixels: int = _limits.DEFAULT_MAX_PICTURE_PIXELS) -> Iterator[tuple[Any, DetectionResult]]:
    """Searches picture files with a model; yields ``(path, boxes)`` in input order.

    ``boxes`` is the list :meth:`Detector.detect` returns, or, for a picture
    that cannot be read or searched, an :class:`ostrel.PictureError` saying
    why (yielded, not raised: one bad file never stops the run). Pictures
    are read as the ``ostrel`` command reads them: only regular files (a
    FIFO, device or folder is an error for its path); JPEG, PNG and BMP
    above ``max_pixels`` (width x height, default
    :data:`ostrel.DEFAULT_MAX_PICTURE_PIXELS`, 2**27, at most the library's
    :data:`ostrel.MAX_PICTURE_PIXELS`, 2**28) refused from their header
    before they are decoded, other formats after; a JPEG cut short refused;
    phone photos turned upright by their EXIF orientation. A path may be
    str, bytes or os.PathLike; names that are not UTF-8 are read by their
    bytes.

    ``jobs``: threads on this machine, each with its own detector (default:
    one per CPU; 1 searches in the calling thread). ``client``: a
    ``dask.distributed.Client``; chunks of paths then run on the cluster's
    workers, each chunk loading the model once. The model file is read here
    and sent to the workers, so only the pictures must be reachable there
    under the same paths. ``jobs`` and ``client`` exclude each other.

    The model file decides the profile (see :meth:`Detector.load`);
    ``profile``, when given, must agree with it.

    The model is validated, loaded and tried on two plain pictures, and the
    arguments are checked, before this function returns (ModelError with
    the library's reason, FileNotFoundError, ValueError, ...): a model that
    cannot search any picture raises ModelError here rather than giving
    every picture a PictureError. The pictures are searched as the results
    are consumed.
    """
    if jobs is not None and client is not None:
        raise ValueError("give jobs (threads on this machine) or client (a Dask cluster), not both")
    if jobs is not None:
        jobs = _inputs.integer(jobs, "jobs", 1, 4096)
    max_pixels = _inputs.integer(max_pixels, "max_pixels", 1, _limits.MAX_PICTURE_PIXELS)
    if client is not None and not (hasattr(client, "submit") and hasattr(client, "scatter")):
        raise TypeError(f"client must be a dask.distributed.Client, not {type(client).__name__}")
    if isinstance(paths, (str, bytes, os.PathLike)):
        raise TypeError("paths must be a list of paths, not a single path: wrap it in a list")
    given = list(paths)
    names = [_inputs.path(p, "picture path") for p in given]
    source = _inputs.existing_file(model, "model file")
    # Loading it here checks the file, the sensitivity and the profile once,
    # before any work is handed out.
    with Detector.load(source, sensitivity=sensitivity, profile=profile) as detector:
        _require_model_detects(detector, _files.display(source))
    descriptor = _files.open_regular(source, "model file")
    with open(descriptor, "rb") as file:
        model_bytes = file.read()
    if client is None:
        _cv2()  # on a cluster, the workers read the pictures
    return _as_given(given, _run(model_bytes, names, jobs, client, sensitivity, profile, max_pixels))


def _as_given(given: list[Any], results: Iterator[DetectionResult]) -> Iterator[tuple[Any, DetectionResult]]:
    """Pairs each result with its path as the caller gave it (an error's
    ``path`` too)."""
    try:
        for path, result in zip(given, results):
            if isinstance(result, PictureError):
                result.path = path
            yield path, result
    finally:
        results.close()


def _run(model: bytes, names: list[bytes], jobs: Optional[int], client: Any, sensitivity: int, profile: Optional[str],
         max_pixels: int) -> Iterator[DetectionResult]:
    if client is None and (jobs or os.cpu_count() or 1) == 1:
        yield from _detect_paths(model, names, sensitivity, profile, max_pixels)
        return
    if client is not None:
        workers = max(1, sum(client.nthreads().values()))
    else:
        workers = jobs or os.cpu_count() or 1
    size = max(1, min(_MAX_CHUNK, math.ceil(len(names) / (workers * _CHUNKS_PER_WORKER))))
    chunks = _chunks(names, size)
    in_flight = workers * _IN_FLIGHT_PER_WORKER
    if client is not None:
        # A key of its own (hash=False): two runs with the same model must not
        # share one, or the end of the first would release the second's copy.
        shared_model = client.scatter(model, broadcast=True, hash=False)
        results = _in_order(
            chunks,
            lambda chunk: client.submit(detect_chunk, shared_model, chunk, sensitivity, profile, max_pixels,
                                        pure=False),
            in_flight, lambda future: future.cancel())
        for chunk_results in results:
            yield from chunk_results
        return
    from concurrent.futures import ThreadPoolExecutor

    with ThreadPoolExecutor(max_workers=workers, thread_name_prefix="ostrel-detect") as pool:
        results = _in_order(chunks,
                            lambda chunk: pool.submit(detect_chunk, model, chunk, sensitivity, profile, max_pixels),
                            in_flight, lambda future: future.cancel())
        for chunk_results in results:
            yield from chunk_results
