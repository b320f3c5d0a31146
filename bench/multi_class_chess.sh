#!/usr/bin/env bash
# Twelve classes in one model: the chess set, every class taught from one
# picture (the first, by annotation name, that holds it) in one run of
# `ostrel train --all-classes --limit 1`, measured on the other pictures.
#
#   bench/multi_class_chess.sh [CHESS_VOC_DIR] [BUILD_DIR]
#
# CHESS_VOC_DIR: a Pascal VOC folder of the chess set (default
# /work/shared/data/chess when present, else data/chess). Prints, per class
# and on average: AP@0.5 over every box the model returns (below-threshold
# boxes included), F1 at sensitivity 80 and COCO mAP@[.5:.95] (ostrel eval
# --json, every training picture left out), and the time of that one eval
# against twelve evals of one class each; then the time of one detection
# pass of the twelve-class model against twelve one-class models (each
# trained exactly as its class in the twelve-class model) and against one
# of them, single thread, as ratios of one run, in wall and CPU time
# (bench_multi_class.cpp), and where valgrind is installed the ratio of
# their instruction counts (callgrind).
set -euo pipefail
cd "$(dirname "$0")/.."

data=${1:-}
if [ -z "$data" ]; then
  data=/work/shared/data/chess
  [ -d "$data" ] || data=data/chess
fi
build=${2:-build}
cmake --build "$build" -j2 --target ostrel ostrel_bench > /dev/null
ostrel=$build/tools/ostrel
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "== training twelve classes from one picture each ($data)"
"$ostrel" train --voc "$data" --all-classes --limit 1 --profile accurate --model "$work/all.model" \
  > "$work/train.txt" 2> "$work/train-err.txt"
mapfile -t classes < <("$ostrel" info "$work/all.model" | sed -n 's/^class [0-9]*: name "\([^"]*\)".*/\1/p')
mapfile -t trained_on < <(sed -n 's/^training on \(.*\) ([0-9]*x[0-9]*): .*/\1/p' "$work/train.txt" | sort -u)
skip=()
for p in "${trained_on[@]}"; do skip+=(--skip "$p"); done
echo "${#classes[@]} classes, trained on ${#trained_on[@]} pictures (left out of every measure)"

echo "== accuracy per class (one ostrel eval --json for every class)"
# One eval measures every class of the model from one detection pass per
# picture; twelve evals with --class each (how every class was measured
# before) detect every class twelve times. Both timed in this run.
start=$(date +%s%N)
"$ostrel" eval --model "$work/all.model" --profile accurate --voc "$data" "${skip[@]}" --json > "$work/eval-all.json"
one_eval=$((($(date +%s%N) - start) / 1000000))
start=$(date +%s%N)
for c in "${classes[@]}"; do
  "$ostrel" eval --model "$work/all.model" --profile accurate --voc "$data" --class "$c" "${skip[@]}" --json \
    > "$work/eval-$c.json"
done
class_evals=$((($(date +%s%N) - start) / 1000000))
printf '%-14s %8s %8s %8s %8s\n' class objects AP@0.5 F1@80 mAP
/usr/bin/python3 - "$work" "${classes[@]}" <<'PY'
import json, sys
together = json.load(open(f"{sys.argv[1]}/eval-all.json"))
rows = together["classes"]
for r, c in zip(rows, sys.argv[2:]):
    alone = json.load(open(f"{sys.argv[1]}/eval-{c}.json"))["classes"][0]
    assert r == alone, f"{c}: one pass and its own eval differ"
    print(f"{r['name']:<14} {r['objects']:>8} {r['ap']:>8.3f} {r['f1']:>8.3f} {r['coco_ap'] or 0:>8.3f}")
mean = lambda k: sum((r[k] or 0) for r in rows) / len(rows)
print(f"{'mean':<14} {sum(r['objects'] for r in rows):>8} {mean('ap'):>8.3f} {mean('f1'):>8.3f} {mean('coco_ap'):>8.3f}")
PY
/usr/bin/python3 -c 'import sys; one, each, n = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
print(f"eval of every class: {one / 1000:.1f} s; {n} evals with --class: {each / 1000:.1f} s; "
      f"{each / max(one, 1):.2f}x (the same figures)")' "$one_eval" "$class_evals" "${#classes[@]}"

echo "== time of one detection pass, single thread"
for c in "${classes[@]}"; do
  "$ostrel" train --voc "$data" --class "$c" --limit 1 --profile accurate --model "$work/class-$c.model" \
    > /dev/null 2>&1
done
picture=$(find "$data" -name '*.jpg' | sort | tail -n 1)
OSTREL_BENCH_CLASSES_DIR=$work OSTREL_BENCH_CLASSES_PICTURE=$picture \
  "$build/bench/ostrel_bench" --benchmark_filter='BM_MultiClass' --benchmark_format=json \
  --benchmark_repetitions=5 --benchmark_report_aggregates_only=true > "$work/bench.json"
/usr/bin/python3 - "$work/bench.json" "$picture" <<'PY'
import json, sys
# Medians of five repetitions: a machine shared with other work slows some.
runs = {b["run_name"]: b for b in json.load(open(sys.argv[1]))["benchmarks"] if b.get("aggregate_name") == "median"}
print(f"picture {sys.argv[2]} (medians of 5 runs)")
for clock in ("real_time", "cpu_time"):
    one_pass, separate, one = (runs[n][clock] for n in ("BM_MultiClassOnePass", "BM_MultiClassSeparate",
                                                        "BM_MultiClassOneOfThem"))
    print(f"{clock}: 12 classes in one pass: {one_pass:.1f} ms; 12 one-class runs: {separate:.1f} ms; "
          f"one class: {one:.1f} ms")
    print(f"{clock}: one pass / one class = {one_pass / one:.2f}x; one pass / the average one-class run = "
          f"{one_pass / (separate / 12):.2f}x; 12 runs / one pass = {separate / one_pass:.2f}x")
PY

# Instructions of one detection pass (callgrind, counted inside the
# library's detection call only): a figure that does not move with the
# machine's load. Valgrind runs no AVX-512, so this counts the AVX2 loops.
if command -v valgrind > /dev/null; then
  echo "== instructions of one detection pass (callgrind; AVX2 loops)"
  one_class=$(find "$work" -name 'class-*.model' | sort | head -n 1)
  for model in "$work/all.model" "$one_class"; do
    valgrind --tool=callgrind --callgrind-out-file="$work/callgrind.out" --toggle-collect='ostrel_alg::runDetector(*' \
      "$ostrel" detect --model "$model" -j 1 "$picture" > /dev/null 2> "$work/callgrind.txt"
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$work/callgrind.txt" >> "$work/instructions.txt"
  done
  /usr/bin/python3 -c 'import sys; a, o = (int(l) for l in open(sys.argv[1]))
print(f"12 classes in one pass: {a} instructions; one class: {o}; {a / o:.2f}x")' "$work/instructions.txt"
fi
