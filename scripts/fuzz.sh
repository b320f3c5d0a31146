#!/usr/bin/env bash
# Fuzzes one target for N seconds (default 60):
#   scripts/fuzz.sh [SECONDS] [TARGET]
#   TARGET model_file (default): the model-file reader, from a working copy
#          of fuzz/corpus plus freshly generated seed models;
#   TARGET accurate_model: the accurate model file's reader and writer and
#          the engine's import, validation and export of it, from hand-made
#          accurate models (make_accurate_seed_corpus);
#   TARGET image_records: image records and box lists through the C
#          interface, from an empty corpus;
#   TARGET box_readers: the tool's box readers (JSON lists, `detect --json`
#          lines, Pascal VOC), from the shipped annotations and a few lists;
#   TARGET label_readers: the annotation readers (COCO, YOLO, CVAT, Label
#          Studio, imglab, VOC, format detection), from the label files of
#          tests/tools/label_files;
#   TARGET picture_header: the tool's picture-header reader (format, size,
#          EXIF orientation) and JPEG end check, from the shipped pictures'
#          first bytes and a few EXIF structures;
#   TARGET studio_requests: the studio's request handling (connection,
#          routes, query strings, headers, bodies) on a workspace of two
#          tiny pictures, from a few whole requests.
# It configures build-fuzz with clang and the fuzz targets switched on,
# builds the target, runs it and prints the executions per second.
# Exits non-zero when the fuzzer finds a crash, a leak, undefined behaviour,
# a broken promise or an allocation beyond the limit; the input is kept in
# build-fuzz/artifacts.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
target=${2:-model_file}
jobs=$(nproc 2>/dev/null || echo 2)
build=build-fuzz

# Each execution of image_records sets an engine up, so it runs few inputs
# a second: long inputs from the start reach more of the library in a short
# run than libFuzzer's slowly growing lengths.
case "$target" in
  model_file) build_targets=(fuzz_model_file make_seed_corpus make_accurate_seed_corpus); options=() ;;
  accurate_model) build_targets=(fuzz_accurate_model make_accurate_seed_corpus); options=(-max_len=65536) ;;
  image_records) build_targets=(fuzz_image_records); options=(-len_control=0 -max_len=512) ;;
  box_readers) build_targets=(fuzz_box_readers); options=(-max_len=4096) ;;
  label_readers) build_targets=(fuzz_label_readers); options=(-max_len=4096) ;;
  picture_header) build_targets=(fuzz_picture_header); options=(-max_len=4096) ;;
  studio_requests) build_targets=(fuzz_studio_requests); options=(-max_len=2048) ;;
  *) echo "fuzz: unknown target '$target' (model_file, accurate_model, image_records, box_readers, label_readers," \
           "picture_header or studio_requests)" >&2; exit 2 ;;
esac

CC=clang CXX=clang++ cmake -S . -B "$build" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_BUILD_FUZZ=ON \
  -DOSTREL_BUILD_TESTS=OFF -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target "${build_targets[@]}"

work="$build/corpus-run-$target"
artifacts="$build/artifacts"
rm -rf "$work"
mkdir -p "$work" "$artifacts"
if [ "$target" = model_file ]; then
  cp fuzz/corpus/* "$work"/
  "$build/fuzz/make_seed_corpus" "$work" >/dev/null
  "$build/fuzz/make_accurate_seed_corpus" "$work" >/dev/null
fi
if [ "$target" = accurate_model ]; then
  "$build/fuzz/make_accurate_seed_corpus" "$work" >/dev/null
fi
if [ "$target" = box_readers ]; then
  # The first byte chooses the reader: 0 JSON list, 1 detect line, 2 VOC.
  for f in data/bccd/annotations/*.xml; do
    { printf '\002'; head -c 4000 "$f"; } > "$work/voc-$(basename "$f")"
  done
  printf '\000[[10,20,30,40],{"x":1,"y":2,"width":3,"height":4}]' > "$work/list.json"
  printf '\000{"boxes":[{"x":1,"y":2,"w":3,"h":4,"score":0.5}]}' > "$work/object.json"
  printf '\001[{"x":1,"y":2,"w":3,"h":4,"score":0.87,"label":1}]' > "$work/line.json"
fi

if [ "$target" = label_readers ]; then
  # The first byte chooses the reader (see fuzz/fuzz_label_readers.cpp).
  seed() { { printf "\\$(printf '%03o' "$1")"; head -c 4000 "$2"; } > "$work/$3"; }
  files=tests/tools/label_files
  seed 0 $files/coco/instances_default.json coco-cvat
  seed 0 $files/coco/roboflow.json coco-roboflow
  seed 1 $files/yolo_ultralytics/labels/train/BloodImage_00001.txt yolo-line
  seed 1 $files/yolo_roboflow/train/labels/BloodImage_00001.txt yolo-crlf
  seed 2 $files/yolo_ultralytics/data.yaml yaml-map
  seed 2 $files/yolo_roboflow/data.yaml yaml-list
  seed 3 $files/yolo_side_by_side/classes.txt names
  seed 4 $files/cvat/annotations.xml cvat
  seed 5 $files/labelstudio/export.json labelstudio
  seed 5 $files/labelstudio/min.json labelstudio-min
  seed 6 $files/imglab/training.xml imglab
  seed 7 $files/voc/BloodImage_00001.xml voc
  printf '\010[{"image_id":1,"category_id":0,"bbox":[1,2,3,4],"score":0.5}]' > "$work/results"
  seed 9 $files/cvat/annotations.xml detect-xml
  seed 9 $files/coco/roboflow.json detect-json
fi

if [ "$target" = picture_header ]; then
  # The first byte chooses the form: 0 a file's first bytes, 1 the TIFF of a
  # JPEG's APP1 segment, 2 the TIFF of a PNG's eXIf chunk.
  for f in data/bccd/images/BloodImage_0000[0-2].jpg data/samples/*.*; do
    if [ -f "$f" ]; then { printf '\000'; head -c 3000 "$f"; } > "$work/file-$(basename "$f")"; fi
  done
  tiff_mm='MM\000\052\000\000\000\010\000\001\001\022\000\003\000\000\000\001\000\006\000\000\000\000\000\000'
  tiff_ii='II\052\000\010\000\000\000\001\000\022\001\003\000\001\000\000\000\010\000\000\000\000\000\000\000'
  printf "\\001$tiff_mm" > "$work/app1-mm"
  printf "\\001$tiff_ii" > "$work/app1-ii"
  printf "\\002$tiff_mm" > "$work/exif-chunk-mm"
fi

if [ "$target" = studio_requests ]; then
  # Raw requests (the first byte's low three bits set): a training of the
  # tiny picture, a detection, an upload refused, a token missing.
  train='{"picture":"a.png","boxes":[[20,20,24,24]]}'
  printf '\007POST /api/train HTTP/1.1\r\nHost: 127.0.0.1:0\r\nX-Ostrel-Token: %s\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n%s' \
    0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef "${#train}" "$train" > "$work/train"
  printf '\007GET /api/detect?picture=b.jpg&sensitivity=90 HTTP/1.1\r\nHost: 127.0.0.1:0\r\n\r\n' > "$work/detect"
  printf '\007POST /api/pictures?name=x.png HTTP/1.1\r\nHost: 127.0.0.1:0\r\nContent-Type: text/plain\t;charset=utf-8\r\nContent-Length: 4\r\n\r\nabcd' > "$work/upload"
  printf '\007GET /api/pictures/a.png HTTP/1.1\r\nHost: 127.0.0.1:0\r\n\r\nGET /api/status HTTP/1.1\r\n\r\n' > "$work/two"
fi

log="$build/fuzz-$target.log"
status=0
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -malloc_limit_mb=512 -rss_limit_mb=2048 \
  ${options[@]+"${options[@]}"} -print_final_stats=1 -artifact_prefix="$artifacts/" "$work" >"$log" 2>&1 || status=$?

runs=$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -1)
rate=$(sed -n 's/^stat::average_exec_per_sec: *\([0-9]*\).*/\1/p' "$log" | tail -1)
if [ "$status" -ne 0 ] || [ -z "$runs" ]; then
  tail -60 "$log"
  echo "fuzz $target: FINDING (exit status $status); inputs in $artifacts" >&2
  exit 1
fi
echo "fuzz $target: $runs executions in $seconds s, ${rate:-$((runs / seconds))} exec/s"
