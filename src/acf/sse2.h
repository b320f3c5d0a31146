// sse2: whether the byte loops of the feature code may use SSE2 (every
// x86-64 build, and 32-bit builds that target it), and the step that both
// 8-bit resampling loops are built from.
#pragma once

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#define OSTREL_SSE2 1
#include <emmintrin.h>

namespace ostrel {
namespace acf_helper {

// Adds a * wa + b * wb to the four accumulators, lanes 0-3, 4-7, 8-11 and
// 12-15 of the sixteen bytes of a and b in that order, where w holds
// (wb << 16) | wa in every 32-bit lane. Exact for weights that fit 16 bits
// (signed) and sums that fit 32 bits.
inline void add_weighted_byte_pair(__m128i a, __m128i b, __m128i w, __m128i &acc0, __m128i &acc1, __m128i &acc2,
                                   __m128i &acc3) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i a_lo = _mm_unpacklo_epi8(a, zero);
    const __m128i a_hi = _mm_unpackhi_epi8(a, zero);
    const __m128i b_lo = _mm_unpacklo_epi8(b, zero);
    const __m128i b_hi = _mm_unpackhi_epi8(b, zero);
    acc0 = _mm_add_epi32(acc0, _mm_madd_epi16(_mm_unpacklo_epi16(a_lo, b_lo), w));
    acc1 = _mm_add_epi32(acc1, _mm_madd_epi16(_mm_unpackhi_epi16(a_lo, b_lo), w));
    acc2 = _mm_add_epi32(acc2, _mm_madd_epi16(_mm_unpacklo_epi16(a_hi, b_hi), w));
    acc3 = _mm_add_epi32(acc3, _mm_madd_epi16(_mm_unpackhi_epi16(a_hi, b_hi), w));
}

}  // namespace acf_helper
}  // namespace ostrel
#endif
