"""Where the package finds the shared library: the environment variable
first, then the checkout's build folder, the Python prefix, the loader's
search and the default install prefixes; and that a library installed with
`cmake --install` is found and works."""
from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

import ostrel
from ostrel import _library
from conftest import CHECKOUT, build_dir


def test_environment_variable_comes_first_and_alone(monkeypatch, tmp_path):
    monkeypatch.setenv("OSTREL_ALG_LIBRARY", str(tmp_path))
    assert _library.candidates() == [str(tmp_path / "libostrel_alg.so")]
    monkeypatch.setenv("OSTREL_ALG_LIBRARY", str(tmp_path / "custom.so"))
    assert _library.candidates() == [str(tmp_path / "custom.so")]


def test_lookup_order_without_the_variable(monkeypatch):
    monkeypatch.delenv("OSTREL_ALG_LIBRARY", raising=False)
    found = _library.candidates()
    recorded = _library._recorded_build_dir()
    expected = ([str(recorded / "libostrel_alg.so")] if recorded else []) + [
        str(Path(sys.prefix) / "lib" / "libostrel_alg.so"), "libostrel_alg.so.0",
        "/usr/local/lib/libostrel_alg.so", "/usr/lib/libostrel_alg.so"]
    assert found == expected


def test_installed_package_uses_the_checkouts_build():
    # Set by scripts/test-python.sh, which installs the package into a fresh
    # virtual environment the way the README says.
    venv = os.environ.get("OSTREL_TEST_VENV")
    if not venv:
        pytest.skip("not run from an installed package (scripts/test-python.sh)")
    assert Path(ostrel.__file__).resolve().is_relative_to(Path(venv).resolve())
    assert _library._recorded_build_dir() == CHECKOUT / "build"
    assert Path(ostrel.library_path()).resolve() == (CHECKOUT / "build" / "libostrel_alg.so").resolve()


def test_missing_library_is_a_clear_error(tmp_path):
    code = "import ostrel\ntry:\n    ostrel.Detector()\nexcept OSError as e:\n    print(e)\n"
    env = {**os.environ, "OSTREL_ALG_LIBRARY": str(tmp_path / "nothing.so")}
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=env)
    assert result.returncode == 0, result.stderr
    assert "cannot find the ostrel_alg library" in result.stdout
    assert "OSTREL_ALG_LIBRARY" in result.stdout and "nothing.so (no such file)" in result.stdout


def test_library_installed_with_cmake_install_is_found(tmp_path):
    cmake = shutil.which("cmake")
    if cmake is None or not (build_dir() / "CMakeCache.txt").is_file():
        pytest.fail("cmake and a configured build folder are needed")
    prefix = tmp_path / "prefix"
    subprocess.run([cmake, "--install", str(build_dir()), "--prefix", str(prefix)], check=True,
                   capture_output=True)
    library = prefix / "lib" / "libostrel_alg.so"
    assert library.exists()
    # A virtual environment whose prefix holds the installed library, from
    # a package that was not installed from a checkout.
    code = ("import sys\n"
            f"sys.prefix = {str(prefix)!r}\n"
            "from ostrel import _library\n"
            "_library._recorded_build_dir = lambda: None\n"
            "import ostrel\n"
            "with ostrel.Detector(seed=1) as d:\n"
            "    print(d.is_trained, ostrel.library_path())\n")
    env = {k: v for k, v in os.environ.items() if k != "OSTREL_ALG_LIBRARY"}
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=env)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == f"False {library}"
