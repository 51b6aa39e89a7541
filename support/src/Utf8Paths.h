// The decoding paths behind DecodeUtf8, which chooses one at run time: the
// portable loop (Utf8Portable.cpp) and, on x86-64, the 32-byte AVX2 windows
// (Utf8Avx2.cpp); and the one-character steps both take where a vector step
// stops. Internal to CoreUtils.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Utf8.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define KALDO_UTF8_AVX2 1
#else
#define KALDO_UTF8_AVX2 0
#endif

namespace KALDO::detail {

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

// The portable loop, from input position i and output position o (a
// character starts at i). Arguments and result as DecodeUtf8's.
size_t DecodePortable(const unsigned char* in, size_t size, wchar_t* out, bool final, size_t i,
                      size_t o, size_t& consumed);

#if KALDO_UTF8_AVX2
// As DecodeUtf8, in 32-byte windows; only where the processor has AVX2.
size_t DecodeAvx2(const unsigned char* in, size_t size, wchar_t* out, bool final, size_t& consumed);
#endif

}  // namespace KALDO::detail
