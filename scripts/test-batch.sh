#!/usr/bin/env bash
# The batch side of the ostrel tool under ThreadSanitizer: the ordered
# pool's tests, and `ostrel detect` on two threads over pictures and a video
# with drawings, whose output must equal that of one thread. Called by
# scripts/test.sh after its ThreadSanitizer build of the library, whose
# folder it shares (the same compile flags, so the library's objects are
# reused; only the tool and its tests are built here).
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
build=build-tsan
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_SANITIZE_THREAD=ON \
      -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_TOOLS=ON > /dev/null
cmake --build "$build" -j"$jobs" --target ostrel ostrel_batch_tests ostrel_make_test_video
export TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tests/tools/tsan.supp"

"$build"/tests/ostrel_batch_tests --gtest_filter='OrderedPool.*:Engine*'

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ostrel=$build/tools/ostrel
bccd=data/bccd
pictures=("$bccd"/images/*.jpg)
"$ostrel" train "${pictures[0]}" --boxes "$bccd/annotations/BloodImage_00000.xml" --class RBC --median-size \
  --model "$work/rbc.model" > /dev/null
"$build"/tests/ostrel_make_test_video "$work/clip.mp4" 8 avc1 1 "${pictures[@]}"
for j in 1 2; do
  "$ostrel" detect --model "$work/rbc.model" --json --jobs $j --draw "$work/drawn$j" \
    "$bccd/images" "$work/clip.mp4" "${pictures[@]}" > "$work/out$j.jsonl"
done
cmp "$work/out1.jsonl" "$work/out2.jsonl"
for f in "$work"/drawn1/*; do
  cmp "$f" "$work/drawn2/$(basename "$f")"
done
echo "batch under ThreadSanitizer: $(wc -l < "$work/out2.jsonl") results, the same with 1 and 2 jobs"
