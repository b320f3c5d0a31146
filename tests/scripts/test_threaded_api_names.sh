#!/usr/bin/env bash
# The thread-sanitizer stage of the test command runs only the interface
# tests whose name holds "Thread" (gtest filter *Thread*): the library starts
# no thread of its own, so only a test that starts threads can show a race,
# and running the other interface tests under ThreadSanitizer cost most of
# that stage's quarter of an hour. This check keeps the filter honest: every
# interface test that starts a thread is named so, unless its body says it
# runs one thread at a time (the comment "one thread at a time").
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
missing=$(awk '
  function finish() {
    if (name != "" && starts && !alone && name !~ /Thread/) print file ": " name
    name = ""; starts = 0; alone = 0
  }
  FNR == 1 { finish() }
  /^TEST(_F)?\(/ {
    finish()
    file = FILENAME
    line = $0; sub(/^TEST(_F)?\(/, "", line); sub(/\).*/, "", line); gsub(/, */, ".", line)
    name = line
  }
  /std::(j)?thread[ ({]|std::async/ { starts = 1 }
  /one thread at a time/ { alone = 1 }
  END { finish() }
' "$root"/tests/api/*.cpp)
found=$(grep -l "Thread" "$root"/tests/api/*.cpp | wc -l)
if [ "$found" -eq 0 ]; then
  echo "no interface test is named for threads: the filter would run nothing" >&2
  exit 1
fi
if [ -n "$missing" ]; then
  echo "interface tests that start threads but would be left out of the thread-sanitizer run:" >&2
  echo "$missing" >&2
  exit 1
fi
echo "every interface test that starts threads is in the thread-sanitizer run"
