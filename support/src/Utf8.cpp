#include "Utf8.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

static_assert(sizeof(wchar_t) == 4, "CoreUtils keeps text as UTF-32 in 4-byte wchar_t");

namespace KALDO::detail {

namespace {

// Widens 16 bytes into 16 wide characters when all of them are ASCII; the
// common case of configuration files and logs, worth a vector path.
inline bool WidenAscii16(const unsigned char* in, wchar_t* out) {
#if defined(__SSE2__)
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    if (_mm_movemask_epi8(v) != 0) return false;
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_unpacklo_epi8(v, zero);
    const __m128i hi = _mm_unpackhi_epi8(v, zero);
    auto* dst = reinterpret_cast<__m128i*>(out);
    _mm_storeu_si128(dst + 0, _mm_unpacklo_epi16(lo, zero));
    _mm_storeu_si128(dst + 1, _mm_unpackhi_epi16(lo, zero));
    _mm_storeu_si128(dst + 2, _mm_unpacklo_epi16(hi, zero));
    _mm_storeu_si128(dst + 3, _mm_unpackhi_epi16(hi, zero));
    return true;
#else
    uint64_t a;
    uint64_t b;
    std::memcpy(&a, in, 8);
    std::memcpy(&b, in + 8, 8);
    if (((a | b) & 0x8080808080808080ULL) != 0) return false;
    for (int k = 0; k < 16; ++k) out[k] = static_cast<wchar_t>(in[k]);
    return true;
#endif
}

}  // namespace

size_t DecodeUtf8(const unsigned char* in, size_t size, wchar_t* out, bool final,
                  size_t& consumed) {
    size_t i = 0;
    size_t o = 0;
    while (i < size) {
        if (size - i >= 16 && WidenAscii16(in + i, out + o)) {
            i += 16;
            o += 16;
            continue;
        }
        const unsigned c = in[i];
        if (c < 0x80) {
            out[o++] = static_cast<wchar_t>(c);
            ++i;
            continue;
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
            continue;
        }
        size_t j = i + 1;
        bool complete = true;
        for (unsigned k = 0; k < need; ++k, ++j) {
            if (j >= size) {
                if (!final) {
                    consumed = i;
                    return o;
                }
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
    }
    consumed = i;
    return o;
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
