#!/usr/bin/env bash
# Command-line cases of the profiles as a person meets them: `train` and
# `demo` use the accurate profile unless --profile classic; `detect`, `eval`,
# `check` and `info` take the profile from the model file and need no flag;
# a --profile that contradicts the file is refused with one line; a model
# exported by the training engine detects the same boxes and scores in a
# fresh engine; an accurate model finds objects of the same pixel size on
# pictures of any size. Run by CTest, one case per test:
#
#   profile_cli.sh CASE OSTREL DATA WORKDIR
#
# OSTREL the binary, DATA the data/ folder, WORKDIR a folder of the case's
# own (emptied first).
set -uo pipefail

case_name=$1 ostrel=$2 data=$3 work=$4
bccd=$data/bccd
picture=$bccd/images/BloodImage_00000.jpg  # 640x480
annotation=$bccd/annotations/BloodImage_00000.xml
others=("$bccd/images/BloodImage_00001.jpg" "$bccd/images/BloodImage_00002.jpg" "$bccd/images/BloodImage_00003.jpg")
python=/usr/bin/python3

support=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/cli_case_support.sh
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 1
source "$support"

run() {
  timeout 300 "$ostrel" "$@" > out.txt 2> err.txt
}
one_line() {  # what file
  expect_eq "$1: lines on standard error" 1 "$(wc -l < "$2" | tr -d ' ')"
}

case $case_name in

defaults)
  # The annotated cells have several sizes: the default profile takes them
  # as they are, with no --median-size and no warning.
  run train "$picture" --boxes "$annotation" --class RBC --model default.model
  expect_eq "train: exit code" 0 $?
  expect_match "train: profile" "accurate profile" "$(cat out.txt)"
  expect_match "train: boxes of several sizes" "19 marked boxes of [0-9]+x[0-9]+ to [0-9]+x[0-9]+ px" "$(cat out.txt)"
  expect_eq "train: standard error" "" "$(cat err.txt)"
  run train "$picture" --boxes "$annotation" --class RBC --median-size --profile classic --model classic.model
  expect_eq "train --profile classic: exit code" 0 $?
  expect_match "train --profile classic: profile" "classic profile" "$(cat out.txt)"

  # info describes both kinds of file without a flag.
  run info default.model
  expect_eq "info accurate: exit code" 0 $?
  info=$(cat out.txt)
  expect_match "info accurate: profile" "profile: accurate \\(recorded in the file\\)" "$info"
  expect_match "info accurate: size range" "accurate min height: 0 \\(automatic" "$info"
  expect_match "info accurate: settings" "accurate cells: [0-9]+" "$info"
  expect_match "info accurate: class" "class 1: name \"\", window [0-9]+ x [0-9]+ cells" "$info"
  expect_match "info accurate: taught sizes and calibration" \
    "taught heights [0-9.]+ to [0-9.]+ pixels, 50% confidence at margin -?[0-9.]+" "$info"
  run info classic.model
  expect_eq "info classic: exit code" 0 $?
  expect_match "info classic: profile" "profile: classic" "$(cat out.txt)"
  expect_match "info classic: record" "support_vector_size: [0-9]+" "$(cat out.txt)"

  # check and detect without --profile, under the file's profile.
  for kind in default:accurate classic:classic; do
    file=${kind%%:*}.model profile=${kind##*:}
    run check "$file"
    expect_eq "check $file: exit code" 0 $?
    expect_match "check $file: stdout" "$file: valid, a model of the $profile profile" "$(cat out.txt)"
    run detect --model "$file" --json "${others[0]}"
    expect_eq "detect $file: exit code" 0 $?
    expect_match "detect $file: a JSON line with boxes" '^\{"file":.*"boxes":\[\{' "$(cat out.txt)"
    expect_eq "detect $file: standard error" "" "$(cat err.txt)"
    run detect --profile "$profile" --model "$file" --json "${others[0]}"
    expect_eq "detect --profile $profile $file (agrees): exit code" 0 $?
  done

  # A --profile that contradicts the file: one line, exit code 1, nothing done.
  for command in "check --profile classic default.model" "check --profile accurate classic.model" \
                 "detect --profile classic --model default.model ${others[0]}" \
                 "detect --profile accurate --model classic.model ${others[0]}" \
                 "eval --profile classic --model default.model --voc $bccd --class RBC"; do
    # shellcheck disable=SC2086
    run $command
    expect_eq "$command: exit code" 1 $?
    one_line "$command" err.txt
    expect_match "$command: stderr" "is a model of the (accurate|classic) profile \\(the file says so\\).*leave out --profile" "$(cat err.txt)"
    expect_eq "$command: stdout" "" "$(cat out.txt)"
  done
  ;;

round_trip)
  # Under each profile: the demo trains, detects, exports and has a fresh
  # engine (its profile never set) import the file; then `detect` (another
  # fresh engine) gives the training engine's detections, boxes and scores.
  for profile in accurate classic; do
    run demo --profile "$profile" --out "demo_$profile"
    expect_eq "demo $profile: exit code" 0 $?
    expect_match "demo $profile: reload" "the same [0-9]+ detections on all 3 pictures" "$(cat out.txt)"
    run check "demo_$profile/rbc.model"
    expect_match "check $profile model" "valid, a model of the $profile profile" "$(cat out.txt)"
    run detect --model "demo_$profile/rbc.model" --json "${others[@]}"
    expect_eq "detect $profile: exit code" 0 $?
    "$python" - "demo_$profile/detections.json" out.txt <<'EOF' || fail "$profile: detect differs from the training engine"
import json, sys
trained = json.load(open(sys.argv[1]))["pictures"]
detected = [json.loads(line) for line in open(sys.argv[2])]
assert len(trained) == len(detected) == 3, (len(trained), len(detected))
def ones(boxes):
    return [(b["x"], b["y"], b["w"], b["h"], round(b["score"], 2)) for b in boxes if b["label"] == 1]
total = 0
for t, d in zip(trained, detected):
    a, b = ones(t["boxes"]), ones(d["boxes"])
    assert a == b, (t["file"], a, b)
    total += len(a)
assert total > 0, "no detections to compare"
EOF
  done
  # The default demo is the accurate one.
  run demo --out demo_default
  expect_eq "demo: exit code" 0 $?
  expect_match "demo: profile" "Training  accurate profile" "$(cat out.txt)"
  cmp -s demo_default/rbc.model demo_accurate/rbc.model || fail "the default demo's model is not the accurate one"
  ;;

any_picture_size)
  # The test picture placed unscaled on larger canvases: an accurate model
  # trained on a 640x480 picture finds the same cells, at the same size in
  # pixels, shifted by the placement.
  run train "$picture" --boxes "$annotation" --class RBC --model cells.model
  expect_eq "train: exit code" 0 $?
  "$python" - "${others[0]}" <<'EOF' || fail "cannot write the canvases"
import sys, cv2, numpy as np
picture = cv2.imread(sys.argv[1], cv2.IMREAD_COLOR)
for (width, height), (x, y) in (((1280, 720), (300, 100)), ((1920, 1080), (1000, 500))):
    canvas = np.full((height, width, 3), 200, np.uint8)
    canvas[y:y + picture.shape[0], x:x + picture.shape[1]] = picture
    cv2.imwrite(f"canvas_{width}_{x}_{y}.png", canvas)
EOF
  run detect --model cells.model --json "${others[0]}" canvas_*.png
  expect_eq "detect: exit code" 0 $?
  "$python" - out.txt <<'EOF' || fail "the canvases do not give the picture's detections"
import json, sys
lines = [json.loads(line) for line in open(sys.argv[1])]
alone = [b for b in lines[0]["boxes"] if b["label"] == 1]
assert len(alone) >= 5, f"only {len(alone)} detections on the picture itself"
def iou(a, b):
    w = min(a["x"] + a["w"], b["x"] + b["w"]) - max(a["x"], b["x"])
    h = min(a["y"] + a["h"], b["y"] + b["h"]) - max(a["y"], b["y"])
    inter = max(0, w) * max(0, h)
    return inter / (a["w"] * a["h"] + b["w"] * b["h"] - inter)
for line in lines[1:]:
    _, width, x, y = line["file"][:-4].split("_")[0:4]
    x, y = int(x), int(y)
    found = [dict(b, x=b["x"] - x, y=b["y"] - y) for b in line["boxes"] if b["label"] == 1]
    # The same cells, where they were placed (the canvas adds the picture's
    # edges and cells cut by them, so it may find more)...
    matched = sum(1 for a in alone if any(iou(a, b) >= 0.5 for b in found))
    assert matched >= 0.75 * len(alone), (line["file"], matched, len(alone))
    # ...at the same sizes in pixels, not scaled with the picture.
    low, high = min(a["h"] for a in alone), max(a["h"] for a in alone)
    assert all(0.8 * low <= b["h"] <= 1.25 * high for b in found), (line["file"], low, high, found)
EOF
  ;;

*)
  echo "unknown case '$case_name'" >&2
  exit 2
  ;;
esac
finish
