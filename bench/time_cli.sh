#!/usr/bin/env bash
# End-to-end timing of the ostrel command on the shipped pictures: the demo,
# training, detection on three pictures, evaluation on the BCCD folder and
# the feature map. Uses hyperfine when it is installed, otherwise bash's
# `time` over RUNS runs of each command. Build first (scripts/demo.sh, or
# cmake --build build --target ostrel); OSTREL=path picks another binary.
set -euo pipefail
cd "$(dirname "$0")/.."

ostrel=${OSTREL:-build/tools/ostrel}
runs=${RUNS:-10}
if [ ! -x "$ostrel" ]; then
  echo "time_cli: no $ostrel; build it first (scripts/demo.sh)" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
bccd=data/bccd
train_args="$bccd/images/BloodImage_00000.jpg --boxes $bccd/annotations/BloodImage_00000.xml --class RBC --median-size"
"$ostrel" train $train_args --model "$work/rbc.model" > /dev/null

commands=(
  "$ostrel demo --out $work/demo"
  "$ostrel train $train_args --model $work/train.model"
  "$ostrel detect --model $work/rbc.model $bccd/images/BloodImage_00001.jpg $bccd/images/BloodImage_00002.jpg $bccd/images/BloodImage_00003.jpg"
  "$ostrel eval --model $work/rbc.model --voc $bccd --class RBC"
  "$ostrel channels $bccd/images/BloodImage_00001.jpg --png $work/channels.png --raw $work/channels.raw"
)

if command -v hyperfine > /dev/null; then
  hyperfine --warmup 1 --runs "$runs" --style basic "${commands[@]}"
else
  echo "time_cli: hyperfine not found, timing $runs runs of each command with bash's time"
  TIMEFORMAT="  %R s wall, %U s user, %S s system for $runs runs"
  for c in "${commands[@]}"; do
    echo "$c"
    time (for _ in $(seq "$runs"); do $c > /dev/null; done)
  done
fi
