#!/usr/bin/env bash
# Proves the README's two commands from nothing, on this machine: clones the
# committed state of the repository into a new folder and runs
#   scripts/demo.sh     then     scripts/test.sh
# there, one after the other, with what earlier runs of the scripts left on
# the machine put aside for the run:
#   - the deb-src entries build-windows.sh adds (/etc/apt/sources.list.d/ostrel-src*),
#   - apt's package lists (/var/lib/apt/lists), so that apt-get update runs as
#     on a new machine,
#   - the Windows cross-build cache (${OSTREL_WINDOWS_CACHE:-~/.cache/ostrel-windows},
#     Wine's prefix included);
# build folders and the Python virtual environment start empty because the
# clone is new. Afterwards (also after a failure or Ctrl-C) everything put
# aside is put back and what the run made in its place is removed; the
# clone's folder is removed unless --keep-clone. Packages installed by
# scripts/setup.sh stay installed: removing them would change the machine
# for everyone on it (on a machine that lacks them the run installs them,
# and that time is part of the figures).
#
#   scripts/fresh-check.sh [--keep-clone] [--keep-new-cache] [--log DIR]
#   scripts/fresh-check.sh --restore     # put back what a killed run left aside
#
# --keep-new-cache keeps the cross-build cache the run made when there was
# none before (instead of removing it), so later runs need not rebuild it.
# Prints the wall time of each command and in all; exits with the first
# failing command's status. Runs as root (it moves apt's files).
set -euo pipefail
shopt -s inherit_errexit
root=$(cd "$(dirname "$0")/.." && pwd)

keep_clone=0 keep_new_cache=0 restore_only=0 log=""
while [ $# -gt 0 ]; do
  case $1 in
    --keep-clone) keep_clone=1 ;;
    --keep-new-cache) keep_new_cache=1 ;;
    --restore) restore_only=1 ;;
    --log) log=$2; shift ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "fresh-check: unknown argument '$1'" >&2; exit 2 ;;
  esac
  shift
done

say() { echo "fresh-check: $*" >&2; }
die() { say "$*"; exit 1; }
[ "$(id -u)" -eq 0 ] || die "run as root: it puts apt's files aside and back"

cache=${OSTREL_WINDOWS_CACHE:-$HOME/.cache/ostrel-windows}
apt_lists=/var/lib/apt/lists
sources_d=/etc/apt/sources.list.d
# What was put aside, and where, lives in one folder with a manifest, so that
# a run killed before it could clean up is undone by --restore.
stash=/var/tmp/ostrel-fresh-check-stash

restore() {
  [ -f "$stash/manifest" ] || return 0
  say "putting back what the run put aside ($stash)"
  rm -f "$sources_d"/ostrel-src*
  if [ -d "$stash/sources.list.d" ]; then
    find "$stash/sources.list.d" -mindepth 1 -maxdepth 1 -exec mv -t "$sources_d" {} +
  fi
  if [ -d "$stash/lists" ]; then
    find "$apt_lists" -mindepth 1 -maxdepth 1 ! -name lock ! -name partial -exec rm -rf {} +
    find "$stash/lists" -mindepth 1 -maxdepth 1 ! -name lock ! -name partial -exec mv -t "$apt_lists" {} +
  fi
  if [ -d "$stash/cache" ]; then
    rm -rf "$cache"
    mkdir -p "$(dirname "$cache")"
    mv "$stash/cache" "$cache"
  elif grep -qx 'cache: none' "$stash/manifest" && [ "$keep_new_cache" -eq 0 ]; then
    rm -rf "$cache"
  fi
  rm -rf "$stash"
}

if [ "$restore_only" -eq 1 ]; then
  restore
  exit 0
fi
[ ! -e "$stash" ] || die "$stash exists: an earlier run did not finish; run scripts/fresh-check.sh --restore first"

put_aside() {
  mkdir -p "$stash/sources.list.d" "$stash/lists"
  : > "$stash/manifest"
  local f
  for f in "$sources_d"/ostrel-src*; do
    [ -e "$f" ] || continue
    mv "$f" "$stash/sources.list.d/"
    echo "source: $(basename "$f")" >> "$stash/manifest"
  done
  find "$apt_lists" -mindepth 1 -maxdepth 1 ! -name lock ! -name partial -exec mv -t "$stash/lists" {} +
  echo "lists: $apt_lists" >> "$stash/manifest"
  if [ -e "$cache" ]; then
    mv "$cache" "$stash/cache"
    echo "cache: $cache" >> "$stash/manifest"
  else
    echo "cache: none" >> "$stash/manifest"
  fi
}

clone=$(mktemp -d "${TMPDIR:-/tmp}/ostrel-fresh-XXXXXX")
log=${log:-$clone.logs}
mkdir -p "$log"
finish() {
  local status=$?
  restore
  if [ "$keep_clone" -eq 0 ]; then rm -rf "$clone"; else say "the clone is kept in $clone"; fi
  say "logs in $log"
  exit "$status"
}
trap finish EXIT
trap 'exit 130' INT TERM

say "putting aside the deb-src entries, apt's package lists and the cross-build cache"
put_aside
# The commit is read once: the repository may move on while the run lasts.
commit=$(git -C "$root" rev-parse --short HEAD)
say "cloning $commit of $root into $clone"
git clone --quiet --no-hardlinks "$root" "$clone"

run_timed() {  # run_timed NAME COMMAND...: runs in the clone, logs, records the wall time
  local name=$1 started status=0
  shift
  say "running $* (log: $log/$name.log)"
  started=$(date +%s)
  (cd "$clone" && "$@") > "$log/$name.log" 2>&1 || status=$?
  seconds[$name]=$(($(date +%s) - started))
  say "$* exited with $status after $(minutes "${seconds[$name]}")"
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$log/$name.log" >&2
    exit "$status"
  fi
}
minutes() { printf '%d min %02d s' $(($1 / 60)) $(($1 % 60)); }

declare -A seconds
started_all=$(date +%s)
run_timed demo scripts/demo.sh
run_timed test scripts/test.sh
total=$(($(date +%s) - started_all))

grep -h -E '^(build-windows: .*(s wall|reusing|cross-building))|^fuzz |tests passed|^== Windows|^stage ' \
  "$log/test.log" > "$log/summary.txt" || true
cat >&2 <<SUMMARY
fresh-check: passed on a fresh clone of $commit
  scripts/demo.sh   $(minutes "${seconds[demo]}")
  scripts/test.sh   $(minutes "${seconds[test]}")
  in all            $(minutes "$total")   (load average at the end: $(cut -d' ' -f1-3 /proc/loadavg))
SUMMARY
cat "$log/summary.txt" >&2
