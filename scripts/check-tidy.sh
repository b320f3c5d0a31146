#!/usr/bin/env bash
# Runs clang-tidy with the checks of .clang-tidy on the library's and the
# tool's own sources (src/ and tools/, with the headers they include from
# src/, tools/ and include/), in parallel; fails on any finding.
#   scripts/check-tidy.sh [BUILD_DIR]   (default: build, the release build)
# It needs the build's compile_commands.json, so it (re)configures BUILD_DIR
# with CMAKE_EXPORT_COMPILE_COMMANDS=ON first; that does not rebuild anything.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${1:-build}

cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON > /dev/null
if ! run-clang-tidy -quiet -j "$(nproc 2>/dev/null || echo 2)" -p "$build" \
       -header-filter="^$root/(src|tools|include)/" "^$root/(src|tools)/"; then
  echo "check-tidy: clang-tidy reported the findings above (checks in .clang-tidy)" >&2
  exit 1
fi
echo "check-tidy: no findings"
