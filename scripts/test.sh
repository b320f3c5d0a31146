#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test:
#   1. the release build and all its tests (ctest),
#   2. the unit and interface tests again under AddressSanitizer and
#      UndefinedBehaviorSanitizer,
#   3. the interface tests that start threads (engines on many threads, the
#      log handler) and the batch tool under ThreadSanitizer,
#   4. the fuzz targets (model files; accurate model files; image records
#      and box lists; the tool's box readers and picture headers; the
#      annotation readers; the studio's request handling) for a short run
#      each, when present (longer runs: scripts/fuzz.sh SECONDS TARGET),
#   5. the Python package's tests,
#   6. the Windows DLL, cross-built with MinGW-w64 and tested under Wine,
#   7. the studio over HTTP and in a headless browser,
#   8. the Debian package and the Python wheel, installed and used as a user
#      would (as root: the package is installed and purged again).
# After the release tests, the sources' layout (.clang-format) and
# clang-tidy's checks (.clang-tidy) are checked as well.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)

# Each stage's wall time, printed at the end (and after a failure, as far as
# the run went), so that a slow stage shows where the time goes.
stage_names=() stage_seconds=() stage_name="" stage_started=$SECONDS
stage() {  # stage NAME: closes the running stage and opens the next
  if [ -n "$stage_name" ]; then
    stage_names+=("$stage_name") stage_seconds+=($((SECONDS - stage_started)))
  fi
  stage_name=$1 stage_started=$SECONDS
}
print_stage_times() {
  local status=$? i
  stage ""
  echo "== stage times"
  for i in "${!stage_names[@]}"; do
    printf 'stage %-34s %4d min %02d s\n' "${stage_names[$i]}" $((stage_seconds[i] / 60)) $((stage_seconds[i] % 60))
  done
  printf 'stage %-34s %4d min %02d s\n' "in all" $((SECONDS / 60)) $((SECONDS % 60))
  return "$status"
}
trap print_stage_times EXIT

stage "set-up (packages)"
scripts/setup.sh

stage "release build"
echo "== release build and tests"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$jobs"
stage "release tests"
ctest --test-dir build --output-on-failure -j"$jobs"

stage "format and tidy checks"
echo "== format and clang-tidy checks"
scripts/check-format.sh
scripts/check-tidy.sh build  # needs the release build's compile_commands.json

stage "address/undefined sanitizer build"
echo "== sanitizer build and tests (address, undefined)"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_SANITIZE=ON \
      -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_TOOLS=OFF
cmake --build build-asan -j"$jobs"
stage "address/undefined sanitizer tests"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -L 'unit|api'

stage "thread sanitizer"
echo "== thread sanitizer build and interface tests"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_SANITIZE_THREAD=ON \
      -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_TOOLS=OFF
cmake --build build-tsan -j"$jobs" --target ostrel_api_tests
# Only the interface tests that start threads (named so; ctest checks that
# none is left out): the library starts no thread of its own.
TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tests/api/tsan.supp" \
  build-tsan/tests/ostrel_api_tests --gtest_filter='*Thread*'
scripts/test-batch.sh  # the batch tool (ordered pool, detect on two threads) under ThreadSanitizer

stage "Python package"
scripts/test-python.sh

if [ -f fuzz/CMakeLists.txt ]; then
  stage "fuzzing"
  echo "== fuzzing the model-file reader"
  scripts/fuzz.sh 30
  scripts/fuzz.sh 15 accurate_model # the accurate model file: reader, writer, import, validation, export
  scripts/fuzz.sh 25 image_records  # image records and box lists of the C interface
  scripts/fuzz.sh 20 box_readers    # the tool's box readers: JSON lists, detect lines, Pascal VOC
  scripts/fuzz.sh 15 picture_header # the tool's picture headers: format, size, EXIF orientation, JPEG end
  scripts/fuzz.sh 30 label_readers  # the annotation readers: COCO, YOLO, CVAT, Label Studio, imglab, VOC
  scripts/fuzz.sh 15 studio_requests  # the studio's requests: connection, routes, queries, headers, bodies
fi

stage "Windows DLL"
scripts/test-windows.sh  # the Windows DLL: cross-built with MinGW-w64, tested under Wine
stage "studio"
scripts/test-studio.sh build
stage "package"
scripts/test-package.sh  # the .deb installed and purged again, the wheel in a fresh venv

echo "== all tests passed"
