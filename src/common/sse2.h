// sse2: whether the byte loops may use SSE2 (every x86-64 build, and
// 32-bit builds that target it). Each such loop gives the bytes of its
// portable form exactly; this only chooses the faster one.
#pragma once

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#define OSTREL_SSE2 1
#include <emmintrin.h>
#endif
