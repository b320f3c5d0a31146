#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test:
#   1. the release build and all its tests (ctest),
#   2. the unit and interface tests again under AddressSanitizer and
#      UndefinedBehaviorSanitizer,
#   3. the interface tests (engines on many threads, the log handler) under
#      ThreadSanitizer,
#   4. the fuzz targets (model files; accurate model files; image records
#      and box lists; the tool's box readers and picture headers; the
#      annotation readers; the studio's request handling) for a short run
#      each, when present.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)

scripts/setup.sh

echo "== release build and tests"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== sanitizer build and tests (address, undefined)"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_SANITIZE=ON \
      -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_TOOLS=OFF
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -L 'unit|api'

echo "== thread sanitizer build and interface tests"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_SANITIZE_THREAD=ON \
      -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_TOOLS=OFF
cmake --build build-tsan -j"$jobs" --target ostrel_api_tests
TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tests/api/tsan.supp" build-tsan/tests/ostrel_api_tests
scripts/test-batch.sh  # the batch tool (ordered pool, detect on two threads) under ThreadSanitizer

scripts/test-python.sh

if [ -f fuzz/CMakeLists.txt ]; then
  echo "== fuzzing the model-file reader"
  scripts/fuzz.sh 60
  scripts/fuzz.sh 20 accurate_model # the accurate model file: reader, writer, import, validation, export
  scripts/fuzz.sh 45 image_records  # image records and box lists of the C interface
  scripts/fuzz.sh 30 box_readers    # the tool's box readers: JSON lists, detect lines, Pascal VOC
  scripts/fuzz.sh 20 picture_header # the tool's picture headers: format, size, EXIF orientation, JPEG end
  scripts/fuzz.sh 60 label_readers  # the annotation readers: COCO, YOLO, CVAT, Label Studio, imglab, VOC
  scripts/fuzz.sh 25 studio_requests  # the studio's requests: connection, routes, queries, headers, bodies
fi

scripts/test-windows.sh  # the Windows DLL: cross-built with MinGW-w64, tested under Wine
scripts/test-studio.sh build

echo "== all tests passed"
