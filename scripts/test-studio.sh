#!/usr/bin/env bash
# Tests of `ostrel studio` against a built tool (default: build/):
#   1. the JSON interface through real HTTP on a free loopback port,
#   2. the studio against an adversary: the session token, origins and media
#      types, idle and slow connections, FIFOs, odd file names, SIGHUP,
#   3. its peak memory under the attacks that used to fill it, against the
#      bound docs/studio.md gives,
#   4. a person's session in headless Chromium (chromedriver, python3-selenium),
#      which prints the speed a person feels and saves a screenshot,
#   5. a page of another origin in Chromium trying every way to change the
#      studio without its permission: nothing may change,
#   6. the same browser test against a page with its detection drawing taken
#      out, which must fail: the browser test can tell a broken page,
#   7. the labelling routes over HTTP (labels on disk, classes, accepting
#      found boxes, exports) and the studio as a labelling tool in the
#      browser (zoom, pan, marks kept on disk, classes, redo, shortcuts),
#   8. pinch zoom in the browser (a touchpad's Ctrl+wheel, two fingers), a
#      folder with labels in each format the tool reads (YOLO, CVAT, Label
#      Studio, imglab) shown, one model of several classes over HTTP and
#      opened in the browser (one engine, one file, opened
#      with its classes; the classic profile's one class a model),
#   9. the profile over HTTP (the default, switching, models that bring
#      their own, the refusals) and in the browser (an accurate model opened
#      in a studio started with default options detects; switching).
# The unit tests of the studio's parts run with the tool's other tests (ctest).
# --update-screenshot copies the session's screenshot to docs/ for the README
# and retakes the labelling ones (scripts/studio-screenshots.py).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
update_screenshot=0
for arg in "$@"; do
  case "$arg" in
    --update-screenshot) update_screenshot=1 ;;
    *) build="$arg" ;;
  esac
done
ostrel="$build/tools/ostrel"
out="$build/studio-test"
python=/usr/bin/python3  # Debian's, which sees python3-selenium
[ -x "$ostrel" ] || { echo "test-studio: $ostrel is not built" >&2; exit 1; }
mkdir -p "$out"

# Every test runs even after one fails, and the end names the ones that
# failed, so that a failure is told apart from the broken page's expected one.
# A test in a real browser that fails is run once more, and the output says
# so either way: a headless browser on a loaded two-core machine has failed
# once in a way no run here could repeat, and such a failure must be seen
# without costing the whole run; one that fails twice fails the run.
passed=0 failed=() second_try=()
run_test() {  # run_test [--browser] TITLE SCRIPT ARGS...
  local browser=0 title
  if [ "$1" = --browser ]; then browser=1; shift; fi
  title=$1
  shift
  echo "== studio: $title"
  # Standard error joins standard output, so that a traceback stands where
  # it happened.
  if "$python" "$@" 2>&1; then
    passed=$((passed + 1))
  elif [ "$browser" = 1 ] && echo "test-studio: FAILED once, running it again: $title ($1)" && "$python" "$@" 2>&1; then
    passed=$((passed + 1))
    second_try+=("$1")
  else
    echo "test-studio: FAILED: $title ($1)"
    failed+=("$1")
  fi
}

run_test "JSON interface over HTTP" tests/studio/test_studio_api.py "$ostrel" data

run_test "under attack over HTTP" tests/studio/test_studio_hardening.py "$ostrel" data

run_test "peak memory under attack" tests/studio/memory_attacks.py "$ostrel" data

run_test --browser "a session in a real browser" tests/studio/test_studio_browser.py "$ostrel" data "$out"

run_test --browser "a page of another origin changes nothing, in a real browser" tests/studio/test_studio_cross_site.py "$ostrel" data

echo "== studio: the browser test fails on a broken page"
broken="$out/broken-web"
rm -rf "$broken"
cp -r tools/ostrel/studio/web "$broken"
# The page still loads and trains, but never draws a detection.
sed -i 's/^        renderDetections();$/        void 0;/' "$broken/studio.js"
if cmp -s "$broken/studio.js" tools/ostrel/studio/web/studio.js; then
  echo "test-studio: could not break the page copy" >&2
  exit 1
fi
if OSTREL_STUDIO_WEB="$broken" "$python" tests/studio/test_studio_browser.py "$ostrel" data "$out/broken" \
     --timeout 8 > "$out/broken.log" 2>&1; then
  cat "$out/broken.log"
  echo "test-studio: the browser test passed on a broken page" >&2
  exit 1
fi
# Its complaint is shown without the word a real failure prints, so that a
# search of the output for failures finds only real ones.
sed -n 's/^FAILED: /  the broken page is caught: /p' "$out/broken.log" | head -1
echo "  ok: it failed, as it must"
passed=$((passed + 1))
rm -rf "$broken"

run_test "the labelling routes over HTTP" tests/studio/test_studio_labels_api.py "$ostrel" data

run_test --browser "labelling in a real browser" tests/studio/test_studio_labelling.py "$ostrel" data "$out"

run_test --browser "pinch zoom in a real browser (touchpad and two fingers)" tests/studio/test_studio_pinch.py "$ostrel" data

run_test "a folder with labels of every format the tool reads" tests/studio/test_studio_label_formats.py "$ostrel" data

run_test "one model of several classes over HTTP" tests/studio/test_studio_model_classes.py "$ostrel" data

run_test --browser "a model of several classes opened in a real browser" tests/studio/test_studio_open_model.py "$ostrel" data

run_test "the profile over HTTP" tests/studio/test_studio_profile_api.py "$ostrel" data

run_test --browser "the profile in a real browser (open an accurate model, switch profiles)" tests/studio/test_studio_profile.py "$ostrel" data "$out"

if [ ${#failed[@]} -gt 0 ]; then
  echo "studio tests: $passed passed, ${#failed[@]} failed: ${failed[*]}"
  exit 1
fi
if [ "$update_screenshot" = 1 ]; then
  cp "$out/studio.png" docs/studio.png
  # The labelling screenshots come from their own script, which sets up
  # what a reader should see (pawns of two classes, many boxes).
  "$python" scripts/studio-screenshots.py "$ostrel" data docs
  echo "docs/studio.png, docs/studio-zoom.png and docs/studio-dense.png updated"
fi
if [ ${#second_try[@]} -gt 0 ]; then
  echo "studio tests: $passed passed (on a second try: ${second_try[*]}), 0 failed"
else
  echo "studio tests: $passed passed, 0 failed"
fi
