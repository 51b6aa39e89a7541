#include "Utf8.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define KALDO_UTF8_AVX2 1
#else
#define KALDO_UTF8_AVX2 0
#endif

static_assert(sizeof(wchar_t) == 4, "CoreUtils keeps text as UTF-32 in 4-byte wchar_t");

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

inline bool IsContinuation(unsigned b) {
    return (b & 0xC0) == 0x80;
}

// Decodes the sequence at `in` (whose lead byte is not ASCII) when it is
// well formed; returns its length, or 0 when it is not (the careful path then
// decides how many U+FFFD it makes). The caller guarantees four readable bytes.
inline unsigned DecodeWellFormed(const unsigned char* in, wchar_t& out) {
    const unsigned c = in[0];
    const unsigned b1 = in[1];
    if (c >= 0xC2 && c <= 0xDF) {
        if (!IsContinuation(b1)) return 0;
        out = static_cast<wchar_t>(((c & 0x1F) << 6) | (b1 & 0x3F));
        return 2;
    }
    const unsigned b2 = in[2];
    if ((c & 0xF0) == 0xE0) {
        if (!IsContinuation(b1) || !IsContinuation(b2)) return 0;
        const uint32_t cp = ((c & 0x0F) << 12) | ((b1 & 0x3F) << 6) | (b2 & 0x3F);
        if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
        out = static_cast<wchar_t>(cp);
        return 3;
    }
    const unsigned b3 = in[3];
    if (c >= 0xF0 && c <= 0xF4) {
        if (!IsContinuation(b1) || !IsContinuation(b2) || !IsContinuation(b3)) return 0;
        const uint32_t cp =
            ((c & 0x07) << 18) | ((b1 & 0x3F) << 12) | ((b2 & 0x3F) << 6) | (b3 & 0x3F);
        if (cp < 0x10000 || cp > 0x10FFFF) return 0;
        out = static_cast<wchar_t>(cp);
        return 4;
    }
    return 0;
}

// Decodes one character at in[i] the careful way: every malformed sequence
// becomes U+FFFD as the header describes. Returns false, leaving i at the
// sequence, when the input ends inside a sequence that is valid so far and
// more input may follow (!final).
inline bool DecodeOne(const unsigned char* in, size_t size, size_t& i, wchar_t* out, size_t& o,
                      bool final) {
    const unsigned c = in[i];
    if (c < 0x80) {
        out[o++] = static_cast<wchar_t>(c);
        ++i;
        return true;
    }
    // The valid range of the second byte depends on the lead byte; it is
    // what rules out overlong forms, surrogates and values past U+10FFFF.
    unsigned need;
    unsigned lo = 0x80;
    unsigned hi = 0xBF;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
        need = 1;
        cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        need = 2;
        cp = c & 0x0F;
        if (c == 0xE0) lo = 0xA0;
        if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        need = 3;
        cp = c & 0x07;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;
    } else {
        out[o++] = kReplacement;
        ++i;
        return true;
    }
    size_t j = i + 1;
    bool complete = true;
    for (unsigned k = 0; k < need; ++k, ++j) {
        if (j >= size) {
            if (!final) return false;
            complete = false;
            break;
        }
        const unsigned b = in[j];
        if (b < lo || b > hi) {
            complete = false;
            break;
        }
        lo = 0x80;
        hi = 0xBF;
        cp = (cp << 6) | (b & 0x3F);
    }
    out[o++] = complete ? static_cast<wchar_t>(cp) : kReplacement;
    i = j;
    return true;
}

// One character where a vector step stopped: a well-formed sequence with
// room to read takes the straight line, anything else the careful path.
// Returns false as DecodeOne does.
inline bool DecodeNext(const unsigned char* in, size_t size, size_t& i, wchar_t* out, size_t& o,
                       bool final) {
    if (size - i >= 4) {
        if (const unsigned length = DecodeWellFormed(in + i, out[o])) {
            i += length;
            ++o;
            return true;
        }
    }
    return DecodeOne(in, size, i, out, o, final);
}

// The portable loop, from input position i and output position o.
size_t DecodeFrom(const unsigned char* in, size_t size, wchar_t* out, bool final, size_t i,
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

#if KALDO_UTF8_AVX2
// Where the processor has AVX2 (nearly every x86-64 Mac and server), 32
// bytes a step.
__attribute__((target("avx2"))) inline void Widen32(const unsigned char* in, wchar_t* out) {
    auto* dst = reinterpret_cast<__m256i*>(out);
    for (int k = 0; k < 4; ++k) {
        const __m128i eight = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + 8 * k));
        _mm256_storeu_si256(dst + k, _mm256_cvtepu8_epi32(eight));
    }
}

// Each 32-byte window is classified once; within it the ASCII runs between
// non-ASCII characters are found from that one mask, so finding where the
// next run starts never waits for another load (on text with a few non-ASCII
// characters per line that wait, not the work, set the pace).
__attribute__((target("avx2"))) size_t DecodeAvx2(const unsigned char* in, size_t size,
                                                  wchar_t* out, bool final, size_t& consumed) {
    size_t i = 0;
    size_t o = 0;
    // A run's widening reads and writes up to 32 characters past its start,
    // which may lie anywhere in the window: keep two windows of input (and
    // so of output room, o <= i) ahead.
    while (size - i >= 64) {
        const __m256i window = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + i));
        const uint64_t nonAscii = static_cast<uint32_t>(_mm256_movemask_epi8(window));
        size_t pos = 0;
        while (pos < 32) {
            Widen32(in + i + pos, out + o);
            const uint64_t rest = nonAscii >> pos;
            const size_t ascii = rest == 0 ? 32 - pos : static_cast<size_t>(__builtin_ctzll(rest));
            pos += ascii;
            o += ascii;
            if (pos >= 32) break;
            size_t at = i + pos;
            DecodeNext(in, size, at, out, o, final);  // never cut short: 32 bytes follow
            pos = at - i;
        }
        i += pos;
    }
    return DecodeFrom(in, size, out, final, i, o, consumed);
}

bool HasAvx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}
#endif

}  // namespace

size_t DecodeUtf8(const unsigned char* in, size_t size, wchar_t* out, bool final,
                  size_t& consumed) {
#if KALDO_UTF8_AVX2
    static const bool avx2 = HasAvx2();
    if (avx2) return DecodeAvx2(in, size, out, final, consumed);
#endif
    return DecodeFrom(in, size, out, final, 0, 0, consumed);
}

void EncodeUtf8(const wchar_t* text, size_t size, std::string& out) {
    out.reserve(out.size() + size);
    for (size_t i = 0; i < size; ++i) {
        uint32_t cp = static_cast<uint32_t>(text[i]);
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
            continue;
        }
        if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) cp = 0xFFFD;
        if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        }
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace KALDO::detail
