// cpu_features: which of the accurate profile's faster loops this processor
// runs. The library is built for the baseline of its target (x86-64: SSE2)
// and compiles each AVX2 or AVX-512 loop alone with a target attribute, so
// one build runs on every processor; these answers choose the loop at run
// time. They also say whether the operating system saves the wider
// registers (the compiler's feature test checks that), and are computed
// once per process.
#pragma once

namespace ostrel {

// AVX2 (256-bit integer vectors).
bool cpu_has_avx2();
// AVX-512 F and VNNI (512-bit vectors and the pair multiply-add vpdpwssd).
bool cpu_has_avx512_vnni();

}  // namespace ostrel

// Whether this compiler can build the AVX2 / AVX-512 loops at all (GCC or
// Clang on x86); elsewhere only the plain loops exist.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define OSTREL_HAVE_X86_VECTOR_LOOPS 1
#endif
