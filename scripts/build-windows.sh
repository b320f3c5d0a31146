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
# libz-mingw-w64-dev. Debian builds its OpenCV with LAPACK and Eigen, and the
# false-positive filter's analysis goes through both (matrix products through
# the reference BLAS, eigenvectors through Eigen); so that the DLL computes the
# same bits, the reference BLAS, CBLAS and LAPACK are cross-built from Debian's
# lapack source package (Fortran with gfortran-mingw-w64) and OpenCV against
# them and Debian's Eigen headers. Those builds take minutes, so they are kept in
#   ${OSTREL_WINDOWS_CACHE:-$HOME/.cache/ostrel-windows}/lapack-<version>/
#   ${OSTREL_WINDOWS_CACHE:-$HOME/.cache/ostrel-windows}/opencv-<version>+lapack-<version>+eigen-<version>/
# and reused by later runs; GoogleTest (from /usr/src/googletest) likewise.
# Each stage says its wall and CPU time.
set -euo pipefail
shopt -s inherit_errexit  # a failure inside $(...) stops the script too
cd "$(dirname "$0")/.."
root=$PWD

jobs=${OSTREL_JOBS:-$(nproc 2>/dev/null || echo 2)}
cache=${OSTREL_WINDOWS_CACHE:-$HOME/.cache/ostrel-windows}
build=${OSTREL_WINDOWS_BUILD:-$root/build-windows}
triplet=x86_64-w64-mingw32
mingw_root=/usr/$triplet
toolchain=$root/cmake/mingw-w64-x86_64.cmake
zlib_args=(-DZLIB_LIBRARY=$mingw_root/lib/libz.a -DZLIB_INCLUDE_DIR=$mingw_root/include)

# Every message goes to standard error: some helpers below print a result on
# standard output that the caller captures with $(...), and a message mixed
# into it would corrupt the captured value.
say() { echo "build-windows: $*" >&2; }
die() { echo "build-windows: $*" >&2; exit 1; }
seconds_since() { echo $(($(date +%s) - $1)); }
timed() {  # timed WHAT COMMAND...: runs COMMAND, then says its wall and CPU time
  local TIMEFORMAT="build-windows: $1: %R s wall, %U s user + %S s system CPU"
  shift
  time "$@"
}

if ! command -v $triplet-g++-posix >/dev/null || ! command -v $triplet-gfortran-posix >/dev/null ||
   [ ! -f $mingw_root/lib/libz.a ] || [ ! -f /usr/include/eigen3/Eigen/Core ]; then
  scripts/setup.sh
fi

# --- Debian source packages ---------------------------------------------------
# ensure_deb_src, fetch_source PACKAGE VERSION (prints the unpacked folder and
# nothing else) and source_version PACKAGE.
# shellcheck source=scripts/debian-source.sh
source "$root/scripts/debian-source.sh"

# --- BLAS and LAPACK for Windows ---------------------------------------------------
# The versions the Linux OpenCV runs with: Debian's reference libblas3 and
# liblapack3 (its OpenCV's dependencies) and the Eigen it was compiled with.
lapack_version=$(source_version libblas3 2>/dev/null || true)
if [ -z "$lapack_version" ]; then
  # This machine's OpenCV runs on another BLAS (its Linux filter rounds
  # differently then): the release's reference BLAS all the same.
  lapack_version=$(apt-cache show --no-all-versions libblas3 | sed -n 's/^Version: //p')
fi
eigen_version=$(dpkg-query -W -f='${Version}' libeigen3-dev)
lapack=$cache/lapack-$lapack_version

# The reference BLAS with its C interface (OpenCV calls cblas_?gemm) and the
# real single and double precision LAPACK (the only routines OpenCV calls; the
# complex half of LAPACK would double the time), as static libraries, compiled
# the way Debian compiles them: its make.inc recipe with -O2 -frecursive (-O0
# for the few routines LAPACK's Makefile marks), gfortran of the same GCC
# release as Debian's.
# libgfortran and libquadmath go beside them, so that links stay static.
build_lapack() {
  local src objects
  rm -rf "$lapack"
  src=$(fetch_source lapack "$lapack_version")
  sed -e "s%^CC *=.*%CC = $triplet-gcc-posix%" \
      -e "s%^FC *=.*%FC = $triplet-gfortran-posix%" \
      -e "s%^CFLAGS *=.*%CFLAGS = -O2%" \
      -e "s%^FFLAGS *=.*%FFLAGS = -O2 -frecursive%" \
      -e "s%^FFLAGS_NOOPT *=.*%FFLAGS_NOOPT = -O0 -frecursive%" \
      -e "s%^AR *=.*%AR = $triplet-ar%" \
      -e "s%^RANLIB *=.*%RANLIB = $triplet-ranlib%" \
      "$src/INSTALL/make.inc.gfortran" >"$src/make.inc"
  make -C "$src" -j"$jobs" blaslib cblaslib >"$src/build.log"
  # One after the other, as both add to the same archive; and with every
  # target kept, or make deletes the Fortran module files of the first as
  # intermediate and the second cannot compile.
  echo ".SECONDARY:" >"$src/keep-intermediates.mk"
  local precision
  for precision in single double; do
    make -C "$src/SRC" -f Makefile -f "$src/keep-intermediates.mk" -j"$jobs" $precision >>"$src/build.log"
  done

  mkdir -p "$lapack/lib" "$lapack/include"
  # One libblas.a of the Fortran BLAS and CBLAS, with CBLAS's xerbla, as
  # Debian makes libblas.so.3.
  objects=$src/blas-objects
  rm -rf "$objects"
  mkdir "$objects"
  (cd "$objects" && $triplet-ar x "$src/librefblas.a" && rm xerbla.o && $triplet-ar x "$src/libcblas.a" &&
     $triplet-ar rcs "$lapack/lib/libblas.a" $(LC_ALL=C ls ./*.o))
  cp "$src/liblapack.a" "$lapack/lib/"
  cp "$($triplet-gfortran-posix -print-file-name=libgfortran.a)" \
     "$($triplet-gfortran-posix -print-file-name=libquadmath.a)" "$lapack/lib/"
  cp "$src/CBLAS/include/cblas.h" "$src/CBLAS/include/cblas_mangling.h" "$src/LAPACKE/include/lapack.h" \
     "$src/LAPACKE/include/lapacke.h" "$src/LAPACKE/include/lapacke_config.h" "$lapack/include/"
  cp "$src/LAPACKE/include/lapacke_mangling_with_flags.h.in" "$lapack/include/lapacke_mangling.h"
  echo "$lapack_version" >"$lapack/.complete"
}

if [ -f "$lapack/.complete" ]; then
  say "reusing BLAS and LAPACK $lapack_version for Windows from $lapack"
else
  say "cross-building BLAS and LAPACK $lapack_version for Windows into $lapack (once per version)"
  timed "BLAS and LAPACK $lapack_version" build_lapack
fi

# --- OpenCV and its image libraries for Windows ----------------------------------
opencv_version=$(source_version libopencv-dev)
deps=$cache/opencv-$opencv_version+lapack-$lapack_version+eigen-$eigen_version

build_jpeg_and_png() {
  local work=$1 src
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
}

build_opencv() {
  local work=$1 src
  src=$(fetch_source opencv "$opencv_version")
  # The modules the library and the tool use, static, with nothing optional
  # but what decides their arithmetic: the CPU baseline of Debian's own amd64
  # build (SSE2, run-time dispatch above), LAPACK on (products of 100 rows
  # and more, and decompositions of large matrices, go to BLAS and LAPACK;
  # the smaller ones to OpenCV's baseline code) and Eigen on (cv::eigen).
  # The LAPACK headers are found by a bare check_include_file: hand it
  # their folder.
  local lapack_libraries="$lapack/lib/liblapack.a;$lapack/lib/libblas.a;$lapack/lib/libgfortran.a;$lapack/lib/libquadmath.a"
  cmake -S "$src" -B "$work/opencv" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DOSTREL_WINDOWS_DEPS="$deps" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$deps" \
        -DBUILD_SHARED_LIBS=OFF -DBUILD_LIST=core,imgproc,ml,imgcodecs \
        -DCPU_BASELINE=SSE2 -DCPU_BASELINE_DISABLE=SSE3 \
        -DWITH_LAPACK=ON -DOPENCV_LAPACK_FIND_PACKAGE_ONLY=ON -DLAPACK_IMPL=LAPACK/Generic \
        -DLAPACK_LIBRARIES="$lapack_libraries" -DLAPACK_INCLUDE_DIR="$lapack/include" \
        -DLAPACK_CBLAS_H=cblas.h -DLAPACK_LAPACKE_H=lapacke.h -DCMAKE_REQUIRED_INCLUDES="$lapack/include" \
        -DWITH_EIGEN=ON -DOPENCV_SKIP_EIGEN_FIND_PACKAGE_CONFIG=ON -DEIGEN_INCLUDE_PATH=/usr/include/eigen3 \
        -DBUILD_TESTS=OFF -DBUILD_PERF_TESTS=OFF -DBUILD_EXAMPLES=OFF -DBUILD_DOCS=OFF -DBUILD_opencv_apps=OFF \
        -DBUILD_JAVA=OFF -DBUILD_opencv_python3=OFF -DBUILD_opencv_python2=OFF -DBUILD_PROTOBUF=OFF \
        -DBUILD_ZLIB=OFF -DBUILD_PNG=OFF -DBUILD_JPEG=OFF -DBUILD_TIFF=OFF -DBUILD_WEBP=OFF \
        -DBUILD_OPENJPEG=OFF -DBUILD_JASPER=OFF -DBUILD_OPENEXR=OFF -DBUILD_ITT=OFF \
        -DWITH_PNG=ON -DWITH_JPEG=ON -DWITH_SPNG=OFF -DWITH_TIFF=OFF -DWITH_WEBP=OFF -DWITH_OPENJPEG=OFF \
        -DWITH_JASPER=OFF -DWITH_OPENEXR=OFF -DWITH_IMGCODEC_HDR=OFF -DWITH_IMGCODEC_SUNRASTER=OFF \
        -DWITH_IMGCODEC_PXM=ON -DWITH_IMGCODEC_PFM=OFF \
        -DWITH_IPP=OFF -DWITH_ITT=OFF -DWITH_OPENCL=OFF -DWITH_OPENMP=OFF \
        -DWITH_TBB=OFF -DWITH_CUDA=OFF -DWITH_ADE=OFF -DWITH_PROTOBUF=OFF -DWITH_QUIRC=OFF -DWITH_FFMPEG=OFF \
        -DWITH_GSTREAMER=OFF -DWITH_DSHOW=OFF -DWITH_MSMF=OFF -DWITH_WIN32UI=OFF -DWITH_VTK=OFF -DWITH_GTK=OFF \
        -DWITH_1394=OFF -DWITH_OBSENSOR=OFF -DWITH_DIRECTX=OFF -DWITH_OPENCLAMDFFT=OFF -DWITH_OPENCLAMDBLAS=OFF \
        -DWITH_VA=OFF -DWITH_VA_INTEL=OFF -DWITH_CAROTENE=OFF \
        -DOPENCV_GENERATE_SETUPVARS=OFF -DBUILD_INFO_SKIP_TIMESTAMP=ON -DENABLE_PRECOMPILED_HEADERS=OFF \
        "${zlib_args[@]}" >"$work/opencv-configure.log"
  # A build without them would compute other bits: refuse it.
  grep -Eq '^-- +Lapack: +YES' "$work/opencv-configure.log" ||
    { cat "$work/opencv-configure.log"; die "OpenCV for Windows did not take LAPACK"; }
  grep -Eq '^-- +Eigen: +YES' "$work/opencv-configure.log" ||
    { cat "$work/opencv-configure.log"; die "OpenCV for Windows did not take Eigen"; }
  cmake --build "$work/opencv" -j"$jobs" --target install >"$work/opencv-build.log"
}

build_deps() {
  local work=$cache/work
  rm -rf "$deps" "$work"
  mkdir -p "$work"
  timed "libjpeg-turbo and libpng" build_jpeg_and_png "$work"
  timed "OpenCV $opencv_version" build_opencv "$work"
  echo "$opencv_version" >"$deps/.complete"
  rm -rf "$work"
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

# --- pugixml for Windows (the tool's VOC reader), from Debian's source package --
pugixml_version=$(source_version libpugixml-dev)
pugixml=$cache/pugixml-$pugixml_version
if [ ! -f "$pugixml/.complete" ]; then
  say "cross-building pugixml $pugixml_version for Windows into $pugixml"
  rm -rf "$pugixml" "$cache/work-pugixml"
  src=$(fetch_source pugixml "$pugixml_version")
  cmake -S "$src" -B "$cache/work-pugixml" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$pugixml" -DBUILD_SHARED_LIBS=OFF -DPUGIXML_BUILD_TESTS=OFF >/dev/null
  cmake --build "$cache/work-pugixml" -j"$jobs" --target install >/dev/null
  echo "$pugixml_version" > "$pugixml/.complete"
  rm -rf "$cache/work-pugixml"
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
      -Dpugixml_DIR="$(dirname "$(find "$pugixml" -name pugixml-config.cmake -print -quit)")" \
      -DCMAKE_RUNTIME_OUTPUT_DIRECTORY="$build/bin" \
      -DCMAKE_CROSSCOMPILING_EMULATOR="$root/tests/windows/wine-run.sh" \
      -DOSTREL_BUILD_TESTS=OFF -DOSTREL_BUILD_BENCH=OFF -DOSTREL_BUILD_WINDOWS_TESTS=ON \
      -DOSTREL_BUILD_TOOLS="${OSTREL_WINDOWS_TOOL:-ON}" >"$build/configure.log" ||
  { cat "$build/configure.log"; die "configure failed"; }
timed "ostrel_alg.dll, ostrel.exe and the Windows tests" cmake --build "$build" -j"$jobs"

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
