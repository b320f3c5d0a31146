"""detect_files: the same results in input order whether it runs serially, on
threads or on a Dask cluster of two worker processes; a picture that cannot
be read yields an error for its path only."""
from __future__ import annotations

import pytest

import ostrel
from conftest import blood_picture_paths, read_picture


@pytest.fixture(scope="module")
def forty_pictures(tmp_path_factory) -> list[str]:
    """40 different pictures: the 8 shipped ones, each also mirrored both
    ways, turned half round and shifted (lossless PNG)."""
    cv2 = pytest.importorskip("cv2")
    import numpy as np

    folder = tmp_path_factory.mktemp("forty")
    paths = []
    for source in blood_picture_paths():
        picture = read_picture(source)
        variants = [picture, picture[:, ::-1], picture[::-1, :], picture[::-1, ::-1],
                    np.roll(picture, (61, 97), axis=(0, 1))]
        for i, variant in enumerate(variants):
            path = folder / f"{source.stem}-{i}.png"
            assert cv2.imwrite(str(path), np.ascontiguousarray(variant))
            paths.append(str(path))
    assert len(paths) == 40
    return paths


@pytest.fixture(scope="module")
def serial_results(model_file, forty_pictures):
    results = list(ostrel.detect_files(model_file, forty_pictures, jobs=1))
    assert [path for path, _ in results] == forty_pictures
    assert all(isinstance(boxes, list) for _, boxes in results)
    assert sum(len(boxes) for _, boxes in results) > 100
    return results


def test_serial_results_are_those_of_a_detector(model_file, forty_pictures, serial_results):
    with ostrel.Detector.load(model_file) as detector:
        for path, boxes in serial_results[::7]:
            assert boxes == detector.detect(read_picture(path))


def test_threads_give_the_serial_results_in_order(model_file, forty_pictures, serial_results):
    assert list(ostrel.detect_files(model_file, forty_pictures, jobs=2)) == serial_results
    assert list(ostrel.detect_files(model_file, forty_pictures)) == serial_results


def test_paths_keep_their_type_and_sensitivity_applies(model_file, forty_pictures):
    from pathlib import Path

    given = [Path(p) for p in forty_pictures[:4]]
    strict = list(ostrel.detect_files(model_file, given, jobs=2, sensitivity=0))
    loose = list(ostrel.detect_files(model_file, given, jobs=2, sensitivity=100))
    assert [p for p, _ in strict] == given
    assert sum(len(b) for _, b in strict) < sum(len(b) for _, b in loose)


def test_unreadable_pictures_yield_errors_for_their_paths_only(model_file, forty_pictures, serial_results, tmp_path):
    not_a_picture = tmp_path / "notes.jpg"
    not_a_picture.write_text("not a picture")
    bad = {3: str(tmp_path / "missing.jpg"), 10: str(tmp_path), 11: str(not_a_picture)}
    paths = list(forty_pictures)
    for index, path in sorted(bad.items()):
        paths.insert(index, path)
    results = list(ostrel.detect_files(model_file, paths, jobs=2))
    assert [p for p, _ in results] == paths
    errors = {i: r for i, (_, r) in enumerate(results) if isinstance(r, ostrel.Error)}
    assert sorted(errors) == sorted(bad)
    assert "no such file" in str(errors[3]) and errors[3].path == bad[3]
    assert "it is a folder" in str(errors[10])
    assert "not a picture format OpenCV can decode" in str(errors[11])
    assert all(isinstance(e, ostrel.PictureError) for e in errors.values())
    assert [r for i, r in enumerate(results) if i not in bad] == serial_results


def test_dask_cluster_gives_the_serial_results_in_order(model_file, forty_pictures, serial_results, tmp_path):
    distributed = pytest.importorskip("distributed")
    missing = str(tmp_path / "missing.jpg")
    paths = forty_pictures[:17] + [missing] + forty_pictures[17:]
    with distributed.LocalCluster(n_workers=2, processes=True, threads_per_worker=1, dashboard_address=None) \
            as cluster, distributed.Client(cluster) as client:
        results = list(ostrel.detect_files(model_file, forty_pictures, client=client))
        assert results == serial_results
        with_missing = list(ostrel.detect_files(model_file, paths, client=client))
        # Both workers took part.
        assert len(client.nthreads()) == 2
    assert [p for p, _ in with_missing] == paths
    error = with_missing[17][1]
    assert isinstance(error, ostrel.PictureError) and "no such file" in str(error) and error.path == missing
    assert with_missing[:17] + with_missing[18:] == serial_results


def test_stopping_early_cancels_the_rest(model_file, forty_pictures):
    results = ostrel.detect_files(model_file, forty_pictures, jobs=2)
    first = next(results)
    results.close()
    assert first[0] == forty_pictures[0]
