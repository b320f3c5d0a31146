#!/usr/bin/env bash
# Fails, naming each file and the lines in question, when a C or C++ file of
# the project does not follow .clang-format. scripts/format.sh fixes them.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/source-files.sh
if ! formatted_sources | xargs -r -n 20 clang-format --dry-run -Werror --style=file; then
  echo "check-format: the files above do not follow .clang-format; run scripts/format.sh" >&2
  exit 1
fi
echo "check-format: $(formatted_sources | wc -l) files follow .clang-format"
