#!/usr/bin/env bash
# Command-line cases of models of several classes (issue 24): train with
# repeated --class, --all-classes and a merged --class a,b; the classes in
# check and info; detect giving every box its class in text, JSON, drawings
# and the --format writers; the command lines refused. Run by CTest, one
# case per test:
#
#   classes_cli.sh CASE OSTREL DATA WORKDIR
set -uo pipefail

case_name=$1 ostrel=$2 data=$3 work=$4
python=/usr/bin/python3
support=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/cli_case_support.sh
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 1
source "$support"
run() { timeout 300 "$ostrel" "$@" > out.txt 2> err.txt; }
chess=$data/chess
# A chess picture no class is trained from (--limit 1 takes the first
# picture holding each class, by annotation name).
test_picture=$(ls "$chess/images" | sort | tail -n 1)
test_picture=$chess/images/$test_picture

case $case_name in

several_classes_in_one_model)
  # The accurate profile is the tool's default; the model file decides the
  # profile of check and detect.
  run train --labels "$chess" --class white-pawn --class black-pawn --limit 1 --model pawns.model
  expect_eq "train: exit" 0 "$?"
  expect_match "train: says which class it trains" "class 1/2 white-pawn" "$(cat out.txt)"
  expect_match "train: says which class it trains" "class 2/2 black-pawn" "$(cat out.txt)"
  run check pawns.model
  expect_eq "check: exit" 0 "$?"
  expect_eq "check: lists the classes" "pawns.model: valid, a model of the accurate profile
classes: 2 (white-pawn, black-pawn)" "$(cat out.txt)"
  run info pawns.model
  expect_match "info: two classes" "classes: 2" "$(cat out.txt)"
  expect_match "info: the second by name" 'class 2: name "black-pawn"' "$(cat out.txt)"
  # Text: every line ends with its class; JSON: every box has one.
  run detect --model pawns.model "$test_picture"
  expect_eq "detect: exit" 0 "$?"
  lines=$(grep -c . out.txt)
  classed=$(grep -cE '  class (white|black)-pawn$' out.txt)
  expect_eq "detect: every text line ends with its class" "$lines" "$classed"
  run detect --model pawns.model --profile accurate --json --draw drawn "$test_picture"
  expect_eq "detect --json: exit" 0 "$?"
  "$python" - out.txt <<'PY' || fail "detect --json: a box without its class, or no box of either class"
import json, sys
line = json.loads(open(sys.argv[1]).read())
classes = {b["class"] for b in line["boxes"]}
assert line["boxes"] and classes <= {"white-pawn", "black-pawn"}, classes
assert {b["class"] for b in line["boxes"] if b["label"] == 1} == {"white-pawn", "black-pawn"}
PY
  [ -s "drawn/$(basename "${test_picture%.*}").png" ] || fail "detect --draw: no drawing"
  # The formats number the model's classes in its order.
  run detect --model pawns.model --profile accurate --format coco "$test_picture"
  expect_eq "detect --format coco: exit" 0 "$?"
  "$python" - out.txt <<'PY' || fail "coco: categories are not the model's two classes"
import json, sys
assert {r["category_id"] for r in json.load(open(sys.argv[1]))} == {1, 2}
PY
  run detect --model pawns.model --profile accurate --format yolo --out yolo "$test_picture"
  expect_eq "detect --format yolo: exit" 0 "$?"
  expect_eq "yolo: classes.txt" "white-pawn
black-pawn" "$(cat yolo/classes.txt)"
  # Read back through the labels reader: the classes are the boxes' own.
  mkdir -p back/images back/labels && cp "$test_picture" back/images/ && cp yolo/*.txt back/labels/
  mv back/labels/classes.txt back/classes.txt
  run labels back
  expect_match "yolo read back: both classes" "black-pawn" "$(cat out.txt)"
  # A --class that is not the model's names is refused; the same names pass.
  run detect --model pawns.model --profile accurate --format coco "$test_picture" --class pawn
  expect_eq "detect --class pawn: exit" 2 "$?"
  expect_match "detect --class pawn: says why" "names its classes \(white-pawn, black-pawn\)" "$(cat err.txt)"
  run detect --model pawns.model --profile accurate --format coco "$test_picture" --class white-pawn --class black-pawn
  expect_eq "detect --class as the model names them: exit" 0 "$?"
  ;;

all_classes_and_merged)
  run train --voc "$chess" --all-classes --limit 1 --profile accurate --model all.model
  expect_eq "train --all-classes: exit" 0 "$?"
  run check all.model --profile accurate
  expect_match "check: twelve classes" "classes: 12 \(" "$(cat out.txt)"
  for name in white-king black-queen white-knight black-rook; do
    expect_match "check: names $name" "$name" "$(cat out.txt)"
  done
  # --class a,b is one class, named so.
  run train --labels "$chess" --class white-pawn,black-pawn --limit 1 --profile accurate --model merged.model
  expect_eq "train --class a,b: exit" 0 "$?"
  run check merged.model --profile accurate
  expect_eq "check: one merged class" "merged.model: valid, a model of the accurate profile
classes: 1 (white-pawn,black-pawn)" "$(cat out.txt)"
  run detect --model merged.model --profile accurate --json "$test_picture"
  "$python" - out.txt <<'PY' || fail "detect: the merged class is not every box's"
import json, sys
line = json.loads(open(sys.argv[1]).read())
assert line["boxes"] and all(b["class"] == "white-pawn,black-pawn" for b in line["boxes"])
PY
  ;;

refused_command_lines)
  run train --labels "$chess" --class white-pawn --all-classes --profile accurate --model x.model
  expect_eq "--all-classes with --class: exit" 2 "$?"
  expect_match "--all-classes with --class: says why" "give no --class with it" "$(cat err.txt)"
  run train "$test_picture" --box 1,1,40,40 --all-classes --profile accurate --model x.model
  expect_eq "--all-classes without labels: exit" 2 "$?"
  expect_match "--all-classes without labels: says why" "goes with --labels or --voc" "$(cat err.txt)"
  run train --labels "$chess" --all-classes --limit 1 --profile classic --model x.model
  expect_eq "twelve classes under the classic profile: exit" 2 "$?"
  expect_match "twelve classes: says why" "12 classes in one model need --profile accurate" "$(cat err.txt)"
  run train --labels "$chess" --class white-pawn --class no-such-piece --limit 1 --profile accurate --model x.model
  expect_eq "an unknown class: exit" 3 "$?"
  expect_match "an unknown class: named" "no-such-piece" "$(cat err.txt)"
  [ -e x.model ] && fail "a refused command line wrote a model"
  run train --help
  expect_match "--help: --all-classes" "--all-classes" "$(cat out.txt)"
  expect_match "--help: repeated --class" "--class a --class b learns a and b as two classes" "$(cat out.txt)"
  expect_match "--help: merged --class" "--class a,b learns a and b as one class" "$(cat out.txt)"
  ;;

*)
  echo "unknown case $case_name" >&2
  exit 2
  ;;
esac
finish
