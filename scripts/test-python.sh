#!/usr/bin/env bash
# Tests the Python package as a user gets it: builds the library and the
# ostrel tool (the tests compare with it), installs the package into a fresh
# virtual environment with the README's offline command, and runs its pytest
# tests with that environment's Python.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
venv=build/python-venv

if [ ! -f build/CMakeCache.txt ]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
fi
cmake --build build -j"$jobs" --target ostrel_alg ostrel

echo "== Python package: install into a fresh virtual environment ($venv)"
rm -rf "$venv" python/build python/ostrel.egg-info
/usr/bin/python3 -m venv --system-site-packages "$venv"
PIP_DISABLE_PIP_VERSION_CHECK=1 "$venv/bin/pip" install --no-index --no-build-isolation ./python

echo "== Python package: tests"
OSTREL_TEST_VENV="$venv" "$venv/bin/python" -m pytest -p no:cacheprovider -rs python/tests
