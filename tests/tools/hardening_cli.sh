#!/usr/bin/env bash
# Command-line cases of hostile inputs and outputs of the ostrel tool: outputs
# that are not regular files, outputs that would replace an input, box files
# with too many boxes or odd numbers, pictures too large or cut short, model
# files that are devices, FIFOs, sparse or damaged in ways the library
# accepts, and the messages of malformed options. Run by CTest, one case per
# test:
#
#   hardening_cli.sh CASE OSTREL MODEL ACCURATE_MODEL DATA WORKDIR
#
# OSTREL the binary, MODEL a classic model trained on the shipped blood
# picture, ACCURATE_MODEL one trained with --profile accurate, DATA the data/
# folder, WORKDIR a folder of the case's own (emptied first). Nothing here
# needs root: devices are /dev/null, /dev/full and /dev/zero, FIFOs come from
# mkfifo, and a read-only folder is tried as an unprivileged user when the
# tests run as root.
set -uo pipefail

case_name=$1 ostrel=$2 model=$3 accurate_model=$4 data=$5 work=$6
bccd=$data/bccd
picture=$bccd/images/BloodImage_00000.jpg  # 640x480
other_picture=$bccd/images/BloodImage_00001.jpg
python=/usr/bin/python3

support=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/cli_case_support.sh
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 1

source "$support"
one_line() {  # what file
  expect_eq "$1: lines on standard error" 1 "$(wc -l < "$2" | tr -d ' ')"
}
# Runs ostrel with a guard against hangs (a FIFO output or input would block
# forever) and a memory ceiling (a model read whole would need gigabytes).
run() {
  (ulimit -v 4000000; timeout 120 "$ostrel" "$@") > out.txt 2> err.txt
}
mode_of() { stat -c %a "$1"; }
train_args=("$picture" --box 63,237,106,99)

# as_nobody: as root, cases that must not run with root's rights run the tool
# as nobody. nobody may not be able to reach the build, the data or the case's
# folder (a checkout under /root or a private temporary folder is mode 700),
# so the tool, its library and the picture are copied into a folder of the
# case's own that everyone may read, and the case works in there. Sets
# as_user (the command prefix), user_ostrel, user_train_args and enters the
# folder; as any other user it changes nothing.
as_user=() user_ostrel=$ostrel user_train_args=("${train_args[@]}")
as_nobody() {
  [ "$(id -u)" -eq 0 ] || return 0
  as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
  local library
  stage=$(mktemp -d /tmp/ostrel-as-nobody-XXXXXX)  # global: the trap removes it at the end
  chmod 755 "$stage"
  trap 'rm -rf "$stage"' EXIT
  library=$(ldd "$ostrel" | sed -n 's/^\s*libostrel_alg[^ ]* => \([^ ]*\) .*/\1/p')
  cp "$ostrel" "$stage/ostrel"
  [ -z "$library" ] || cp "$library" "$stage/"
  cp "$picture" "$stage/picture.jpg"
  chmod -R a+rX "$stage"
  user_ostrel=$stage/ostrel
  as_user=(env LD_LIBRARY_PATH="$stage" "${as_user[@]}")
  user_train_args=("$stage/picture.jpg" "${train_args[@]:1}")
  mkdir "$stage/work" && chmod 777 "$stage/work" && cd "$stage/work" || exit 1
}

# Model files written by hand: the classic model's records with one thing
# changed, its CRC-32 made right again so that the library accepts the file.
edit_model() {  # source target python-expression-on-bytearray-b
  "$python" - "$1" "$2" "$3" <<'EOF'
import struct, sys, zlib
src, dst, edit = sys.argv[1], sys.argv[2], sys.argv[3]
data = open(src, 'rb').read()
L = struct.unpack_from('<Q', data, len(data) - 12)[0]
b = bytearray(data[:L])
exec(edit)
out = bytes(b) + struct.pack('<QI', len(b), zlib.crc32(bytes(b)) & 0xffffffff)
open(dst, 'wb').write(out)
EOF
}

case $case_name in

model_to_device)
  # A device given as the model is refused before training; it stays a device.
  # Run as an unprivileged user when the tests run as root: a tool that
  # failed to refuse would otherwise replace the machine's /dev/null.
  as_nobody
  for device in /dev/null /dev/full; do
    [ -c "$device" ] || { fail "$device is not a character device before the run"; continue; }
    (ulimit -v 4000000; timeout 120 "${as_user[@]}" "$user_ostrel" train "${user_train_args[@]}" --model "$device") \
      > out.txt 2> err.txt
    expect_eq "$device: exit code" 4 $?
    expect_match "$device: stderr" "not a regular file" "$(cat err.txt)"
    one_line "$device" err.txt
    expect_eq "$device: nothing trained (stdout)" "" "$(cat out.txt)"
    [ -c "$device" ] || fail "$device is no longer a character device"
  done
  ;;

outputs_to_fifo)
  # A FIFO given as any output is refused before any work; it stays a FIFO.
  mkfifo pipe.model pipe.png pipe.raw
  run train "${train_args[@]}" --model pipe.model
  expect_eq "train: exit code" 4 $?
  expect_match "train: stderr" "not a regular file" "$(cat err.txt)"
  expect_eq "train: nothing trained (stdout)" "" "$(cat out.txt)"
  run channels "$picture" --png pipe.png
  expect_eq "channels --png: exit code" 4 $?
  run channels "$picture" --raw pipe.raw
  expect_eq "channels --raw: exit code" 4 $?
  mkdir drawn
  mkfifo drawn/BloodImage_00001.png
  run detect --model "$model" --draw drawn "$other_picture"
  expect_eq "detect --draw: exit code" 4 $?
  expect_match "detect --draw: stderr" "not a regular file" "$(cat err.txt)"
  for f in pipe.model pipe.png pipe.raw drawn/BloodImage_00001.png; do
    [ -p "$f" ] || fail "$f is no longer a FIFO"
  done
  mkdir demo
  mkfifo demo/rbc.model
  run demo --out demo
  expect_eq "demo --out with a FIFO model: exit code" 4 $?
  expect_eq "demo: nothing trained (stdout)" "" "$(cat out.txt)"
  [ -p demo/rbc.model ] || fail "demo/rbc.model is no longer a FIFO"
  ;;

model_to_folder_or_nothing)
  mkdir folder.model
  run train "${train_args[@]}" --model folder.model
  expect_eq "folder: exit code" 4 $?
  expect_match "folder: stderr" "Is a directory" "$(cat err.txt)"
  one_line "folder" err.txt
  expect_eq "folder: nothing trained (stdout)" "" "$(cat out.txt)"
  [ -d folder.model ] || fail "the folder is gone"
  run train "${train_args[@]}" --model ""
  expect_eq "empty name: exit code" 4 $?
  expect_match "empty name: stderr" "no file name" "$(cat err.txt)"
  expect_eq "empty name: nothing trained (stdout)" "" "$(cat out.txt)"
  ;;

outputs_through_symlinks)
  # A link is written through: its target replaced, the link kept; an
  # existing file keeps its mode.
  run train "${train_args[@]}" --model target.model
  expect_eq "first training" 0 $?
  chmod 600 target.model
  ln -s target.model link.model
  before=$(md5sum < target.model)
  run train "${train_args[@]}" --seed 7 --model link.model
  expect_eq "through the link: exit code" 0 $?
  [ -L link.model ] || fail "link.model is no longer a symbolic link"
  [ -f target.model ] && [ ! -L target.model ] || fail "target.model is not a regular file"
  [ "$before" != "$(md5sum < target.model)" ] || fail "target.model was not replaced"
  expect_eq "mode of the replaced model" 600 "$(mode_of target.model)"
  ln -s sub/new.model dangling.model
  mkdir sub
  run train "${train_args[@]}" --model dangling.model
  expect_eq "dangling link: exit code" 0 $?
  [ -L dangling.model ] || fail "dangling.model is no longer a symbolic link"
  [ -f sub/new.model ] || fail "the link's target was not written"
  run channels "$picture" --png mosaic.png
  chmod 640 mosaic.png
  run channels "$picture" --png mosaic.png --scale 1
  expect_eq "channels again: exit code" 0 $?
  expect_eq "mode of the replaced mosaic" 640 "$(mode_of mosaic.png)"
  ;;

model_in_readonly_folder)
  # root writes anywhere: try as nobody.
  as_nobody
  mkdir ro
  chmod 555 ro
  (ulimit -v 4000000; timeout 120 "${as_user[@]}" "$user_ostrel" train "${user_train_args[@]}" --model ro/m.model) \
    > out.txt 2> err.txt
  expect_eq "exit code" 4 $?
  expect_match "stderr" "cannot write" "$(cat err.txt)"
  one_line "read-only folder" err.txt
  expect_eq "nothing trained (stdout)" "" "$(cat out.txt)"
  ;;

long_output_names)
  # Names close to the 255-byte limit: the temporary name is shortened.
  name251=$(printf 'm%.0s' $(seq 1 245)).model
  run train "${train_args[@]}" --model "$name251"
  expect_eq "251-character model name: exit code" 0 $?
  [ -f "$name251" ] || fail "the model with a 251-character name is missing"
  name254=$(printf 'c%.0s' $(seq 1 250)).png
  run channels "$picture" --png "$name254"
  expect_eq "254-character --png name: exit code" 0 $?
  [ -f "$name254" ] || fail "the mosaic with a 254-character name is missing"
  stem250=$(printf 'd%.0s' $(seq 1 250))
  mkdir in drawn
  cp "$other_picture" "in/$stem250.jpg"
  run detect --model "$model" --draw drawn "in/$stem250.jpg"
  expect_eq "254-character --draw name: exit code" 0 $?
  [ -f "drawn/$stem250.png" ] || fail "the drawn picture with a 254-character name is missing"
  leftovers=$(find . -name '.*.tmp-*' | wc -l)
  expect_eq "temporary files left" 0 "$leftovers"
  ;;

draw_never_replaces_an_input)
  # The drawn copy of ow/x.png would be ow/x.png itself: it goes elsewhere.
  mkdir first ow
  run detect --model "$model" --draw first "$other_picture"
  cp first/BloodImage_00001.png ow/
  cp first/BloodImage_00001.png original.png
  run detect --model "$model" --draw ow ow/BloodImage_00001.png
  expect_eq "exit code" 0 $?
  cmp -s original.png ow/BloodImage_00001.png || fail "the input picture was replaced"
  expect_match "stderr" "warning: .*BloodImage_00001.png.* is an input" "$(cat err.txt)"
  drawn=$(find ow -name 'BloodImage_00001*.png' ! -name 'BloodImage_00001.png' | wc -l)
  expect_eq "drawn copies under another name" 1 "$drawn"
  # The same through another spelling of the folder and through a link.
  ln -s ow ow_link
  cp original.png ow/second.png
  run detect --model "$model" --draw ./ow_link/. ow/second.png
  expect_eq "through a link: exit code" 0 $?
  cmp -s original.png ow/second.png || fail "the input picture was replaced through a link"
  ;;

too_many_boxes)
  # 200 000 boxes in a 3.4 MB file: refused at once, with the limit named.
  "$python" -c "
import json
json.dump([[i % 600, 10, 12, 12] for i in range(200000)], open('many.json', 'w'))
json.dump([[i % 600, 10, 12, 12] for i in range(1001)], open('1001.json', 'w'))"
  run train "$picture" --boxes many.json --model m.model
  expect_eq "200000 boxes: exit code" 3 $?
  expect_match "200000 boxes: stderr" "at most" "$(cat err.txt)"
  one_line "200000 boxes" err.txt
  run train "$picture" --boxes 1001.json --model m.model
  expect_eq "1001 boxes: exit code" 3 $?
  expect_match "1001 boxes: stderr" "1001 boxes.*at most 1000" "$(cat err.txt)"
  [ ! -e m.model ] || fail "a model was written"
  ;;

odd_box_files)
  echo '[[1e400, 10, 100, 90]]' > huge.json
  run train "${picture}" --boxes huge.json --model m.model
  expect_eq "1e400: exit code" 3 $?
  expect_no_match "1e400: stderr" "json\\.exception" "$(cat err.txt)"
  expect_match "1e400: stderr" "out of range" "$(cat err.txt)"
  one_line "1e400" err.txt
  mkdir boxes.json
  run train "${picture}" --boxes boxes.json --model m.model
  expect_eq "folder: exit code" 3 $?
  expect_match "folder: stderr" "is a folder" "$(cat err.txt)"
  mkfifo fifo.json
  run train "${picture}" --boxes fifo.json --model m.model
  expect_eq "FIFO: exit code" 3 $?
  expect_match "FIFO: stderr" "not a regular file" "$(cat err.txt)"
  ;;

pictures_too_large)
  # Headers that claim 30000 x 20000 pixels over a few bytes: refused from
  # the header, before decoding, by every command that reads pictures.
  "$python" - <<'EOF'
import struct, zlib
def chunk(kind, body):
    return struct.pack('>I', len(body)) + kind + body + struct.pack('>I', zlib.crc32(kind + body) & 0xffffffff)
png = b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', 30000, 20000, 8, 2, 0, 0, 0))
png += chunk(b'IDAT', zlib.compress(b'\0' * 1000)) + chunk(b'IEND', b'')
open('huge.png', 'wb').write(png)
sof = b'\xff\xc0' + struct.pack('>HBHHB', 17, 8, 20000, 30000, 3) + bytes([1, 0x11, 0, 2, 0x11, 0, 3, 0x11, 0])
open('huge.jpg', 'wb').write(b'\xff\xd8' + sof + b'\xff\xda' + b'\0' * 100 + b'\xff\xd9')
EOF
  for big in huge.png huge.jpg; do
    run channels "$big"
    expect_eq "channels $big: exit code" 3 $?
    expect_match "channels $big: stderr" "30000x20000 pixels, above the limit" "$(cat err.txt)"
    one_line "channels $big" err.txt
    run train "$big" --box 10,10,100,100 --model m.model
    expect_eq "train $big: exit code" 3 $?
    run detect --model "$model" "$big" "$other_picture"
    expect_eq "detect $big: exit code" 3 $?
    expect_match "detect $big: stderr" "30000x20000" "$(cat err.txt)"
    expect_match "detect $big: the other picture is done" "BloodImage_00001.jpg" "$(cat out.txt)"
  done
  # A lower limit refuses an ordinary picture; a larger one is refused as a usage error.
  run channels "$picture" --max-pixels 1000
  expect_eq "--max-pixels 1000: exit code" 3 $?
  expect_match "--max-pixels 1000: stderr" "640x480" "$(cat err.txt)"
  run channels "$picture" --max-pixels 307200
  expect_eq "--max-pixels 307200: exit code" 0 $?
  ;;

truncated_jpeg)
  size=$(stat -c %s "$other_picture")
  head -c $((size / 2)) "$other_picture" > cut.jpg
  run detect --model "$model" cut.jpg "$other_picture"
  expect_eq "detect: exit code" 3 $?
  expect_match "detect: stderr" "cut\\.jpg.*cut short" "$(cat err.txt)"
  one_line "detect" err.txt
  run train cut.jpg --box 63,237,106,99 --model m.model
  expect_eq "train: exit code" 3 $?
  expect_match "train: stderr" "cut short" "$(cat err.txt)"
  ;;

model_not_a_file)
  # Devices and FIFOs as model inputs are refused at once, never read.
  mkfifo pipe.model
  for m in /dev/zero pipe.model; do
    run info "$m"
    expect_eq "info $m: exit code" 3 $?
    expect_match "info $m: stderr" "not a regular file" "$(cat err.txt)"
    run check "$m"
    expect_eq "check $m: exit code" 3 $?
    run detect --model "$m" "$other_picture"
    expect_eq "detect $m: exit code" 3 $?
    run eval --model "$m" --voc "$bccd" --class RBC
    expect_eq "eval $m: exit code" 3 $?
  done
  ;;

sparse_model)
  # 3 GiB of zeros: not a model from byte 37 on; refused without reading it
  # whole (the memory ceiling of run() is 4 GB of address space).
  truncate -s 3G sparse.model
  run info sparse.model
  status=$?
  [ "$status" -ne 0 ] || fail "info: exit code 0"
  expect_match "info: stdout" "problem: .*bytes follow the trailer" "$(cat out.txt)"
  run check sparse.model
  expect_eq "check: exit code" 1 $?
  expect_match "check: stderr" "not valid" "$(cat err.txt)"
  run detect --model sparse.model "$other_picture"
  expect_eq "detect: exit code" 3 $?
  ;;

models_the_library_accepts_but_cannot_use)
  # Each edit keeps the library's own validation passing (CRC made right).
  edit_model "$model" wide.model "struct.pack_into('<i', b, 4, 2147483647)"
  n=$("$python" -c "import struct,sys; print(struct.unpack_from('<i', open(sys.argv[1],'rb').read(), 24)[0])" "$model")
  edit_model "$model" few_weights.model "
n = struct.unpack_from('<i', b, 24)[0]
rest = b[32 + 4 * n:32 + 4 * n + 4]
b[:] = b[:24] + struct.pack('<i', 201) + b[28:32] + b[32:32 + 4 * 201] + rest + b'\\0'"
  edit_model "$model" filter.model "
n = struct.unpack_from('<i', b, 24)[0]
b[:] = b[:32 + 4 * n + 4] + b'\\1'
for rows, cols in ((1, n - 1), (2, n), (1, 2), (2, 2)):
    b += struct.pack('<ii', rows, cols) + b'\\0' * (4 * rows * cols)"
  for bad in wide few_weights filter; do
    run check $bad.model
    expect_eq "check $bad: exit code" 1 $?
    expect_match "check $bad: stderr" "not valid" "$(cat err.txt)"
    one_line "check $bad" err.txt
    run detect --model $bad.model "$other_picture"
    expect_eq "detect $bad: exit code" 3 $?
    one_line "detect $bad" err.txt
  done
  expect_match "check wide: reason" "trained" "$("$ostrel" check wide.model 2>&1)"
  expect_match "check few_weights: reason" "201 weights" "$("$ostrel" check few_weights.model 2>&1)"
  expect_match "check filter: reason" "filter" "$("$ostrel" check filter.model 2>&1)"
  # The trailer's length field wrong, and a byte after the trailer.
  "$python" - "$model" <<'EOF'
import struct, sys
data = bytearray(open(sys.argv[1], 'rb').read())
wrong = bytearray(data)
struct.pack_into('<Q', wrong, len(wrong) - 12, struct.unpack_from('<Q', data, len(data) - 12)[0] + 5)
open('length.model', 'wb').write(wrong)
open('extra.model', 'wb').write(data + b'x')
EOF
  for bad in length extra; do
    run check $bad.model
    expect_eq "check $bad: exit code" 1 $?
    expect_match "check $bad: stderr" "not valid" "$(cat err.txt)"
    run info $bad.model
    expect_eq "info $bad: exit code" 1 $?
    expect_match "info $bad: stdout" "problem: " "$(cat out.txt)"
  done
  ;;

accurate_model_checked_and_loaded)
  # The model file says its profile: check and eval need no --profile.
  run check "$accurate_model"
  expect_eq "check without --profile: exit code" 0 $?
  expect_match "check without --profile: stdout" "valid, a model of the accurate profile" "$(cat out.txt)"
  run check --profile accurate "$accurate_model"
  expect_eq "check --profile accurate: exit code" 0 $?
  expect_match "check --profile accurate: stdout" "valid" "$(cat out.txt)"
  run check --profile accurate "$model"
  expect_eq "check --profile accurate on a classic model: exit code" 1 $?
  run eval --model "$accurate_model" --voc "$bccd" --class RBC
  expect_eq "eval without --profile: exit code" 0 $?
  expect_match "eval without --profile: stdout" "average precision [01]\.[0-9]+" "$(cat out.txt)"
  # A --profile that contradicts the file is refused with one line.
  run eval --profile classic --model "$accurate_model" --voc "$bccd" --class RBC
  expect_eq "eval under classic: exit code" 1 $?
  expect_match "eval under classic: stderr" "--profile accurate" "$(cat err.txt)"
  one_line "eval under classic" err.txt
  ;;

option_messages)
  run train "${train_args[@]}" --width 0 --height 10 --model m.model
  expect_eq "--width 0: exit code" 2 $?
  expect_no_match "--width 0: stderr" "[0-9]{20}" "$(cat err.txt)"
  run train "$picture" --box 2147483647,2147483647,97,100 --model m.model
  expect_eq "--box beyond int: exit code" 2 $?
  expect_match "--box beyond int: stderr" "out of range" "$(cat err.txt)"
  for cmd in "train ${train_args[*]} --model m.model" "detect --model $model $other_picture" \
             "eval --model $model --voc $bccd --class RBC"; do
    # shellcheck disable=SC2086
    run $cmd --sensitivity abc
    expect_eq "$cmd --sensitivity abc: exit code" 2 $?
    expect_match "$cmd --sensitivity abc: stderr" "not a number" "$(cat err.txt)"
  done
  run eval --model "$model" --voc "$bccd" --class RBC --iou nan
  expect_eq "--iou nan: exit code" 2 $?
  one_line "--iou nan" err.txt
  ;;

box_past_the_edge)
  # The only box reaches past the right edge of the 640x480 picture: the
  # classic detector could not learn from it, and the message says it was
  # left out. (The accurate profile learns such a box from the part inside.)
  run train "$picture" --box 580,200,100,90 --profile classic --model m.model
  expect_eq "exit code" 3 $?
  expect_match "stderr" "reaches past the edge.*left out" "$(cat err.txt)"
  one_line "only box past the edge" err.txt
  [ ! -e m.model ] || fail "a model was written"
  # With another box inside, training goes on and a warning names the one left out.
  run train "$picture" --box 63,237,106,99 --box 580,200,106,99 --profile classic --model m.model
  expect_eq "one of two boxes past the edge: exit code" 0 $?
  expect_match "stderr" "warning: box 2 .*left out" "$(cat err.txt)"
  ;;

json_with_invalid_utf8_name)
  bad=$(printf 'bad\377name.jpg')
  cp "$other_picture" "$bad"
  run detect --model "$model" --json "$bad" "$other_picture"
  expect_eq "exit code" 0 $?
  expect_eq "JSON lines" 2 "$(wc -l < out.txt | tr -d ' ')"
  "$python" -c "
import json, sys
for line in open('out.txt', encoding='utf-8'):
    json.loads(line)" || fail "standard output is not JSON lines in UTF-8"
  ;;

draw_never_replaces_other_files)
  # dr/a.png is not an input and was not written by the run: the drawing of
  # dr/a.jpg takes the next free name, and a warning says so. A link in the
  # folder to a file elsewhere is not written through either.
  mkdir dr
  cp "$other_picture" dr/a.jpg
  cp "$picture" dr/a.png
  cp "$picture" kept.png
  ln -s ../kept.png dr/b.png
  cp "$other_picture" b.jpg
  run detect --model "$model" --draw dr dr/a.jpg b.jpg
  expect_eq "exit code" 0 $?
  cmp -s "$picture" dr/a.png || fail "dr/a.png, which the run did not write, was replaced"
  cmp -s "$picture" kept.png || fail "kept.png was replaced through the link dr/b.png"
  [ -L dr/b.png ] || fail "dr/b.png is no longer a symbolic link"
  [ -f dr/a-2.png ] || fail "the drawing of dr/a.jpg is not dr/a-2.png"
  [ -f dr/b-2.png ] || fail "the drawing of b.jpg is not dr/b-2.png"
  expect_match "stderr names the file kept" "warning: 'dr/a.png' exists already.*written to 'dr/a-2.png'" "$(cat err.txt)"
  expect_match "stderr names the link kept" "warning: 'dr/b.png' exists already.*written to 'dr/b-2.png'" "$(cat err.txt)"
  # A second run into the same folder keeps the first run's drawings too.
  cp dr/a-2.png first-drawing.png
  run detect --model "$model" --draw dr dr/a.jpg
  expect_eq "second run: exit code" 0 $?
  cmp -s first-drawing.png dr/a-2.png || fail "the first run's drawing was replaced"
  [ -f dr/a-3.png ] || fail "the second run's drawing is not dr/a-3.png"
  # Within one run, an input named like a numbered drawing gets a name of its own.
  mkdir one two three numbered
  cp "$other_picture" one/x.jpg
  cp "$other_picture" two/x.jpg
  cp "$picture" three/x-2.jpg
  run detect --model "$model" --draw numbered one/x.jpg two/x.jpg three/x-2.jpg
  expect_eq "numbered names: exit code" 0 $?
  expect_eq "numbered names: drawings" 3 "$(ls numbered | wc -l | tr -d ' ')"
  ;;

text_output_escapes_names)
  # A name with a line end and a fake detection line in it stays on its own
  # lines, escaped; so do bytes that are not UTF-8.
  forged=$'evil\n1,2,3,4  score 1.00  label 1  colours light, none\nx.jpg'
  cp "$other_picture" "$forged"
  cp "$other_picture" "$(printf 'bad\377.jpg')"
  run detect --model "$model" "$forged"
  expect_eq "forged name: exit code" 0 $?
  expect_eq "forged name: no line starts with a box" 0 "$(grep -c '^1,2,3,4' out.txt)"
  lines=$(wc -l < out.txt | tr -d ' ')
  escaped=$(grep -c -F 'evil\n1,2,3,4  score 1.00  label 1  colours light, none\nx.jpg  ' out.txt)
  expect_eq "forged name: every line starts with the escaped name" "$lines" "$escaped"
  run detect --model "$model" "$(printf 'bad\377.jpg')"
  expect_eq "invalid UTF-8: exit code" 0 $?
  expect_match "invalid UTF-8: escaped" '^bad\\xff\.jpg  ' "$(head -1 out.txt)"
  "$python" -c "open('out.txt', encoding='utf-8').read()" || fail "the text output is not UTF-8"
  ;;

list_line_with_nul)
  # 'ok.jpg\0junk' names no file: the line is refused with its number, not
  # read as ok.jpg; the other lines are done.
  cp "$other_picture" ok.jpg
  cp "$other_picture" second.jpg
  printf 'second.jpg\nok.jpg\000junk\n' > list.txt
  run detect --model "$model" --list list.txt
  expect_eq "exit code" 3 $?
  expect_match "stderr" "line 2 of list 'list.txt'.*NUL" "$(cat err.txt)"
  one_line "NUL line" err.txt
  expect_eq "ok.jpg not searched" 0 "$(grep -c '^ok\.jpg' out.txt)"
  expect_match "the other line is done" "^second\.jpg  " "$(head -1 out.txt)"
  printf 'second.jpg\nok.jpg\000junk\n' | (ulimit -v 4000000; timeout 120 "$ostrel" detect --model "$model" --list -) \
    > out.txt 2> err.txt
  expect_eq "standard input: exit code" 3 $?
  expect_match "standard input: stderr" "line 2 of list '-'" "$(cat err.txt)"
  ;;

exif_orientation)
  # A phone photo: the pixels stored on their side (90 degrees to the left)
  # with EXIF orientation 6. Every command sees it upright, as a viewer
  # shows it: the same results as the upright picture itself.
  "$python" - "$picture" <<'PYTHON'
import struct, sys
import cv2
upright = cv2.imread(sys.argv[1])
ok, jpg = cv2.imencode('.jpg', cv2.rotate(upright, cv2.ROTATE_90_COUNTERCLOCKWISE), [cv2.IMWRITE_JPEG_QUALITY, 95])
tiff = b'MM' + struct.pack('>HIH', 42, 8, 1) + struct.pack('>HHIHH', 0x112, 3, 1, 6, 0) + struct.pack('>I', 0)
body = b'Exif\0\0' + tiff
jpg = jpg.tobytes()
open('phone.jpg', 'wb').write(jpg[:2] + b'\xff\xe1' + struct.pack('>H', len(body) + 2) + body + jpg[2:])
shown = cv2.imread('phone.jpg')
assert shown.shape == upright.shape, shown.shape
cv2.imwrite('upright.png', shown)  # the same pixels, upright, without EXIF
PYTHON
  mkdir voc voc_upright
  cp phone.jpg voc/phone.jpg
  cp upright.png voc_upright/phone.png
  sed -e 's/BloodImage_00000.jpg/phone.jpg/' "$bccd/annotations/BloodImage_00000.xml" > voc/phone.xml
  sed -e 's/BloodImage_00000.jpg/phone.png/' "$bccd/annotations/BloodImage_00000.xml" > voc_upright/phone.xml
  for p in phone.jpg upright.png; do
    run train "$p" --box 63,237,106,99 --seed 3 --model "$p.model"
    expect_eq "train $p: exit code" 0 $?
    run detect --model "$model" --json "$p"
    expect_eq "detect $p: exit code" 0 $?
    "$python" -c "import json; d=json.loads(open('out.txt').read()); print(d['width'], d['height'], json.dumps(d['boxes']))" \
      > "$p.boxes"
    run channels "$p" --raw "$p.raw"
    expect_eq "channels $p: exit code" 0 $?
  done
  cmp -s phone.jpg.model upright.png.model || fail "train: the models of the upright and the EXIF picture differ"
  expect_match "detect: the EXIF picture is 640 x 480" "^640 480 " "$(cat phone.jpg.boxes)"
  expect_eq "detect: the same boxes" "$(cat upright.png.boxes)" "$(cat phone.jpg.boxes)"
  cmp -s phone.jpg.raw upright.png.raw || fail "channels: the feature maps differ"
  run eval --model "$model" --voc voc --class RBC
  expect_eq "eval EXIF: exit code" 0 $?
  grep -v '^phone' out.txt > eval_exif.txt
  run eval --model "$model" --voc voc_upright --class RBC
  expect_eq "eval upright: exit code" 0 $?
  grep -v '^phone' out.txt > eval_upright.txt
  expect_eq "eval: the same scores" "$(cat eval_upright.txt)" "$(cat eval_exif.txt)"
  ;;

*)
  echo "unknown case '$case_name'" >&2
  exit 2
  ;;
esac
finish
