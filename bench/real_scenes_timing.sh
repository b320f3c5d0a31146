#!/usr/bin/env bash
# The accurate profile's real-scene timings next to dlib's HOG detector (the
# evaluation kit's runner) and to OpenCV's Lab conversion of the same
# picture, measured in one run, single thread:
#   - detection on a 1920 x 1080 picture over a 5x range of object sizes;
#   - detection on a 640 x 480 picture over the default range (blood cells,
#     and objects of a chess pawn's size);
#   - training on the 1920 x 1080 picture with 20 objects of three sizes.
# Prints each time and its ratios to dlib's and to Lab's.
#
#   bench/real_scenes_timing.sh [--kit DIR] [--work DIR] [--no-peer]
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
kit=""
work=/tmp/ostrel-real-scenes
peer=1
while [ $# -gt 0 ]; do
  case "$1" in
    --kit) kit=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    --no-peer) peer=0; shift ;;
    *) echo "usage: bench/real_scenes_timing.sh [--kit DIR] [--work DIR] [--no-peer]" >&2; exit 2 ;;
  esac
done
if [ -z "$kit" ]; then
  for candidate in "$repo/../shared/eval" "$repo/../../shared/eval"; do
    if [ -f "$candidate/fewshot.py" ]; then kit=$(cd "$candidate" && pwd); break; fi
  done
fi
mkdir -p "$work"

echo "== building (release)"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build build -j2 --target ostrel_bench write_scenes > /dev/null
build/bench/write_scenes "$repo/data" "$work"

if [ "$peer" = 1 ]; then
  [ -f "$kit/dlib/build.sh" ] || { echo "real_scenes_timing.sh: no evaluation kit found; give --kit DIR or --no-peer" >&2; exit 2; }
  echo "== the peer (dlib)"
  DLIB_RUNNER_BUILD="$work/dlib" bash "$kit/dlib/build.sh" > "$work/dlib-build.log"
  for task in street cells; do
    OPENBLAS_NUM_THREADS=1 "$work/dlib/dlib_runner" --task "$work/$task.json" --C 1 --threads 1 --repeats 5 \
      --train-repeats 1 --out "$work/dlib-$task.jsonl" --timing "$work/dlib-$task.timing.json" > "$work/dlib-$task.log" 2>&1
  done
fi

echo "== this library"
build/bench/ostrel_bench --benchmark_filter='BM_Lab|BM_Detect1920x1080Range5|BM_Detect640x480/|BM_Train20' \
  --benchmark_format=json --benchmark_out="$work/ostrel.json" --benchmark_out_format=json > "$work/ostrel.log" 2>&1

echo
/usr/bin/python3 - "$work" "$peer" <<'PY'
import json, os, sys
work, peer = sys.argv[1], sys.argv[2] == "1"
runs = {b["name"]: b for b in json.load(open(os.path.join(work, "ostrel.json")))["benchmarks"]}
def ms(name, key="real_time"):
    b = runs[name]
    scale = {"ms": 1.0, "us": 1e-3, "ns": 1e-6}[b["time_unit"]]
    return b[key] * scale
dlib = {}
if peer:
    for task in ("street", "cells"):
        t = json.load(open(os.path.join(work, "dlib-%s.timing.json" % task)))
        dlib[task] = (t["detect_ms"]["mean_of_min"], t["train_ms"], t["lab_ms"]["mean_of_min"] if t.get("lab_ms") else None)
rows = [("detect 1920x1080, 5x size range", "BM_Detect1920x1080Range5", "BM_Lab/0", "street", 0),
        ("detect 640x480, default range, blood cells", "BM_Detect640x480/1", "BM_Lab/1", "cells", 0),
        ("detect 640x480, default range, pawn-sized objects", "BM_Detect640x480/2", "BM_Lab/1", None, 0),
        ("train 1920x1080, 20 objects of three sizes", "BM_Train20/iterations:3", "BM_Lab/0", "street", 1)]
print("%-52s %9s %9s %9s %9s %9s %8s %8s" % ("", "ms", "cpu ms", "Lab ms", "x Lab", "dlib ms", "x dlib", "cpu/dlib"))
for label, bench, lab, task, which in rows:
    ours, cpu, lab_ms = ms(bench), ms(bench, "cpu_time"), ms(lab)
    peer_ms = dlib[task][which] if task and task in dlib else None
    print("%-52s %9.1f %9.1f %9.2f %9.2f %9s %8s %8s" % (
        label, ours, cpu, lab_ms, ours / lab_ms,
        "%.1f" % peer_ms if peer_ms else "-", "%.3f" % (ours / peer_ms) if peer_ms else "-",
        "%.3f" % (cpu / peer_ms) if peer_ms else "-"))
print("ms: wall clock of the benchmark (Google Benchmark's real time); cpu ms: its thread's CPU time; Lab: OpenCV's")
print("BGR to Lab conversion of the same picture in the same process; dlib: the kit's runner (HOG, one window,")
print("mean of each picture's fastest of 5 detections; its training once). One thread everywhere.")
PY
