#!/usr/bin/env bash
# Tests the project as its users get it, from the release build in build/:
#   1. builds the Debian package (cpack) and the Python wheel (setup.py,
#      offline), and runs lintian on the package;
#   2. installs the package as root and, from a scratch folder with the
#      checkout out of the way, runs the installed tool (--version, demo),
#      compiles examples/minimal.c with pkg-config against the installed
#      header and runs it, imports the Python package with the system's
#      Python, and asks the installed studio for its status;
#   3. purges the package and checks that every file it listed is gone;
#   4. installs the wheel into a fresh virtual environment with pip, offline,
#      and trains and detects with it, the package's library gone from the
#      system, checking that the module and the library loaded are the
#      wheel's.
# The package and the wheel are left in build/packages/. Runs as root (CI
# does): it installs and removes a package.
set -euo pipefail
cd "$(dirname "$0")/.."
checkout=$PWD

if [ "$(id -u)" -ne 0 ]; then
  echo "test-package: must run as root: it installs the .deb with apt-get and removes it again" >&2
  exit 1
fi

jobs=$(nproc 2>/dev/null || echo 2)
python=/usr/bin/python3
out=build/packages
work=$(mktemp -d /tmp/ostrel-package.XXXXXX)
installed=""
cleanup() {
  if [ -n "$installed" ]; then dpkg --purge ostrel >/dev/null 2>&1 || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

step_started=$SECONDS
step() {  # step NAME: says how long the previous step took and names the next
  if [ -n "${step_name:-}" ]; then echo "   ($step_name: $((SECONDS - step_started)) s)"; fi
  step_name=$1 step_started=$SECONDS
  [ -n "$step_name" ] && echo "== package: $step_name"
  return 0
}
fail() { echo "test-package: FAILED: $*" >&2; exit 1; }

version=$(sed -n 's/^#define OSTREL_ALG_VERSION_\(MAJOR\|MINOR\|PATCH\) \([0-9]*\)$/\2/p' include/ostrel_alg.h | paste -sd.)
[[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "cannot read the version from include/ostrel_alg.h"

# ---------------------------------------------------------------------------
step "build ($version)"
if [ ! -f build/CMakeCache.txt ]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
fi
# Everything: cpack builds the whole project before it installs (after the
# release build of scripts/test.sh there is nothing left to do).
cmake --build build -j"$jobs"

step "Debian package"
rm -rf "$out" && mkdir -p "$out"
(cd build && cpack -G DEB -B "$checkout/$out" >/dev/null) || fail "cpack -G DEB"
deb=$out/ostrel_${version}_amd64.deb
[ -f "$deb" ] || fail "cpack made no $deb"
dpkg-deb -c "$deb" | awk '{ $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }'
dpkg-deb -f "$deb" Package Version Architecture Depends
dpkg-deb -c "$deb" | awk '{print $6}' | sed 's,^\./,/,' | grep -v '/$' > "$work/deb-files"
for f in /usr/bin/ostrel /usr/include/ostrel_alg.h "/usr/lib/libostrel_alg.so.$version" /usr/lib/libostrel_alg.so.0 \
         /usr/lib/libostrel_alg.so /usr/lib/pkgconfig/ostrel_alg.pc /usr/lib/cmake/ostrel_alg/ostrel_algConfig.cmake \
         /usr/share/ostrel/studio/index.html /usr/share/ostrel/data/bccd/LICENSE \
         /usr/lib/python3/dist-packages/ostrel/__init__.py /usr/lib/python3/dist-packages/ostrel/_header_values.py \
         /usr/share/man/man1/ostrel.1.gz /usr/share/doc/ostrel/copyright /usr/share/doc/ostrel/changelog.gz; do
  grep -qx "$f" "$work/deb-files" || fail "the package lacks $f"
done
! grep -q '_build_tree.py\|__pycache__\|/_lib/' "$work/deb-files" || fail "the package carries a build's leftovers"

step "lintian"
# Its findings are printed; an error fails the test (the warnings left are
# explained in docs/install.md).
lintian --info --display-info --tag-display-limit 0 "$deb" 2>&1 | tee "$work/lintian" || true
! grep -q '^E:' "$work/lintian" || fail "lintian reports errors"

step "Python wheel"
# The library as installed (stripped), carried inside the package.
cmake --install build --prefix "$work/stage" --strip --component Unspecified >/dev/null
mkdir -p "$work/wheel-build"
(cd python && OSTREL_PACKAGE_LIBRARY="$work/stage/lib/libostrel_alg.so.$version" PYTHONDONTWRITEBYTECODE=1 \
  "$python" setup.py --quiet build --build-base "$work/wheel-build" egg_info --egg-base "$work/wheel-build" \
  bdist_wheel --bdist-dir "$work/wheel-bdist" --dist-dir "$checkout/$out") >/dev/null 2>"$work/wheel.log" ||
  { cat "$work/wheel.log" >&2; fail "the wheel build"; }
wheel=$(ls "$out"/ostrel-"$version"-py3-none-linux_*.whl 2>/dev/null | head -1)
[ -n "$wheel" ] || fail "no ostrel-$version-py3-none-linux_*.whl in $out"
"$python" -m zipfile -l "$wheel"
"$python" -m zipfile -l "$wheel" | grep -q "ostrel/_lib/libostrel_alg.so.${version%%.*} " || fail "the wheel carries no library"
! "$python" -m zipfile -l "$wheel" | grep -q '_build_tree.py' || fail "the wheel names a build folder"

# ---------------------------------------------------------------------------
step "install the package"
if dpkg-query -W ostrel >/dev/null 2>&1; then dpkg --purge ostrel; fi
installed=yes
DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=1800 install -y --no-install-recommends "./$deb"

# Everything below runs in a scratch folder, with nothing from the checkout
# on any search path.
scratch=$work/scratch
mkdir -p "$scratch"
cd "$scratch"
unset LD_LIBRARY_PATH PYTHONPATH PKG_CONFIG_PATH OSTREL_ALG_LIBRARY OSTREL_STUDIO_WEB

step "installed tool"
[ "$(command -v ostrel)" = /usr/bin/ostrel ] || fail "ostrel is not /usr/bin/ostrel"
[ "$(ostrel --version)" = "ostrel $version" ] || fail "ostrel --version says '$(ostrel --version)'"
ostrel demo --out demo > demo.log || { cat demo.log; fail "ostrel demo"; }
tail -3 demo.log
for f in rbc.model detections.json training.png; do [ -s "demo/$f" ] || fail "ostrel demo wrote no $f"; done
ostrel check demo/rbc.model >/dev/null || fail "ostrel check of the demo's model"
man -w ostrel >/dev/null || fail "man finds no page for ostrel"

step "installed studio"
# Any free port; the studio prints its address once it is ready.
ostrel studio --port 0 > studio.log 2>&1 &
studio=$!
url=""
for _ in $(seq 150); do
  url=$(sed -n 's,^ostrel studio: \(http://[^ ]*/\)$,\1,p' studio.log)
  [ -n "$url" ] && break
  sleep 0.2
done
fetch() { "$python" -c "import sys, urllib.request as u; print(u.urlopen(sys.argv[1]).read().decode())" "$1"; }
status=$( [ -n "$url" ] && fetch "${url}api/status" || true)
page=$( [ -n "$url" ] && fetch "$url" || true)
kill "$studio" && wait "$studio" 2>/dev/null || true
echo "$status" | "$python" -c "import json, sys; s = json.load(sys.stdin); assert s['version'] == '$version', s['version']" ||
  { cat studio.log; fail "the installed studio's status does not give version $version"; }
grep -q 'id="studio-version"' <<<"$page" || fail "the installed studio serves no page"
echo "studio at $url: version $version, page served from the installed files"

step "C host with pkg-config"
cp "$checkout/examples/minimal.c" .
# The .pc file names its prefix relative to itself (../..).
[ "$(readlink -f "$(pkg-config --variable=includedir ostrel_alg)")" = /usr/include ] ||
  fail "pkg-config: ostrel_alg is not the installed one"
# shellcheck disable=SC2046  # the flags are words
cc -std=c11 minimal.c $(pkg-config --cflags --libs ostrel_alg) -o minimal
./minimal minimal.model || fail "the C example against the installed library"
loaded=$(ldd ./minimal | awk '$1 == "libostrel_alg.so.0" { print $3 }')
[ "$(readlink -f "$loaded")" = "/usr/lib/libostrel_alg.so.$version" ] || fail "the C example loaded '$loaded'"

step "system Python"
reply=$("$python" -c "import ostrel; print(ostrel.__version__, ostrel.__file__, ostrel.library_version(), ostrel.library_path())")
echo "$reply"
read -r py_version py_file _ <<<"$reply"
[ "$py_version" = "$version" ] || fail "ostrel.__version__ is $py_version"
[ "$py_file" = /usr/lib/python3/dist-packages/ostrel/__init__.py ] || fail "the system Python imported $py_file"
# By the soname or by the library's link name: the installed file either way.
[ "$(readlink -f "${reply##* }")" = "/usr/lib/libostrel_alg.so.$version" ] || fail "the system Python loaded another library"

step "purge the package"
cd "$work"
dpkg --purge ostrel
installed=""
left=()
while read -r f; do
  if [ -e "$f" ] || [ -L "$f" ]; then left+=("$f"); fi
done < "$work/deb-files"
for d in /usr/share/ostrel /usr/lib/python3/dist-packages/ostrel /usr/lib/cmake/ostrel_alg /usr/share/doc/ostrel; do
  if [ -e "$d" ]; then left+=("$d"); fi
done
[ ${#left[@]} -eq 0 ] || fail "left after the purge: ${left[*]}"
echo "all $(wc -l < "$work/deb-files") files of the package are gone"

# ---------------------------------------------------------------------------
step "wheel in a fresh virtual environment"
"$python" -m venv --system-site-packages "$work/venv"
PIP_DISABLE_PIP_VERSION_CHECK=1 "$work/venv/bin/pip" install --quiet --no-index "$checkout/$wheel"
mkdir -p "$work/wheel-run"
cp "$checkout/data/bccd/images/BloodImage_0000"[01].jpg "$checkout/data/bccd/annotations/BloodImage_00000.xml" \
   "$work/wheel-run/"
cd "$work/wheel-run"
"$work/venv/bin/python" - "$work/venv" "$version" <<'EOF'
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import cv2
import ostrel

venv, version = Path(sys.argv[1]).resolve(), sys.argv[2]
module = Path(ostrel.__file__).resolve()
library = Path(ostrel.library_path()).resolve()
assert module.is_relative_to(venv), f"ostrel was imported from {module}"
assert library == module.parent / "_lib" / library.name, f"the library loaded is {library}"
assert ostrel.__version__ == version, ostrel.__version__
assert ".".join(map(str, ostrel.library_version())) == version, ostrel.library_version()
boxes = []
for item in ElementTree.parse("BloodImage_00000.xml").iter("object"):
    if item.findtext("name") == "RBC":
        b = item.find("bndbox")
        x0, y0, x1, y1 = (int(float(b.findtext(k))) for k in ("xmin", "ymin", "xmax", "ymax"))
        boxes.append((x0, y0, x1 - x0, y1 - y0))
with ostrel.Detector(seed=1) as detector:
    detector.train(cv2.imread("BloodImage_00000.jpg"), boxes)
    found = detector.detect(cv2.imread("BloodImage_00001.jpg"))
assert found, "the wheel's detector found nothing"
print(f"wheel: ostrel {ostrel.__version__} from {module.parent}, library {library}; "
      f"trained on {len(boxes)} cells, found {len(found)} in another picture")
EOF

step ""
echo "== package: all checks passed ($deb, $wheel)"
