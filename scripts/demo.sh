#!/usr/bin/env bash
# The README's first command: installs what is missing, builds the release
# build in build/ and runs `ostrel demo`. The pictures, the JSON file and the
# model it writes go to out/demo/ (extra arguments go to `ostrel demo`).
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)

scripts/setup.sh

echo "== release build of the library and the ostrel tool"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$jobs" --target ostrel

echo "== ostrel demo"
exec build/tools/ostrel demo --out out/demo "$@"
