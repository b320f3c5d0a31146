# Sourced by scripts/build-windows.sh: Debian source packages for the cross
# build. Needs `cache` (the folder the sources are unpacked under) and the
# functions `say` and `die`, which write to standard error.
#
# fetch_source is called as src=$(fetch_source ...): it must print the
# unpacked folder and nothing else on standard output, whatever it runs on
# the way (adding deb-src entries, apt-get update, apt-get source). Every
# command inside it writes to standard error.
#
# OSTREL_APT_DIR (default /etc/apt) is where the sources lists live; the
# tests point it at a folder of their own.

apt_dir=${OSTREL_APT_DIR:-/etc/apt}

# apt-get source needs a deb-src entry; add one for the archive the machine
# already uses (the same URIs and suites as its deb entries).
ensure_deb_src() {
  if grep -Eqs '^(Types:.*deb-src|deb-src )' "$apt_dir/sources.list" "$apt_dir"/sources.list.d/*; then
    return
  fi
  [ "$(id -u)" -eq 0 ] || die "apt-get source needs a deb-src entry in $apt_dir/sources.list.d; run once as root"
  say "adding deb-src entries for the machine's Debian archive"
  local f
  for f in "$apt_dir"/sources.list.d/*.sources; do
    [ -f "$f" ] && grep -q '^Types: deb$' "$f" || continue
    sed 's/^Types: deb$/Types: deb-src/' "$f" > "$apt_dir/sources.list.d/ostrel-src-$(basename "$f")"
  done
  if [ -f "$apt_dir/sources.list" ] && grep -q '^deb ' "$apt_dir/sources.list"; then
    sed -n 's/^deb /deb-src /p' "$apt_dir/sources.list" > "$apt_dir/sources.list.d/ostrel-src.list"
  fi
  apt-get -o DPkg::Lock::Timeout=1800 update >&2
}

# fetch_source PACKAGE VERSION -> prints the unpacked folder (under $cache/src).
# Takes the version the Linux build has installed; when the archive no longer
# serves that exact version (security updates move on), the release's own.
fetch_source() {
  local package=$1 version=$2 folder
  mkdir -p "$cache/src"
  (
    exec >&2  # nothing in here may reach the caller's capture
    cd "$cache/src"
    rm -rf "$package"-*/ "${package}"_*
    ensure_deb_src
    apt-get source "$package=$version" || apt-get source "$package/$(. /etc/os-release; echo "$VERSION_CODENAME")"
  ) || die "cannot fetch the source of $package $version"
  folder=$(find "$cache/src" -maxdepth 1 -type d -name "$package-*" -print -quit)
  [ -n "$folder" ] || die "apt-get source $package $version unpacked no $package-* folder in $cache/src"
  echo "$folder"
}

source_version() { dpkg-query -W -f='${source:Version}' "$1"; }
