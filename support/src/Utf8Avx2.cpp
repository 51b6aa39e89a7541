// The AVX2 decoding path (see Utf8Paths.h); Utf8.cpp calls it only where the
// processor has AVX2.
#include "Utf8Paths.h"

#if KALDO_UTF8_AVX2

#include <immintrin.h>

namespace KALDO::detail {

namespace {

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

}  // namespace

// The careful path brings the text to a character start from which the
// windows can take over (they look four bytes back, and their first position
// must not be a stray continuation byte); a window that is not well formed
// hands its stretch back to the careful path; the tail is left to the
// portable loop.
size_t DecodeAvx2(const unsigned char* in, size_t size, wchar_t* out, bool final,
                  size_t& consumed) {
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
        RunWindowsAvx2(in, size, out, run);
        i = run.next;
        o = run.o;
        if (!run.faulty) break;
        carefulUntil = run.faultyEnd;
    }
    return DecodePortable(in, size, out, final, i, o, consumed);
}

}  // namespace KALDO::detail

#endif
