#!/usr/bin/env bash
# Command-line cases of `ostrel detect` over folders, lists and videos, on
# several threads, with interrupts and bad inputs, and of `ostrel train` on
# several pictures. Run by CTest, one case per test:
#
#   batch_cli.sh CASE OSTREL MODEL DATA WORKDIR MAKE_VIDEO
#
# OSTREL the binary, MODEL a model trained on the shipped blood picture,
# DATA the data/ folder, WORKDIR a folder of the case's own (emptied first),
# MAKE_VIDEO the test helper that writes a video from pictures.
set -uo pipefail

case_name=$1 ostrel=$2 model=$3 data=$4 work=$5 make_video=$6
bccd=$data/bccd
pictures=("$bccd"/images/*.jpg)  # the 8 shipped pictures, sorted by name

support=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/cli_case_support.sh
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 1

source "$support"
lines_of() { [ -s "$1" ] && wc -l < "$1" | tr -d ' ' || echo 0; }
# A PNG file is complete when it ends with its IEND chunk.
png_complete() { [ "$(tail -c 8 "$1" | od -An -tx1 | tr -d ' \n')" == "49454e44ae426082" ]; }

case $case_name in

folder_with_unreadable_file)
  # A folder of the shipped pictures, a file that only looks like a picture
  # and a text file: the pictures are done, the fake one is reported and
  # skipped, the text file passed over, and the exit code says an input failed.
  mkdir in
  cp "${pictures[@]}" in/
  echo "not a picture" > in/BloodImage_00003b.jpg
  echo "notes" > in/notes.txt
  "$ostrel" detect --model "$model" --json -j 2 in > out.txt 2> err.txt
  expect_eq "exit code" 3 $?
  expect_eq "JSON lines" 8 "$(lines_of out.txt)"
  expect_match "stderr" "cannot read picture 'in/BloodImage_00003b.jpg': not a picture" "$(cat err.txt)"
  expect_match "stderr" "passed over 1 file in 'in'" "$(cat err.txt)"
  # Sorted by name: the eighth picture comes last.
  expect_match "last line" '^\{"file":"in/BloodImage_00008.jpg"' "$(tail -n 1 out.txt)"
  ;;

list_from_stdin)
  # Blank lines, a CRLF line end, a missing path and a folder in the list.
  mkdir one && cp "${pictures[1]}" one/
  printf '%s\n\n   \n%s\r\nmissing.jpg\none\n' "${pictures[0]}" "${pictures[2]}" |
    "$ostrel" detect --model "$model" --json --list - > out.txt 2> err.txt
  expect_eq "exit code" 3 $?
  expect_eq "JSON lines" 3 "$(lines_of out.txt)"
  expect_match "first" "BloodImage_00000.jpg" "$(sed -n 1p out.txt)"
  expect_match "second" "BloodImage_00002.jpg" "$(sed -n 2p out.txt)"
  expect_match "third" "one/BloodImage_00001.jpg" "$(sed -n 3p out.txt)"
  expect_match "stderr" "cannot open picture 'missing.jpg': no such file" "$(cat err.txt)"
  expect_eq "stderr lines" 1 "$(lines_of err.txt)"
  ;;

video)
  # 16 frames at 8 fps from the shipped pictures; every frame, JSON with
  # frame and time_ms, and an annotated video that can be read back.
  "$make_video" clip.mp4 8 avc1 2 "${pictures[@]}" || fail "cannot make the test video"
  "$ostrel" detect --model "$model" --json --draw drawn clip.mp4 > out.txt 2> err.txt
  expect_eq "exit code" 0 $?
  expect_eq "frames" 16 "$(lines_of out.txt)"
  expect_match "frame 3" '^\{"file":"clip.mp4","frame":3,"time_ms":375,"width":640,"height":480,"boxes":\[' \
    "$(sed -n 4p out.txt)"
  expect_match "frame 15" '"frame":15,"time_ms":1875,' "$(sed -n 16p out.txt)"
  [ -s drawn/clip.mp4 ] || fail "no annotated video drawn/clip.mp4"
  [ -z "$(ls -A drawn | grep -v '^clip.mp4$')" ] || fail "other files in drawn/: $(ls -A drawn)"
  # The annotated video is a video the tool itself reads: 16 frames again.
  "$ostrel" detect --model "$model" --json drawn/clip.mp4 > again.txt 2>> err.txt
  expect_eq "exit code reading the annotated video" 0 $?
  expect_eq "frames of the annotated video" 16 "$(lines_of again.txt)"
  # Every 4th frame from 1 s (frame 8) to frame 14 (exclusive): 8 and 12.
  "$ostrel" detect --model "$model" --json --every 4 --start 1s --end 14 clip.mp4 > some.txt 2>> err.txt
  expect_eq "exit code with --every" 0 $?
  expect_eq "chosen frames" '8 12' "$(grep -o '"frame":[0-9]*' some.txt | cut -d: -f2 | tr '\n' ' ' | sed 's/ $//')"
  # Text lines carry the frame and its time too.
  "$ostrel" detect --model "$model" --start 0:01.5 clip.mp4 > text.txt 2>> err.txt
  expect_match "text line" '^clip.mp4  frame 12  time_ms 1500  ' "$(head -n 1 text.txt)"
  # Ranges that make no sense are command-line errors.
  "$ostrel" detect --model "$model" --start 10 --end 5 clip.mp4 > /dev/null 2> usage.txt
  expect_eq "exit code, end before start" 2 $?
  expect_match "end before start" "--end 5 does not come after --start 10" "$(cat usage.txt)"
  "$ostrel" detect --model "$model" --start 1.5 clip.mp4 > /dev/null 2> usage.txt
  expect_eq "exit code, malformed start" 2 $?
  expect_match "malformed start" "--start '1.5': expected a frame number \\(120\\), seconds \\(4.5s\\)" "$(cat usage.txt)"
  ;;

jobs_identical)
  # Pictures, a video and drawings: two threads give the same bytes as one.
  mkdir in && cp "${pictures[@]}" in/
  "$make_video" in/clip.mp4 8 avc1 2 "${pictures[@]}" || fail "cannot make the test video"
  for j in 1 2; do
    "$ostrel" detect --model "$model" --json --jobs $j --draw drawn$j in "${pictures[@]}" > out$j.txt 2> err$j.txt
    expect_eq "exit code with --jobs $j" 0 $?
    "$ostrel" detect --model "$model" --jobs $j in > text$j.txt 2>> err$j.txt
  done
  cmp -s out1.txt out2.txt || fail "JSON output differs between --jobs 1 and --jobs 2"
  cmp -s text1.txt text2.txt || fail "text output differs between --jobs 1 and --jobs 2"
  expect_eq "results" 32 "$(lines_of out1.txt)"  # 8 + 16 frames + 8 given again
  expect_eq "drawn files" 17 "$(ls drawn1 | wc -l | tr -d ' ')"
  for f in drawn1/*; do
    cmp -s "$f" "drawn2/$(basename "$f")" || fail "$(basename "$f") differs between --jobs 1 and --jobs 2"
  done
  ;;

interrupt)
  # SIGINT (then SIGTERM) during a long run: the exit code says so, every
  # result printed has its drawing, every drawing is complete, no temporary
  # file is left, and the run stopped early.
  for i in $(seq 150); do printf '%s\n' "${pictures[@]}"; done > list.txt
  total=$(lines_of list.txt)
  set -m  # background jobs get SIGINT as a terminal would give it
  for signal in INT TERM; do
    rm -rf drawn; rm -f out.txt err.txt
    "$ostrel" detect --model "$model" --json --jobs 2 --draw drawn --list list.txt > out.txt 2> err.txt &
    pid=$!
    for _ in $(seq 600); do
      [ "$(lines_of out.txt)" -ge 10 ] && break
      sleep 0.05
    done
    kill -s $signal $pid
    wait $pid
    code=$?
    expect_eq "exit code after SIG$signal" 130 $code
    done_count=$(lines_of out.txt)
    drawn_count=$(ls drawn | wc -l | tr -d ' ')
    [ "$done_count" -lt "$total" ] || fail "SIG$signal came after all $total pictures were done"
    expect_eq "drawings after SIG$signal (one per result)" "$done_count" "$drawn_count"
    [ -z "$(ls -A drawn | grep '^\.')" ] || fail "temporary files left after SIG$signal: $(ls -A drawn | grep '^\.')"
    for f in drawn/*.png; do png_complete "$f" || fail "$f is not a complete PNG"; done
    # Every JSON line is whole.
    while IFS= read -r line; do
      [[ "$line" =~ ^\{\"file\":.*\]\}$ ]] || fail "a partial JSON line: $line"
    done < out.txt
    expect_match "stderr after SIG$signal" "interrupted by SIG$signal: $done_count of $total pictures done" \
      "$(cat err.txt)"
  done
  set +m
  ;;

many_other_files)
  # 3000 files that are not pictures and two pictures: one warning, two results.
  mkdir in
  (cd in && for i in $(seq 3000); do : > "file$i.txt"; done)
  cp "${pictures[0]}" "${pictures[1]}" in/
  "$ostrel" detect --model "$model" in > out.txt 2> err.txt
  expect_eq "exit code" 0 $?
  expect_match "stderr" "^ostrel: warning: passed over 3000 files in 'in' that are neither a picture nor a video$" \
    "$(cat err.txt)"
  expect_eq "pictures done" 2 "$(cut -d' ' -f1 out.txt | sort -u | wc -l | tr -d ' ')"
  ;;

symlink_loops)
  # A folder that links back to itself and to its parent, and a file link
  # that points at itself: every picture once, the loops reported, no hang.
  mkdir -p in/a in/b
  cp "${pictures[0]}" in/a/ && cp "${pictures[1]}" in/b/
  ln -s .. in/a/up
  ln -s . in/b/self
  ln -s loop.jpg in/loop.jpg
  "$ostrel" detect --model "$model" --json --recursive in > out.txt 2> err.txt
  expect_eq "exit code" 3 $?
  expect_eq "pictures" 2 "$(lines_of out.txt)"
  expect_match "order" '"in/a/BloodImage_00000.jpg".*' "$(sed -n 1p out.txt)"
  expect_match "order" '"in/b/BloodImage_00001.jpg".*' "$(sed -n 2p out.txt)"
  expect_match "loop link" "cannot open picture 'in/loop.jpg': Too many levels of symbolic links" "$(cat err.txt)"
  expect_match "folder loop" "'in/a/up' leads to a folder searched already" "$(cat err.txt)"
  expect_match "folder loop" "'in/b/self' leads to a folder searched already" "$(cat err.txt)"
  ;;

damaged_video)
  # An MJPEG video whose second half is overwritten, then one cut short:
  # the frames before the damage are used, the rest reported.
  "$make_video" clip.avi 8 MJPG 3 "${pictures[@]}" || fail "cannot make the test video"
  size=$(stat -c %s clip.avi)
  cp clip.avi cut.avi
  head -c $((size / 3)) /dev/zero | tr '\0' '\377' | dd of=clip.avi bs=1 seek=$((size / 2)) conv=notrunc 2>/dev/null
  truncate -s $((size / 2)) cut.avi
  "$ostrel" detect --model "$model" --json clip.avi "${pictures[0]}" > out.txt 2> err.txt
  expect_eq "exit code" 3 $?
  frames=$(grep -c '"frame":' out.txt)
  [ "$frames" -ge 8 ] && [ "$frames" -lt 24 ] || fail "expected some but not all 24 frames, got $frames"
  expect_match "stderr" "video 'clip.avi': frames from $frames on cannot be decoded \\(the file declares 24\\)" \
    "$(cat err.txt)"
  expect_match "the picture after it" "BloodImage_00000.jpg" "$(tail -n 1 out.txt)"
  "$ostrel" detect --model "$model" --json cut.avi > out.txt 2> err.txt
  expect_eq "exit code (cut short)" 3 $?
  expect_match "stderr (cut short)" "video 'cut.avi': frames from [0-9]+ on cannot be decoded" "$(cat err.txt)"
  [ "$(lines_of out.txt)" -ge 4 ] || fail "too few frames from the cut video: $(lines_of out.txt)"
  echo "not a video" > fake.mp4
  "$ostrel" detect --model "$model" fake.mp4 "${pictures[0]}" > out.txt 2> err.txt
  expect_eq "exit code (not a video)" 3 $?
  expect_match "stderr (not a video)" "cannot read video 'fake.mp4': not a video OpenCV can decode" "$(cat err.txt)"
  expect_match "picture done" "BloodImage_00000.jpg" "$(cat out.txt)"
  ;;

unwritable_draw)
  # A --draw folder that cannot be made stops before any work; a drawing
  # that cannot be written (its name is taken by a folder) is reported while
  # every result is still printed and the other drawings written.
  "$ostrel" detect --model "$model" --draw /proc/ostrel-drawn "${pictures[0]}" > out.txt 2> err.txt
  expect_eq "exit code (folder)" 4 $?
  expect_match "stderr (folder)" "^ostrel: cannot create folder '/proc/ostrel-drawn'" "$(cat err.txt)"
  expect_eq "stdout (folder)" "" "$(cat out.txt)"
  mkdir -p drawn/BloodImage_00001.png
  "$ostrel" detect --model "$model" --json --draw drawn "${pictures[0]}" "${pictures[1]}" "${pictures[2]}" \
    > out.txt 2> err.txt
  expect_eq "exit code (one drawing)" 4 $?
  expect_eq "results" 3 "$(lines_of out.txt)"
  expect_match "stderr (one drawing)" "cannot write 'drawn/BloodImage_00001.png': Is a directory" "$(cat err.txt)"
  [ -f drawn/BloodImage_00000.png ] && [ -f drawn/BloodImage_00002.png ] || fail "the other drawings are missing"
  [ -z "$(ls -A drawn | grep '^\.')" ] || fail "temporary files left: $(ls -A drawn | grep '^\.')"
  ;;

progress_and_summary)
  # On a terminal (a pseudo-terminal made by script(1)): a progress line
  # rewritten in place and a summary, both on standard error. Off a
  # terminal: neither, unless --progress and --summary ask for them.
  mkdir in && cp "${pictures[@]}" in/
  script -q -e -c "'$ostrel' detect --model '$model' --jobs 2 in > out.txt" typescript.txt > /dev/null
  expect_eq "exit code on a terminal" 0 $?
  terminal=$(tr '\r\033' 'RE' < typescript.txt)
  expect_match "progress line in place" 'R[0-9]+/8 pictures  [0-9.]+/s( +[0-9:]+ left)?E\[K' "$terminal"
  expect_match "summary" 'ostrel: summary: 8 pictures, [0-9]+ detections, 0 failed, [0-9.]+ s, [0-9.]+ pictures/s' \
    "$terminal"
  expect_eq "results on standard output" 8 "$(cut -d' ' -f1 out.txt | sort -u | wc -l | tr -d ' ')"
  "$ostrel" detect --model "$model" in > out.txt 2> err.txt
  expect_eq "stderr off a terminal" "" "$(cat err.txt)"
  "$ostrel" detect --model "$model" --progress --summary in > out.txt 2> err.txt
  expect_match "progress off a terminal" '^ostrel: progress: [0-9]+/8 pictures  [0-9.]+/s' "$(head -n 1 err.txt)"
  expect_match "summary off a terminal" 'ostrel: summary: 8 pictures, ' "$(tail -n 1 err.txt)"
  [[ "$(cat err.txt)" != *$'\r'* ]] || fail "a carriage return off a terminal"
  ;;

train_two_pictures)
  # Samples accumulate: two pictures give more than one, and the model is valid.
  common=(--class RBC --median-size --seed 1)
  "$ostrel" train "${pictures[0]}" --boxes "$bccd/annotations/BloodImage_00000.xml" "${common[@]}" \
    --model one.model > one.txt 2> err.txt
  expect_eq "exit code (one picture)" 0 $?
  "$ostrel" train "${pictures[0]}" --boxes "$bccd/annotations/BloodImage_00000.xml" \
    "${pictures[1]}" --boxes "$bccd/annotations/BloodImage_00001.xml" "${common[@]}" \
    --model two.model > out.txt 2>> err.txt
  expect_eq "exit code (two pictures)" 0 $?
  samples() { sed -n 's/^samples: \([0-9]*\) of the object and \([0-9]*\) of background.*/\1 \2/p' "$1"; }
  read -r one_pos one_neg <<< "$(samples one.txt)"
  read -r two_pos two_neg <<< "$(samples out.txt)"
  [ -n "$one_pos" ] && [ -n "$two_pos" ] || fail "no samples line"
  [ "${two_pos:-0}" -gt "${one_pos:-0}" ] || fail "object samples: two pictures $two_pos, one $one_pos"
  [ "${two_neg:-0}" -gt "${one_neg:-0}" ] || fail "background samples: two pictures $two_neg, one $one_neg"
  expect_match "progress" "picture 2/2 .*BloodImage_00001.jpg \\(640x480\\): 18 marked boxes" "$(cat out.txt)"
  "$ostrel" check two.model > check.txt 2>> err.txt
  expect_eq "check exit code" 0 $?
  expect_match "check" "two.model: valid" "$(cat check.txt)"
  cmp -s one.model two.model && fail "the two models are the same"
  # A VOC folder, the first three pictures.
  # The classic profile makes every box the window's size (the accurate one keeps their sizes).
  "$ostrel" train --voc "$bccd" --class RBC --limit 3 --profile classic --model voc.model > voc.txt 2>> err.txt
  expect_eq "exit code (--voc)" 0 $?
  expect_match "VOC pictures" "training on 3 pictures" "$(cat voc.txt)"
  expect_match "one warning" "warning: [0-9]+ of 52 boxes had another size than the [0-9]+x[0-9]+ window" "$(cat err.txt)"
  "$ostrel" check voc.model > /dev/null 2>> err.txt || fail "the VOC model is not valid"
  ;;

*)
  echo "unknown case $case_name" >&2
  exit 2
  ;;
esac
finish
