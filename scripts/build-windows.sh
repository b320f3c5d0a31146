#!/usr/bin/env bash
# Cross-builds the library for 64-bit Windows with Debian's MinGW-w64:
#   build-windows/dist/       ostrel_alg.dll, its import library, ostrel_alg.h,
#                             ostrel.exe (when the tool builds for Windows)
#   build-windows/ostrel_alg-windows-x64.zip   the same folder, zipped
# plus the Windows test programs in build-windows/ (run by scripts/test-windows.sh).
#
# OpenCV for Windows is not a Debian package: its modules core, imgproc, ml and
# imgcodecs are cross-built here as static libraries from Debian's own OpenCV
# source package (the version the Linux build uses), with PNG and JPEG support
# from Debian's libpng1.6 and libjpeg-turbo source packages and zlib from
# libz-mingw-w64-dev. That build takes minutes, so it is kept in
#   ${OSTREL_WINDOWS_CACHE:-$HOME/.cache/ostrel-windows}/opencv-<version>/
# and reused by later runs; GoogleTest (from /usr/src/googletest) likewise.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

jobs=${OSTREL_JOBS:-$(nproc 2>/dev/null || echo 2)}
cache=${OSTREL_WINDOWS_CACHE:-$HOME/.cache/ostrel-windows}
build=${OSTREL_WINDOWS_BUILD:-$root/build-windows}
triplet=x86_64-w64-mingw32
mingw_root=/usr/$triplet
toolchain=$root/cmake/mingw-w64-x86_64.cmake
zlib_args=(-DZLIB_LIBRARY=$mingw_root/lib/libz.a -DZLIB_INCLUDE_DIR=$mingw_root/include)

say() { echo "build-windows: $*"; }
die() { echo "build-windows: $*" >&2; exit 1; }
seconds_since() { echo $(($(date +%s) - $1)); }

if ! command -v $triplet-g++-posix >/dev/null || [ ! -f $mingw_root/lib/libz.a ]; then
  scripts/setup.sh
fi

# --- Debian source packages ---------------------------------------------------
# apt-get source needs a deb-src entry; add one for the archive the machine
# already uses (the same URIs and suites as its deb entries).
ensure_deb_src() {
  if grep -Eqs '^(Types:.*deb-src|deb-src )' /etc/apt/sources.list /etc/apt/sources.list.d/*; then
    return
  fi
  [ "$(id -u)" -eq 0 ] || die "apt-get source needs a deb-src entry in /etc/apt/sources.list.d; run once as root"
  say "adding deb-src entries for the machine's Debian archive"
  local f
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] && grep -q '^Types: deb$' "$f" || continue
    sed 's/^Types: deb$/Types: deb-src/' "$f" > "/etc/apt/sources.list.d/ostrel-src-$(basename "$f")"
  done
  if [ -f /etc/apt/sources.list ] && grep -q '^deb ' /etc/apt/sources.list; then
    sed -n 's/^deb /deb-src /p' /etc/apt/sources.list > /etc/apt/sources.list.d/ostrel-src.list
  fi
  apt-get -o DPkg::Lock::Timeout=1800 update
}

# fetch_source PACKAGE VERSION -> prints the unpacked folder (under $cache/src).
# Takes the version the Linux build has installed; when the archive no longer
# serves that exact version (security updates move on), the release's own.
fetch_source() {
  local package=$1 version=$2
  mkdir -p "$cache/src"
  (
    cd "$cache/src"
    rm -rf "$package"-*/ "${package}"_*
    ensure_deb_src
    apt-get source "$package=$version" >&2 || apt-get source "$package/$(. /etc/os-release; echo "$VERSION_CODENAME")" >&2
  )
  find "$cache/src" -maxdepth 1 -type d -name "$package-*" -print -quit
}

source_version() { dpkg-query -W -f='${source:Version}' "$1"; }

# --- OpenCV and its image libraries for Windows ----------------------------------
opencv_version=$(source_version libopencv-dev)
deps=$cache/opencv-$opencv_version

build_deps() {
  local started work src
  started=$(date +%s)
  work=$cache/work
  rm -rf "$deps" "$work"
  mkdir -p "$work"

  src=$(fetch_source libjpeg-turbo "$(source_version libjpeg62-turbo-dev)")
  # No SIMD: the C decoder gives the same pixels as the SIMD one (islow DCT).
  cmake -S "$src" -B "$work/jpeg" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$deps" -DENABLE_SHARED=OFF -DENABLE_STATIC=ON \
        -DWITH_SIMD=OFF -DWITH_TURBOJPEG=OFF >/dev/null
  cmake --build "$work/jpeg" -j"$jobs" --target install >/dev/null

  src=$(fetch_source libpng1.6 "$(source_version libpng-dev)")
  cmake -S "$src" -B "$work/png" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$deps" -DPNG_SHARED=OFF -DPNG_STATIC=ON -DPNG_EXECUTABLES=OFF -DPNG_TESTS=OFF \
        -DSKIP_INSTALL_PROGRAMS=ON "${zlib_args[@]}" >/dev/null
  cmake --build "$work/png" -j"$jobs" --target install >/dev/null

  src=$(fetch_source opencv "$opencv_version")
  # The modules the library and the tool use, static, with nothing optional;
  # the CPU baseline of Debian's own amd64 build (SSE2, run-time dispatch above).
  cmake -S "$src" -B "$work/opencv" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DOSTREL_WINDOWS_DEPS="$deps" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$deps" \
        -DBUILD_SHARED_LIBS=OFF -DBUILD_LIST=core,imgproc,ml,imgcodecs \
        -DCPU_BASELINE=SSE2 -DCPU_BASELINE_DISABLE=SSE3 \
        -DBUILD_TESTS=OFF -DBUILD_PERF_TESTS=OFF -DBUILD_EXAMPLES=OFF -DBUILD_DOCS=OFF -DBUILD_opencv_apps=OFF \
        -DBUILD_JAVA=OFF -DBUILD_opencv_python3=OFF -DBUILD_opencv_python2=OFF -DBUILD_PROTOBUF=OFF \
        -DBUILD_ZLIB=OFF -DBUILD_PNG=OFF -DBUILD_JPEG=OFF -DBUILD_TIFF=OFF -DBUILD_WEBP=OFF \
        -DBUILD_OPENJPEG=OFF -DBUILD_JASPER=OFF -DBUILD_OPENEXR=OFF -DBUILD_ITT=OFF \
        -DWITH_PNG=ON -DWITH_JPEG=ON -DWITH_SPNG=OFF -DWITH_TIFF=OFF -DWITH_WEBP=OFF -DWITH_OPENJPEG=OFF \
        -DWITH_JASPER=OFF -DWITH_OPENEXR=OFF -DWITH_IMGCODEC_HDR=OFF -DWITH_IMGCODEC_SUNRASTER=OFF \
        -DWITH_IMGCODEC_PXM=ON -DWITH_IMGCODEC_PFM=OFF \
        -DWITH_IPP=OFF -DWITH_ITT=OFF -DWITH_OPENCL=OFF -DWITH_EIGEN=OFF -DWITH_LAPACK=OFF -DWITH_OPENMP=OFF \
        -DWITH_TBB=OFF -DWITH_CUDA=OFF -DWITH_ADE=OFF -DWITH_PROTOBUF=OFF -DWITH_QUIRC=OFF -DWITH_FFMPEG=OFF \
        -DWITH_GSTREAMER=OFF -DWITH_DSHOW=OFF -DWITH_MSMF=OFF -DWITH_WIN32UI=OFF -DWITH_VTK=OFF -DWITH_GTK=OFF \
        -DWITH_1394=OFF -DWITH_OBSENSOR=OFF -DWITH_DIRECTX=OFF -DWITH_OPENCLAMDFFT=OFF -DWITH_OPENCLAMDBLAS=OFF \
        -DWITH_VA=OFF -DWITH_VA_INTEL=OFF -DWITH_CAROTENE=OFF \
        -DOPENCV_GENERATE_SETUPVARS=OFF -DBUILD_INFO_SKIP_TIMESTAMP=ON -DENABLE_PRECOMPILED_HEADERS=OFF \
        "${zlib_args[@]}" >"$work/opencv-configure.log"
  cmake --build "$work/opencv" -j"$jobs" --target install >"$work/opencv-build.log"

  echo "$opencv_version" > "$deps/.complete"
  rm -rf "$work"
  say "OpenCV $opencv_version for Windows built in $(seconds_since "$started") s"
}

if [ -f "$deps/.complete" ]; then
  say "reusing OpenCV $opencv_version for Windows from $deps"
else
  say "cross-building OpenCV $opencv_version for Windows into $deps (once per version)"
  build_deps
fi

# --- GoogleTest for Windows, from Debian's source in /usr/src/googletest ------
gtest_version=$(source_version libgtest-dev)
gtest=$cache/googletest-$gtest_version
if [ ! -f "$gtest/.complete" ]; then
  say "cross-building GoogleTest $gtest_version for Windows into $gtest"
  started=$(date +%s)
  rm -rf "$gtest" "$cache/work-gtest"
  cmake -S /usr/src/googletest -B "$cache/work-gtest" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$gtest" -DBUILD_GMOCK=OFF -DBUILD_SHARED_LIBS=OFF \
        >/dev/null
  cmake --build "$cache/work-gtest" -j"$jobs" --target install >/dev/null
  echo "$gtest_version" > "$gtest/.complete"
  rm -rf "$cache/work-gtest"
  say "GoogleTest for Windows built in $(seconds_since "$started") s"
fi

# --- Header-only libraries of the tool ------------------------------------------
# CLI11 and nlohmann-json are headers only; their Debian packages install them
# into /usr/include, which a cross build must not search. Stage a copy with
# the packages' own CMake files (which find the headers relative to themselves).
headers=$build/header-only
rm -rf "$headers"
mkdir -p "$headers/include" "$headers/share/cmake"
# (Timestamps kept, so that a rebuild does not recompile the tool.)
cp -rp /usr/include/CLI /usr/include/nlohmann "$headers/include/"
cp -rp /usr/share/cmake/CLI11 /usr/share/cmake/nlohmann_json "$headers/share/cmake/"

# --- The library, the tool and the Windows tests ---------------------------------
say "building ostrel_alg.dll in $build"
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DOSTREL_WINDOWS_DEPS="$deps" \
      -DCMAKE_BUILD_TYPE=Release -DOpenCV_DIR="$deps" -DOpenCV_STATIC=ON "${zlib_args[@]}" \
      -DGTest_DIR="$gtest/lib/cmake/GTest" \
      -DCLI11_DIR="$headers/share/cmake/CLI11" -Dnlohmann_json_DIR="$headers/share/cmake/nlohmann_json" \
      -DCMAKE_RUNTIME_OUTPUT_DIRECTORY="$build/bin" \
      -DCMAKE_CROSSCOMPILING_EMULATOR="$root/tests/windows/wine-run.sh" \
      -DOSTREL_BUILD_TESTS=OFF -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_WINDOWS_TESTS=ON \
      -DOSTREL_BUILD_TOOLS="${OSTREL_WINDOWS_TOOL:-ON}" >"$build/configure.log" ||
  { cat "$build/configure.log"; die "configure failed"; }
cmake --build "$build" -j"$jobs"

# --- The folder a Windows host needs ------------------------------------------------
dist=$build/dist
rm -rf "$dist" "$build/ostrel_alg-windows-x64.zip"
mkdir -p "$dist"
cp "$build/bin/ostrel_alg.dll" "$build/libostrel_alg.dll.a" "$root/include/ostrel_alg.h" "$dist/"
# The DLL's exports as a module-definition file: Visual C++ hosts make their
# import library from it (lib /def:ostrel_alg.def /machine:x64).
{
  echo "LIBRARY ostrel_alg.dll"
  echo "EXPORTS"
  $triplet-objdump -p "$dist/ostrel_alg.dll" |
    sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | sed -n 's/^\s*\[ *[0-9]*\] \(ostrel_alg_[A-Za-z0-9_]*\)$/    \1/p'
} > "$dist/ostrel_alg.def"
if [ -f "$build/bin/ostrel.exe" ]; then
  cp "$build/bin/ostrel.exe" "$dist/"
fi
# Symbols are of no use to a host; they are most of the size.
$triplet-strip --strip-unneeded "$dist"/*.dll "$dist"/*.exe
(cd "$dist" && /usr/bin/python3 -m zipfile -c ../ostrel_alg-windows-x64.zip ./*)
say "done: $dist ($(cd "$dist" && ls | tr '\n' ' '))"
