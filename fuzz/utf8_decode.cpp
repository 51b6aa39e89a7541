// UTF-8 decoding: the vector decoders (16- and 32-byte steps) against a
// byte-at-a-time reading of the Unicode table of well-formed sequences;
// decoding in pieces (as the file reader does) against decoding at once;
// encoding back; and the file reader, with a 64 KiB read boundary placed
// inside the input.
#include <cstdint>
#include <string>

#include "FuzzKit.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CStringUtils.h"
#include "Utf8.h"

using KALDO::CStringUtils;

constexpr size_t npos = std::wstring::npos;

namespace {

// The second byte's range for each lead byte (Unicode Table 3-7); the later
// bytes are always 80..BF. Every maximal prefix that could still have become
// well formed counts as one U+FFFD.
std::wstring ReferenceDecode(const std::string& bytes) {
    std::wstring out;
    size_t i = 0;
    const size_t n = bytes.size();
    auto at = [&](size_t k) { return static_cast<unsigned char>(bytes[k]); };
    while (i < n) {
        const unsigned c = at(i);
        unsigned length = 0, lo = 0x80, hi = 0xBF;
        if (c <= 0x7F)
            length = 1;
        else if (c >= 0xC2 && c <= 0xDF)
            length = 2;
        else if (c == 0xE0)
            length = 3, lo = 0xA0;
        else if (c >= 0xE1 && c <= 0xEC)
            length = 3;
        else if (c == 0xED)
            length = 3, hi = 0x9F;
        else if (c >= 0xEE && c <= 0xEF)
            length = 3;
        else if (c == 0xF0)
            length = 4, lo = 0x90;
        else if (c >= 0xF1 && c <= 0xF3)
            length = 4;
        else if (c == 0xF4)
            length = 4, hi = 0x8F;
        if (length == 0) {
            out.push_back(0xFFFD);
            ++i;
            continue;
        }
        uint32_t cp = length == 1 ? c : c & (0xFF >> (length + 1));
        size_t k = 1;
        for (; k < length && i + k < n; ++k) {
            const unsigned b = at(i + k);
            if (b < (k == 1 ? lo : 0x80) || b > (k == 1 ? hi : 0xBF)) break;
            cp = (cp << 6) | (b & 0x3F);
        }
        out.push_back(k == length ? static_cast<wchar_t>(cp) : 0xFFFD);
        i += k;
    }
    return out;
}

// Decodes in pieces of 1..span bytes, carrying what a piece leaves
// unconsumed into the next, as a reader of a stream does.
std::wstring DecodeInPieces(const std::string& bytes, unsigned span) {
    std::wstring out;
    std::string pending;
    size_t next = 0;
    unsigned piece = 1;
    while (next < bytes.size() || !pending.empty()) {
        const size_t take = std::min<size_t>(piece, bytes.size() - next);
        pending.append(bytes, next, take);
        next += take;
        piece = piece % span + 1;
        const bool final = next == bytes.size();
        std::wstring chunk(pending.size(), L'\0');
        size_t consumed = 0;
        const size_t written =
            KALDO::detail::DecodeUtf8(reinterpret_cast<const unsigned char*>(pending.data()),
                                      pending.size(), chunk.data(), final, consumed);
        implvm_fuzz::Check(consumed <= pending.size() && written <= pending.size(),
                           "decoder used more than it was given");
        implvm_fuzz::Check(final ? consumed == pending.size() : pending.size() - consumed <= 3,
                           "decoder held back more than an unfinished sequence");
        out.append(chunk, 0, written);
        pending.erase(0, consumed);
        if (final) break;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    implvm_fuzz::BeginInput();
    const std::string bytes = implvm_fuzz::Bytes(data, size);

    const std::wstring decoded = CStringUtils::StringToWString(bytes);
    implvm_fuzz::Check(decoded == ReferenceDecode(bytes), "decoding differs from the table");
    if (size > 0 && size <= 4096) {  // piece by piece costs a call per few bytes
        implvm_fuzz::Check(DecodeInPieces(bytes, 1 + data[0] % 7) == decoded,
                           "decoding in pieces differs from decoding at once");
    }
    const std::string encoded = CStringUtils::WStringToString(decoded);
    implvm_fuzz::Check(CStringUtils::StringToWString(encoded) == decoded,
                       "encoding does not decode back");
    if (decoded.find(0xFFFD) == std::wstring::npos)
        implvm_fuzz::Check(encoded == bytes, "well-formed text does not encode back");

    // The file reader: a small file as it is (where a byte-order mark is
    // looked for), or after a 64 KiB run of ASCII minus 0..7 bytes, so that a
    // read boundary falls inside the input's first bytes.
    const bool padded = size > 0 && (data[0] & 0x80) == 0;
    const std::string pad(padded ? 65536 - data[0] % 8 : 0, 'a');
    const std::string path = std::string(implvm_fuzz::kHome) + "/text";
    implvm_fuzz::Mac().writeFile(path, pad + bytes);
    std::wstring read;
    const int rc = KALDO::CFileUtils::ReadFromTextFile(CStringUtils::StringToWString(path), read);
    implvm_fuzz::Check(rc >= 0, "a regular file could not be read");
    const bool bom = !padded && bytes.starts_with("\xEF\xBB\xBF");
    const std::wstring expected = bom ? ReferenceDecode(bytes.substr(3)) : decoded;
    implvm_fuzz::Check(read.size() == pad.size() + expected.size() &&
                           read.compare(0, pad.size(), std::wstring(pad.size(), L'a')) == 0 &&
                           read.compare(pad.size(), npos, expected) == 0,
                       "file reading differs from decoding");
    return 0;
}
