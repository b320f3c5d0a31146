#!/usr/bin/env bash
# Command-line cases of models of several classes (issue 24): train with
# repeated --class, --all-classes and a merged --class a,b; the classes in
# check and info; detect giving every box its class in text, JSON, drawings
# and the --format writers (read back); eval measuring every class from one
# detection pass per picture, and detections of several classes made
# earlier class by class as the model; the command lines refused. Run by CTest, one
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

eval_every_class_in_one_pass)
  # A model of two classes measured by `eval` without --class: every class
  # of the model from one detection pass per picture, each box counted for
  # its own class. Each class's figures must be exactly those of an eval of
  # that class alone (which measures it as one class, the other class's
  # boxes dropped), and the overall ones their sum and mean.
  run train --labels "$chess" --class white-pawn --class black-pawn --limit 1 --model pawns.model
  expect_eq "train: exit" 0 "$?"
  for c in white-pawn black-pawn; do
    run eval --model pawns.model --labels "$chess" --class "$c" --json
    expect_eq "eval --class $c: exit" 0 "$?"
    cp out.txt "alone-$c.json"
  done
  run eval --model pawns.model --labels "$chess" --json
  expect_eq "eval of every class: exit ($(cat err.txt))" 0 "$?"
  cp out.txt together.json
  run eval --model pawns.model --labels "$chess" --class white-pawn --class black-pawn --json
  expect_eq "eval --class a --class b: exit" 0 "$?"
  cmp -s out.txt together.json || fail "eval --class a --class b is not every class measured on its own"
  "$python" - together.json alone-white-pawn.json alone-black-pawn.json <<'PY' || fail "per-class figures differ"
import json, sys
together = json.load(open(sys.argv[1]))
alone = [json.load(open(p)) for p in sys.argv[2:]]
assert [c["name"] for c in together["classes"]] == ["white-pawn", "black-pawn"], together["classes"]
for mine, own in zip(together["classes"], alone):
    assert len(own["classes"]) == 1
    # Exactly equal: the same boxes, split by class instead of filtered.
    assert mine == own["classes"][0], (mine, own["classes"][0])
    assert mine["objects"] > 0 and mine["ranked"] > 0
overall = together["overall"]
for key in ("objects", "detections", "true_positives", "false_positives", "ranked"):
    assert overall[key] == sum(c[key] for c in together["classes"]), key
assert overall["ap"] == sum(c["ap"] for c in together["classes"]) / 2
PY
  run eval --model pawns.model --labels "$chess"
  expect_eq "eval text: exit" 0 "$?"
  expect_match "eval text: a row per class" "white-pawn +[0-9]+ +[0-9]+" "$(cat out.txt)"
  expect_match "eval text: the overall line" "class all 2 \(APs averaged\)" "$(cat out.txt)"
  run eval --model pawns.model --labels "$chess" --class white-king
  expect_eq "eval of a class the model lacks: exit" 2 "$?"
  expect_match "eval of a class the model lacks: says why" \
    "the model has no class 'white-king' \(its classes: white-pawn, black-pawn\)" "$(cat err.txt)"
  ;;

every_output_names_the_class)
  # Each --format, read back by the labels reader, gives every box the
  # class the model gave it in the JSON lines; scores keep the library's
  # digits (the accurate profile does not round them to two decimals).
  run train --labels "$chess" --class white-pawn --class black-pawn --limit 1 --model pawns.model
  expect_eq "train: exit" 0 "$?"
  mkdir -p set/images && cp "$test_picture" set/images/
  run detect --model pawns.model --json set/images
  expect_eq "detect --json: exit" 0 "$?"
  cp out.txt lines.jsonl
  # Suppression works within each class: no two detections of one class
  # overlap by the default 30% (IoU) or more, while a white and a black
  # pawn detection may lie on the same piece.
  "$python" - lines.jsonl <<'PY' || fail "detect: suppression is not per class"
import itertools, json, sys
line = json.loads(open(sys.argv[1]).read())
found = [b for b in line["boxes"] if b["label"] == 1]
def iou(a, b):
    ix = max(0, min(a["x"] + a["w"], b["x"] + b["w"]) - max(a["x"], b["x"]))
    iy = max(0, min(a["y"] + a["h"], b["y"] + b["h"]) - max(a["y"], b["y"]))
    return ix * iy / (a["w"] * a["h"] + b["w"] * b["h"] - ix * iy)
pairs = list(itertools.combinations(found, 2))
assert all(iou(a, b) < 0.3 for a, b in pairs if a["class"] == b["class"])
assert any(iou(a, b) >= 0.3 for a, b in pairs if a["class"] != b["class"]), "no two classes on one piece"
PY
  for format in coco labelstudio cvat imglab voc yolo; do
    case $format in
      voc|yolo) out=found-$format ;;
      *) out=found.$format ;;
    esac
    run detect --model pawns.model --format "$format" --out "$out" set/images
    expect_eq "$format: exit ($(cat err.txt))" 0 "$?"
    if [ "$format" = voc ]; then
      ln -sfn "$PWD/set/images" "$out/images"
    elif [ "$format" = yolo ]; then
      mkdir -p rb-yolo && ln -sfn "$PWD/set/images" rb-yolo/images && ln -sfn "$PWD/$out" rb-yolo/labels
      mv "$out/classes.txt" rb-yolo/classes.txt
      out=rb-yolo
    elif [ "$format" = coco ]; then
      # A results file names no pictures: scored, it must give the JSON
      # lines' figures class by class.
      "$python" - "$out" lines.jsonl <<'PY' || fail "coco: not the detections of the JSON lines"
import json, sys
results = json.load(open(sys.argv[1]))
line = json.loads(open(sys.argv[2]).read())
names = ["white-pawn", "black-pawn"]
found = sorted((names[r["category_id"] - 1], tuple(round(v) for v in r["bbox"])) for r in results)
expected = sorted((b["class"], (b["x"], b["y"], b["w"], b["h"])) for b in line["boxes"] if b["label"] == 1)
assert found == expected, (found, expected)
# Two decimals in the JSON lines; the results keep what the library gave.
assert any(r["score"] != round(r["score"], 2) for r in results), "every score rounded to two decimals"
PY
      continue
    fi
    run labels "$out" --format "$format" --json
    expect_eq "$format read back: exit ($(cat err.txt))" 0 "$?"
    "$python" - lines.jsonl out.txt "$format" <<'PY' || fail "$format: boxes or classes read back differ"
import json, sys
line = json.loads(open(sys.argv[1]).read())
expected = sorted((b["class"], b["x"], b["y"], b["w"], b["h"]) for b in line["boxes"] if b["label"] == 1)
back = [r for r in map(json.loads, open(sys.argv[2]))]
assert len(back) == 1, back
found = sorted((b["class"], round(b["x"]), round(b["y"]), round(b["w"]), round(b["h"])) for b in back[0]["boxes"])
assert {c for c, *_ in expected} == {"white-pawn", "black-pawn"}, expected
assert found == expected, (sys.argv[3], found, expected)
PY
  done
  ;;

eval_detections_of_several_classes)
  # Detections made earlier by a model of two classes (`detect --json`, each
  # box naming its class) are measured class by class as the model itself
  # is: by default every class the file names, with --class a --class b each
  # on its own, with --class a,b merged; the counts at the threshold (and
  # the per-picture rows) equal those of `eval --model`. The APs rank what
  # the file holds: the boxes of its sensitivity, scores in two decimals;
  # from a COCO results file of sensitivity 100 (the library's scores
  # whole) every figure equals the model's. A --class the file does not
  # name is refused, naming the file's classes.
  # The model's classes in the labels' order, the order the file's classes
  # are measured in by default.
  run labels "$chess" --json
  order=$("$python" -c '
import json, sys
names = []
for line in open(sys.argv[1]):
    for b in json.loads(line)["boxes"]:
        if b["class"] in ("white-pawn", "black-pawn") and b["class"] not in names:
            names.append(b["class"])
print(" ".join(names))' out.txt)
  read -r first second <<< "$order"
  expect_eq "labels: both pawns" 2 "$(wc -w <<< "$order")"
  run train --labels "$chess" --class "$first" --class "$second" --limit 1 --model pawns.model
  expect_eq "train: exit" 0 "$?"
  run detect --model pawns.model --json "$chess/images"
  expect_eq "detect --json: exit" 0 "$?"
  cp out.txt found.jsonl
  model_only=()  # eval --model's own arguments
  compare() {  # what, the figures compared (counts or all), labels, detections file, eval arguments
    local what=$1 figures=$2 labels=$3 file=$4
    shift 4
    run eval --model pawns.model --labels "$labels" "$@" "${model_only[@]}" --json
    expect_eq "$what: eval --model: exit ($(cat err.txt))" 0 "$?"
    cp out.txt model.json
    run eval --detections "$file" --labels "$labels" "$@" --json
    expect_eq "$what: eval --detections: exit ($(cat err.txt))" 0 "$?"
    cp out.txt file.json
    "$python" - model.json file.json "$what" "$figures" <<'PY' || fail "$what: the file's figures are not the model's"
import json, sys
model, found = (json.load(open(p)) for p in sys.argv[1:3])
what, figures = sys.argv[3:5]
counts = ("name", "objects", "detections", "true_positives", "false_positives", "false_negatives", "precision",
          "recall", "f1")
def kept(f):
    return f if figures == "all" else {k: f[k] for k in counts}
for key in ("pictures", "left_out", "per_picture"):
    assert model[key] == found[key], (what, key, model[key], found[key])
assert [kept(c) for c in model["classes"]] == [kept(c) for c in found["classes"]], (what, model["classes"],
                                                                                    found["classes"])
assert kept(model["overall"]) == kept(found["overall"]), (what, model["overall"], found["overall"])
assert model["overall"]["detections"] > 0 and model["overall"]["true_positives"] > 0
PY
  }
  class_names() {  # the expected names of the classes measured, in order
    "$python" - model.json "$@" <<'PY' || fail "classes measured: not $*"
import json, sys
assert [c["name"] for c in json.load(open(sys.argv[1]))["classes"]] == sys.argv[2:]
PY
  }
  compare "every class" counts "$chess" found.jsonl
  class_names "$first" "$second"
  compare "--class a --class b" counts "$chess" found.jsonl --class "$second" --class "$first"
  class_names "$second" "$first"
  compare "one --class" counts "$chess" found.jsonl --class "$second"
  class_names "$second"
  compare "--class a,b" counts "$chess" found.jsonl --class "$first,$second"
  class_names "$first,$second"
  # Every figure, APs included: COCO results of sensitivity 100 against
  # the same labels as COCO (every box the model returns, scores whole).
  run labels "$chess" --to coco --out set.json
  expect_eq "labels --to coco: exit" 0 "$?"
  run detect --model pawns.model --format coco --image-ids set.json --sensitivity 100 --out results.json \
    "$chess/images"
  expect_eq "detect --format coco: exit ($(cat err.txt))" 0 "$?"
  model_only=(--sensitivity 100)
  compare "COCO results, every figure" all set.json results.json
  class_names "$first" "$second"
  # Text: the same rows and figures; only the setting named and the APs
  # (the boxes ranked) differ.
  run eval --model pawns.model --labels "$chess"
  grep -v -e '^average precision' -e '^COCO AP' out.txt | sed -e 's/sensitivity 80: /SETTING: /' \
    | awk '{ if ($1 ~ /-pawn$/) NF = 8; print }' > model.txt
  run eval --detections found.jsonl --labels "$chess"
  expect_eq "eval --detections text: exit" 0 "$?"
  grep -v -e '^average precision' -e '^COCO AP' out.txt | sed -e 's/detections found.jsonl: /SETTING: /' \
    | awk '{ if ($1 ~ /-pawn$/) NF = 8; print }' > file.txt
  cmp -s model.txt file.txt || fail "text: $(diff model.txt file.txt)"
  expect_match "eval --detections text: a row per class" "$first +[0-9]+ +[0-9]+" "$(cat file.txt)"
  expect_match "eval --detections text: the overall line" "class all 2 \(APs averaged\)" "$(cat file.txt)"
  # A class the labels hold but the file does not name.
  run eval --detections found.jsonl --labels "$chess" --class white-king
  expect_eq "eval --detections of a class the file lacks: exit" 2 "$?"
  expect_eq "eval --detections of a class the file lacks: says why" \
    "ostrel: 'found.jsonl' has no class 'white-king' (its classes: $first, $second)" "$(cat err.txt)"
  # A box without its class among boxes of several classes is refused.
  "$python" - found.jsonl > mixed.jsonl <<'PY'
import json, sys
lines = [json.loads(l) for l in open(sys.argv[1])]
for line in lines:
    if line["boxes"]:
        del line["boxes"][0]["class"]
        break
for line in lines:
    print(json.dumps(line))
PY
  run eval --detections mixed.jsonl --labels "$chess"
  expect_eq "a box without its class: exit" 3 "$?"
  expect_match "a box without its class: says where" "'mixed.jsonl' line [0-9]+, boxes\[0\]: a box without a class" \
    "$(cat err.txt)"
  ;;

*)
  echo "unknown case $case_name" >&2
  exit 2
  ;;
esac
finish
