#!/usr/bin/env bash
# What the Windows cross build's source fetching promises its callers, who
# capture it as src=$(fetch_source PACKAGE VERSION):
#   1. on a machine without deb-src entries it adds them, runs apt-get update
#      and apt-get source, and still prints only the unpacked folder;
#   2. when apt-get source fails, fetch_source fails (and stops a caller that
#      runs with set -e and inherit_errexit) instead of printing nothing.
# apt-get and id are stubs on PATH that print noise on standard output, as the
# real apt-get does; the sources lists are a folder of the test's own.
set -euo pipefail
shopt -s inherit_errexit
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir -p "$work/bin" "$work/apt/sources.list.d" "$work/cache"
cat > "$work/apt/sources.list.d/debian.sources" <<'SOURCES'
Types: deb
URIs: http://deb.debian.org/debian
Suites: bookworm bookworm-updates
Components: main
SOURCES
cat > "$work/bin/apt-get" <<'STUB'
#!/usr/bin/env bash
echo "Get:1 http://deb.debian.org/debian bookworm InRelease [151 kB]"
echo "Reading package lists... Done"
if [ "${*: -2:1}" = source ]; then
  [ -z "${STUB_SOURCE_FAILS:-}" ] || { echo "E: Unable to find a source package" >&2; exit 100; }
  package=${*: -1}; package=${package%%[=/]*}
  mkdir -p "$package-1.0" && echo "dpkg-source: info: extracting $package in $package-1.0"
fi
STUB
printf '#!/bin/sh\necho 0\n' > "$work/bin/id"
chmod +x "$work/bin/apt-get" "$work/bin/id"

failures=0
check() { if eval "$2"; then echo "PASS: $1"; else echo "FAIL: $1"; failures=$((failures + 1)); fi; }

run_fetch() {  # runs fetch_source as build-windows.sh does, in a shell of its own
  PATH="$work/bin:$PATH" OSTREL_APT_DIR="$work/apt" cache="$work/cache" bash -c '
    set -euo pipefail; shopt -s inherit_errexit
    say() { echo "build-windows: $*" >&2; }
    die() { echo "build-windows: $*" >&2; exit 1; }
    source "$1"
    src=$(fetch_source lapack 3.11.0-2)
    printf "%s" "$src"
    echo "after the capture" >&2' _ "$root/scripts/debian-source.sh"
}

out=$(run_fetch 2>"$work/err") && status=0 || status=$?
check "fetch_source succeeds without deb-src entries" '[ "$status" -eq 0 ]'
check "the capture holds exactly the unpacked folder" '[ "$out" = "$work/cache/src/lapack-1.0" ]'
check "the messages and apt-get's output went to standard error" \
  'grep -q "adding deb-src entries" "$work/err" && grep -q "Get:1" "$work/err"'
check "deb-src entries were added beside the deb ones" \
  'grep -q "^Types: deb-src$" "$work/apt/sources.list.d/ostrel-src-debian.sources"'

out=$(run_fetch 2>"$work/err") && status=0 || status=$?
check "with the entries present, the capture is the folder again" '[ "$out" = "$work/cache/src/lapack-1.0" ]'
check "and the entries are not added twice" '! grep -q "adding deb-src entries" "$work/err"'

out=$(STUB_SOURCE_FAILS=1 run_fetch 2>"$work/err") && status=0 || status=$?
check "a failed apt-get source fails the caller" '[ "$status" -ne 0 ]'
check "before it goes on with an empty folder" '! grep -q "after the capture" "$work/err"'
check "and says which package" 'grep -q "cannot fetch the source of lapack" "$work/err"'

[ "$failures" -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
