// UTF-8 <-> wide (UTF-32) conversion shared by the string and file
// operations. Internal to CoreUtils.
//
// Decoding follows the "maximal subpart" practice of the Unicode standard:
// every maximal prefix of a sequence that could still have become valid, and
// every byte that can never start one, becomes one U+FFFD. Overlong forms,
// surrogates and values above U+10FFFF are invalid.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace KALDO::detail {

inline constexpr wchar_t kReplacement = 0xFFFD;

// Decodes bytes [in, in + size) into out, which must have room for `size`
// wide characters (a byte never yields more than one). Returns how many were
// written; `consumed` receives how many bytes were used. When `final` is
// false, a sequence that is cut short by the end of the input (and valid so
// far) is left unconsumed so that the caller can complete it with the next
// chunk; when true, it becomes U+FFFD.
size_t DecodeUtf8(const unsigned char* in, size_t size, wchar_t* out, bool final, size_t& consumed);

// Decodes as DecodeUtf8 does and appends the characters to `out`. Reserve
// room for `size` more characters first to keep `out` from growing in steps.
void AppendDecodedUtf8(const unsigned char* in, size_t size, bool final, std::wstring& out,
                       size_t& consumed);

// Appends the UTF-8 form of `text` to `out`; code points that cannot be
// encoded become U+FFFD.
void EncodeUtf8(const wchar_t* text, size_t size, std::string& out);

}  // namespace KALDO::detail
