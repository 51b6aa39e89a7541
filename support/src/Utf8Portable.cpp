// The portable decoding loop: 16 bytes a step where they are ASCII (SSE2 on
// x86-64), one character at a time elsewhere.
#include <cstddef>

#include "Utf8Paths.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace KALDO::detail {

namespace {

// Widens the 16 bytes at `in` into 16 wide characters at `out` and returns
// how many of them, from the front, were ASCII (16 when all were). Only that
// many output characters are valid; the caller overwrites the rest. Logs and
// configuration files are mostly ASCII with a few accented names or symbols,
// so the vector step must keep working between non-ASCII characters rather
// than give up on a whole block for one of them.
inline unsigned WidenAsciiPrefix16(const unsigned char* in, wchar_t* out) {
#if defined(__SSE2__)
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_unpacklo_epi8(v, zero);
    const __m128i hi = _mm_unpackhi_epi8(v, zero);
    auto* dst = reinterpret_cast<__m128i*>(out);
    _mm_storeu_si128(dst + 0, _mm_unpacklo_epi16(lo, zero));
    _mm_storeu_si128(dst + 1, _mm_unpackhi_epi16(lo, zero));
    _mm_storeu_si128(dst + 2, _mm_unpacklo_epi16(hi, zero));
    _mm_storeu_si128(dst + 3, _mm_unpackhi_epi16(hi, zero));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(v));
    return mask == 0 ? 16u : static_cast<unsigned>(__builtin_ctz(mask));
#else
    unsigned n = 0;
    while (n < 16 && in[n] < 0x80) {
        out[n] = static_cast<wchar_t>(in[n]);
        ++n;
    }
    return n;
#endif
}

}  // namespace

size_t DecodePortable(const unsigned char* in, size_t size, wchar_t* out, bool final, size_t i,
                      size_t o, size_t& consumed) {
    while (i < size) {
        // Never more characters than bytes (o <= i), so the 16 characters
        // written here always fit in the room the caller gave for `size`.
        if (size - i >= 16) {
            const unsigned ascii = WidenAsciiPrefix16(in + i, out + o);
            i += ascii;
            o += ascii;
            if (ascii == 16) continue;
        }
        if (!DecodeNext(in, size, i, out, o, final)) break;
    }
    consumed = i;
    return o;
}

}  // namespace KALDO::detail
