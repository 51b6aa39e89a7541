// UTF-8 <-> wide conversion: the decoding path is chosen here at run time
// (Utf8Paths.h), encoding is one loop.
#include <cstdlib>
#include <string_view>

#include "Utf8.h"
#include "Utf8Paths.h"

static_assert(sizeof(wchar_t) == 4, "CoreUtils keeps text as UTF-32 in 4-byte wchar_t");

namespace KALDO::detail {

namespace {

#if KALDO_UTF8_AVX2
// The AVX2 windows where the processor has them. In a build with test hooks
// KALDO_UTF8_VECTOR=scalar takes the portable loop: the tests compare both
// paths with a plain decoder on one machine.
bool UseAvx2() {
#if defined(KALDO_TEST_HOOKS)
    const char* cap = std::getenv("KALDO_UTF8_VECTOR");
    if (cap != nullptr && std::string_view(cap) == "scalar") return false;
#endif
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
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
    static const bool avx2 = UseAvx2();
    if (avx2) return DecodeAvx2(in, size, out, final, consumed);
#endif
    return DecodePortable(in, size, out, final, 0, 0, consumed);
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