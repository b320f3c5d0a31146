#!/usr/bin/env bash
# Installs, with apt-get, every Debian package the project needs to build,
# test, benchmark and run its demo. Quick when everything is already there:
# it only asks dpkg which packages are missing and installs just those.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libopencv-dev            # core, imgproc, imgcodecs, ml
  zlib1g-dev               # crc32 of the model file trailer
  libgtest-dev libgmock-dev
  libbenchmark-dev
  nlohmann-json3-dev       # JSON output of the command-line tool
  libcli11-dev             # argument parsing of the command-line tool
  libpugixml-dev           # Pascal VOC annotation files of the command-line tool
  jq                       # a test pipes `ostrel detect --json` into it
  hyperfine                # bench/time_cli.sh: end-to-end timing of the tool
  clang libclang-rt-14-dev # libFuzzer target and its runtime
  clang-format clang-tidy   # scripts/check-format.sh and scripts/check-tidy.sh
  g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine64 dpkg-dev  # the Windows DLL and its tests under Wine
  gfortran-mingw-w64-x86-64-posix libeigen3-dev  # the Windows OpenCV's LAPACK and Eigen, as Debian's
  libcpp-httplib-dev       # the HTTP server of `ostrel studio`
  chromium chromium-driver python3-selenium  # the studio's real-browser test
  python3-numpy python3-pytest python3-opencv python3-distributed  # the Python package, its tests, detect_files
  python3-hypothesis       # property-based tests of the Python package's file and picture checks
  python3-venv python3-pip python3-setuptools python3-wheel         # its offline install into a venv
  help2man lintian         # the tool's manual page; checks of the Debian package
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]}; run this script as root (it uses apt-get)" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Try with the package lists as they are first; refresh them only when that fails.
if ! apt-get -o DPkg::Lock::Timeout=1800 install -y --no-install-recommends "${missing[@]}"; then
  apt-get update
  apt-get -o DPkg::Lock::Timeout=1800 install -y --no-install-recommends "${missing[@]}"
fi
