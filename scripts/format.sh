#!/usr/bin/env bash
# Formats, in place, every C and C++ file of the project that follows
# .clang-format (the list is in scripts/source-files.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/source-files.sh
formatted_sources | xargs -r -P "$(nproc 2>/dev/null || echo 2)" -n 20 clang-format -i --style=file
