#!/usr/bin/env bash
# Throughput of `ostrel detect` over many pictures: the 8 shipped blood
# pictures repeated to COUNT (default 960) in a --list, pictures per second
# with --jobs 1 and --jobs 2, decoding, detection and JSON output included,
# and the ratio of the two. Runs alternate (1, 2, 1, 2, ...) RUNS times each
# (default 5); the median and the best run are reported, with the load
# average before and after, since other work on the machine skews them.
#
# For comparison the same pictures go through the peer runner of the
# few-shot evaluation kit (dlib's HOG detector, one thread), when the kit is
# found (EVAL_DIR, default ../shared/eval next to the repository or
# /work/shared/eval); its runner decodes every picture before timing, so its
# figure is detection alone. Build first (scripts/demo.sh, or cmake --build
# build --target ostrel); OSTREL=path picks another binary.
set -euo pipefail
cd "$(dirname "$0")/.."

ostrel=${OSTREL:-build/tools/ostrel}
count=${COUNT:-960}
runs=${RUNS:-5}
python=/usr/bin/python3
if [ ! -x "$ostrel" ]; then
  echo "throughput_batch: no $ostrel; build it first (scripts/demo.sh)" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
bccd=$PWD/data/bccd
"$ostrel" train "$bccd/images/BloodImage_00000.jpg" --boxes "$bccd/annotations/BloodImage_00000.xml" --class RBC \
  --median-size --model "$work/rbc.model" > /dev/null

pictures=("$bccd"/images/*.jpg)
: > "$work/list.txt"
while [ "$(wc -l < "$work/list.txt")" -lt "$count" ]; do
  printf '%s\n' "${pictures[@]}" >> "$work/list.txt"
done
head -n "$count" "$work/list.txt" > "$work/list.cut" && mv "$work/list.cut" "$work/list.txt"

now() { echo "$EPOCHREALTIME"; }
elapsed() { "$python" -c "import sys; print('%.3f' % (float(sys.argv[2]) - float(sys.argv[1])))" "$1" "$2"; }
declare -A seconds
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
for run in $(seq "$runs"); do
  for jobs in 1 2; do
    start=$(now)
    "$ostrel" detect --model "$work/rbc.model" --jobs "$jobs" --json --list "$work/list.txt" > "$work/out$jobs.jsonl"
    end=$(now)
    seconds[$jobs]+="$(elapsed "$start" "$end") "
  done
  cmp -s "$work/out1.jsonl" "$work/out2.jsonl" || { echo "throughput_batch: --jobs 1 and 2 differ" >&2; exit 1; }
done
echo "load average after:  $(cut -d' ' -f1-3 /proc/loadavg)"

"$python" - "$count" "${seconds[1]}" "${seconds[2]}" <<'EOF'
import statistics, sys
count = int(sys.argv[1])
one = [float(x) for x in sys.argv[2].split()]
two = [float(x) for x in sys.argv[3].split()]
def rate(s): return count / s
print("ostrel detect, %d pictures (decoding included), %d runs each:" % (count, len(one)))
for name, runs in (("--jobs 1", one), ("--jobs 2", two)):
    print("  %s: median %.1f pictures/s (%.2f s), best %.1f pictures/s; runs: %s"
          % (name, rate(statistics.median(runs)), statistics.median(runs), rate(min(runs)),
             " ".join("%.2f" % s for s in runs)))
print("  ratio --jobs 2 / --jobs 1: median %.2fx, best %.2fx"
      % (statistics.median(one) / statistics.median(two), min(one) / min(two)))
print("  ratio per run pair: %s" % " ".join("%.2f" % (a / b) for a, b in zip(one, two)))
EOF

# --- the peer, when the kit is there -----------------------------------------
eval_dir=${EVAL_DIR:-}
for candidate in "$PWD/../shared/eval" "$PWD/../../shared/eval" /work/shared/eval; do
  if [ -z "$eval_dir" ] && [ -f "$candidate/dlib/build.sh" ]; then
    eval_dir=$candidate
  fi
done
if [ -z "$eval_dir" ]; then
  echo "peer: the few-shot evaluation kit was not found (set EVAL_DIR); skipped"
  exit 0
fi
runner=${DLIB_RUNNER_BUILD:-/tmp/fewshot-dlib}/dlib_runner
if [ ! -x "$runner" ]; then
  bash "$eval_dir/dlib/build.sh" > "$work/dlib-build.log" 2>&1 || {
    echo "peer: building the dlib runner failed (see $eval_dir/dlib/build.sh); skipped"
    exit 0
  }
fi
"$python" "$eval_dir/fewshot.py" task --voc "$bccd" --class RBC --train BloodImage_00000.jpg --out "$work/task.json" \
  > /dev/null
"$python" - "$work/task.json" "$work/list.txt" <<'EOF'
import json, os, sys
task = json.load(open(sys.argv[1]))
paths = [line.strip() for line in open(sys.argv[2]) if line.strip()]
task["test_images"] = [{"image": os.path.basename(p), "path": os.path.abspath(p),
                        "annotation": os.path.abspath(p).replace("/images/", "/annotations/").rsplit(".", 1)[0] + ".xml"}
                       for p in paths]
json.dump(task, open(sys.argv[1], "w"))
EOF
start=$(now)
OPENBLAS_NUM_THREADS=1 "$runner" --task "$work/task.json" --C 1 --threads 1 --repeats 1 --train-repeats 1 --no-lab \
  --out "$work/dlib.jsonl" --timing "$work/dlib.timing.json" 2> "$work/dlib.log" || true
end=$(now)
"$python" - "$work/dlib.timing.json" "$count" "$(elapsed "$start" "$end")" <<'EOF'
import json, sys
t = json.load(open(sys.argv[1]))
count = int(sys.argv[2])
ms = t["detect_ms"]["mean_all"]
print("peer (dlib %s HOG, one thread, window %s), the same %d pictures:" % (t["dlib_version"], t["window"], count))
print("  detection alone (its runner decodes untimed): %.1f ms a picture, %.1f pictures/s" % (ms, 1000.0 / ms))
print("  whole runner (decoding, training, two detection passes): %.1f s" % float(sys.argv[3]))
EOF
