#!/usr/bin/env bash
# Fuzzes the model-file reader for N seconds (default 60):
#   1. configures build-fuzz with clang and the fuzz target switched on,
#   2. builds the target and the seed generator,
#   3. runs the target on a working copy of fuzz/corpus plus freshly
#      generated seeds, for N seconds,
#   4. prints the executions per second.
# Exits non-zero when the fuzzer finds a crash, a leak, undefined behaviour
# or an allocation beyond the limit; the input is kept in build-fuzz/artifacts.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
jobs=$(nproc 2>/dev/null || echo 2)
build=build-fuzz

CC=clang CXX=clang++ cmake -S . -B "$build" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_BUILD_FUZZ=ON \
  -DOSTREL_BUILD_TESTS=OFF -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target fuzz_model_file make_seed_corpus

work="$build/corpus-run"
artifacts="$build/artifacts"
rm -rf "$work"
mkdir -p "$work" "$artifacts"
cp fuzz/corpus/* "$work"/
"$build/fuzz/make_seed_corpus" "$work" >/dev/null

log="$build/fuzz.log"
status=0
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  "$build/fuzz/fuzz_model_file" -max_total_time="$seconds" -malloc_limit_mb=512 -rss_limit_mb=2048 \
  -print_final_stats=1 -artifact_prefix="$artifacts/" "$work" >"$log" 2>&1 || status=$?

runs=$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -1)
rate=$(sed -n 's/^stat::average_exec_per_sec: *\([0-9]*\).*/\1/p' "$log" | tail -1)
if [ "$status" -ne 0 ] || [ -z "$runs" ]; then
  tail -60 "$log"
  echo "fuzz: FINDING (exit status $status); inputs in $artifacts" >&2
  exit 1
fi
echo "fuzz: $runs executions in $seconds s, ${rate:-$((runs / seconds))} exec/s"
