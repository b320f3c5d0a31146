"""The detector: one engine of the library, owned by a Python object."""
from __future__ import annotations

import ctypes
import logging
import threading
import warnings
import weakref
from typing import Any, Callable, Optional

import numpy as np
import numpy.typing as npt

from . import _files, _inputs, _library, _limits, _log
from . import _records as rec
from .errors import Error, ModelError, NotTrainedError
from .results import Box, Sample, score_of

DEFAULT_SENSITIVITY = 80

OPTION_PROFILE = 1
PROFILES = {"classic": 0, "accurate": 1}
# What Detector() trains with: the accurate profile finds far more of what
# was marked. "classic" reproduces the original system exactly. The C
# interface's own default stays classic; the package asks for this one.
DEFAULT_PROFILE = "accurate"
# Detector.load(): the engine's profile is never set; the model file decides.
_PROFILE_OF_THE_FILE = object()


def _library_says(log: list[str]) -> str:
    """The library's own words for a failed call, to show a person: the
    messages it marked as failures (the reason comes before the line that
    names the failing function), else its last message. Only shown, never
    used to decide anything."""
    lines = [line.strip() for line in log if line.strip()]
    failures = [line for line in lines if _log.level_of(line) >= logging.WARNING]
    chosen = failures[-3:] if failures else lines[-1:]
    return " / ".join(chosen)


# The exception a code of the library's error record raises when the call
# site names none more precise than Error.
_ERROR_OF_CODE = {
    rec.ERR_NOT_TRAINED: NotTrainedError,
    rec.ERR_MODEL_FILE_UNREADABLE: ModelError,
    rec.ERR_MODEL_INVALID: ModelError,
}


def _failure(what: str, log: list[str], error: type = Error, code: int = rec.ERR_FAILED, reason: str = "") -> Error:
    """An exception for a failed call: its class from the library's error
    code (unless the call site chose one), its text ``what``, the library's
    sentence and, for a person reading it, the library's own messages."""
    if error is Error:
        error = _ERROR_OF_CODE.get(code, Error)
    said = _library_says(log)
    text = what + (f": {reason}" if reason else "") + (f" (the library says: {said})" if said else "")
    failure = error(text, log)
    failure.code = code
    return failure


class _progress_of:
    """Installs a Python progress callback on an engine for one call."""

    def __init__(self, library: _library.Library, handle: ctypes.c_void_p,
                 callback: Optional[Callable[[dict[str, Any]], None]]) -> None:
        self._library, self._handle, self._callback = library, handle, callback
        self._raised: Optional[BaseException] = None
        self._c_handler = rec.PROGRESS_HANDLER(self._on_step)

    def _on_step(self, step: Any, user: Any) -> None:
        # Nothing may escape into the library's stack frame: the first
        # exception is kept and raised when the call has returned.
        if self._raised is not None or self._callback is None:
            return
        try:
            record = step.contents
            values = {name: getattr(record, name) for name, _ in rec.ProgressRecord._fields_}
            values["stage"] = rec.STAGE_NAMES.get(record.stage, str(record.stage))
            self._callback(values)
        except BaseException as error:  # noqa: BLE001 - re-raised after the call
            self._raised = error

    def __enter__(self) -> "_progress_of":
        if self._callback is not None:
            if not self._library.has("ostrel_alg_setProgressHandler"):
                raise Error(f"progress needs a library with ostrel_alg_setProgressHandler; the library at "
                            f"{self._library.path} does not have it (rebuild it from a newer source checkout)")
            self._library.setProgressHandler(self._handle, self._c_handler, None)
        return self

    def __exit__(self, *exc_info: Any) -> None:
        if self._callback is not None:
            self._library.setProgressHandler(self._handle, rec.PROGRESS_HANDLER(), None)
            if self._raised is not None and exc_info[0] is None:
                raise self._raised


def _profile_name(value: int) -> str:
    return next((name for name, number in PROFILES.items() if number == value), f"unknown ({value})")


def _destroy(library: _library.Library, handle: ctypes.c_void_p) -> None:
    _log.call(library.destroy, handle)


class Detector:
    """One detector engine: train it on marked boxes or load a model, then detect.

    ``sensitivity`` (0..100, default 80) sets the confidence a box needs:
    90% at 0, 50% at 80, 30% at 100. ``seed`` makes the random background
    samples of training reproducible (None: drawn from the clock).
    ``profile`` is ``"accurate"`` (the default: every marked box is learnt
    at its own size, boxes may differ in size and be given as floats, and
    objects of those sizes in pixels are found on pictures of any size) or
    ``"classic"`` (the original system, exactly: one window, the first
    box's). The accurate profile needs a library with the option interface.
    A saved model file records its profile: :meth:`load` and
    :func:`ostrel.detect_files` take it from the file.

    Free it with :meth:`close` or a ``with`` block; the garbage collector
    frees it too. A detector may be used from any thread, by one thread at a
    time (calls from several threads on one detector wait for each other);
    give every thread its own detector to run in parallel (ctypes releases
    the GIL during each library call).
    """

    def __init__(self, sensitivity: int = DEFAULT_SENSITIVITY, seed: Optional[int] = None,
                 profile: str = DEFAULT_PROFILE) -> None:
        self._handle: Optional[ctypes.c_void_p] = None
        sensitivity = _inputs.integer(sensitivity, "sensitivity", _limits.MIN_SENSITIVITY, _limits.MAX_SENSITIVITY)
        if seed is not None:
            seed = _inputs.integer(seed, "seed", 0, _inputs.UINT32_MAX)
        from_file = profile is _PROFILE_OF_THE_FILE
        if not from_file:
            _check_profile_name(profile)
        library = _library.get()
        if not from_file and profile != "classic" and not library.has("ostrel_alg_setOption"):
            raise Error(f"the {profile} profile needs a library with ostrel_alg_setOption; the library at "
                        f"{library.path} does not have it (rebuild it from a newer source checkout)")
        self._library = library
        self._lock = threading.RLock()
        self._sensitivity = sensitivity
        self._seed = seed
        # Until a model is loaded, an engine whose profile is never set is classic.
        self._profile = "classic" if from_file else profile
        self._training_key: Optional[int] = None
        self._training_shape: Optional[tuple[int, ...]] = None

        handle = ctypes.c_void_p()
        status, log = _log.call(library.create, ctypes.byref(handle))
        if status != 0 or not handle.value:
            if handle.value:
                _destroy(library, handle)
            code, reason = library.last_error(None)
            raise _failure("the library could not create an engine", log, Error, code, reason)
        self._handle = handle
        self._finalizer = weakref.finalize(self, _destroy, library, handle)
        try:
            self._check(self._call(library.setSensitivity, handle, sensitivity), "the library refused the sensitivity")
            if seed is not None:
                self._check(self._call(library.setRandomSeed, handle, seed), "the library refused the seed")
            if not from_file and library.has("ostrel_alg_setOption"):
                self._check(self._call(library.setOption, handle, OPTION_PROFILE, PROFILES[profile]),
                            f"the library refused the {profile} profile")
        except BaseException:
            self.close()
            raise

    # -- life cycle ----------------------------------------------------------

    def close(self) -> None:
        """Frees the engine now. Further calls raise :class:`ostrel.Error`;
        closing twice is harmless."""
        lock = getattr(self, "_lock", None)
        if lock is None:
            return
        with lock:
            if self._handle is not None:
                self._handle = None
                self._finalizer()

    @property
    def closed(self) -> bool:
        """True once :meth:`close` has run."""
        return self._handle is None

    def __enter__(self) -> "Detector":
        return self

    def __exit__(self, *exc_info: Any) -> None:
        self.close()

    def __getstate__(self) -> None:
        raise TypeError("a Detector cannot be pickled: save() it to a file and Detector.load() the file "
                        "where it is needed")

    def __repr__(self) -> str:
        state = "closed" if self.closed else ("trained" if self.is_trained else "untrained")
        return f"<ostrel.Detector {state}, sensitivity {self._sensitivity}, profile {self._profile}>"

    @property
    def sensitivity(self) -> int:
        """The sensitivity given when the detector was made (0..100)."""
        return self._sensitivity

    @property
    def profile(self) -> str:
        """``"accurate"`` or ``"classic"``: the one given, or for a loaded
        model the one its file records."""
        return self._profile

    @property
    def seed(self) -> Optional[int]:
        """The seed of the random background samples, or None (the clock)."""
        return self._seed

    # -- calls into the library ------------------------------------------------

    def _live_handle(self) -> ctypes.c_void_p:
        if self._handle is None:
            raise Error("this Detector is closed; make a new one")
        return self._handle

    @staticmethod
    def _call(function: Any, *arguments: Any) -> tuple[int, list[str]]:
        return _log.call(function, *arguments)

    def _check(self, result: tuple[int, list[str]], what: str, error: type = Error) -> list[str]:
        """Raises ``error`` (or the class the library's error code names)
        with ``what`` and the library's reason unless the call succeeded."""
        status, log = result
        if status != 0:
            code, reason = self._library.last_error(self._handle)
            raise _failure(what, log, error, code, reason)
        return log

    @property
    def is_trained(self) -> bool:
        """True when the detector holds a trained or loaded model."""
        with self._lock:
            flag = ctypes.c_uint8(0)
            self._check(self._call(self._library.istraied, self._live_handle(), ctypes.byref(flag)),
                        "the library could not say whether the detector is trained")
            return flag.value == 1

    def _require_trained(self, what: str) -> None:
        if not self.is_trained:
            raise NotTrainedError(f"cannot {what}: the detector is not trained; call train() with marked "
                                  f"boxes, or use Detector.load() with a model file, first")

    @staticmethod
    def _image_record(pixels: npt.NDArray[np.uint8], key: int) -> rec.ImageRecord:
        height, width = pixels.shape[0], pixels.shape[1]
        return rec.ImageRecord(width=width, height=height, channels=3,
                               data=pixels.ctypes.data_as(ctypes.POINTER(ctypes.c_uint8)),
                               image_key=key, aux=0, format=rec.FORMAT_INTERLEAVED)

    # -- training --------------------------------------------------------------

    # -- classes -----------------------------------------------------------------

    def _require_classes(self, what: str) -> None:
        if not self._library.has("ostrel_alg_addClass"):
            raise Error(f"cannot {what}: the library at {self._library.path} has no classes (rebuild it from a "
                        f"newer source checkout)")

    @property
    def classes(self) -> list[str]:
        """The names of the detector's classes, by index: ``[]`` for a new
        detector, ``[""]`` for a detector of one unnamed class."""
        with self._lock:
            if not self._library.has("ostrel_alg_getClassCount"):
                return [""] if self.is_trained else []
            handle = self._live_handle()
            count = ctypes.c_uint32(0)
            self._check(self._call(self._library.getClassCount, handle, ctypes.byref(count)),
                        "the library could not count the classes")
            names = []
            for k in range(count.value):
                name = ctypes.c_char_p()
                self._check(self._call(self._library.getClassName_ptr, handle, k, ctypes.byref(name)),
                            f"the library could not name class {k}")
                names.append((name.value or b"").decode("utf-8"))
            return names

    def add_class(self, name: str) -> int:
        """Adds a class named ``name`` (accurate profile) and makes it the one
        :meth:`train` teaches; returns its index. Several classes share one
        detection pass (:meth:`detect` gives each box its ``class_name``)
        and one model file. Names: 1 to 255 bytes of UTF-8 without control
        characters, no two alike; at most 64 classes."""
        if not isinstance(name, str):
            raise TypeError(f"a class name must be a str, not {type(name).__name__}")
        encoded = name.encode("utf-8", errors="strict")
        if b"\0" in encoded:
            raise ValueError("a class name must not hold a NUL character")
        with self._lock:
            self._require_classes("add a class")
            index = ctypes.c_uint32(0)
            self._check(self._call(self._library.addClass, self._live_handle(), encoded, ctypes.byref(index)),
                        f"the library refused the class {name!r}")
            return index.value

    def _select_class(self, name: str) -> None:
        names = self.classes
        if name in names:
            self._check(self._call(self._library.setClass, self._live_handle(), names.index(name)),
                        f"the library could not choose the class {name!r}")
        else:
            self.add_class(name)

    def train(self, image: npt.NDArray[np.uint8], boxes: _inputs.BoxesLike, key: Optional[int] = None,
              class_name: Optional[str] = None, progress: Optional[Callable[[dict[str, Any]], None]] = None) -> None:
        """Trains on one picture and the boxes marked on it.

        ``image``: H x W x 3 uint8 BGR (H x W grey and H x W x 4 BGRA are
        converted; non-contiguous arrays are copied). ``boxes``: a sequence
        of ``(x, y, width, height)`` (or of :class:`Box`), or an N x 4
        array; each box must overlap the picture. Mark every object on the
        picture: whatever is not marked may be learnt as background.

        Accurate profile: boxes may have any size (each is learnt at its
        own size) and any number type; float boxes are rounded edge by
        edge: the left and top edges ``x``, ``y`` and the right and bottom
        edges ``x + width``, ``y + height`` each go to the nearest whole
        pixel, halves upwards (``floor(v + 0.5)``), and width and height are
        the differences. Classic profile: whole numbers only, and the
        detector learns the first box's size as its window (boxes of other
        sizes give a warning).

        Calling it again with another picture adds that picture's samples.
        ``key`` identifies the picture (0 .. 2**62 - 1); the same key again
        retrains on what the detector already holds and ignores the boxes.
        Without a key every call is a new picture.

        ``class_name`` (accurate profile): the class these boxes teach; a
        name the detector does not hold yet is added (:meth:`add_class`).
        Each class learns from its own pictures and boxes; objects of other
        classes on its pictures are background to it.

        ``progress``: called during training, on the calling thread, with a
        dict for every step the library reports: ``"stage"`` (``"samples"``,
        ``"box_skipped"``, ``"filter_rebuilt"``, ``"trained"``, ``"pass"``,
        ``"accurate_training"``, ``"mining_round"``), ``"round"``,
        ``"samples"``, ``"boxes_skipped"``, ``"false_positives"``,
        ``"low_confidence"``, ``"object_windows"``, ``"background_windows"``,
        ``"hard_windows_added"``, ``"hard_windows_found"`` and ``"seconds"``
        since the call began. An exception it raises is re-raised once the
        training has ended. Needs a library with progress records.
        """
        pixels = _inputs.picture(image)
        with self._lock:
            classic = self._profile == "classic"
            marked = _inputs.boxes(boxes, pixels.shape[1], pixels.shape[0], round_floats=not classic)
            handle = self._live_handle()
            if class_name is not None:
                self._select_class(class_name)
                # Each class keeps its own training picture.
                self._training_key = self._training_shape = None
            if key is not None and key == self._training_key and pixels.shape != self._training_shape:
                raise ValueError(f"key {key} was trained on a picture of another size; equal keys mean equal "
                                 f"pixels: give this picture its own key, or none")
            # The same key again retrains on what the engine holds: the boxes are not read.
            if classic and not (key is not None and key == self._training_key):
                self._check_window(pixels, marked)
            chosen = _inputs.key(key, pixels.shape)
            records = (rec.BoxRecord * len(marked))()
            for record, (x, y, w, h) in zip(records, marked.tolist()):
                record.x, record.y, record.width, record.height = x, y, w, h
                record.label = 1
            picture = self._image_record(pixels, chosen)
            self._training_key, self._training_shape = chosen, pixels.shape
            with _progress_of(self._library, handle, progress):
                self._check(self._call(self._library.setDetector_ptr, handle, ctypes.byref(picture), records,
                                       len(marked)),
                            "training failed")

    def _check_window(self, pixels: npt.NDArray[np.uint8], marked: npt.NDArray[np.int32]) -> None:
        """Classic profile: refuses a first box whose window the library
        cannot learn or a model cannot hold, before any training (the
        library would train some such windows and only refuse to save the
        model). The library applies its own rule (ostrel_alg_checkBox); the
        accurate profile chooses its own window and set-up says itself when
        a box cannot fit it."""
        height, width = pixels.shape[0], pixels.shape[1]
        box_width, box_height = int(marked[0, 2]), int(marked[0, 3])
        if any(int(w) != box_width or int(h) != box_height for w, h in marked[:, 2:4].tolist()):
            warnings.warn(f"the boxes differ in size; the detector learns one window, the first box's "
                          f"{box_width} x {box_height} (give every box one size)", stacklevel=3)
        if not self._library.has("ostrel_alg_checkBox"):
            return  # an older library: set-up and export say it themselves
        box = rec.BoxRecord(x=int(marked[0, 0]), y=int(marked[0, 1]), width=box_width, height=box_height, label=1)
        code = ctypes.c_int32(rec.ERR_OK)
        status, log = self._call(self._library.checkBox, self._live_handle(), width, height, ctypes.byref(box),
                                 ctypes.byref(code))
        if status == 0:
            return
        if code.value != rec.ERR_BOX_NOT_LEARNABLE:
            self._check((status, log), "the library could not check the box")
        _, reason = self._library.last_error(self._handle)
        raise ValueError(f"cannot train on this box: {reason}")

    @property
    def samples(self) -> list[Sample]:
        """The sample thumbnails, one per marked box, in training order (copies)."""
        with self._lock:
            pointer = ctypes.POINTER(rec.SampleRecord)()
            count = ctypes.c_uint32(0)
            self._check(self._call(self._library.getSamples_ptr, self._live_handle(), ctypes.byref(pointer),
                                   ctypes.byref(count)), "the library could not hand out the samples")
            result = []
            for i in range(count.value):
                record = pointer[i]
                thumb = record.image
                width, height = max(thumb.width, 0), max(thumb.height, 0)
                size = width * height * 3
                if size and (thumb.channels != 3 or not thumb.data):
                    raise Error(f"the library handed out sample {i} without its pixels")
                pixels = (np.ctypeslib.as_array(thumb.data, shape=(size,)).copy() if size
                          else np.zeros(0, dtype=np.uint8))
                result.append(Sample(label=record.label, thumbnail=pixels.reshape(height, width, 3)))
            return result

    def remove_sample(self, index: int) -> None:
        """Removes sample ``index`` (its thumbnail and training samples) and retrains."""
        with self._lock:
            if isinstance(index, bool) or not isinstance(index, (int, np.integer)):
                raise TypeError(f"index must be an integer, not {type(index).__name__}")
            handle = self._live_handle()
            count = len(self.samples)
            if not 0 <= index < count:
                raise IndexError(f"sample {index} does not exist; the detector holds {count} samples"
                                 + (f" (0 to {count - 1})" if count else ""))
            self._check(self._call(self._library.removeSample, handle, int(index)), f"removing sample {index} failed")

    # -- detection -------------------------------------------------------------

    def detect(self, image: npt.NDArray[np.uint8], key: Optional[int] = None) -> list[Box]:
        """Finds the object in a picture.

        Returns the library's whole list, in its order: detections by
        falling score (label 1, at most 32), then boxes below the confidence
        threshold (label -1), then boxes marked on this same picture that
        nothing detected (label 1). ``key``: see :meth:`train`; without it
        the picture's features are always computed afresh.
        """
        pixels = _inputs.picture(image)
        with self._lock:
            handle = self._live_handle()
            self._require_trained("detect")
            picture = self._image_record(pixels, _inputs.key(key, pixels.shape))
            found = ctypes.POINTER(rec.BoxRecord)()
            count = ctypes.c_uint32(0)
            self._check(self._call(self._library.runDetector_ptr, handle, ctypes.byref(picture),
                                   ctypes.byref(found), ctypes.byref(count)), "detection failed")
            if count.value and not found:
                raise Error("the library reported boxes without handing them out")
            names = self._box_class_names(handle, count.value)
            return [Box(x=b.x, y=b.y, width=b.width, height=b.height, score=score_of(b.score), label=b.label,
                        color_main=b.color_main, color_second=b.color_second, class_name=names[i])
                    for i, b in enumerate(found[i] for i in range(count.value))]

    def _box_class_names(self, handle: ctypes.c_void_p, count: int) -> list[str]:
        """The class name of each box of the last run ("" for one unnamed class)."""
        if not self._library.has("ostrel_alg_getBoxClasses_ptr"):
            return [""] * count
        classes = self.classes
        if len(classes) <= 1 and not any(classes):
            return [""] * count
        indices = ctypes.POINTER(ctypes.c_uint32)()
        indexed = ctypes.c_uint32(0)
        self._check(self._call(self._library.getBoxClasses_ptr, handle, ctypes.byref(indices), ctypes.byref(indexed)),
                    "the library could not say the boxes' classes")
        if indexed.value < count:
            raise Error("the library gave fewer classes than boxes")
        return [classes[indices[i]] for i in range(count)]

    def feature_map(self, image: npt.NDArray[np.uint8]) -> npt.NDArray[np.uint8]:
        """The channel feature map the detector reads for a picture, as a
        (channels, rows, columns) uint8 array: channels 0..2 are L, a, b;
        3 is gradient magnitude; 4..9 are oriented-gradient histograms."""
        pixels = _inputs.picture(image)
        with self._lock:
            handle = self._live_handle()
            picture = self._image_record(pixels, _inputs.fresh_key())
            data = ctypes.POINTER(ctypes.c_uint8)()
            channels, columns, rows = ctypes.c_uint32(0), ctypes.c_uint32(0), ctypes.c_uint32(0)
            self._check(self._call(self._library.getFeatureMap_ptr, handle, ctypes.byref(picture),
                                   ctypes.byref(data), ctypes.byref(channels), ctypes.byref(columns),
                                   ctypes.byref(rows)), "computing the feature map failed")
            size = channels.value * columns.value * rows.value
            if size and not data:
                raise Error("the library reported a feature map without handing it out")
            flat = np.ctypeslib.as_array(data, shape=(size,)).copy() if size else np.zeros(0, np.uint8)
        # The library stores each channel column by column.
        stored = flat.reshape(channels.value, columns.value, rows.value)
        return np.ascontiguousarray(stored.transpose(0, 2, 1))

    # -- model files -----------------------------------------------------------

    def save(self, path: _inputs.PathLike) -> None:
        """Writes the model to ``path`` in the format of the detector's
        profile (the file records the profile and, for the accurate profile,
        its settings, the taught size range and the calibration), by the
        ``ostrel`` command's rules for output files: the file is written under a temporary name in the same
        folder and renamed over the target when complete, so a failure
        leaves no half-written file; a symbolic link is written through (its
        target replaced, the link kept); a replaced file keeps its mode, a
        new one gets the mode the umask gives.

        Raises, before anything is written: IsADirectoryError for a folder,
        OSError for a device, FIFO or socket (each left as it is),
        FileNotFoundError when the folder is missing, PermissionError when
        it cannot be written into, :class:`ostrel.NotTrainedError` before
        any training.
        """
        encoded = _inputs.path(path, "model path")
        _files.output_target(encoded, "model path")
        with self._lock:
            handle = self._live_handle()
            self._require_trained("save")

            def export(temporary: bytes) -> None:
                self._check(self._call(self._library.exportModel_ptr, handle, temporary),
                            f"writing the model to '{_files.display(encoded)}' failed")

            _files.write_atomically(encoded, "model path", export)

    @classmethod
    def load(cls, path: _inputs.PathLike, sensitivity: int = DEFAULT_SENSITIVITY,
             profile: Optional[str] = None) -> "Detector":
        """A detector with the model of a file, validated (records and CRC-32)
        before it is loaded.

        The file decides the profile: the detector takes the one the file
        records (:attr:`profile` says which). ``profile`` is not needed; when
        given it must agree with the file, or :class:`ostrel.ModelError`
        says so. The file does not record the sensitivity: give the one you
        want (default 80).

        Raises FileNotFoundError/IsADirectoryError for a path that is not a
        file, OSError for a device, FIFO or socket (never read, never waited
        on), and :class:`ostrel.ModelError` for a file the library refuses,
        with the library's reason in the text.
        """
        if profile is not None:
            _check_profile_name(profile)
        source = _inputs.existing_file(path, "model file")
        detector = cls(sensitivity=sensitivity, profile=_PROFILE_OF_THE_FILE)  # type: ignore[arg-type]
        try:
            handle = detector._live_handle()
            name = _files.display(source)
            detector._check(detector._call(detector._library.checkModelValidation_ptr, handle, source),
                            f"model file '{name}' is damaged or not a model of this library",
                            ModelError)
            detector._check(detector._call(detector._library.importModel_ptr, handle, source),
                            f"the library could not load model file '{name}'", ModelError)
            detector._profile = detector._engine_profile()
            if profile is not None and profile != detector._profile:
                raise ModelError(f"model file '{name}' was made under the {detector._profile} profile, but "
                                 f"profile={profile!r} was given: leave profile out, the model file decides")
        except BaseException:
            detector.close()
            raise
        return detector

    def _engine_profile(self) -> str:
        """The engine's profile as the library reports it (an import sets the
        file's); a library without the option interface knows only classic."""
        if not self._library.has("ostrel_alg_getOption"):
            return "classic"
        value = ctypes.c_int32(-1)
        self._check(self._call(self._library.getOption, self._live_handle(), OPTION_PROFILE, ctypes.byref(value)),
                    "the library could not say the detector's profile")
        return _profile_name(value.value)


def _check_profile_name(profile: Any) -> None:
    if not isinstance(profile, str) or profile not in PROFILES:
        raise ValueError(f"profile must be one of {', '.join(map(repr, PROFILES))}, not {profile!r}")


def check_model(path: _inputs.PathLike) -> bool:
    """True when ``path`` is a model file the library accepts (records and
    CRC-32), False when it is damaged or not a model. A path that is missing
    or a folder raises FileNotFoundError/IsADirectoryError, a device, FIFO
    or socket OSError (never read, never waited on)."""
    source = _inputs.existing_file(path, "model file")
    with Detector(profile=_PROFILE_OF_THE_FILE) as detector:  # type: ignore[arg-type]
        status, _ = _log.call(detector._library.checkModelValidation_ptr, detector._live_handle(), source)
        return status == 0
