"""How well a detector agrees with labels: the figures ``ostrel eval``
prints, computed the same way (tools/ostrel/evaluation/), so that
``ostrel eval --json`` and :func:`evaluate` agree on the same detections.

Per class: precision, recall and F1 of the detections at the detector's
threshold (matched by falling score at the IoU threshold, each label found
once; difficult labels and crowd regions count neither way); the
all-point average precision and COCO's AP@[.50:.95], AP50 and AP75 (as the
COCO evaluation defines them: 101 recall points, IoU .50:.05:.95, at most
100 boxes a picture, crowd regions ignored) over every box the detector
returns at its most sensitive setting. Over all classes: counts summed, APs
averaged over the classes with objects.
"""
from __future__ import annotations

import os
import sys
import tempfile
from dataclasses import asdict, dataclass, field
from typing import Any, Iterable, Mapping, Optional, Sequence, Union

from .labels import LabelBox, LabelError, LabelledPicture, LabelSet, read_labels
from .labels._index import PictureIndex
from . import _limits
from ._picture_file import read_picture
from .errors import PictureError

MOST_SENSITIVE = _limits.MAX_SENSITIVITY


@dataclass
class Figures:
    """The figures of a class (``name``; "all" over all classes)."""

    name: str
    objects: int = 0
    detections: int = 0
    true_positives: int = 0
    false_positives: int = 0
    false_negatives: int = 0
    ranked: int = 0
    precision: float = 0.0
    recall: float = 0.0
    f1: float = 0.0
    ap: float = 0.0
    coco_ap: Optional[float] = None
    coco_ap50: Optional[float] = None
    coco_ap75: Optional[float] = None
    curve: list[tuple[float, float]] = field(default_factory=list, repr=False)

    def as_dict(self) -> dict[str, Any]:
        d = asdict(self)
        d.pop("curve")
        return d


@dataclass
class Evaluation:
    """What :func:`evaluate` returns; ``as_dict()`` has the layout of
    ``ostrel eval --json`` (its classes, overall, per_picture, left_out,
    iou and pictures)."""

    iou: float
    classes: list[Figures]
    overall: Figures
    per_picture: list[dict[str, Any]]
    left_out: list[dict[str, str]] = field(default_factory=list)

    def as_dict(self) -> dict[str, Any]:
        return {"iou": self.iou, "pictures": len(self.per_picture), "left_out": self.left_out,
                "classes": [c.as_dict() for c in self.classes], "overall": self.overall.as_dict(),
                "per_picture": self.per_picture}


# --- the matching -------------------------------------------------------------------------------

def _intersection(a: LabelBox, b: LabelBox) -> float:
    w = min(a.x + a.w, b.x + b.w) - max(a.x, b.x)
    h = min(a.y + a.h, b.y + b.h) - max(a.y, b.y)
    return w * h if w > 0 and h > 0 else 0.0


def box_iou(a: LabelBox, b: LabelBox) -> float:
    inter = _intersection(a, b)
    if inter <= 0:
        return 0.0
    return inter / (a.w * a.h + b.w * b.h - inter)


def _score(b: LabelBox) -> float:
    return b.score if b.score is not None else 0.0


def _match(boxes: list[LabelBox], labels: list[LabelBox], iou: float) -> list[tuple[float, bool]]:
    boxes = sorted(boxes, key=lambda b: -_score(b))
    taken = [False] * len(labels)
    out = []
    for f in boxes:
        best, best_index = -1.0, -1
        for k, label in enumerate(labels):
            if label.crowd:
                continue
            v = box_iou(f, label)
            if v > best:
                best, best_index = v, k
        tp = False
        if best_index >= 0 and best >= iou:
            if labels[best_index].difficult:
                continue
            if not taken[best_index]:
                taken[best_index] = True
                tp = True
        else:
            own = f.w * f.h
            if any(label.crowd and own > 0 and _intersection(f, label) / own >= iou for label in labels):
                continue
        out.append((_score(f), tp))
    return out


def all_point_average_precision(ranked: list[tuple[float, bool]], objects: int) -> float:
    if objects <= 0 or not ranked:
        return 0.0
    ranked = sorted(ranked, key=lambda r: -r[0])
    precision, recall = [], []
    tp = 0
    for i, (_, hit) in enumerate(ranked):
        tp += 1 if hit else 0
        precision.append(tp / (i + 1))
        recall.append(tp / objects)
    for i in range(len(ranked) - 1, 0, -1):
        precision[i - 1] = max(precision[i - 1], precision[i])
    ap, previous = 0.0, 0.0
    for p, r in zip(precision, recall):
        ap += (r - previous) * p
        previous = r
    return ap


# --- COCO's evaluation --------------------------------------------------------------------------

def _linspace(start: float, stop: float, num: int) -> list[float]:
    step = (stop - start) / (num - 1)
    values = [i * step + start for i in range(num)]
    values[-1] = stop
    return values


IOU_THRESHOLDS = _linspace(0.5, 0.95, 10)
RECALL_POINTS = _linspace(0.0, 1.0, 101)
MAX_DETECTIONS = 100
_AREA_MIN, _AREA_MAX = 0.0, 1e10


def _coco_iou(d: LabelBox, g: LabelBox, crowd: bool) -> float:
    w = min(d.x + d.w, g.x + g.w) - max(d.x, g.x)
    h = min(d.y + d.h, g.y + g.h) - max(d.y, g.y)
    if w <= 0 or h <= 0:
        return 0.0
    inter = w * h
    da = d.w * d.h
    return inter / (da if crowd else da + g.w * g.h - inter)


def _label_ignored(g: LabelBox) -> bool:
    area = g.area if g.area is not None else g.w * g.h
    return g.difficult or g.crowd or area < _AREA_MIN or area > _AREA_MAX


def _coco_picture(labels: list[LabelBox], detections: list[LabelBox]):
    gt = sorted(labels, key=lambda g: 1 if _label_ignored(g) else 0)
    ignored = [_label_ignored(g) for g in gt]
    dets = sorted(detections, key=lambda d: -_score(d))[:MAX_DETECTIONS]
    scores = [_score(d) for d in dets]
    ious = [[_coco_iou(d, g, g.crowd) for g in gt] for d in dets]
    matched, dt_ignored = [], []
    for t in IOU_THRESHOLDS:
        taken = [False] * len(gt)
        m_row, i_row = [False] * len(dets), [False] * len(dets)
        for di in range(len(dets)):
            best, m = min(t, 1 - 1e-10), -1
            for gi in range(len(gt)):
                if taken[gi] and not gt[gi].crowd:
                    continue
                if m > -1 and not ignored[m] and ignored[gi]:
                    break
                if ious[di][gi] < best:
                    continue
                best, m = ious[di][gi], gi
            if m == -1:
                continue
            i_row[di] = ignored[m]
            m_row[di] = True
            taken[m] = True
        for di, d in enumerate(dets):
            area = d.w * d.h
            if not m_row[di] and (area < _AREA_MIN or area > _AREA_MAX):
                i_row[di] = True
        matched.append(m_row)
        dt_ignored.append(i_row)
    return scores, matched, dt_ignored, sum(0 if i else 1 for i in ignored)


def coco_figures(pictures: Sequence[tuple[int, list[LabelBox], list[LabelBox]]]) -> tuple[Optional[float], ...]:
    """COCO's (AP@[.50:.95], AP50, AP75) of one class over (id, labels, boxes)
    pictures; Nones when the class has no object that counts."""
    results, counted = [], 0
    for _, labels, detections in sorted(pictures, key=lambda p: p[0]):
        if not labels and not detections:
            continue
        results.append(_coco_picture(labels, detections))
        counted += results[-1][3]
    if counted == 0:
        return None, None, None
    ranked = sorted(((score, pi, di) for pi, r in enumerate(results) for di, score in enumerate(r[0])),
                    key=lambda k: -k[0])
    eps = sys.float_info.epsilon
    per_threshold = []
    for t in range(len(IOU_THRESHOLDS)):
        recall, precision = [], []
        tp = fp = 0.0
        for _, pi, di in ranked:
            if results[pi][2][t][di]:
                pass
            elif results[pi][1][t][di]:
                tp += 1
            else:
                fp += 1
            recall.append(tp / counted)
            precision.append(tp / (fp + tp + eps))
        for i in range(len(precision) - 1, 0, -1):
            if precision[i] > precision[i - 1]:
                precision[i - 1] = precision[i]
        total = 0.0
        import bisect

        for point in RECALL_POINTS:
            i = bisect.bisect_left(recall, point)
            if i == len(recall):
                break
            total += precision[i]
        per_threshold.append(total / len(RECALL_POINTS))
    ap = 0.0
    for v in per_threshold:
        ap += v
    return ap / len(IOU_THRESHOLDS), per_threshold[0], per_threshold[5]


# --- putting it together ------------------------------------------------------------------------

def _groups(classes: Optional[Sequence[str]]) -> list[list[str]]:
    groups = []
    for value in classes or []:
        names = []
        for name in value.split(","):
            name = name.strip(" \t")
            if not name:
                raise ValueError(f"class {value!r} holds an empty class name")
            if name not in names:
                names.append(name)
        groups.append(names)
    return groups


def _model_groups(groups: list[list[str]], model_classes: list[str]) -> list[list[str]]:
    """The classes measured on a detector of several classes: each group
    given (names merged within it), else every class of the detector; a
    group that holds none of its classes is refused."""
    if not groups:
        return [[name] for name in model_classes]
    for g in groups:
        if not any(name in g or name == _display(g) for name in model_classes):
            raise ValueError(f"the detector has no class '{_display(g)}' (its classes: {', '.join(model_classes)})")
    return groups


def _display(group: list[str]) -> str:
    return ",".join(group)


def _in_group(group: list[str], name: str) -> bool:
    return name in group or name == _display(group)


def evaluate_pictures(pictures: Sequence[tuple[str, int, list[LabelBox], list[LabelBox], list[LabelBox]]],
                      groups: list[list[str]], iou: float) -> Evaluation:
    """The figures of (name, id, labels, detections, ranked boxes) pictures."""
    per_picture = [{"picture": name, "objects": 0, "detections": 0, "true_positives": 0, "false_positives": 0}
                   for name, *_ in pictures]
    classes = []
    for group in groups:
        f = Figures(name=_display(group))
        ranked: list[tuple[float, bool]] = []
        coco = []
        for pi, (_, picture_id, labels, detections, boxes) in enumerate(pictures):
            row = per_picture[pi]
            mine = [label for label in labels if _in_group(group, label.class_name)]
            for label in mine:
                counts = 0 if (label.difficult or label.crowd) else 1
                f.objects += counts
                row["objects"] += counts
            ranked_boxes = [b for b in boxes if _in_group(group, b.class_name)]
            coco.append((picture_id, mine, ranked_boxes))
            for _, tp in _match([d for d in detections if _in_group(group, d.class_name)], mine, iou):
                f.detections += 1
                row["detections"] += 1
                if tp:
                    f.true_positives += 1
                    row["true_positives"] += 1
                else:
                    f.false_positives += 1
                    row["false_positives"] += 1
            ranked.extend(_match(ranked_boxes, mine, iou))
        f.false_negatives = f.objects - f.true_positives
        f.precision = f.true_positives / f.detections if f.detections else 0.0
        f.recall = f.true_positives / f.objects if f.objects else 0.0
        f.f1 = 2.0 * f.precision * f.recall / (f.precision + f.recall) if f.precision + f.recall > 0 else 0.0
        f.ranked = len(ranked)
        f.ap = all_point_average_precision(ranked, f.objects)
        tp = 0
        for i, (_, hit) in enumerate(sorted(ranked, key=lambda r: -r[0])):
            tp += 1 if hit else 0
            f.curve.append((tp / f.objects if f.objects else 0.0, tp / (i + 1)))
        f.coco_ap, f.coco_ap50, f.coco_ap75 = coco_figures(coco)
        classes.append(f)
    overall = Figures(name="all")
    with_objects = [c for c in classes if c.objects > 0]
    with_coco = [c for c in classes if c.coco_ap is not None]
    for c in classes:
        overall.objects += c.objects
        overall.detections += c.detections
        overall.true_positives += c.true_positives
        overall.false_positives += c.false_positives
        overall.ranked += c.ranked
    overall.false_negatives = overall.objects - overall.true_positives
    overall.precision = overall.true_positives / overall.detections if overall.detections else 0.0
    overall.recall = overall.true_positives / overall.objects if overall.objects else 0.0
    overall.f1 = (2.0 * overall.precision * overall.recall / (overall.precision + overall.recall)
                  if overall.precision + overall.recall > 0 else 0.0)
    if with_objects:
        total = 0.0
        for c in with_objects:
            total += c.ap
        overall.ap = total / len(with_objects)
    if with_coco:
        for key in ("coco_ap", "coco_ap50", "coco_ap75"):
            total = 0.0
            for c in with_coco:
                total += getattr(c, key)
            setattr(overall, key, total / len(with_coco))
    if len(classes) == 1:
        overall.curve = classes[0].curve
    return Evaluation(iou=iou, classes=classes, overall=overall, per_picture=per_picture)


def _box_of(b: Any, class_name: str) -> tuple[LabelBox, bool]:
    """A result box as a LabelBox and whether it is a detection (label 1)."""
    if isinstance(b, LabelBox):
        return b, True
    if hasattr(b, "score") and hasattr(b, "label"):  # ostrel.Box; a named class is its own
        return LabelBox(getattr(b, "class_name", "") or class_name, float(b.x), float(b.y), float(b.width),
                        float(b.height), score=float(b.score)), b.label == 1
    x, y, w, h, score = b[:5]
    label = b[5] if len(b) > 5 else 1
    return LabelBox(class_name, float(x), float(y), float(w), float(h), score=float(score)), label == 1


ResultsLike = Union[Mapping[str, Iterable[Any]], Iterable[tuple[str, Iterable[Any]]], str, "os.PathLike[str]"]


def _results_from_file(path: str, labels: LabelSet, class_name: str) -> dict[int, list[tuple[LabelBox, bool]]]:
    from .labels import coco
    from .labels._text import JsonReader, json_path, parse_json, read_label_file, text_lines, without_bom

    data = read_label_file(path, 512 * 1024 * 1024, "detections file")
    found: dict[int, list[tuple[LabelBox, bool]]] = {}
    if without_bom(data).lstrip(b" \t\r\n").startswith(b"["):
        if labels.format != "coco":
            raise LabelError(f"'{path}' is a COCO results file: score it against COCO labels")
        results = coco.parse_results(data, path, labels)
        for i, p in enumerate(results.pictures):
            found[i] = [(b, True) for b in p.boxes]
        return found
    index = PictureIndex(labels)
    for n, line in enumerate(text_lines(data), start=1):
        if not line.strip(" \t"):
            continue
        place = f"line {n}"
        value = parse_json(line.encode("utf-8"), path, place)
        r = JsonReader(path, place)
        r.require_object(value, "")
        if "frame" in value:
            r.fail("frame", "a video frame: detections of videos cannot be scored against labels")
        picture = r.text(r.member(value, "", "file"), "file")
        boxes = r.member(value, "", "boxes")
        r.require_array(boxes, "boxes")
        i = index.find(picture)
        if i < 0:
            continue
        out = found.setdefault(i, [])
        for k, b in enumerate(boxes):
            p = json_path("boxes", k)
            r.require_object(b, p)
            box = LabelBox(class_name, r.number(r.member(b, p, "x"), json_path(p, "x")),
                           r.number(r.member(b, p, "y"), json_path(p, "y")),
                           r.number(r.member(b, p, "w"), json_path(p, "w")),
                           r.number(r.member(b, p, "h"), json_path(p, "h")),
                           score=r.number(r.member(b, p, "score"), json_path(p, "score")))
            cls = r.optional(b, "class")
            if cls is not None:
                box.class_name = r.text(cls, json_path(p, "class"))
            label = r.optional(b, "label")
            out.append((box, label is None or r.integer(label, json_path(p, "label")) == 1))
    return found


def evaluate(detector_or_results: Any, labels: "LabelSet | str | os.PathLike[str]", iou: float = 0.5, *,
             classes: Optional[Sequence[str]] = None, skip: Sequence[str] = (),
             format: Optional[str] = None) -> Evaluation:
    """Measures a detector, or results, against labels.

    ``detector_or_results``: an :class:`ostrel.Detector` (it detects every
    labelled picture; the boxes below its threshold come from a copy at
    sensitivity 100, as ``ostrel eval`` does), a mapping ``{picture path:
    boxes}`` or pairs ``(path, boxes)`` (as :func:`ostrel.detect_files`
    yields; boxes are :class:`ostrel.Box` - label 1 detections, label -1
    below the threshold - or (x, y, w, h, score[, label]) tuples or
    :class:`LabelBox`), or the path of a ``detect --json`` / COCO results
    file. ``labels``: a :class:`LabelSet` or a label file or folder (any
    format; ``format`` names it). ``classes``: the class the detector finds
    (names merged; "a,b" merges too), by default the labels' one class; for
    a detector of several classes, each entry is measured on its own ("a,b"
    merges), by default every class of the detector, all from one detection
    pass per picture.
    ``skip``: pictures to leave out (paths or file names), such as the
    training picture. Returns an :class:`Evaluation`."""
    if not (0.0 <= iou <= 1.0):
        raise ValueError(f"iou {iou} is not in 0..1")
    labelled = labels if isinstance(labels, LabelSet) else read_labels(labels, format)
    from .detector import Detector

    groups = _groups(classes)
    model_classes = detector_or_results.classes if isinstance(detector_or_results, Detector) else []
    if len(model_classes) > 1:
        # A detector of several classes is measured class by class from one
        # detection pass per picture: each ``classes`` entry on its own, by
        # default every class of the detector (as ``ostrel eval`` does).
        groups = _model_groups(groups, model_classes)
    else:
        if not groups:
            if len(labelled.classes) != 1:
                raise ValueError(f"give the class the detector finds with classes= (the labels hold "
                                 f"{', '.join(sorted(labelled.classes))})")
            groups = [[labelled.classes[0]]]
        groups = [list(dict.fromkeys(name for g in groups for name in g))]
    class_name = _display(groups[0])
    if not any(b.class_name in g for p in labelled.pictures for b in p.boxes for g in groups):
        measured = "', '".join(_display(g) for g in groups)
        raise LabelError(f"no object of class '{measured}' in '{labelled.source}' (classes there: "
                         f"{', '.join(sorted(labelled.classes))})")
    left_out: list[dict[str, str]] = []
    used: list[LabelledPicture] = []
    skipped: set[int] = set()
    index = PictureIndex(labelled)
    for s in skip:
        bare = os.path.basename(s) == s
        meant = [i for i, p in enumerate(labelled.pictures)
                 if (os.path.basename(p.picture or p.name) == s if bare else index.find(s) == i)]
        if not meant:
            raise ValueError(f"skip {s!r} names no picture of the labels")
        for i in meant:
            if i not in skipped:
                skipped.add(i)
                left_out.append({"picture": labelled.pictures[i].picture or labelled.pictures[i].name,
                                 "reason": f"--skip {s}"})
    used_index = [i for i in range(len(labelled.pictures)) if i not in skipped]
    used = [labelled.pictures[i] for i in used_index]
    if not used:
        raise ValueError("every picture of the labels is left out: nothing to measure")
    boxes: list[tuple[list[LabelBox], list[LabelBox]]] = []
    if isinstance(detector_or_results, Detector):
        missing = labelled.missing_pictures()
        if missing:
            raise LabelError(missing)
        boxes = _detect_all(detector_or_results, used, class_name)
    else:
        if isinstance(detector_or_results, (str, os.PathLike)):
            found = _results_from_file(os.fspath(detector_or_results), labelled, class_name)
        else:
            items = detector_or_results.items() if isinstance(detector_or_results, Mapping) else detector_or_results
            found = {}
            for path, result in items:
                i = index.find(os.fspath(path))
                if i >= 0:
                    found.setdefault(i, []).extend(_box_of(b, class_name) for b in result)
        for i, p in zip(used_index, used):
            if i not in found:
                raise LabelError(f"the results have no detections for '{p.picture or p.name}'")
            boxes.append(([b for b, detection in found[i] if detection], [b for b, _ in found[i]]))
    pictures = [(p.picture or p.name, p.id, p.boxes, d, r) for p, (d, r) in zip(used, boxes)]
    result = evaluate_pictures(pictures, groups, iou)
    result.left_out = left_out
    return result


def _detect_all(detector: Any, pictures: list[LabelledPicture], class_name: str):
    import cv2  # type: ignore

    from .detector import Detector

    out = []
    with tempfile.TemporaryDirectory(prefix="ostrel-evaluate-") as folder:
        most = None
        if detector.sensitivity != MOST_SENSITIVE:
            model = os.path.join(folder, "model")
            detector.save(model)
            most = Detector.load(model, sensitivity=MOST_SENSITIVE, profile=detector.profile)
        try:
            for p in pictures:
                try:
                    pixels = read_picture(os.fsencode(p.picture), _limits.DEFAULT_MAX_PICTURE_PIXELS, cv2)
                except PictureError as error:
                    raise LabelError(str(error)) from None
                found = detector.detect(pixels)
                detections = [_box_of(b, class_name)[0] for b in found if b.label == 1]
                ranked = found if most is None else most.detect(pixels)
                out.append((detections, [_box_of(b, class_name)[0] for b in ranked]))
        finally:
            if most is not None:
                most.close()
    return out
