#include "Utf8.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// GCC 12's AVX-512 header starts some intrinsics from a deliberately
// undefined value, which its own uninitialised-use warning then flags.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif
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
// Where the processor has AVX2 (nearly every x86-64 Mac and server), text is
// taken 32 bytes a step with no branch that depends on which characters it
// holds: mixed text (a non-ASCII character every few words) would otherwise
// pay a mispredicted branch for nearly every one of them.
//
// A step covers the window [p, p + 32). Every byte position is looked at as
// the possible last byte of a character: from it and the three bytes before
// it the code point that such a character would have is assembled, for all
// 32 positions at once, and the positions that really end a character (the
// byte after them is not a continuation byte) are then packed together with
// a shuffle table. A step also checks that its bytes are well formed; when
// they are not, the careful path decodes that stretch instead, so that
// malformed text gets exactly the U+FFFD it gets everywhere else.
//
// Positions: the step checks the bytes [p, p + 32), each against the three
// before it, and emits the characters that end in [p - 1, p + 31): whether
// one ends at k is told by byte k + 1, which the step has checked.

// For each 8-bit mask, the permutation that moves the 32-bit lanes whose
// bit is set to the front, in order.
struct CompressTable {
    alignas(32) uint8_t lanes[256][8];
};
constexpr CompressTable MakeCompressTable() {
    CompressTable table{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        unsigned n = 0;
        for (unsigned lane = 0; lane < 8; ++lane)
            if (mask & (1u << lane)) table.lanes[mask][n++] = static_cast<uint8_t>(lane);
    }
    return table;
}
constexpr CompressTable kCompress = MakeCompressTable();

// Validation looks at each byte with the byte before it. Three tables,
// indexed by the high and the low half of the previous byte and by the high
// half of the current one, each give the faults that the pair could show; a
// fault is there where all three agree. Nine faults share eight bits: the two
// that share one have no valid pair in common.
enum : uint8_t {
    kTooShort = 1 << 0,   // a lead byte not followed by a continuation byte
    kTooLong = 1 << 1,    // a continuation byte after an ASCII byte
    kOverlong3 = 1 << 2,  // E0 80..9F
    kSurrogate = 1 << 3,  // ED A0..BF
    kOverlong2 = 1 << 4,  // C0 or C1 and a continuation byte
    kTooLarge = 1 << 5,   // F4 90..BF, F5..FF 90..BF
    kOverlong4 = 1 << 6,  // F0 80..8F, and F5..FF 80..8F (past U+10FFFF)
    kTwoConts = 1 << 7,   // a continuation byte after a continuation byte
};
// The faults that do not depend on the previous byte's low half, and those
// that a continuation byte as the current one can show.
constexpr uint8_t kAnyLow = kTooShort | kTooLong | kTwoConts;
constexpr uint8_t kCont = kTooLong | kTwoConts | kOverlong2;
// clang-format off
alignas(16) constexpr uint8_t kPrevHigh[16] = {
    kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong,  // 0..7
    kTwoConts, kTwoConts, kTwoConts, kTwoConts,                                      // 8..B
    kTooShort | kOverlong2,                                                          // C
    kTooShort,                                                                       // D
    kTooShort | kOverlong3 | kSurrogate,                                             // E
    kTooShort | kTooLarge | kOverlong4};                                             // F
alignas(16) constexpr uint8_t kPrevLow[16] = {
    kAnyLow | kOverlong2 | kOverlong3 | kOverlong4,  // 0
    kAnyLow | kOverlong2,                            // 1
    kAnyLow, kAnyLow,                                // 2, 3
    kAnyLow | kTooLarge,                             // 4
    kAnyLow | kTooLarge | kOverlong4, kAnyLow | kTooLarge | kOverlong4,  // 5, 6
    kAnyLow | kTooLarge | kOverlong4, kAnyLow | kTooLarge | kOverlong4,  // 7, 8
    kAnyLow | kTooLarge | kOverlong4, kAnyLow | kTooLarge | kOverlong4,  // 9, A
    kAnyLow | kTooLarge | kOverlong4, kAnyLow | kTooLarge | kOverlong4,  // B, C
    kAnyLow | kTooLarge | kOverlong4 | kSurrogate,                       // D
    kAnyLow | kTooLarge | kOverlong4, kAnyLow | kTooLarge | kOverlong4}; // E, F
alignas(16) constexpr uint8_t kCurrentHigh[16] = {
    kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort,
    kCont | kOverlong3 | kOverlong4,  // 8
    kCont | kOverlong3 | kTooLarge,   // 9
    kCont | kSurrogate | kTooLarge,   // A
    kCont | kSurrogate | kTooLarge,   // B
    kTooShort, kTooShort, kTooShort, kTooShort};
// clang-format on

__attribute__((target("avx2"))) inline __m256i Load32(const unsigned char* at) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
}

// Byte constants kept in memory: the steps use more of them than there are
// vector registers, and an operand from memory costs less than building the
// constant again in every step.
struct alignas(32) Bytes32 {
    uint8_t bytes[32];
};
constexpr Bytes32 Fill(uint8_t value) {
    Bytes32 row{};
    for (uint8_t& b : row.bytes) b = value;
    return row;
}
constexpr Bytes32 kBytes[] = {Fill(0x0F), Fill(0x3F), Fill(0xC0), Fill(0xF0),
                              Fill(0x1C), Fill(0x03), Fill(0x80), Fill(0x60),
                              Fill(0x70), Fill(0x6F), Fill(0xFF), Fill(0xBF)};
enum ByteConstant { k0F, k3F, kC0, kF0, k1C, k03, k80, k60, k70, k6F, kFF, kBF };

// `rows` is kBytes, passed through an empty asm statement that hides its
// contents: the compiler would otherwise build each constant again in a
// register in every step rather than read it.
__attribute__((target("avx2"))) inline __m256i Splat(const Bytes32* rows, ByteConstant c) {
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(rows[c].bytes));
}

__attribute__((target("avx2"))) inline __m256i Table(const uint8_t (&table)[16]) {
    return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(table)));
}

__attribute__((target("avx2"))) inline __m256i HighNibbles(const Bytes32* splats, __m256i bytes) {
    return _mm256_and_si256(_mm256_srli_epi16(bytes, 4), Splat(splats, k0F));
}

// Nonzero where a byte of `current` is not well formed, given the three
// bytes before it (in prev1, prev2, prev3).
__attribute__((target("avx2"))) inline __m256i Faults(const Bytes32* splats, __m256i current,
                                                      __m256i prev1, __m256i prev2, __m256i prev3) {
    const __m256i low = Splat(splats, k0F);
    const __m256i pairs = _mm256_and_si256(
        _mm256_and_si256(_mm256_shuffle_epi8(Table(kPrevHigh), HighNibbles(splats, prev1)),
                         _mm256_shuffle_epi8(Table(kPrevLow), _mm256_and_si256(prev1, low))),
        _mm256_shuffle_epi8(Table(kCurrentHigh), HighNibbles(splats, current)));
    // After a three- or four-byte lead, the byte two (three) on must be a
    // continuation that follows a continuation, which is what kTwoConts
    // marks; anywhere else kTwoConts is a fault. Subtracting with
    // saturation sets the top bit exactly for leads from E0 (F0) up.
    const __m256i needsTwo =
        _mm256_and_si256(_mm256_or_si256(_mm256_subs_epu8(prev2, Splat(splats, k60)),
                                         _mm256_subs_epu8(prev3, Splat(splats, k70))),
                         Splat(splats, k80));
    return _mm256_xor_si256(pairs, needsTwo);
}

// Widens the 32 ASCII bytes at `in`.
__attribute__((target("avx2"))) inline void Widen32(const unsigned char* in, wchar_t* out) {
    auto* dst = reinterpret_cast<__m256i*>(out);
    for (int k = 0; k < 4; ++k) {
        const __m128i eight = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + 8 * k));
        _mm256_storeu_si256(dst + k, _mm256_cvtepu8_epi32(eight));
    }
}

// Packs the lanes of `points` whose bit is set in `ends` to out + o.
__attribute__((target("avx2,popcnt"))) inline void Emit8(__m256i points, unsigned ends,
                                                         wchar_t* out, size_t& o) {
    const __m256i order = _mm256_cvtepu8_epi32(
        _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kCompress.lanes[ends])));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + o),
                        _mm256_permutevar8x32_epi32(points, order));
    o += static_cast<size_t>(__builtin_popcount(ends));
}

// Emits the characters that end at positions p - 1 + j for each bit j of
// `ends`, from the well-formed bytes before p + 31.
__attribute__((target("avx2,popcnt"))) inline void EmitWindow(const Bytes32* splats,
                                                              const unsigned char* in, size_t p,
                                                              uint32_t ends, wchar_t* out,
                                                              size_t& o) {
    // The byte at each position k and the three before it.
    const __m256i last = Load32(in + p - 1);
    const __m256i prev1 = Load32(in + p - 2);
    const __m256i prev2 = Load32(in + p - 3);
    const __m256i prev3 = Load32(in + p - 4);
    const __m256i ascii = _mm256_cmpgt_epi8(last, Splat(splats, kFF));
    // The code point in three byte planes (bits 0-7, 8-15, 16-20). A
    // continuation byte gives six bits; which earlier bytes join in is told
    // by where the lead byte is. Compares are signed: C0..FF are -64..-1,
    // and the ASCII bytes that also pass never precede a continuation byte
    // in a well-formed window.
    const __m256i bits0to7 = _mm256_blendv_epi8(
        _mm256_or_si256(_mm256_and_si256(last, Splat(splats, k3F)),
                        _mm256_and_si256(_mm256_slli_epi16(prev1, 6), Splat(splats, kC0))),
        last, ascii);
    const __m256i prev1IsLead = _mm256_cmpgt_epi8(prev1, Splat(splats, kBF));
    const __m256i bits8to15 = _mm256_andnot_si256(
        ascii, _mm256_or_si256(
                   _mm256_and_si256(_mm256_srli_epi16(prev1, 2), Splat(splats, k0F)),
                   _mm256_andnot_si256(prev1IsLead, _mm256_and_si256(_mm256_slli_epi16(prev2, 4),
                                                                     Splat(splats, kF0)))));
    // Only a four-byte character has bits above 15; its lead is prev3
    // (F0..F4, compared unsigned by flipping the top bit).
    const __m256i fourByte = _mm256_andnot_si256(
        ascii, _mm256_cmpgt_epi8(_mm256_xor_si256(prev3, Splat(splats, k80)), Splat(splats, k6F)));
    const __m256i bits16to20 = _mm256_and_si256(
        fourByte,
        _mm256_or_si256(_mm256_and_si256(_mm256_slli_epi16(prev3, 2), Splat(splats, k1C)),
                        _mm256_and_si256(_mm256_srli_epi16(prev2, 4), Splat(splats, k03))));
    // Interleave the planes into 32-bit lanes. Unpacking works within each
    // 128-bit half, so the lanes come out as positions [0-3|16-19],
    // [4-7|20-23], [8-11|24-27] and [12-15|28-31].
    const __m256i zero = _mm256_setzero_si256();
    const __m256i low16a = _mm256_unpacklo_epi8(bits0to7, bits8to15);
    const __m256i low16b = _mm256_unpackhi_epi8(bits0to7, bits8to15);
    const __m256i high16a = _mm256_unpacklo_epi8(bits16to20, zero);
    const __m256i high16b = _mm256_unpackhi_epi8(bits16to20, zero);
    const __m256i q0 = _mm256_unpacklo_epi16(low16a, high16a);
    const __m256i q1 = _mm256_unpackhi_epi16(low16a, high16a);
    const __m256i q2 = _mm256_unpacklo_epi16(low16b, high16b);
    const __m256i q3 = _mm256_unpackhi_epi16(low16b, high16b);
    Emit8(_mm256_permute2x128_si256(q0, q1, 0x20), ends & 0xFF, out, o);
    Emit8(_mm256_permute2x128_si256(q2, q3, 0x20), (ends >> 8) & 0xFF, out, o);
    Emit8(_mm256_permute2x128_si256(q0, q1, 0x31), (ends >> 16) & 0xFF, out, o);
    Emit8(_mm256_permute2x128_si256(q2, q3, 0x31), ends >> 24, out, o);
}

// Where a run of windows stopped. The run starts at p (after the careful
// path brought the text to a character start) and leaves p where it stopped.
struct WindowRun {
    size_t p;
    size_t o;              // output position
    size_t next;           // the start of the character after the last one emitted
    bool faulty = false;   // stopped at a window that is not well formed...
    size_t faultyEnd = 0;  // ...which ends here
};

__attribute__((target("avx2,popcnt"))) void RunWindowsAvx2(const unsigned char* in, size_t size,
                                                           wchar_t* out, WindowRun& run) {
    const Bytes32* splats = kBytes;
    __asm__("" : "+r"(splats));
    size_t p = run.p;
    size_t o = run.o;
    // Where the last character written ends: the last bit of the ends of the
    // last window that had one (found only when the windows stop).
    uint32_t lastEnds = 0;
    size_t lastWindow = 0;
    // A window reads [p - 4, p + 32) and writes at most 32 characters at o,
    // and o < p: both stay within the `size` the caller gave.
    for (; p + 32 <= size; p += 32) {
        const __m256i current = Load32(in + p);
        const __m256i prev1 = Load32(in + p - 1);
        const uint32_t continuations = static_cast<uint32_t>(
            _mm256_movemask_epi8(_mm256_cmpgt_epi8(Splat(splats, kC0), current)));
        const uint32_t ends = ~continuations;
        if ((static_cast<uint32_t>(_mm256_movemask_epi8(prev1)) | continuations) == 0) {
            Widen32(in + p - 1, out + o);  // ASCII: every position ends a character
            o += 32;
        } else {
            const __m256i faults =
                Faults(splats, current, prev1, Load32(in + p - 2), Load32(in + p - 3));
            if (!_mm256_testz_si256(faults, faults)) {
                run.faulty = true;
                run.faultyEnd = p + 32;
                break;
            }
            EmitWindow(splats, in, p, ends, out, o);
        }
        if (ends != 0) {
            lastEnds = ends;
            lastWindow = p;
        }
    }
    if (lastEnds != 0) run.next = lastWindow + static_cast<size_t>(31 - __builtin_clz(lastEnds));
    run.p = p;
    run.o = o;
}

// The same windows 64 bytes wide, where the processor has AVX-512 (BW):
// half the steps, and the mask registers and the compress instruction take
// the place of the move masks and the shuffle table.
#define KALDO_AVX512 __attribute__((target("avx512f,avx512bw,popcnt")))

KALDO_AVX512 inline __m512i Load64(const unsigned char* at) {
    return _mm512_loadu_si512(at);
}

// The byte constants, 64 bytes a row, read through a pointer the compiler
// cannot see through (as for the 32-byte windows): left to itself it builds
// each constant again in every step.
struct alignas(64) Row64 {
    uint8_t bytes[64];
};
constexpr Row64 Fill64(uint8_t value) {
    Row64 row{};
    for (uint8_t& b : row.bytes) b = value;
    return row;
}
constexpr Row64 kRows64[] = {Fill64(0x0F), Fill64(0x3F), Fill64(0xC0), Fill64(0xF0), Fill64(0x1C),
                             Fill64(0x03), Fill64(0x80), Fill64(0x60), Fill64(0x70)};
enum Row64Constant { r0F, r3F, rC0, rF0, r1C, r03, r80, r60, r70 };

KALDO_AVX512 inline __m512i Bytes(const Row64* rows, Row64Constant c) {
    return _mm512_load_si512(rows[c].bytes);
}

KALDO_AVX512 inline __m512i Table64(const uint8_t (&table)[16]) {
    return _mm512_broadcast_i32x4(_mm_load_si128(reinterpret_cast<const __m128i*>(table)));
}

KALDO_AVX512 inline __m512i HighNibbles64(const Row64* rows, __m512i bytes) {
    return _mm512_and_si512(_mm512_srli_epi16(bytes, 4), Bytes(rows, r0F));
}

// As Faults, for 64 bytes.
KALDO_AVX512 inline __m512i Faults64(const Row64* rows, __m512i current, __m512i prev1,
                                     __m512i prev2, __m512i prev3) {
    const __m512i pairs = _mm512_and_si512(
        _mm512_and_si512(
            _mm512_shuffle_epi8(Table64(kPrevHigh), HighNibbles64(rows, prev1)),
            _mm512_shuffle_epi8(Table64(kPrevLow), _mm512_and_si512(prev1, Bytes(rows, r0F)))),
        _mm512_shuffle_epi8(Table64(kCurrentHigh), HighNibbles64(rows, current)));
    const __m512i needsTwo =
        _mm512_and_si512(_mm512_or_si512(_mm512_subs_epu8(prev2, Bytes(rows, r60)),
                                         _mm512_subs_epu8(prev3, Bytes(rows, r70))),
                         Bytes(rows, r80));
    return _mm512_xor_si512(pairs, needsTwo);
}

KALDO_AVX512 inline void Widen64(const unsigned char* in, wchar_t* out) {
    for (int k = 0; k < 4; ++k) {
        const __m128i sixteen = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 16 * k));
        _mm512_storeu_si512(out + 16 * k, _mm512_cvtepu8_epi32(sixteen));
    }
}

KALDO_AVX512 inline void Emit16(__m512i points, __mmask16 ends, wchar_t* at) {
    _mm512_storeu_si512(at, _mm512_maskz_compress_epi32(ends, points));
}

// As EmitWindow, for the characters that end in [p - 1, p + 63).
KALDO_AVX512 inline void EmitWindow64(const Row64* rows, const unsigned char* in, size_t p,
                                      uint64_t ends, wchar_t* out, size_t& o) {
    const __m512i last = Load64(in + p - 1);
    const __m512i prev1 = Load64(in + p - 2);
    const __m512i prev2 = Load64(in + p - 3);
    const __m512i prev3 = Load64(in + p - 4);
    const __mmask64 ascii = ~_mm512_movepi8_mask(last);
    const __m512i bits0to7 = _mm512_mask_blend_epi8(
        ascii,
        _mm512_or_si512(_mm512_and_si512(last, Bytes(rows, r3F)),
                        _mm512_and_si512(_mm512_slli_epi16(prev1, 6), Bytes(rows, rC0))),
        last);
    // Signed compares: 80..BF are -128..-65.
    const __mmask64 prev1IsContinuation = _mm512_cmpgt_epi8_mask(Bytes(rows, rC0), prev1);
    const __m512i fromPrev2 = _mm512_maskz_mov_epi8(
        prev1IsContinuation, _mm512_and_si512(_mm512_slli_epi16(prev2, 4), Bytes(rows, rF0)));
    const __m512i bits8to15 = _mm512_maskz_mov_epi8(
        ~ascii, _mm512_or_si512(_mm512_and_si512(_mm512_srli_epi16(prev1, 2), Bytes(rows, r0F)),
                                fromPrev2));
    const __mmask64 fourByte = ~ascii & _mm512_cmpge_epu8_mask(prev3, Bytes(rows, rF0));
    const __m512i bits16to20 = _mm512_maskz_mov_epi8(
        fourByte, _mm512_or_si512(_mm512_and_si512(_mm512_slli_epi16(prev3, 2), Bytes(rows, r1C)),
                                  _mm512_and_si512(_mm512_srli_epi16(prev2, 4), Bytes(rows, r03))));
    // Unpacking works within each 128-bit quarter: q0 holds positions
    // [0-3|16-19|32-35|48-51], q1 [4-7|20-23|...] and so on; the quarters
    // are then transposed into positions 0-15, 16-31, 32-47 and 48-63.
    const __m512i zero = _mm512_setzero_si512();
    const __m512i low16a = _mm512_unpacklo_epi8(bits0to7, bits8to15);
    const __m512i low16b = _mm512_unpackhi_epi8(bits0to7, bits8to15);
    const __m512i high16a = _mm512_unpacklo_epi8(bits16to20, zero);
    const __m512i high16b = _mm512_unpackhi_epi8(bits16to20, zero);
    const __m512i q0 = _mm512_unpacklo_epi16(low16a, high16a);
    const __m512i q1 = _mm512_unpackhi_epi16(low16a, high16a);
    const __m512i q2 = _mm512_unpacklo_epi16(low16b, high16b);
    const __m512i q3 = _mm512_unpackhi_epi16(low16b, high16b);
    const __m512i t0 = _mm512_shuffle_i32x4(q0, q1, 0x44);
    const __m512i t1 = _mm512_shuffle_i32x4(q2, q3, 0x44);
    const __m512i t2 = _mm512_shuffle_i32x4(q0, q1, 0xEE);
    const __m512i t3 = _mm512_shuffle_i32x4(q2, q3, 0xEE);
    // Each quarter's place is counted from the whole mask, so the four
    // stores (and the next window) do not wait for one another.
    wchar_t* at = out + o;
    Emit16(_mm512_shuffle_i32x4(t0, t1, 0x88), static_cast<__mmask16>(ends), at);
    Emit16(_mm512_shuffle_i32x4(t0, t1, 0xDD), static_cast<__mmask16>(ends >> 16),
           at + __builtin_popcountll(ends & 0xFFFF));
    Emit16(_mm512_shuffle_i32x4(t2, t3, 0x88), static_cast<__mmask16>(ends >> 32),
           at + __builtin_popcountll(ends & 0xFFFFFFFF));
    Emit16(_mm512_shuffle_i32x4(t2, t3, 0xDD), static_cast<__mmask16>(ends >> 48),
           at + __builtin_popcountll(ends & 0xFFFFFFFFFFFF));
    o += static_cast<size_t>(__builtin_popcountll(ends));
}

KALDO_AVX512 void RunWindowsAvx512(const unsigned char* in, size_t size, wchar_t* out,
                                   WindowRun& run) {
    const Row64* rows = kRows64;
    __asm__("" : "+r"(rows));
    size_t p = run.p;
    size_t o = run.o;
    uint64_t lastEnds = 0;
    size_t lastWindow = 0;
    // A window reads [p - 4, p + 64) and writes at most 64 characters at o
    // (o < p).
    for (; p + 64 <= size; p += 64) {
        const __m512i current = Load64(in + p);
        const __m512i prev1 = Load64(in + p - 1);
        const uint64_t continuations = _mm512_cmpgt_epi8_mask(Bytes(rows, rC0), current);
        const uint64_t ends = ~continuations;
        if ((_mm512_movepi8_mask(prev1) | continuations) == 0) {
            Widen64(in + p - 1, out + o);
            o += 64;
        } else {
            const __m512i faults =
                Faults64(rows, current, prev1, Load64(in + p - 2), Load64(in + p - 3));
            if (_mm512_test_epi64_mask(faults, faults) != 0) {
                run.faulty = true;
                run.faultyEnd = p + 64;
                break;
            }
            EmitWindow64(rows, in, p, ends, out, o);
        }
        if (ends != 0) {
            lastEnds = ends;
            lastWindow = p;
        }
    }
    if (lastEnds != 0) run.next = lastWindow + static_cast<size_t>(63 - __builtin_clzll(lastEnds));
    run.p = p;
    run.o = o;
}

using RunWindows = void (*)(const unsigned char* in, size_t size, wchar_t* out, WindowRun& run);

// The widest windows this processor has, unless KALDO_UTF8_VECTOR caps them
// ("avx2", or "scalar" for none): the tests compare every path with a plain
// decoder on one machine.
RunWindows ChooseWindows() {
    __builtin_cpu_init();
    const char* cap = std::getenv("KALDO_UTF8_VECTOR");
    const std::string_view limit = cap ? cap : "";
    if (limit == "scalar") return nullptr;
    if (limit != "avx2" && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw"))
        return RunWindowsAvx512;
    if (__builtin_cpu_supports("avx2")) return RunWindowsAvx2;
    return nullptr;
}

// The careful path brings the text to a character start from which the
// windows can take over (they look four bytes back, and their first position
// must not be a stray continuation byte); a window that is not well formed
// hands its stretch back to the careful path; the tail is left to the
// portable loop.
size_t DecodeWithWindows(RunWindows runWindows, const unsigned char* in, size_t size, wchar_t* out,
                         bool final, size_t& consumed) {
    size_t i = 0;  // the next character not yet decoded starts here
    size_t o = 0;
    size_t carefulUntil = 4;
    for (;;) {
        while (i < size && (i < carefulUntil || IsContinuation(in[i]))) {
            if (!DecodeNext(in, size, i, out, o, final)) {
                consumed = i;
                return o;
            }
        }
        WindowRun run{i + 1, o, i};
        runWindows(in, size, out, run);
        i = run.next;
        o = run.o;
        if (!run.faulty) break;
        carefulUntil = run.faultyEnd;
    }
    return DecodeFrom(in, size, out, final, i, o, consumed);
}
#endif

// Filling the new characters in before the decoder writes them, as
// resize() must, costs a third of the decoding of mixed text (measured): the
// fill is a pass of its own over memory that the decoder then writes again.
// resize_and_overwrite grows the string without it; a library without it
// keeps the fill, correct and slower.
//
// Lets `write` put up to `extra` characters at the end of `text`; it returns
// how many it wrote, and the text grows by that many.
template <typename Write>
void AppendWritten(std::wstring& text, size_t extra, Write write) {
    const size_t old = text.size();
#if defined(__cpp_lib_string_resize_and_overwrite)
    text.resize_and_overwrite(old + extra,
                              [&](wchar_t* data, size_t) { return old + write(data + old); });
#else
    text.resize(old + extra);
    text.resize(old + write(text.data() + old));
#endif
}

}  // namespace

size_t DecodeUtf8(const unsigned char* in, size_t size, wchar_t* out, bool final,
                  size_t& consumed) {
#if KALDO_UTF8_AVX2
    static const RunWindows windows = ChooseWindows();
    if (windows) return DecodeWithWindows(windows, in, size, out, final, consumed);
#endif
    return DecodeFrom(in, size, out, final, 0, 0, consumed);
}

void AppendDecodedUtf8(const unsigned char* in, size_t size, bool final, std::wstring& out,
                       size_t& consumed) {
    AppendWritten(out, size,
                  [&](wchar_t* room) { return DecodeUtf8(in, size, room, final, consumed); });
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
