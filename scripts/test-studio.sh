#!/usr/bin/env bash
# Tests of `ostrel studio` against a built tool (default: build/):
#   1. the JSON interface through real HTTP on a free loopback port,
#   2. the studio against an adversary: the session token, origins and media
#      types, idle and slow connections, FIFOs, odd file names, SIGHUP,
#   3. its peak memory under the attacks that used to fill it, against the
#      bound the README gives,
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

echo "== studio: JSON interface over HTTP"
"$python" tests/studio/test_studio_api.py "$ostrel" data

echo "== studio: under attack over HTTP"
"$python" tests/studio/test_studio_hardening.py "$ostrel" data

echo "== studio: peak memory under attack"
"$python" tests/studio/memory_attacks.py "$ostrel" data

echo "== studio: a session in a real browser"
"$python" tests/studio/test_studio_browser.py "$ostrel" data "$out"

echo "== studio: a page of another origin changes nothing, in a real browser"
"$python" tests/studio/test_studio_cross_site.py "$ostrel" data

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
grep -E "FAILED" "$out/broken.log" | head -1
echo "  ok: it failed, as it must"
rm -rf "$broken"

echo "== studio: the labelling routes over HTTP"
"$python" tests/studio/test_studio_labels_api.py "$ostrel" data

echo "== studio: labelling in a real browser"
"$python" tests/studio/test_studio_labelling.py "$ostrel" data "$out"

echo "== studio: pinch zoom in a real browser (touchpad and two fingers)"
"$python" tests/studio/test_studio_pinch.py "$ostrel" data

echo "== studio: a folder with labels of every format the tool reads"
"$python" tests/studio/test_studio_label_formats.py "$ostrel" data

echo "== studio: one model of several classes over HTTP"
"$python" tests/studio/test_studio_model_classes.py "$ostrel" data

echo "== studio: a model of several classes opened in a real browser"
"$python" tests/studio/test_studio_open_model.py "$ostrel" data

echo "== studio: the profile over HTTP"
"$python" tests/studio/test_studio_profile_api.py "$ostrel" data

echo "== studio: the profile in a real browser (open an accurate model, switch profiles)"
"$python" tests/studio/test_studio_profile.py "$ostrel" data "$out"

if [ "$update_screenshot" = 1 ]; then
  cp "$out/studio.png" docs/studio.png
  # The labelling screenshots come from their own script, which sets up
  # what a reader should see (pawns of two classes, many boxes).
  "$python" scripts/studio-screenshots.py "$ostrel" data docs
  echo "docs/studio.png, docs/studio-zoom.png and docs/studio-dense.png updated"
fi
echo "studio tests: 14 passed, 0 failed"
