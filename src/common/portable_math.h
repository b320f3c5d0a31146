// portable_math: exp and log that give the same bits on every platform.
//
// The C library's std::exp and std::log are accurate to about one unit in
// the last place, but which of two neighbouring doubles they return differs
// between C libraries (glibc on Linux, MinGW-w64's on Windows). Where such a
// value becomes a detection's score or decides between two sizes, the
// Linux build and the Windows DLL would disagree. These versions use
// additions, multiplications and divisions alone (which IEEE arithmetic
// rounds the same everywhere, and x86-64 compilers do not fuse without an
// FMA target), in a fixed order, so every build computes the same bits.
// The error of exp and log is within two units in the last place of the
// exact value.
#pragma once

namespace ostrel {

// e^x; +infinity above the largest double, 0 below the smallest.
double portable_exp(double x);

// The natural logarithm; -infinity at 0, NaN below 0 and for NaN.
double portable_log(double x);

// The complementary error function 1 - erf(x), to an absolute error below
// 1e-14 (not a relative one: for large x the value itself is below that),
// which is what a sum of smoothed counts needs.
double portable_erfc(double x);

}  // namespace ostrel
