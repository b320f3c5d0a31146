#!/usr/bin/env bash
# Builds ostrel_alg.dll (scripts/build-windows.sh) and proves it under Wine:
#   1. the DLL's export and import tables, the interface tests of tests/api,
#      the C programs and the code-page test, as Windows programs (CTest in
#      build-windows/);
#   2. cross-platform equality: the feature maps of two shipped pictures, a
#      model trained with a fixed seed and its detections are the same bytes
#      from the Linux build and from the DLL, and each side loads the other's
#      model and detects the same boxes; the same for a model trained under
#      the accurate profile;
#   3. `ostrel.exe demo` prints the same report as the Linux `ostrel demo`,
#      under the classic and under the accurate profile.
# The Linux build in build/ is used (and its probe built) for the comparisons.
# Ends with one line "N passed, N failed".
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

jobs=${OSTREL_JOBS:-$(nproc 2>/dev/null || echo 2)}
cache=${OSTREL_WINDOWS_CACHE:-$HOME/.cache/ostrel-windows}
build=${OSTREL_WINDOWS_BUILD:-$root/build-windows}
linux_build=$root/build
wine=$root/tests/windows/wine-run.sh
export OSTREL_WINE_PREFIX=${OSTREL_WINE_PREFIX:-$cache/wine-prefix}
export OSTREL_WINDOWS_CACHE=$cache OSTREL_WINDOWS_BUILD=$build
# UTF-8 file names on the Linux side; Wine's English locale (ANSI code page
# Windows-1252) on the Windows side.
export LC_ALL=C.UTF-8

passed=0
failed=0
pass() { echo "PASS: $*"; passed=$((passed + 1)); }
fail() { echo "FAIL: $*"; failed=$((failed + 1)); }

started=$(date +%s)
scripts/build-windows.sh

echo "== the Wine prefix"
if [ ! -f "$OSTREL_WINE_PREFIX/system.reg" ]; then
  mkdir -p "$OSTREL_WINE_PREFIX"
  "$wine" wineboot --init </dev/null >/dev/null 2>&1
  WINEPREFIX=$OSTREL_WINE_PREFIX /usr/lib/wine/wineserver -w
fi
# One wineserver and one set of Wine's own services (started by the first
# program of a session) serve every test. Start them here, with their
# output going nowhere: services started by a test would inherit its output
# pipe and keep CTest waiting for them. Stop them when this script ends.
stop_wine() { WINEPREFIX=$OSTREL_WINE_PREFIX /usr/lib/wine/wineserver -k 2>/dev/null || true; }
trap stop_wine EXIT
WINEPREFIX=$OSTREL_WINE_PREFIX /usr/lib/wine/wineserver -p
"$wine" wineboot </dev/null >/dev/null 2>&1

echo "== Windows tests under Wine"
if ctest --test-dir "$build" --output-on-failure -j"$jobs" -L windows; then
  pass "Windows tests under Wine (ctest -L windows in $build)"
else
  fail "Windows tests under Wine"
fi

echo "== the Linux build for the comparisons"
if [ ! -f "$linux_build/CMakeCache.txt" ]; then
  cmake -S . -B "$linux_build" -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$linux_build" -j"$jobs" --target ostrel_platform_probe ostrel >/dev/null

compare() {  # compare WHAT FILE_A FILE_B
  if cmp "$2" "$3"; then
    pass "$1: identical ($(stat -c %s "$2") bytes)"
  else
    fail "$1: $2 and $3 differ"
  fi
}

echo "== cross-platform equality (Linux build and DLL)"
# The Linux library's filter goes through whichever BLAS libblas.so.3 points
# to; the DLL has Debian's reference BLAS (the one Debian's OpenCV pulls in).
# Another one chosen with update-alternatives rounds differently.
blas=$(update-alternatives --query "libblas.so.3-$(dpkg-architecture -qDEB_HOST_MULTIARCH)" 2>/dev/null |
  sed -n 's/^Value: //p')
case $blas in
  */blas/libblas.so.3) ;;
  *) echo "NOTE: libblas.so.3 is ${blas:-unknown} here, not Debian's reference BLAS: models with a filter will differ" ;;
esac
out=$build/equality
rm -rf "$out"
mkdir -p "$out/linux" "$out/windows"
probe_exe=$build/bin/ostrel_platform_probe.exe
"$linux_build/tests/windows/ostrel_platform_probe" train "$root/data" "$out/linux" >"$out/linux.log"
"$wine" "$probe_exe" train "Z:$root/data" "Z:$out/windows" >"$out/windows.log"
for f in feature_map_BloodImage_00000.raw feature_map_BloodImage_00001.raw; do
  compare "feature map ${f#feature_map_}" "$out/linux/$f" "$out/windows/$f"
done
compare "model trained with seed 1" "$out/linux/model.bin" "$out/windows/model.bin"
compare "detections of the trained models" "$out/linux/boxes.txt" "$out/windows/boxes.txt"
# A model with a false-positive filter holds the PCA of the positives, which
# Debian's OpenCV computes through the reference BLAS and Eigen; the Windows
# OpenCV is built against the same (scripts/build-windows.sh), so these are
# the same bytes too. When they are not, say where they differ.
filter_a=$out/linux/model_with_filter.bin filter_b=$out/windows/model_with_filter.bin
compare "model with a false-positive filter" "$filter_a" "$filter_b"
cmp -s "$filter_a" "$filter_b" ||
  "$linux_build/tests/windows/ostrel_platform_probe" describe-filter-difference "$filter_a" "$filter_b" || true
compare "detections of the models with a filter" "$out/linux/boxes_with_filter.txt" \
  "$out/windows/boxes_with_filter.txt"
# Each side loads the other side's model and detects what the other detected.
"$linux_build/tests/windows/ostrel_platform_probe" load "$root/data" "$out/windows/model.bin" "$out/linux" \
  >>"$out/linux.log" && compare "Windows model loaded on Linux" "$out/windows/boxes.txt" \
  "$out/linux/boxes_of_imported_model.txt" || fail "Linux could not load the Windows model"
"$wine" "$probe_exe" load "Z:$root/data" "Z:$out/linux/model.bin" "Z:$out/windows" >>"$out/windows.log" &&
  compare "Linux model loaded by the DLL" "$out/linux/boxes.txt" "$out/windows/boxes_of_imported_model.txt" ||
  fail "the DLL could not load the Linux model"

# The accurate profile: its level sizes, channels, solver, calibration and
# scores, all in one model file and its detections.
"$linux_build/tests/windows/ostrel_platform_probe" train-accurate "$root/data" "$out/linux" >>"$out/linux.log"
"$wine" "$probe_exe" train-accurate "Z:$root/data" "Z:$out/windows" >>"$out/windows.log"
compare "accurate model trained with seed 1" "$out/linux/model_accurate.bin" "$out/windows/model_accurate.bin"
compare "detections of the accurate models" "$out/linux/boxes_accurate.txt" "$out/windows/boxes_accurate.txt"
mkdir -p "$out/linux/accurate" "$out/windows/accurate"
"$linux_build/tests/windows/ostrel_platform_probe" load "$root/data" "$out/windows/model_accurate.bin" \
  "$out/linux/accurate" >>"$out/linux.log" && compare "Windows accurate model loaded on Linux" \
  "$out/windows/boxes_accurate.txt" "$out/linux/accurate/boxes_of_imported_model.txt" ||
  fail "Linux could not load the Windows accurate model"
"$wine" "$probe_exe" load "Z:$root/data" "Z:$out/linux/model_accurate.bin" "Z:$out/windows/accurate" \
  >>"$out/windows.log" && compare "Linux accurate model loaded by the DLL" "$out/linux/boxes_accurate.txt" \
  "$out/windows/accurate/boxes_of_imported_model.txt" || fail "the DLL could not load the Linux accurate model"

mkdir -p "$out/linux/filter" "$out/windows/filter"
"$linux_build/tests/windows/ostrel_platform_probe" load "$root/data" "$filter_b" "$out/linux/filter" >>"$out/linux.log" &&
  compare "Windows model with a filter loaded on Linux" "$out/windows/boxes_with_filter.txt" \
  "$out/linux/filter/boxes_of_imported_model.txt" || fail "Linux could not load the Windows model with a filter"
"$wine" "$probe_exe" load "Z:$root/data" "Z:$filter_a" "Z:$out/windows/filter" >>"$out/windows.log" &&
  compare "Linux model with a filter loaded by the DLL" "$out/linux/boxes_with_filter.txt" \
  "$out/windows/filter/boxes_of_imported_model.txt" || fail "the DLL could not load the Linux model with a filter"

echo "== ostrel.exe demo under Wine"
if [ -f "$build/bin/ostrel.exe" ]; then
  # The report without its durations, its output folder and Windows' line ends.
  report() {
    tr -d '\r' <"$1" | tr '\\' / |
      sed -E "s/[0-9]+\.[0-9]+ s\b/T s/g; s#Z:/#/#g; s#demo-(linux|windows)#demo-OUT#g; /^Files in /,\$d"
  }
  # The classic demo (the classic system, the same bytes on both platforms)
  # and the accurate one (the demo's default: the same boxes and scores too).
  demo_on_both() {  # demo_on_both PROFILE
    local profile=$1 linux=$out/demo-$1-linux windows=$out/demo-$1-windows
    "$linux_build/tools/ostrel" demo --profile "$profile" --out "$out/demo-linux" >"$linux.txt"
    "$wine" "$build/bin/ostrel.exe" demo --profile "$profile" --data "Z:$root/data" --out "Z:$out/demo-windows" \
      >"$windows.txt"
    if diff <(report "$linux.txt") <(report "$windows.txt") >"$out/demo-$profile.diff"; then
      pass "ostrel.exe demo --profile $profile prints the Linux report ($(grep -c . "$windows.txt") lines)"
      grep '^Summary:' "$windows.txt" || true
    else
      cat "$out/demo-$profile.diff"
      fail "ostrel.exe demo --profile $profile differs from the Linux demo"
    fi
    # The model files the two demos wrote.
    compare "demo model, $profile profile" "$out/demo-linux/rbc.model" "$out/demo-windows/rbc.model"
    rm -rf "$out/demo-linux" "$out/demo-windows"
  }
  demo_on_both classic
  demo_on_both accurate
else
  fail "ostrel.exe was not built"
fi

echo "== Windows: $(($(date +%s) - started)) s"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
