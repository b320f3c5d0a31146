#!/usr/bin/env bash
# Shows that no front end reads the library's log lines to learn what
# happened: builds the library with every log line reworded (the test build
# option OSTREL_TEST_REWORDED_LOG prefixes each with "x") in
# build-reworded/, then runs against it the tool's unit tests, its
# command-line cases, the Python package's whole suite (its logging tests
# included: the package sorts the lines by the severity the library gives
# each, never by their words) and the studio's tests over HTTP (not the
# browser ones). The library's own tests are left out: they pin the exact
# lines, which this build changes on purpose. Not part of scripts/test.sh:
# it builds the library a second time.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
build=build-reworded

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DOSTREL_TEST_REWORDED_LOG=ON -DOSTREL_BUILD_BENCH=OFF
cmake --build "$build" -j"$jobs"

echo "== the tool's tests and command-line cases, every library line reworded"
ctest --test-dir "$build" --output-on-failure -j"$jobs" -L 'tools|cli'

echo "== the Python package's tests, every library line reworded"
venv=$build/python-venv
rm -rf "$venv" python/build python/ostrel.egg-info
/usr/bin/python3 -m venv --system-site-packages "$venv"
PIP_DISABLE_PIP_VERSION_CHECK=1 "$venv/bin/pip" install -q --no-index --no-build-isolation ./python
rm -rf python/build python/ostrel.egg-info
# test_library_lookup's installed-package case checks that the package finds
# the checkout's build/, which is not the library of this run.
OSTREL_ALG_LIBRARY="$PWD/$build/libostrel_alg.so" OSTREL_BUILD_DIR="$PWD/$build" OSTREL_TEST_VENV="$venv" \
  "$venv/bin/python" -m pytest -p no:cacheprovider -q python/tests \
  -k "not test_installed_package_uses_the_checkouts_build"

echo "== the studio's tests over HTTP, every library line reworded"
failed=()
for test in test_studio_api test_studio_labels_api test_studio_label_formats test_studio_model_classes \
            test_studio_profile_api; do
  echo "-- $test"
  /usr/bin/python3 "tests/studio/$test.py" "$build/tools/ostrel" data 2>&1 || failed+=("$test")
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "test-reworded-log: the studio failed with reworded lines: ${failed[*]}" >&2
  exit 1
fi
echo "test-reworded-log: every test passed with reworded lines"
